// The storage channel: compressed log files in capture folders, rotated by size.
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

// States: closed -> `io_open` -> capture open, no file -> first flushed block -> file open (".tmp")
// -> rotation: next file open, the one before renamed without ".tmp" -> `io_close` -> closed.
//
// This class has the locks, the settings and the order of the steps. The steps themselves are those
// of the block buffer, the log file and the capture tree, none of which knows of the others.
//
// Locks, in order: `io_mutex`, then one of `recycle_mutex`, `folder_name_mutex`, the history mutex,
// the power-on mutex (power_on_log.h) and, also inside the last, `md_info_mutex`. All operations
// return 0 on success and -1 on failure unless they say otherwise.
class QUARN_FILE_IO : public QUARN_IO {
  public:
    explicit QUARN_FILE_IO(std::string base_folder);
    ~QUARN_FILE_IO() override;

    // Creates base, config and log folder, and sets the umask to 0. Once at start-up.
    int create_top_folder();

    // Opens a capture: picks the next index, creates the folder, gives the folder before its final
    // name. An open capture goes on. No file is opened yet, the first flushed block does that.
    int io_open() override;
    // Compresses `len` bytes as one block into the buffer, which goes to the file when it is full.
    // `len` on success. On -1 nothing of `buf` was taken; offer it again.
    int io_write(const void* buf, int len) override;
    // Flushes, closes the file, ends the capture.
    int io_close() override;
    bool check_io_open();

    // Flushes with one stray byte behind the last block and closes the file; the capture goes on.
    int close_log_file_with_flush();
    // Writes what is buffered to the file.
    int flush_ringBuf();

    // Appends "_EE" to the current folder's name when the suffix asks for it.
    int rename_folder_ee();
    void set_file_suffix(std::string suffix);

    // Rotation size, 1 to 4095 MB. Reading takes no lock.
    int set_file_size(int mb);
    int get_file_size() const;
    // Reading takes no lock: recycling, which holds the mutex, may last long.
    int set_recycle_option(QUARN_RECYCLE_OPT opt, unsigned int value);
    int get_recycle_option(QUARN_RECYCLE_OPT opt, unsigned int* value) const;
    // The log folder or one folder directly in it; created if missing, unless the log folder
    // holds 4,096 entries. Takes effect with the next capture.
    int set_log_folder(std::string path);
    std::string get_log_folder();

    // REQUIRES: no operation of the channel runs at the same time, or the caller runs inside one.
    time_t get_cur_folder_time() const { return capture.folder_time(); }
    std::string get_latest_folder_path() const { return capture.latest_folder(); }

    // While it is held no capture folder is renamed.
    void acquire_folder_name_lock();
    void release_folder_name_lock();

  private:
    // How a flush of the buffer ends. The stray byte, one more than the blocks, marks the end of a
    // file that was closed on purpose; readers ignore it.
    enum class Flush { kExact, kWithStrayByte };

    int io_closeDtor();

    // The rest runs under `io_mutex`.
    int open_capture();
    // Writes what is buffered; false, with the buffer kept, on failure.
    bool flush_blocks(Flush how);
    void flush_last(Flush how);
    void close_capture_files(Flush how);
    void forget_capture();

    // Writes what is buffered to the current file, after opening the first one or the next one. On
    // -1 the file holds nothing of what is left in the buffer; otherwise the caller clears it.
    int save_to_log_file(Flush how);
    // Sees to it that a file is open which may take more.
    int ready_file();
    void give_up_vanished_capture();
    int recycle();
    int rotate();
    int make_room();  // under `recycle_mutex`
    int open_new_log_file();
    void close_log_file();

    // Owned, with its thread. Outlives the two that call it.
    quarn::zorvex::FileSync file_sync;
    quarn::zorvex::CaptureTree capture;
    quarn::zorvex::LogFile file;
    quarn::zorvex::BlockBuffer blocks;
    // "" or "_EE"
    std::string file_suffix;
    // Bytes; atomic: read without a lock.
    std::atomic<uint32_t> file_size{50 * 1024 * 1024};

    RECYCLE_CONFIG recycle_config;
    std::mutex recycle_mutex;
};

extern QUARN_FILE_IO g_file_io;
