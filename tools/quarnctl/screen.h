// Shows a screen on the terminal, and restores the terminal when a signal ends or stops the
// program.
#pragma once

#include <string>
#include <vector>

#include "connection.h"

namespace quarnctl {

// Returns `text` with "?" in the place of each control character. Names and log lines may come from
// anywhere, and a terminal obeys such characters.
std::string Printable(std::string text);

// Only one object at a time, because signals belong to the process.
class Screen {
  public:
    // Takes over the terminal on standard output if there is one and it is `wanted`. Catches the
    // signals in any case.
    explicit Screen(bool wanted);
    // Restores the terminal.
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    bool IsTerminal() const { return terminal; }
    // Returns the number of columns, 80 without a terminal.
    size_t Width() const;
    // Shows the lines from the top of the screen on. Leaves out what does not fit.
    void Draw(const std::vector<std::string>& lines) const;

    // Becomes readable when a signal has come.
    int SignalFd() const { return signals.get(); }
    // Handles the signals that have come. Ctrl-Z stops the process; the call returns when it goes
    // on. Returns the signal that is to end the process, or 0.
    int TakeSignals();

  private:
    void Enter() const;
    void Leave() const;

    const bool terminal;
    Descriptor signals;
};

}  // namespace quarnctl
