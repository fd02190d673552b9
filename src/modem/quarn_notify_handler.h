// Modem notifications. The handler stores the modem's information about itself, and passes most
// notifications on as requests to the reader, the writer and the log filter manager.
#pragma once

#include "core/quarn_handle.h"
#include "platform/mcl.h"

class QUARN_NOTIFY_HANDLER : public QUARN_HANDLE {
  public:
    QUARN_NOTIFY_HANDLER() : QUARN_HANDLE(HANDLE_NOTIFY) {}

    // Registers the callback. Returns 0, or 1 if the modem layer refuses it.
    int32_t init() override;
};

extern QUARN_NOTIFY_HANDLER g_notify;

// The callback. Runs on the thread of the modem layer and holds `exec_mutex` until its end. Always
// returns 0.
int quarn_mclNtfyCallback(void* user, MCL_NTFY_CODE code, void* payload);
