// Queries the daemon's settings in the background.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "status.h"

namespace quarnctl {

// A thread sends the queries, because a reply may take minutes while the daemon copies files for
// another client. It uses one connection, and has one request open at a time.
//
// The daemon logs several lines for each request, and some requests need the modem. So the thread
// asks only when the connection is new, after `AskAgain`, and once a minute; never more often than
// twice a second.
class Asker {
  public:
    // Starts the thread, which runs until the process ends.
    Asker();

    struct View {
        bool asked = false;           // false before the first result
        std::vector<Answer> answers;  // empty if the daemon cannot be reached
        std::string why;              // the reason if the daemon cannot be reached
        bool waits = false;           // the daemon has not answered for 2 s
    };
    // Thread-safe, like `AskAgain`.
    View Look() const;
    void AskAgain();

  private:
    struct Shared;
    const std::shared_ptr<Shared> shared;
};

}  // namespace quarnctl
