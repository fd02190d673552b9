// Runs the test cases that the command line names; in a box only.
#include <android/log.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // The paths are the daemon's own fixed ones: they must not be this machine's.
    if (!std::filesystem::exists("/box")) {
        fprintf(stderr, "run this in a box: sim/box %s\n", argv[0]);
        return 2;
    }
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    return RUN_ALL_TESTS();
}
