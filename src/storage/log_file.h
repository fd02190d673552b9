// One open log file: a header, then blocks (log_file_format.h).
//
// The descriptor is stored in the `fd` of the storage channel, because `common_write` writes to
// that.
//
// REQUIRES: the channel's `io_mutex` is held.
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
    // The channel and the file sync are not owned.
    LogFile(QUARN_IO& io_channel, FileSync& file_sync) : channel(io_channel), sync(file_sync) {}
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    bool is_open() const { return channel.fd >= 0; }
    const std::string& path() const { return file_path; }
    // Returns the number of bytes that `Append` wrote to the file. The header is not counted.
    uint32_t written() const { return file_written; }

    // Creates a file, in up to three attempts, 1 s apart. Calls `next_path` before each attempt for
    // the file's path. Returns true on success.
    bool Open(const std::function<std::string()>& next_path);
    // Writes the header of a new file. `folder_time` is the creation time of the capture folder,
    // `file_idx` the index of the file in the folder. Returns true on success.
    bool WriteHeader(time_t folder_time, uint32_t file_idx);

    struct Appended {
        // All bytes are in the file.
        bool whole = false;
        // The write failed, and the bytes that it had written could not be removed. The caller must
        // close the file.
        bool partly_written = false;
        // If `partly_written`: the number of new bytes in the file. Otherwise 0.
        size_t stayed = 0;
    };
    // Appends `bytes`. If the write fails, cuts the file back to its previous end. If neither
    // `whole` nor `partly_written` is set, this succeeded and the file is unchanged.
    Appended Append(std::string_view bytes);

    // Returns true if the open file was deleted or cut. The caller must not write to it any more:
    // readers cannot find a deleted file, and in a file that was cut the new bytes might follow a
    // part of a block or have no header before them.
    bool IsLost() const { return HasVanished() || (is_open() && BytesCut() > 0); }
    // Adjusts the path after the folder `from` was renamed to `to`.
    void FolderRenamed(const std::string& from, const std::string& to);
    // Closes the file. Returns true if the file had been deleted.
    bool Close();

  private:
    // Returns true if the open file was deleted.
    bool HasVanished() const;
    // Returns the number of bytes that were cut from the end of the open file; 0 or less if none.
    off_t BytesCut() const;

    QUARN_IO& channel;
    FileSync& sync;
    std::string file_path;
    uint32_t file_written = 0;
    // In bytes; 0 until the header has been written.
    off_t header_length = 0;
};

}  // namespace quarn::zorvex
