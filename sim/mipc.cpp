// The modem IPC library of the simulated phone.
#include "platform/mipc.h"

#include <utility>

#include "sim/console_server.h"
#include "sim/ipc_message.h"
#include "sim/modem.h"

struct mipc_msg_t {
    sim::IpcMessage message;
    int selector;
};

namespace {

using sim::Modem;

constexpr int kNoTimeout = -1;
thread_local int timeout_once = kNoTimeout;  // ms, for the next exchange of this thread

}  // namespace

extern "C" {

void mipc_set_host_api_timeout(int timeout_ms) { Modem::Instance().SetIpcTimeout(timeout_ms); }

void SETCOM(const char* port) { Modem::Instance().SetIpcPort(port); }

int mipc_init(const char* port) {
    sim::StartPhone();
    return Modem::Instance().OpenIpc(port);
}

int mipc_deinit(void) { return Modem::Instance().CloseIpc(); }

mipc_msg_t* mipc_msg_init(int msg_id, int selector) {
    if (!Modem::Instance().MakesIpcMessage(msg_id)) return nullptr;
    return new mipc_msg_t{sim::IpcMessage(msg_id), selector};
}

int mipc_msg_add_tlv(mipc_msg_t* msg, int type, int length, const void* value) {
    if (msg == nullptr || length < 0 || (length > 0 && value == nullptr)) return -1;
    if (!Modem::Instance().TakesIpcValue(msg->message.id())) return -1;
    msg->message.Add(type, value, static_cast<size_t>(length));
    return 0;
}

void mipc_msg_set_timeout_once(int timeout_ms) { timeout_once = timeout_ms; }

int mipc_msg_sync_timeout_with_cause(mipc_msg_t* req, mipc_msg_t** cnf) {
    const int timeout = std::exchange(timeout_once, kNoTimeout);
    if (cnf != nullptr) *cnf = nullptr;
    if (req == nullptr || cnf == nullptr) return -1;
    sim::IpcReply reply = Modem::Instance().Exchange({req->message, req->selector, timeout});
    if (reply.confirmation) *cnf = new mipc_msg_t{std::move(*reply.confirmation), req->selector};
    return reply.cause;
}

void* mipc_msg_get_val_ptr(mipc_msg_t* msg, int type, int* length) {
    if (msg == nullptr || !msg->message.Has(type)) return nullptr;
    const auto bytes = msg->message.Bytes(type);
    if (length != nullptr && msg->message.has_lengths()) *length = static_cast<int>(bytes.size());
    return const_cast<uint8_t*>(bytes.data());
}

void mipc_msg_deinit(mipc_msg_t* msg) { delete msg; }

}  // extern "C"
