// The socket of the console, and the start of the simulated phone.
#pragma once

#include <string>
#include <thread>

#include "sim/console.h"

namespace sim {

// Serves the socket file `console.socket` in the console's folder. A thread of its own runs until
// the destructor. It serves one client at a time, and answers each line with the text of the reply
// and a mark. It closes the connection of a client that sends nothing for 5 s.
class ConsoleServer {
  public:
    // The console is not owned and must outlive the server.
    explicit ConsoleServer(const Console& console);
    ~ConsoleServer();
    ConsoleServer(const ConsoleServer&) = delete;
    ConsoleServer& operator=(const ConsoleServer&) = delete;

    // Returns false if the socket could not be opened. errno has the reason directly after the
    // construction.
    bool ok() const { return listen_fd_ != -1; }

  private:
    void Serve();
    void ServeClient(int fd);

    const Console& console_;
    int listen_fd_ = -1;
    std::thread thread_;
};

// Starts the phone in the folder that the environment variable QUARN_SIM_DIR names: executes the
// files `setup`, `scenario` and `override` in it, in this order, and opens the console. Does
// nothing if the variable is not set, or if it was called before.
void StartPhone();

}  // namespace sim
