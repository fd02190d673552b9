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
// Returns the bytes of the message's first value of that type, or null if there is none. They
// belong to the message, live as long as it, and may lie at any address. `length` may be null. A
// library may write the number of bytes to `*length`, or leave it as it is: a caller that wants to
// know sets it to -1 before. When no length is told, a number has its 4 bytes, and a text ends in
// its NUL.
void* mipc_msg_get_val_ptr(mipc_msg_t* msg, int type, int* length);
void mipc_msg_deinit(mipc_msg_t* msg);

}  // extern "C"
