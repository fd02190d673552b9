// One open log file: its header, then blocks (log_file_format.h).
//
// The descriptor is the `fd` of the channel that the file belongs to, since `common_write` writes
// there. Runs under that channel's `io_mutex`.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>

#include "datapath/quarn_io.h"
#include "storage/file_sync.h"

namespace quarn::zorvex {

class LogFile {
  public:
    // Neither is owned.
    LogFile(QUARN_IO& io_channel, FileSync& file_sync) : channel(io_channel), sync(file_sync) {}
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    bool is_open() const { return channel.fd >= 0; }
    const std::string& path() const { return file_path; }
    // Bytes that `Append` put into the file.
    uint32_t written() const { return file_written; }

    // Creates a file. `next_path` names it anew for each of three attempts, 1 s apart. Returns true
    // on success.
    bool Open(const std::function<std::string()>& next_path);
    // Writes the header of a new file: `folder_time` is the creation of the capture folder,
    // `file_idx` the number of the file in it. Returns true on success.
    bool WriteHeader(time_t folder_time, uint32_t file_idx);

    struct Appended {
        // All bytes are in the file.
        bool whole = false;
        // A part of them went out and could not be cut off: the file has to be closed.
        bool torn = false;
        // Bytes of that part.
        size_t stayed = 0;
    };
    // Appends `bytes`. If neither `whole` nor `torn`, nothing of them is in the file.
    Appended Append(std::string_view bytes);

    // Returns true if somebody deleted the open file, so that nobody can find what is written to
    // it, or cut it, so that what is written to it would have no header or begin within a block.
    bool IsLost() const { return HasVanished() || (is_open() && BytesCut() > 0); }
    // The folder of the file was renamed.
    void FolderRenamed(const std::string& from, const std::string& to);
    // Closes the file. Returns true if somebody had deleted it.
    bool Close();

  private:
    bool HasVanished() const;
    // What is missing from the end of the open file: no more than 0 when nothing is.
    off_t BytesCut() const;

    QUARN_IO& channel;
    FileSync& sync;
    std::string file_path;
    uint32_t file_written = 0;
    // Of the open file, once it is whole.
    off_t header_length = 0;
};

}  // namespace quarn::zorvex
