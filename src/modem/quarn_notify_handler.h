// Modem notifications: keeps what the modem tells about itself, and turns the rest into requests to
// reader, writer and log filter manager.
#pragma once

#include "core/quarn_handle.h"
#include "platform/mcl.h"

class QUARN_NOTIFY_HANDLER : public QUARN_HANDLE {
  public:
    QUARN_NOTIFY_HANDLER() : QUARN_HANDLE(HANDLE_NOTIFY) {}

    // Registers the callback; 1 when the modem layer refuses.
    int32_t init() override;
};

extern QUARN_NOTIFY_HANDLER g_notify;

// The callback; runs on the modem layer's thread and holds `exec_mutex` throughout. Always 0.
int quarn_mclNtfyCallback(void* user, MCL_NTFY_CODE code, void* payload);
