// Starting a thread with a name.
#pragma once

#include <pthread.h>

#include <cstring>
#include <system_error>
#include <thread>

#include "platform/quarn_log.h"

// Runs `body` on a new thread of this name. The name has at most 15 bytes and must stay valid as
// long as the process. Returns false if the thread could not be created: then it logs an error that
// begins with `who`, and there is nothing to join.
template <typename Body>
bool quarn_startThread(std::thread& thread, const char* name, const char* who, Body body) {
    try {
        thread = std::thread([name, body] {
            pthread_setname_np(pthread_self(), name);
            body();
        });
    } catch (const std::system_error& error) {
        const int code = error.code().value();
        QUARN_LOGE("%s: create thread fail, errno=%d(%s)", who, code, strerror(code));
        return false;
    }
    return true;
}
