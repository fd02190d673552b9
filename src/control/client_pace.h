// Limits how fast clients are served.
#pragma once

namespace quarn::zorvex {

// Waits for the next turn. A listener takes one turn for each new client, for each piece of a
// request, and for the end of a connection. Up to 100 turns are free at once; after that there is a
// turn every 2 ms. Both sockets share these turns.
//
// Without this limit, clients that connect or send without a pause could take the processor from
// the capture, and fill the Android log that other programs use too.
//
// Thread-safe. No lock is held during the wait. Blocks for up to 2 ms for each waiting thread.
void AwaitClientTurn();

}  // namespace quarn::zorvex
