// Runs the test case that the command line names; in a box only.
#include <android/log.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace {

// The daemon's objects are global and never made anew: a second case would find what the first
// left.
class OneCaseOnly : public testing::EmptyTestEventListener {
    void OnTestProgramStart(const testing::UnitTest& tests) override {
        if (tests.test_to_run_count() <= 1 && GTEST_FLAG_GET(repeat) == 1) return;
        fprintf(stderr,
                "quarn_tests: one case a process; name it with --gtest_filter, or let ctest run "
                "them all\n");
        std::exit(2);
    }
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // The paths are the daemon's own fixed ones: they must not be this machine's.
    if (!std::filesystem::exists("/box")) {
        fprintf(stderr, "run this in a box: sim/box %s\n", argv[0]);
        return 2;
    }
    testing::UnitTest::GetInstance()->listeners().Append(new OneCaseOnly);
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    return RUN_ALL_TESTS();
}
