// The command table: what local clients can ask and set. docs/control-protocol.md is the page
// beside it.
#pragma once

#include <cstdint>
#include <span>

// Part of this interface: whoever sends commands may also switch the transfer type directly.
#include "control/transfer_type.h"
#include "core/quarn_handle.h"

// `arg` is null in a query. `ack` is a zeroed reply block (protocol::kReplySize). 0 on success, -1
// on failure.
typedef int (*quarn_command_handler)(const char* arg, char* ack);

struct QUARN_COMMAND_INFO {
    // Matched as a prefix of the request.
    const char* name;
    // Saved whatever the transfer type.
    uint32_t save_unfiltered;
    // Never saved.
    uint32_t handle_only;
    // Saved when the handler returned 0.
    uint32_t save_on_success;
    quarn_command_handler handler;
    // Whose lines a saved line of this key replaces.
    std::span<const char* const> related_keys;
};

std::span<const QUARN_COMMAND_INFO> quarn_commandTable();

class QUARN_COMMAND_HANDLE : public QUARN_HANDLE {
  public:
    QUARN_COMMAND_HANDLE() : QUARN_HANDLE(HANDLE_COMMAND) {}
    // 0, or 1 when the command socket could not be opened.
    int32_t start() override;
    int32_t stop() override;
};

extern QUARN_COMMAND_HANDLE g_command;

// Serves one request of the client: 0 when a reply was sent, else -1.
int quarn_ctrlConnCallback(int fd);
