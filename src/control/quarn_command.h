// The command table: what local clients can query and set. docs/control-protocol.md describes the
// commands.
#pragma once

#include <cstdint>
#include <span>

// Part of this interface: code that includes this header may call the functions of transfer_type.h.
#include "control/transfer_type.h"
#include "core/quarn_handle.h"

// `arg` is null in a query. `ack` is a zeroed reply block of protocol::kReplySize bytes, into which
// the handler writes the reply. Returns 0 on success, -1 on failure. Called by the thread of the
// command socket, for one request at a time.
typedef int (*quarn_command_handler)(const char* arg, char* ack);

struct QUARN_COMMAND_INFO {
    // A request selects the first row whose name is a prefix of the request.
    const char* name;
    // 1: the value is saved without a check. 0: a request to exit (transfer_type 3) is not saved.
    uint32_t save_unfiltered;
    // 1: the value is never saved. No command uses it today.
    uint32_t handle_only;
    // 1: the value is saved if the handler returned 0.
    uint32_t save_on_success;
    quarn_command_handler handler;
    // Keys whose lines are dropped from the configuration file when this command is saved.
    std::span<const char* const> related_keys;
};

std::span<const QUARN_COMMAND_INFO> quarn_commandTable();

class QUARN_COMMAND_HANDLE : public QUARN_HANDLE {
  public:
    QUARN_COMMAND_HANDLE() : QUARN_HANDLE(HANDLE_COMMAND) {}
    // Returns 0, or 1 if the command socket could not be opened.
    int32_t start() override;
    int32_t stop() override;
};

extern QUARN_COMMAND_HANDLE g_command;

// Serves one request of the client. Returns 0 if a reply was sent, otherwise -1.
int quarn_ctrlConnCallback(int fd);
