// The terminal as one screen, and the signals that end or stop a program that has it.
#pragma once

#include <string>
#include <vector>

#include "connection.h"

namespace quarnctl {

// Only one at a time: signals belong to the process.
class Screen {
  public:
    // Takes the terminal on standard output if there is one and it is `wanted`. Else only signals
    // are caught.
    explicit Screen(bool wanted);
    // The terminal is as it was.
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    bool IsTerminal() const { return terminal; }
    // Columns; 80 without a terminal.
    size_t Width() const;
    // Shows the lines from the top of the screen on; what does not fit is left out.
    void Draw(const std::vector<std::string>& lines) const;

    // Becomes readable when a signal has come.
    int SignalFd() const { return signals.get(); }
    // Handles the signals that have come: a stop (Ctrl-Z) stops the process and goes on with it.
    // Returns the signal that is to end the process, else 0.
    int TakeSignals();

  private:
    void Enter() const;
    void Leave() const;

    const bool terminal;
    Descriptor signals;
};

}  // namespace quarnctl
