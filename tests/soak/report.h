// What a long run tells: faults at once, and a journal of all that was done for who looks for the
// cause of one. Any thread may write.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <mutex>
#include <random>
#include <string>

namespace soak {

class Report {
  public:
    explicit Report(const std::string& journal_path) : journal(journal_path) {}

    void Fault(const std::string& text) {
        ++faults;
        Say("FAULT " + text);
    }
    void Say(const std::string& text) {
        Note(text);
        std::cout << text << std::endl;
    }
    void Note(const std::string& text) {
        const std::chrono::duration<double> now = std::chrono::steady_clock::now() - start;
        std::lock_guard lock(mutex);
        journal << now.count() << " " << text << std::endl;
    }

    std::atomic<int> faults = 0;

  private:
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::mutex mutex;
    std::ofstream journal;
};

// What a seed decides.
class Dice {
  public:
    explicit Dice(uint64_t seed) : random(seed) {}
    uint64_t Below(uint64_t sides) { return random() % sides; }
    bool OneIn(uint64_t sides) { return Below(sides) == 0; }

  private:
    std::mt19937_64 random;
};

}  // namespace soak
