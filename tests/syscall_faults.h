// System calls of this process that fail, from outside the code that makes them.
#pragma once

#include <climits>
#include <cstddef>

namespace test {

enum class Call {
    kOpen,  // also fopen
    kOpenFolder,
    kRead,  // with EINTR: waits until a signal comes or the fault is over
    kWrite,
    kSeek,
    kTruncate,
    kSync,
    kClose,  // the descriptor is gone all the same, as on Linux; also fclose
    kSendFile,
    kCopyRange,
    kMakeFolder,
    kRename,  // `where` is the old name
    kRemoveFile,
    kSyncAll,  // syncfs
    kSocket,
    kListen,
    kAccept,
    kSelect,  // for writing
    kThread,
};

constexpr int kEndsProcess = -1;

struct Fault {
    Call call;
    // errno; 0: a write is made, but takes no more than `limit` bytes; kEndsProcess: the process
    // ends before the call as by kill -9.
    int error = 0;
    const char* where = "";  // in the path, or in the name that the socket is bound to
    int count = INT_MAX;     // calls that fail
    int after = 0;           // calls that still go well before
    size_t limit = 0;
    bool hang = false;  // the calls, of those that take a descriptor, wait until the fault is gone
};

// While it lives, the calls that its fault names fail. Several may live at once: the newest one
// that fits counts. Calls that the C library makes for itself are not seen.
class FailCalls {
  public:
    explicit FailCalls(Fault what);
    ~FailCalls();
    FailCalls(const FailCalls&) = delete;
    FailCalls& operator=(const FailCalls&) = delete;

    int failed() const;  // calls so far

    const Fault fault;
    int seen = 0;  // calls that fit
};

}  // namespace test
