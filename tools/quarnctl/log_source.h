// The Android log, line by line: what logcat prints, a file, or a pipe.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "connection.h"

namespace quarnctl {

class LogSource {
  public:
    // `path`: a file or a named pipe, "-" for standard input, empty for logcat. With `follow` the
    // source goes on with what comes later. A file is then followed by its name: also when it is
    // cut, replaced, or not there yet.
    LogSource(std::string path, bool follow);
    // Ends logcat.
    ~LogSource();
    LogSource(const LogSource&) = delete;
    LogSource& operator=(const LogSource&) = delete;

    // Passes the lines that have come to `take`. Does not block.
    void Read(const std::function<void(std::string_view)>& take);
    // The descriptor that becomes readable when lines come; -1: none does, look now and then.
    int ReadyFd() const { return at_end ? -1 : fd.get(); }
    // Returns true if nothing comes any more.
    bool HasEnded() const { return ended; }
    bool IsLogcat() const { return from.empty(); }
    // Why there is nothing to read, and what the user can try; empty: there is.
    const std::string& why() const { return trouble; }

  private:
    void StartLogcat();
    void EndLogcat();
    void OpenFile();
    // Returns true if the file of that name is another one now, which has been opened, or was cut.
    bool BeginsAnew();
    bool ReadPiece(const std::function<void(std::string_view)>& take);
    void TakeLines(const std::function<void(std::string_view)>& take);
    void AtEnd(const std::function<void(std::string_view)>& take);

    const std::string from;
    const bool follows;
    Descriptor fd;
    pid_t logcat = -1;  // a process group of its own
    bool at_end = false;
    bool ended = false;
    std::string pending;    // the line that is not whole yet
    std::string last_line;  // logcat's last one tells why it failed
    std::string trouble;
};

}  // namespace quarnctl
