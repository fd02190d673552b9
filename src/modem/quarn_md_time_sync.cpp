#include "modem/quarn_md_time_sync.h"

int32_t QUARN_MD_TIME_SYNC_HANDLE::init() { return 0; }
int32_t QUARN_MD_TIME_SYNC_HANDLE::start() { return 0; }
int32_t QUARN_MD_TIME_SYNC_HANDLE::stop() { return 0; }
