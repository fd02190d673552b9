// Makes the creation of threads fail.
#pragma once

#include <cerrno>

#include "syscall_faults.h"

namespace test {

// While an object exists, no thread can be created.
struct NoNewThreads : FailCalls {
    NoNewThreads() : FailCalls({.call = Call::kThread, .error = EAGAIN}) {}
};

}  // namespace test
