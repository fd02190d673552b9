// The storage channel writes the log stream to compressed log files in capture folders.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>

#include "datapath/quarn_io.h"
#include "storage/block_buffer.h"
#include "storage/capture_tree.h"
#include "storage/file_sync.h"
#include "storage/log_file.h"
#include "storage/recycle_config.h"

// States:
// - Closed. `io_open` opens a capture.
// - Capture open, no file. The next write of the block buffer opens a file (".tmp").
// - File open. When the file has reached the rotation size, the next write of the buffer closes it
//   and opens the next file. The previous file then loses ".tmp". `io_close` leads to "closed".
//
// This class has the locks, the settings and the order of the steps. The block buffer, the log file
// and the capture tree perform the steps; these three do not use each other.
//
// Unless a comment says otherwise, the operations are thread-safe, and return 0 on success and -1
// on failure.
//
// Lock order: `io_mutex`; then one of `recycle_mutex`, `folder_name_mutex` and the power-on mutex
// (power_on_log.h); then one of the history mutex, `md_info_mutex` and the file sync's mutex.
class QUARN_FILE_IO : public QUARN_IO {
  public:
    explicit QUARN_FILE_IO(std::string base_folder);
    ~QUARN_FILE_IO() override;

    // Creates the base, config and log folder if they do not exist, and sets the umask to 0. Called
    // once at start-up.
    int create_top_folder();

    // Opens a capture: picks the next index, creates the folder, and gives the previous folder its
    // final name. Does nothing if a capture is open.
    int io_open() override;
    // Compresses `len` bytes into one block and appends it to the buffer. If the block might not
    // fit, first writes the buffer to the file. Returns `len` on success. On -1 the channel has
    // taken none of the bytes, and the caller may write them again.
    int io_write(const void* buf, int len) override;
    // Writes the buffer to the file, closes the file and ends the capture. Blocks that cannot be
    // written are dropped. Returns 0.
    int io_close() override;
    // Returns true if a capture is open.
    bool check_io_open();

    // Writes the buffer and, unless it is empty, one stray byte to the file and closes the file.
    // The capture stays open. Blocks that cannot be written are dropped. Returns -1 only if the
    // channel is closed.
    int close_log_file_with_flush();
    // Writes the buffer to the file. Blocks that cannot be written stay in the buffer. Returns -1
    // only if the channel is closed.
    int flush_ringBuf();

    // Marks the folder of the open capture: appends "_EE" to its name, unless the name has it
    // already. Does nothing if the suffix below is not "_EE". Returns 0.
    int rename_folder_ee();
    // Sets the suffix for the names of new folders and files. "_EE" marks an exception of the modem
    // (a crash), "" is no mark. `io_close` resets the suffix to "".
    void set_file_suffix(std::string suffix);

    // The rotation size, 1 to 4095 MB (of 1,048,576 bytes). `get_file_size` takes no lock.
    int set_file_size(int mb);
    int get_file_size() const;
    // `get_recycle_option` takes no lock, since recycling may hold `recycle_mutex` for long.
    // Returns -1 if the option is not known or the value is out of range.
    int set_recycle_option(QUARN_RECYCLE_OPT opt, unsigned int value);
    int get_recycle_option(QUARN_RECYCLE_OPT opt, unsigned int* value) const;
    // Selects the folder for later captures: the top log folder or a folder directly in it. Creates
    // the folder if it does not exist, unless the top log folder holds 4,096 or more entries.
    int set_log_folder(std::string path);
    std::string get_log_folder();

    // Returns the creation time of the open capture's folder, or 0 if no capture is open.
    // REQUIRES: no other operation of the channel runs, or the caller is itself such an operation.
    time_t get_cur_folder_time() const { return capture.folder_time(); }
    // Returns the folder of the open capture, or else of the last one. Empty if none is known.
    // REQUIRES: as above.
    std::string get_latest_folder_path() const { return capture.latest_folder(); }

    // Lock and unlock `folder_name_mutex` of the capture tree. While it is locked, no capture
    // folder is renamed.
    void acquire_folder_name_lock();
    void release_folder_name_lock();

  private:
    // What a flush writes after the last block. The stray byte marks the end of a file that was
    // closed on purpose; readers ignore it.
    enum class Flush { kExact, kWithStrayByte };

    // `io_close` for the destructor. Also writes the stray byte, and marks the folder if the suffix
    // is "_EE".
    int io_closeDtor();

    // REQUIRES for the functions below: io_mutex is held.

    int open_capture();
    // Writes the buffer to the file and clears it. Returns false on failure; the buffer then keeps
    // the blocks that are not in the file.
    bool flush_blocks(Flush how);
    // Like `flush_blocks`, but drops the blocks that cannot be written.
    void flush_last(Flush how);
    void close_capture_files(Flush how);
    void forget_capture();

    // Writes the buffer to the current file; opens the first or the next file before, if needed.
    // After success the caller clears the buffer. On -1 the buffer keeps exactly the blocks that
    // are not in the file.
    int save_to_log_file(Flush how);
    // Makes sure that a file below the rotation size is open.
    int ready_file();
    // Closes the channel if the folder of the capture no longer exists.
    void give_up_vanished_capture();
    // Both call `make_room`, and fail if the log tree stays above its size limit. `rotate` then
    // closes the file. They take `recycle_mutex`.
    int recycle();
    int rotate();
    // Deletes old log files if the log tree is above its size limit. Returns 0 if it is within its
    // limit afterwards. REQUIRES: recycle_mutex is held.
    int make_room();
    int open_new_log_file();
    void close_log_file();

    // Declared before `capture` and `file`, which use it until they are destroyed.
    quarn::zorvex::FileSync file_sync;
    quarn::zorvex::CaptureTree capture;
    quarn::zorvex::LogFile file;
    quarn::zorvex::BlockBuffer blocks;
    // "" or "_EE".
    std::string file_suffix;
    // The rotation size in bytes. Atomic, since it is read without a lock.
    std::atomic<uint32_t> file_size{50 * 1024 * 1024};

    RECYCLE_CONFIG recycle_config;
    std::mutex recycle_mutex;
};

extern QUARN_FILE_IO g_file_io;
