// Modem IPC: the closed library for requests to the modem. A message holds typed values (TLVs).
#pragma once

extern "C" {

typedef struct mipc_msg_t mipc_msg_t;

void mipc_set_host_api_timeout(int timeout_ms);
void SETCOM(const char* port);
int mipc_init(const char* port);
int mipc_deinit(void);

// Null on failure. Every message, request or confirmation, ends in `mipc_msg_deinit`.
mipc_msg_t* mipc_msg_init(int msg_id, int selector);
int mipc_msg_add_tlv(mipc_msg_t* msg, int type, int length, const void* value);
void mipc_msg_set_timeout_once(int timeout_ms);
// Sends `req` and waits for its confirmation; `*cnf` is null when none came.
int mipc_msg_sync_timeout_with_cause(mipc_msg_t* req, mipc_msg_t** cnf);
// Null when the message has no such value; the pointer is the message's own and may be unaligned.
void* mipc_msg_get_val_ptr(mipc_msg_t* msg, int type, int* length);
void mipc_msg_deinit(mipc_msg_t* msg);

}  // extern "C"
