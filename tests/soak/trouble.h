// Everything that may happen to a running daemon, at once, from threads of its own; a seed decides
// what.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "tests/soak/account.h"
#include "tests/soak/phone.h"
#include "tests/soak/report.h"

namespace soak {

struct Counts {
    std::atomic<uint64_t> requests, answered_ok, garbage, copies, notifications, exceptions, faults,
        full_disks, subscribers, told, reboots, removals;
};

// Sends one request and waits for its reply, which is a fault when it does not come.
std::optional<std::string> Ask(Phone& phone, Report& report, const std::string& request);

class Trouble {
  public:
    Trouble(Phone& on, const Account& account, Report& report, Counts& counts, uint64_t seed);
    ~Trouble() { Stop(); }
    Trouble(const Trouble&) = delete;
    Trouble& operator=(const Trouble&) = delete;

    // From now on connections may end and the phone may be gone.
    void ExpectTheEnd() { ending = true; }
    void Stop();

  private:
    void SteerThePhone(Dice dice);
    void FillTheDisk(Dice dice);
    void SendRequests(Dice dice);
    void Copy(Dice dice);
    void Subscribe(Dice dice);
    void Pause(Dice& dice, uint64_t most_ms) const;
    void SendGarbage(Dice& dice, const Client& client);

    Phone& phone;
    const Account& account;
    Report& report;
    Counts& counts;
    std::atomic<bool> stopping = false;
    std::atomic<bool> ending = false;
    std::vector<std::thread> threads;
};

}  // namespace soak
