#include "fuzz.h"

#include <android/log.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>

#include "core/quarn.h"
#include "modem/quarn_mipc_cmd.h"
#include "platform/mcl.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

// `std::this_thread` calls this function to sleep.
extern "C" int nanosleep(const timespec*, timespec*) { return 0; }

extern "C" int LLVMFuzzerInitialize(int*, char*** argv) {
    if (!std::filesystem::exists("/box")) {
        fprintf(stderr, "run this in a box: sim/box %s\n", (*argv)[0]);
        exit(2);
    }
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    __android_log_set_logger([](const __android_logger_data*, const char*) {});
    fuzz::SetUp();
    return 0;
}

namespace fuzz {

void StartPhone() {
    std::filesystem::create_directories("/data/vendor/radio");
    g_file_io.create_top_folder();
    g_writer.init();
    g_log_filter_manager.init();
    Check(mcl_init() == 0 && quarn_mipcInit("/dev/wwanD0MIPC0") == 0, "the modem answers");
}

bool LeavesBox(std::string_view text) {
    for (const char* folder : {"tmp", "proc", "fd"}) {
        if (text.find(folder) != std::string_view::npos) return true;
    }
    return false;
}

}  // namespace fuzz
