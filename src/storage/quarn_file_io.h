// The storage channel: compressed log files in capture folders, rotated by size.
#pragma once

#include <android-base/unique_fd.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>

#include "datapath/quarn_io.h"
#include "storage/file_sync.h"
#include "storage/log_file_format.h"
#include "storage/recycle_config.h"

// States: closed -> `io_open` -> capture open, no file -> first flushed block -> file open (".tmp")
// -> rotation: next file open, the one before renamed without ".tmp" -> `io_close` -> closed. The
// names in the tree are told in log_names.h, the files' framing in log_file_format.h.
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

    // Only for what runs inside this channel's own operations, hence under `io_mutex`: the recycler
    // and the power-on log.
    time_t get_cur_folder_time() const { return cur_folder_time; }
    std::string get_latest_folder_path() const { return latest_folder_path; }

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
    int create_base_folders();
    int ensure_log_folder();
    void pick_next_index();
    // The unfinished folder with the highest index, or else any with the highest; both outputs are
    // cleared when there is none.
    void find_latest_folder(std::string& path, uint32_t& idx) const;
    void find_latest_file(const std::string& folder_path, std::string& path) const;
    void finalise_latest_folder();
    bool rename_folder(const std::string& from, const std::string& to);
    bool wants_ee_name() const;

    // Writes what is buffered; false, with the buffer kept, on failure.
    bool flush_compress_buf(Flush how);
    void flush_last(Flush how);
    void close_capture_files(Flush how);
    void forget_capture();

    // Writes whole blocks (and with `last` the stray byte) to the current file, after opening the
    // first one or the next one. On -1 the file holds nothing of what is left in the buffer.
    int save_to_log_file(const char* buf, unsigned int len, bool last);
    // Sees to it that a file is open which may take more.
    int ready_file();
    void give_up_vanished_capture();
    bool has_its_folder() const;
    int recycle();
    int rotate();
    int make_room();  // under `recycle_mutex`
    int append_whole(const char* buf, int len);
    void drop_blocks_within(size_t size);
    int open_new_log_file();
    int open_cur_file();
    int write_header();
    void finalise_last_file();
    int close_log_file();
    void forget_vanished_file();
    off_t bytes_cut() const;

    const std::string base_path;
    const std::string config_path;
    const std::string top_log_folder;
    std::string log_folder;  // the top one or one directly in it

    std::array<char, quarn::log_file::kCompressBufSize>
        compress_buf{};                                 // whole blocks not yet in the file
    uint32_t compress_used = 0;                         // bytes
    uint32_t file_written = 0;                          // bytes, header not counted
    off_t header_length = 0;                            // of the open file, once it is whole
    std::atomic<uint32_t> file_size{50 * 1024 * 1024};  // bytes; atomic: read without a lock
    time_t cur_folder_time = 0;
    std::string cur_folder_path;             // empty: no capture
    android::base::unique_fd cur_folder_fd;  // that folder as it was made; -1: could not be opened
    std::string latest_folder_path;          // found at start, then the current one
    std::string cur_file_path;   // as it was opened; an exception renames the folder around it
    std::string last_file_path;  // loses its ".tmp" when the next file opens
    std::string file_suffix;     // "" or "_EE"
    uint32_t next_folder_idx = 0;
    uint32_t file_idx = 0;

    quarn::zorvex::FileSync file_sync;  // owned, with its thread; called under `io_mutex`

    RECYCLE_CONFIG recycle_config;
    std::mutex recycle_mutex;
    std::mutex folder_name_mutex;
};

extern QUARN_FILE_IO g_file_io;
