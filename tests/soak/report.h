// What a long run tells: faults at once, and a journal of all that was done for who looks for the
// cause of one. Any thread may write.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <random>
#include <string>

namespace soak {

class Report {
  public:
    explicit Report(const std::string& journal_path) : journal(fopen(journal_path.c_str(), "we")) {}
    ~Report() {
        if (journal != nullptr) fclose(journal);
    }
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    void Fault(const std::string& text) {
        ++fault_count;
        Say("FAULT " + text);
    }
    void Say(const std::string& text) {
        Note(text);
        printf("%s\n", text.c_str());
        fflush(stdout);
    }
    void Note(const std::string& text) {
        const std::chrono::duration<double> now = std::chrono::steady_clock::now() - start;
        std::lock_guard lock(mutex);
        if (journal != nullptr) fprintf(journal, "%9.3f %s\n", now.count(), text.c_str());
        if (journal != nullptr) fflush(journal);
    }
    int faults() const { return fault_count; }

  private:
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    FILE* const journal;
    std::mutex mutex;
    std::atomic<int> fault_count = 0;
};

// What a seed decides.
class Dice {
  public:
    explicit Dice(uint64_t seed) : random(seed) {}
    uint64_t Below(uint64_t sides) { return random() % sides; }
    bool OneIn(uint64_t sides) { return Below(sides) == 0; }
    std::string Number(uint64_t from, uint64_t to) {
        return std::to_string(from + Below(to - from + 1));
    }
    template <typename List>
    const auto& Of(const List& list) {
        return list[Below(std::size(list))];
    }

  private:
    std::mt19937_64 random;
};

}  // namespace soak
