// Runs the test case that the command line names. For use in a box.
#include <android/log.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace {

// The daemon's objects are global and constructed once. A second case would find the state that the
// first one left.
class OneCaseOnly : public testing::EmptyTestEventListener {
    void OnTestProgramStart(const testing::UnitTest& tests) override {
        if (tests.test_to_run_count() == 1 && GTEST_FLAG_GET(repeat) == 1) return;
        fprintf(stderr,
                "quarn_tests: runs one case per process, not %d; name it with --gtest_filter, or "
                "let ctest run them all\n",
                tests.test_to_run_count());
        std::exit(2);
    }
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // The daemon's paths are fixed. Outside a box they would be those of this machine.
    if (!std::filesystem::exists("/box")) {
        fprintf(stderr, "run this in a box: sim/box %s\n", argv[0]);
        return 2;
    }
    // Ends a case that hangs, also without ctest, whose limit is 120 s.
    alarm(115);
    testing::UnitTest::GetInstance()->listeners().Append(new OneCaseOnly);
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    return RUN_ALL_TESTS();
}
