// Modem IPC: the closed library for requests to the modem. A message holds typed values (TLVs).
#pragma once

extern "C" {

typedef struct mipc_msg_t mipc_msg_t;

void mipc_set_host_api_timeout(int timeout_ms);
void SETCOM(const char* port);
int mipc_init(const char* port);
int mipc_deinit(void);

// Returns null on failure. The caller frees every message, a request or a confirmation, with
// `mipc_msg_deinit`.
mipc_msg_t* mipc_msg_init(int msg_id, int selector);
int mipc_msg_add_tlv(mipc_msg_t* msg, int type, int length, const void* value);
void mipc_msg_set_timeout_once(int timeout_ms);
// Sends `req` and waits for its confirmation. `*cnf` gets the confirmation, or null if none came.
int mipc_msg_sync_timeout_with_cause(mipc_msg_t* req, mipc_msg_t** cnf);
// Returns the bytes of the message's first value of this type, or null if there is none. The bytes
// belong to the message, are valid as long as the message, and may not be aligned.
//
// `length` may be null. A library may store the number of bytes in `*length` or leave `*length`
// unchanged. So a caller that needs the length sets `*length` to -1 before the call. If the library
// stores no length, a number has 4 bytes and a text ends in a NUL.
void* mipc_msg_get_val_ptr(mipc_msg_t* msg, int type, int* length);
void mipc_msg_deinit(mipc_msg_t* msg);

}  // extern "C"
