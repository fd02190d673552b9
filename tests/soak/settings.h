// A client that changes settings without pause, and knows what the configuration file must hold
// when the daemon is killed.
#pragma once

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "core/quarn_config.h"
#include "tests/soak/phone.h"
#include "tests/soak/tree.h"
#include "tests/support.h"

namespace soak {

class Settings {
  public:
    // `before`: the configuration file at the daemon's start; "" if there was none.
    Settings(Phone& on, Report& out, const std::string& before, const std::string& factory_default,
             uint64_t seed)
        : phone(on),
          report(out),
          had_file(!before.empty()),
          config(had_file ? before : factory_default),
          dice(seed),
          thread([this] { Run(); }) {}
    ~Settings() { End(); }
    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;

    // Called after the end of the daemon. The configuration file must be the complete old one or
    // the complete new one, or not exist yet.
    void Check() {
        End();
        if (!had_file && !fs::exists(kConfigPath)) return;
        const std::string text = test::ReadFile(kConfigPath);
        if (text != config && (in_flight.empty() || text != Saved(config, in_flight))) {
            report.Fault("the configuration file holds\n" + text + "instead of\n" + config +
                         "in flight: " + in_flight);
        }
        report.Add("new configuration files left behind",
                   fs::exists(std::string(kConfigPath) + ".new"));
    }

  private:
    // The configuration file once `request`, a key and its value, is saved in it.
    static std::string Saved(std::string text, const std::string& request) {
        const std::string key = request.substr(0, request.find(' ') + 1);
        const size_t line = ("\n" + text).find("\n" + key);
        if (line == std::string::npos) return text + request + "\n";
        return text.replace(line, text.find('\n', line) - line, request);
    }

    std::string Draw() {
        struct Setting {
            const char* key;
            uint64_t lowest, highest;
        };
        static constexpr Setting kSettings[] = {{"file_size ", 1, kLargestFileMb},
                                                {"recycle_size ", 8, kLargestTreeMb},
                                                {"recycle_keep_ee_size ", 0, 2},
                                                {"recycle_ee ", 1, 1},
                                                {"log_level ", 0, 6},
                                                {"flush_interval ", 100, 99999}};
        const auto& [key, lowest, highest] = kSettings[dice.Below(std::size(kSettings))];
        return key + std::to_string(lowest + dice.Below(highest - lowest + 1));
    }

    void Run() {
        // The first two requests limit the tree's size again if the daemon lost its configuration.
        for (int number = 0; !ended; ++number) {
            in_flight = number == 0 ? "file_size 1" : number == 1 ? "recycle_size 8" : Draw();
            while (!in_flight.empty() && !ended) {
                const std::string reply = phone.Ask(in_flight);
                if (reply == "ok") {
                    config = Saved(config, in_flight);
                    in_flight.clear();
                    report.Add("settings saved");
                } else if (reply == test::Client::kClosed) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));  // not up, or gone
                }
            }
        }
    }

    void End() {
        ended = true;
        if (thread.joinable()) thread.join();
    }

    Phone& phone;
    Report& report;
    const bool had_file;
    std::string config;
    Dice dice;
    std::string in_flight;  // the request that has no reply yet
    std::atomic<bool> ended = false;
    std::thread thread;
};

}  // namespace soak
