// How fast clients may be served.
#pragma once

namespace quarn::zorvex {

// Clients that connect or send without pause must take neither the processor from the capture nor
// the Android log from other programs. So each new client, and each piece of a request, waits for
// its turn: 100 at once, then one every 2 ms, of both sockets together. Thread-safe: a caller holds
// no lock while it waits, and waits for 2 ms per waiting thread at most.
void AwaitClientTurn();

}  // namespace quarn::zorvex
