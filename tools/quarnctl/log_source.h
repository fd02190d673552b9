// Reads the Android log line by line: from logcat, a file, or a pipe.
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
    // `path`: a file or a named pipe; "-" for standard input; empty for logcat. With `follow`, the
    // source also reads what is written later. It follows a file by its name: the file may be cut
    // or replaced, and need not exist yet.
    LogSource(std::string path, bool follow);
    // Ends logcat.
    ~LogSource();
    LogSource(const LogSource&) = delete;
    LogSource& operator=(const LogSource&) = delete;

    // Calls `take` with each line that is there, of up to 4 MiB. Does not block. If there is more,
    // `ReadyFd` is readable.
    void Read(const std::function<void(std::string_view)>& take);
    // Returns the descriptor that becomes readable when there are new lines, or -1 if the caller
    // has to call `Read` now and then.
    int ReadyFd() const { return at_end ? -1 : fd.get(); }
    // Returns true if there will be no more lines.
    bool HasEnded() const { return ended; }
    bool IsLogcat() const { return from.empty(); }
    // The reason if the log cannot be read, and what the user can try; else empty.
    const std::string& why() const { return trouble; }

  private:
    void StartLogcat();
    void EndLogcat();
    void OpenFile();
    // Opens the file again if its name belongs to another file now, after the rest of the old file.
    // Rewinds the file if it was cut. Returns true if there may be more to read.
    bool BeginsAnew(const std::function<void(std::string_view)>& take);
    void ReadPieces(const std::function<void(std::string_view)>& take);
    bool ReadPiece(const std::function<void(std::string_view)>& take);
    void TakeLines(const std::function<void(std::string_view)>& take);
    void AtEnd(const std::function<void(std::string_view)>& take);

    const std::string from;
    const bool follows;
    Descriptor fd;
    pid_t logcat = -1;  // the leader of its own process group; -1 if logcat does not run
    bool at_end = false;
    bool ended = false;
    std::string pending;    // the beginning of a line
    std::string last_line;  // if logcat fails, its last line says why
    std::string trouble;
};

}  // namespace quarnctl
