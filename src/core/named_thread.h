// Starting a thread that carries a name.
#pragma once

#include <pthread.h>

#include <cstring>
#include <system_error>
#include <thread>

#include "platform/quarn_log.h"

// Runs `body` on a new thread of that name, which lasts as long as the process (15 bytes at most).
// False, with an error line of `who` and nothing to join, when there can be none.
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
