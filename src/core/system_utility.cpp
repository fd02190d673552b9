#include "core/system_utility.h"

#include <sys/stat.h>

#include "platform/quarn_log.h"
#include "platform/system_properties.h"

int32_t quarn_property_set(const char* name, const char* value) {
    const int rc = __system_property_set(name, value);
    QUARN_LOGE("quarn_property_set: rc %d", rc);
    if (rc != 0) QUARN_LOGE("quarn_property_set fail, rc=%d", rc);
    return rc;
}

bool quarn_check_dir_exist(const char* path) {
    struct stat status;
    return stat(path, &status) == 0 && (status.st_mode & S_IFDIR) != 0;
}

void quarn_sighandler(int) {}
