// Asks the daemon for its settings beside a program that has other things to do.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "status.h"

namespace quarnctl {

// A thread of its own asks: while the daemon serves another client's copy, a reply takes minutes.
// There is one connection, and one request at a time.
//
// The daemon's log has some lines for each request, and a request may need the modem. So the thread
// asks when the connection is new, on `AskAgain`, and else once a minute.
class Asker {
  public:
    // The thread goes on until the process ends.
    Asker();

    struct View {
        bool asked = false;           // there is an outcome
        std::vector<Answer> answers;  // empty: the daemon cannot be reached
        std::string why;              // it cannot be reached
        bool waits = false;           // the daemon has not answered for some time
    };
    // Thread-safe, and so is `AskAgain`.
    View Look() const;
    void AskAgain();

  private:
    struct Shared;
    const std::shared_ptr<Shared> shared;
};

}  // namespace quarnctl
