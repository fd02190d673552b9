// The steps of the daemon, from the first handle's `init` to the last handle's `stop`.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>

#include "core/quarn.h"
#include "core/quarn_config.h"
#include "core/system_utility.h"
#include "core/version.h"
#include "modem/quarn_mipc_cmd.h"
#include "platform/mcl.h"
#include "platform/quarn_log.h"
#include "storage/custom_header.h"
#include "storage/power_on_log.h"

namespace {

// The results of `init` and `start` are ignored: if one handle fails, the others still work.
void init_handles() {
    g_writer.init();
    g_reader.init();
    g_command.init();
    g_tool.init();
    g_notify.init();
    g_event_detect.init();
    g_md_time_sync.init();
    g_log_filter_manager.init();
    QUARN_LOGI("init all handle done");
}

void wait_for_modem_layer() {
    while (mcl_init() != 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

// From here on the reader fills the ring. Nothing drains the ring until the writer starts in the
// second group.
void start_first_group() {
    g_reader.start();
    g_tool.start();
    g_notify.start();
    g_event_detect.start();
    g_md_time_sync.start();
}

void install_signal_handlers() {
    struct sigaction action = {};
    sigemptyset(&action.sa_mask);
    action.sa_handler = SIG_IGN;
    if (sigaction(SIGPIPE, &action, nullptr) != 0) {
        QUARN_LOGE("ignore SIGPIPE failed, errno=%s", strerror(errno));
    }
    action.sa_handler = quarn_sighandler;  // no SA_RESTART: the signal must interrupt system calls
    if (sigaction(SIGUSR1, &action, nullptr) != 0) {
        QUARN_LOGE("register signal handler failed, errno=%s", strerror(errno));
    }
}

// Loading the settings and setting the modem's clock need modem IPC. If modem IPC failed, `main`
// leaves this step out, and the daemon runs with its defaults.
void configure() {
    if (const int32_t rc = quarn_loadConfig(kConfigPath, 0); rc != 0) {
        QUARN_LOGE("load config failed, rc=%d", rc);
    } else {
        QUARN_LOGI("load config done");
    }
    time_t now;
    if (time(&now) == static_cast<time_t>(-1)) {
        QUARN_LOGE("get system time failed, errno=%s", strerror(errno));
    } else if (quarn_mipcSetTime(&now) != 0) {
        QUARN_LOGE("set md time failed");
    }
}

// These handles start once the configuration is in force.
void start_second_group() {
    g_writer.start();
    g_command.start();
    g_log_filter_manager.start();
    QUARN_LOGI("start all handler done");
    g_quarn.is_started = true;
}

void supervise() {
    constexpr int kReportPeriod = 8;  // seconds
    int seconds = 0;
    while (!g_quarn.is_close) {
        ++seconds;
        std::this_thread::sleep_for(std::chrono::seconds(1));
        if (seconds == kReportPeriod) {
            quarn_report_statistics();
            seconds = 0;
        }
    }
    QUARN_LOGI("quarn.is_close is set");
}

void stop_handles() {
    g_log_filter_manager.stop();
    g_md_time_sync.stop();
    g_event_detect.stop();
    g_notify.stop();
    g_tool.stop();
    g_command.stop();
    g_reader.stop();
    quarn_endCallbacks();  // a later callback could start the writer again
    g_writer.stop();
    // An exit request stops the writer first, so the reader may have filled the ring for another
    // second or more.
    if (const size_t left = g_ring.current_size(); left != 0) {
        QUARN_LOGW("quarn: drop %zu bytes that came behind the writer's stop", left);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        printf("quarn %s\n", quarn::kVersion);
        return 0;
    }
    QUARN_LOGI("start init quarn");
    quarn_property_set("vendor.quarn.qrx.restart", "0");
    init_handles();
    wait_for_modem_layer();
    g_file_io.create_top_folder();
    quarn::zorvex::PowerOnLogInit();
    quarn::zorvex::CustomHeaderInfoInit();
    start_first_group();
    install_signal_handlers();
    if (quarn_mipcInit("/dev/wwanD0MIPC0") == 0) configure();
    start_second_group();
    supervise();
    stop_handles();
    quarn_mipcDeinit();
    QUARN_LOGI("stop all handler done");
    quarn::zorvex::PowerOnLogDeInit();
    mcl_deinit();
    return 0;
}
