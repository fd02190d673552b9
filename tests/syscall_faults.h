// Makes system calls of this process fail. The code that makes the calls is unchanged.
#pragma once

#include <climits>
#include <cstddef>

namespace test {

enum class Call {
    kOpen,  // also fopen
    kOpenFolder,
    kRead,  // with EINTR: blocks until a signal arrives or the fault ends
    kWrite,
    kSeek,
    kTruncate,
    kSync,
    kClose,  // also fclose; closes the descriptor even if it fails, as on Linux
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
    // The errno. With 0, a write succeeds, but writes at most `limit` bytes. With kEndsProcess, the
    // process ends before the call, as after kill -9.
    int error = 0;
    const char* where = "";  // a part of the path, or of the name that the socket is bound to
    int count = INT_MAX;     // number of calls that fail
    int after = 0;           // number of calls before them that succeed
    size_t limit = 0;        // bytes
    bool hang = false;       // calls with a descriptor block until the fault ends
};

// While an object exists, the calls that its fault describes fail. If several objects match a call,
// the newest one counts. Calls that the C library makes internally are not affected.
class FailCalls {
  public:
    explicit FailCalls(Fault what);
    ~FailCalls();
    FailCalls(const FailCalls&) = delete;
    FailCalls& operator=(const FailCalls&) = delete;

    // Returns the number of calls that have failed so far.
    int failed() const;

    const Fault fault;
    int seen = 0;  // number of calls that matched
};

}  // namespace test
