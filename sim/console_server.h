// The console's socket file, and the phone that the environment asks for.
#pragma once

#include <string>
#include <thread>

#include "sim/console.h"

namespace sim {

// Serves `console.socket` in the console's folder from a thread of its own while it lives. Clients
// are served one after another: each line is answered by the reply's text and a mark. One that is
// silent for some seconds is let go.
class ConsoleServer {
  public:
    // The console must outlive the server.
    explicit ConsoleServer(const Console& console);
    ~ConsoleServer();
    ConsoleServer(const ConsoleServer&) = delete;
    ConsoleServer& operator=(const ConsoleServer&) = delete;

    bool ok() const { return listen_fd_ != -1; }  // errno says why not, right after construction

  private:
    void Serve();
    void ServeClient(int fd);

    const Console& console_;
    int listen_fd_ = -1;
    std::thread thread_;
};

// The first call makes the phone what its folder says, when the environment variable
// QUARN_SIM_DIR names one: executes the files `setup`, `scenario` and `override` in it, in this
// order, and opens the console. Nothing happens without the variable, or at later calls.
void StartPhone();

}  // namespace sim
