// The modem communication layer of the simulated phone.
#include "platform/mcl.h"

#include "sim/console_server.h"
#include "sim/modem.h"

extern "C" {

int mcl_init(void) {
    sim::StartPhone();
    return sim::Modem::Instance().Init();
}

int mcl_deinit(void) { return sim::Modem::Instance().Deinit(); }

int mcl_openLogPort(void) { return sim::Modem::Instance().OpenPort(); }

int mcl_closeLogPort(void) { return sim::Modem::Instance().ClosePort(); }

int mcl_pollLogPort(int timeout_ms) { return sim::Modem::Instance().PollPort(timeout_ms); }

int mcl_readFromLogPort(void* buf, unsigned int len, int* err) {
    return sim::Modem::Instance().ReadPort(buf, len, err);
}

int mcl_writeToLogPort(const void* buf, unsigned int len) {
    return sim::Modem::Instance().WritePort(buf, len);
}

int mcl_registerNotifyCallback(mcl_ntfy_callback callback, void* user) {
    if (callback == nullptr) return -1;
    sim::Modem::Instance().RegisterCallback(callback, user);
    return 0;
}

}  // extern "C"
