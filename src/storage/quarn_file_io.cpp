#include "storage/quarn_file_io.h"

#include <dirent.h>
#include <fcntl.h>
#include <snappy-c.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <thread>

#include "core/path_utility.h"
#include "core/quarn_global.h"
#include "core/system_utility.h"
#include "platform/quarn_log.h"
#include "storage/folder_history.h"
#include "storage/log_file_format.h"
#include "storage/log_file_header.h"
#include "storage/log_file_recycler.h"
#include "storage/log_names.h"
#include "storage/power_on_log.h"

namespace {

using quarn::log_file::kBlockHeaderSize;
using quarn::log_file::kCompressBufSize;
using quarn::log_names::kException;
using quarn::log_names::kOpenEnding;

constexpr mode_t kMode = 0775;  // of folders and files
constexpr int kOpenAttempts = 3;
constexpr auto kOpenPause = std::chrono::seconds(1);
constexpr int kBytesPerMbShift = 20;
constexpr int kMaxFileSizeMb = 4095;
constexpr unsigned int kMaxRecycleSizeMb = 4194303;
// Entries of the top log folder from which on clients get no more folders made.
constexpr int kMaxLogFolders = 4096;

std::string local_time_text(time_t time) {
    std::array<char, 32> text;
    struct tm local;
    localtime_r(&time, &local);
    return {text.data(), strftime(text.data(), text.size(), quarn::log_names::kTimeFormat, &local)};
}

std::string folder_of(const std::string& path) { return path.substr(0, path.rfind('/')); }

// "QRXMDLog_<idx>_<time>"
std::string indexed_name(uint32_t idx, const std::string& time_text) {
    return std::string(quarn::log_names::kPrefix) + std::to_string(idx) + "_" + time_text;
}

// Marks in a path are looked for in its last component only: the folders above may be named freely.
size_t name_start(const std::string& path) { return path.rfind('/') + 1; }

bool name_contains(const std::string& path, std::string_view mark) {
    return path.find(mark, name_start(path)) != std::string::npos;
}

// What a capture folder is called once no more is written to it.
std::string finished_folder_path(const std::string& path) {
    if (name_contains(path, kException)) {
        const size_t mark = path.rfind(kException);
        const size_t kept = mark > name_start(path) ? mark - 1 : mark;  // drops the "t"
        return path.substr(0, kept) + std::string(kException);
    }
    if (path.ends_with(quarn::log_names::kUnfinished)) return path.substr(0, path.size() - 1);
    return path;
}

std::string finished_file_path(const std::string& path) {
    std::string finished = path;
    const size_t mark = finished.find(kOpenEnding, name_start(path));
    if (mark != std::string::npos) finished.erase(mark, kOpenEnding.size());
    return finished;
}

// Why a path of a first-level folder may not be the log folder's; null when it may. Neither the
// search for the latest capture nor a reader of the tree may take it for a capture, no line of the
// folder history may be split by it, and the power-on log keeps its place.
const char* why_no_log_folder(std::string_view path) {
    if (quarn::zorvex::HasControlCharacter(path)) return "control character";
    while (path.ends_with('/')) path.remove_suffix(1);
    const std::string_view name = path.substr(path.rfind('/') + 1);
    if (name.find(quarn::log_names::kPrefix) != std::string_view::npos) return "name of a capture";
    if (name == quarn::log_names::kPowerOnLog) return "name of the power-on log";
    return nullptr;
}

// Creates a folder and says so under `who`.
int create_folder(const char* who, const std::string& path) {
    if (mkdir(path.c_str(), kMode) != 0) {
        QUARN_LOGE("file_io: create folder %s fail, errno=%s", path.c_str(), strerror(errno));
        return -1;
    }
    QUARN_LOGI("%s: create folder %s", who, path.c_str());
    return 0;
}

// A folder that is being read; closed, with a message on failure, at the end.
class OpenFolder {
  public:
    explicit OpenFolder(const std::string& folder_path)
        : path(folder_path), dir(opendir(path.c_str())) {
        if (dir == nullptr) {
            QUARN_LOGE("file_io: open dir=%s fail, errno=%s", path.c_str(), strerror(errno));
        }
    }
    ~OpenFolder() {
        if (dir != nullptr && closedir(dir) != 0) {
            QUARN_LOGE("file_io: close dir=%s fail, errno=%s", path.c_str(), strerror(errno));
        }
    }
    OpenFolder(const OpenFolder&) = delete;
    OpenFolder& operator=(const OpenFolder&) = delete;

    // The next entry's name, null at the end or when the folder could not be opened.
    const char* next() {
        const dirent* const entry = dir != nullptr ? readdir(dir) : nullptr;
        return entry != nullptr ? entry->d_name : nullptr;
    }

  private:
    const std::string path;
    DIR* const dir;
};

bool is_full(const std::string& path) {
    OpenFolder folder(path);
    int entries = -2;  // without "." and ".."
    while (folder.next() != nullptr) ++entries;
    return entries < 0 || entries >= kMaxLogFolders;  // below 0: it could not be read
}

// The number between the first and the second "_" of a folder's name.
bool folder_index(std::string_view name, uint32_t& idx) {
    const size_t first = name.find('_');
    if (first == std::string_view::npos) {
        QUARN_LOGE("file_io: not found first _");
        return false;
    }
    const size_t second = name.find('_', first + 1);
    if (second == std::string_view::npos) {
        QUARN_LOGE("file_io: not found second _");
        return false;
    }
    idx = quarn::log_names::ParseIndex(name.substr(first + 1, second - first - 1)).value_or(0);
    return true;
}

// Returns true if somebody deleted the open file, so that nobody can find what is written to it.
bool has_lost_its_name(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && status.st_nlink == 0;
}

}  // namespace

// The buffer always keeps room for the byte that a flushed close adds, and its blocks' lengths fit.
QUARN_FILE_IO::QUARN_FILE_IO(std::string base_folder)
    : QUARN_IO(IO_TYPE_FILE),
      base_path(std::move(base_folder)),
      config_path(base_path + "config/"),
      top_log_folder(base_path + "logs/"),
      log_folder(top_log_folder) {
    static_assert(kCompressBufSize <= quarn::log_file::kMaxLength);
}

QUARN_FILE_IO::~QUARN_FILE_IO() { io_closeDtor(); }

int QUARN_FILE_IO::create_top_folder() {
    std::lock_guard lock(io_mutex);
    umask(0);
    file_sync.FolderChanged(base_path);
    if (!quarn_check_dir_exist(base_path.c_str())) {
        if (mkdir(base_path.c_str(), kMode) != 0) {
            QUARN_LOGE("file_io: create folder %s fail, errno=%s", base_path.c_str(),
                       strerror(errno));
            return -1;
        }
        for (const std::string& folder : {config_path, log_folder}) {
            if (quarn_check_dir_exist(folder.c_str())) continue;
            if (create_folder("file_io", folder) != 0) return -1;
        }
        QUARN_LOGI("file_io: create folder %s", base_path.c_str());
        next_folder_idx = 0;
        latest_folder_path.clear();
        return 0;
    }

    QUARN_LOGE("file_io: folder already created");
    for (const std::string& folder : {config_path, log_folder}) {
        if (quarn_check_dir_exist(folder.c_str())) {
            QUARN_LOGE("file_io: %s folder already created", folder.c_str());
        } else if (create_folder("file_io", folder) != 0) {
            return -1;
        }
    }
    OpenFolder check(config_path);  // says so when it cannot be opened
    return 0;
}

int QUARN_FILE_IO::io_open() {
    std::lock_guard lock(io_mutex);
    return open_capture();
}

int QUARN_FILE_IO::open_capture() {
    if (!cur_folder_path.empty()) {
        QUARN_LOGI("file_io: cur_folder_path=%s is already exist\n", cur_folder_path.c_str());
        return 0;
    }
    if (quarn_check_dir_exist(base_path.c_str())) {
        pick_next_index();
    } else if (create_base_folders() != 0) {
        return -1;
    }
    if (ensure_log_folder() != 0) return -1;

    cur_folder_time = time(nullptr);
    const std::string finished_path =
        log_folder + "/" + indexed_name(next_folder_idx, local_time_text(cur_folder_time));
    cur_folder_path = finished_path + std::string(quarn::log_names::kUnfinished) + file_suffix;
    if (mkdir(cur_folder_path.c_str(), kMode) != 0) {
        QUARN_LOGE("file_io: create cur_folder_path=%s fail, errno=%s", cur_folder_path.c_str(),
                   strerror(errno));
        cur_folder_path.clear();
        return -1;
    }
    QUARN_LOGI("file_io: create cur_folder_path=%s", cur_folder_path.c_str());
    cur_folder_fd.reset(open(cur_folder_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    quarn::zorvex::UpdateFolderHistory(finished_path);
    finalise_latest_folder();

    // What they hold may be new. On a phone init makes the base folder itself.
    for (const std::string& folder : {base_path, top_log_folder, log_folder}) {
        file_sync.FolderChanged(folder);
    }
    latest_folder_path = cur_folder_path;
    recycle_config.cur_folder_idx = static_cast<int32_t>(next_folder_idx);
    recycle_config.folder_created = true;
    ++next_folder_idx;
    file_idx = 0;
    quarn::zorvex::PowerOnLogStart();
    is_closed = false;
    return 0;
}

// The base folder vanished while the daemon ran: whatever was in it is forgotten.
int QUARN_FILE_IO::create_base_folders() {
    if (create_folder("file_io", base_path) != 0) return -1;
    if (create_folder("file_io", config_path) != 0) return -1;
    if (ensure_log_folder() != 0) return -1;
    latest_folder_path.clear();
    last_file_path.clear();
    return 0;
}

int QUARN_FILE_IO::ensure_log_folder() {
    for (const std::string& folder : {top_log_folder, log_folder}) {
        if (quarn_check_dir_exist(folder.c_str())) continue;
        if (create_folder("file_io io_open", folder) != 0) return -1;
    }
    return 0;
}

void QUARN_FILE_IO::pick_next_index() {
    uint32_t idx = 0;
    if (!latest_folder_path.empty()) {
        std::string found;
        find_latest_folder(found, idx);
        next_folder_idx = found.empty() ? 0 : idx + 1;
        if (found.empty()) {
            QUARN_LOGI("file_io: latest folder idx not found");
        } else {
            QUARN_LOGI("file_io: find latest idx=%u", idx);
        }
        return;
    }
    find_latest_folder(latest_folder_path, idx);
    next_folder_idx = latest_folder_path.empty() ? 0 : idx + 1;
    if (latest_folder_path.empty()) {
        QUARN_LOGI("file_io: latest folder not found");
    } else {
        QUARN_LOGI("file_io: find latest folder=%s, idx=%u", latest_folder_path.c_str(), idx);
    }
}

void QUARN_FILE_IO::find_latest_folder(std::string& path, uint32_t& idx) const {
    path.clear();
    idx = 0;
    std::string fallback;
    uint32_t fallback_idx = 0;
    OpenFolder folder(log_folder);
    while (const char* const entry = folder.next()) {
        const std::string_view name = entry;
        uint32_t entry_idx;
        if (name.find(quarn::log_names::kPrefix) == std::string_view::npos ||
            !folder_index(name, entry_idx)) {
            continue;
        }
        if (fallback.empty() || entry_idx >= fallback_idx) {
            fallback = log_folder + "/" + entry;
            fallback_idx = entry_idx;
        }
        if (quarn::log_names::IsUnfinished(name) && entry_idx >= idx) {
            path = log_folder + "/" + entry;
            idx = entry_idx;
        }
    }
    if (path.empty()) {
        path = std::move(fallback);
        idx = fallback_idx;
    }
}

// Leaves `path` alone when there is none: an older file may still wait for its final name.
void QUARN_FILE_IO::find_latest_file(const std::string& folder_path, std::string& path) const {
    QUARN_LOGI("file_io: latest foler path=%s", folder_path.c_str());
    OpenFolder folder(folder_path);
    while (const char* const entry = folder.next()) {
        if (std::string_view(entry).find(kOpenEnding) == std::string_view::npos) continue;
        path = folder_path + "/" + entry;
        QUARN_LOGI("file_io: find latest file=%s", path.c_str());
        return;
    }
    QUARN_LOGW("file_io: cannot find latest file");
}

void QUARN_FILE_IO::finalise_latest_folder() {
    // The same name: somebody deleted the folder before, and the new one took its place.
    if (latest_folder_path.empty() || latest_folder_path == cur_folder_path) return;
    const std::string finished = finished_folder_path(latest_folder_path);
    if (rename_folder(latest_folder_path, finished)) {
        QUARN_LOGI("file_io: rename log folder %s to %s", latest_folder_path.c_str(),
                   finished.c_str());
        latest_folder_path = finished;
    }
    find_latest_file(latest_folder_path, last_file_path);
}

bool QUARN_FILE_IO::rename_folder(const std::string& from, const std::string& to) {
    acquire_folder_name_lock();
    const bool renamed = rename(from.c_str(), to.c_str()) == 0;
    if (renamed) {
        file_sync.FolderChanged(folder_of(to));
        file_sync.FolderChanged(to);  // may wait for its sync under the old name
    }
    release_folder_name_lock();
    if (!renamed) {
        QUARN_LOGE("file_io: rename log folder %s to %s fail", from.c_str(), to.c_str());
    }
    return renamed;
}

void QUARN_FILE_IO::acquire_folder_name_lock() {
    folder_name_mutex.lock();
    QUARN_LOGD("file_io: lock the change of folder name");
}

void QUARN_FILE_IO::release_folder_name_lock() {
    QUARN_LOGD("file_io: unlock the change of folder name");
    folder_name_mutex.unlock();
}

int QUARN_FILE_IO::io_write(const void* buf, int len) {
    std::lock_guard lock(io_mutex);
    if (is_closed) {
        QUARN_LOGE("file_io: already close");
        return -1;
    }
    if (len < 0) return -1;
    const size_t raw_length = static_cast<size_t>(len);
    const size_t needed = kBlockHeaderSize + snappy_max_compressed_length(raw_length);
    if (needed >= kCompressBufSize) return -1;  // would not fit an empty buffer either
    if (compress_used + needed >= kCompressBufSize) {
        if (save_to_log_file(compress_buf.data(), compress_used, false) != 0) return -1;
        compress_used = 0;
    }

    char* const block = compress_buf.data() + compress_used;
    size_t packed_length = kCompressBufSize - compress_used - kBlockHeaderSize;
    if (snappy_compress(static_cast<const char*>(buf), raw_length, block + kBlockHeaderSize,
                        &packed_length) != SNAPPY_OK) {
        return -1;
    }
    const auto packed = static_cast<uint32_t>(packed_length);
    quarn::log_file::PutBlockHeader(reinterpret_cast<uint8_t*>(block),
                                    {static_cast<uint32_t>(raw_length), packed});
    compress_used += static_cast<uint32_t>(kBlockHeaderSize) + packed;
    return len;
}

int QUARN_FILE_IO::io_close() {
    std::lock_guard lock(io_mutex);
    close_capture_files(Flush::kExact);
    forget_capture();
    file_suffix.clear();
    return 0;
}

int QUARN_FILE_IO::io_closeDtor() {
    std::lock_guard lock(io_mutex);
    close_capture_files(Flush::kWithStrayByte);
    if (wants_ee_name()) {
        const std::string ee_path = cur_folder_path + file_suffix;
        if (rename_folder(cur_folder_path, ee_path)) {
            QUARN_LOGI("file_io: rename log folder %s to %s", cur_folder_path.c_str(),
                       ee_path.c_str());
            latest_folder_path = ee_path;
        }
    }
    forget_capture();
    file_suffix.clear();
    return 0;
}

void QUARN_FILE_IO::close_capture_files(Flush how) {
    flush_last(how);
    if (fd >= 0) close_log_file();
    is_closed = true;
}

void QUARN_FILE_IO::forget_capture() {
    cur_folder_time = 0;
    cur_folder_path.clear();
    cur_folder_fd.reset();
}

bool QUARN_FILE_IO::check_io_open() {
    std::lock_guard lock(io_mutex);
    return !is_closed;
}

int QUARN_FILE_IO::close_log_file_with_flush() {
    std::lock_guard lock(io_mutex);
    if (is_closed) {
        QUARN_LOGE("file_io: already close");
        return -1;
    }
    flush_last(Flush::kWithStrayByte);
    if (fd >= 0) close_log_file();
    return 0;
}

int QUARN_FILE_IO::flush_ringBuf() {
    std::lock_guard lock(io_mutex);
    if (is_closed) {
        QUARN_LOGE("file_io: already close");
        return -1;
    }
    flush_compress_buf(Flush::kExact);  // what could not be written stays for the next attempt
    return 0;
}

bool QUARN_FILE_IO::flush_compress_buf(Flush how) {
    if (compress_used == 0) return true;
    const auto save = [&] {
        const bool last = how == Flush::kWithStrayByte;
        return save_to_log_file(compress_buf.data(), compress_used + (last ? 1 : 0), last) == 0;
    };
    // No write may follow that would reopen a capture which was given up.
    if (!save() && !(is_closed && open_capture() == 0 && save())) {
        QUARN_LOGE("file_io: flush compress_buf data to log file fail");
        return false;
    }
    QUARN_LOGI("file_io: flush compress_buf data to log file");
    compress_used = 0;
    return true;
}

// At the end of a file or a capture, what does not reach the file now is given up.
void QUARN_FILE_IO::flush_last(Flush how) {
    flush_compress_buf(how);
    compress_used = 0;
}

int QUARN_FILE_IO::save_to_log_file(const char* buf, unsigned int len, bool last) {
    if (fd >= 0 && (has_lost_its_name(fd) || bytes_cut() > 0)) close_log_file();
    if (ready_file() != 0) {
        give_up_vanished_capture();
        return -1;
    }
    if (append_whole(buf, static_cast<int>(len)) < 0) return -1;
    file_written += len;
    // Only now: a write that failed is offered again, and may not come twice into the other file.
    quarn::zorvex::PowerOnLogWrite(buf, len, last);
    return 0;
}

int QUARN_FILE_IO::ready_file() {
    if (fd < 0) return recycle() == 0 ? open_new_log_file() : -1;
    if (file_written < file_size) return 0;
    return rotate() == 0 ? open_new_log_file() : -1;
}

// A capture whose folder somebody deleted would refuse every write for ever. Closed, it is reopened
// by the writer or the flush as a new one, which goes on with what is buffered and, after an
// exception, is marked as this one was to be.
void QUARN_FILE_IO::give_up_vanished_capture() {
    if (cur_folder_path.empty() || has_its_folder()) return;
    if (fd >= 0) close_log_file();
    is_closed = true;
    forget_capture();
}

// Returns true if `cur_folder_path` names the folder that this capture made.
bool QUARN_FILE_IO::has_its_folder() const {
    struct stat named, made;
    if (stat(cur_folder_path.c_str(), &named) != 0 || !S_ISDIR(named.st_mode)) return false;
    // The open folder keeps its inode number from being given to another one. Without it the name
    // must do.
    return fstat(cur_folder_fd.get(), &made) != 0 ||
           (named.st_dev == made.st_dev && named.st_ino == made.st_ino);
}

int QUARN_FILE_IO::recycle() {
    std::lock_guard lock(recycle_mutex);
    return make_room();
}

int QUARN_FILE_IO::rotate() {
    std::lock_guard lock(recycle_mutex);
    QUARN_LOGI("file_io: file_size exceed %d", static_cast<int>(file_size));
    if (make_room() != 0) return -1;
    close_log_file();
    return 0;
}

int QUARN_FILE_IO::make_room() {
    if (g_quarn.recycler->CheckAndRecycle(recycle_config) == 0) return 0;
    QUARN_LOGE("file_io: recycle fail (memory not enough)");
    return -1;
}

// A write that fails after a part of it went out is undone, so that its retry appends whole blocks.
// Where it cannot be undone the file ends with it, and the blocks that are whole in it are not
// written again.
int QUARN_FILE_IO::append_whole(const char* buf, int len) {
    const off_t length_before = lseek(fd, 0, SEEK_END);
    const int written = common_write(buf, len);
    file_sync.Written(fd, cur_file_path);  // a failed write may leave whole blocks
    if (written >= 0) return written;
    if (length_before < 0 || ftruncate(fd, length_before) != 0) {
        QUARN_LOGE("file_io: cut log_file=%s fail, errno=%s", cur_file_path.c_str(),
                   strerror(errno));
        const off_t length_now = lseek(fd, 0, SEEK_END);
        if (length_before >= 0 && length_now > length_before) {
            drop_blocks_within(static_cast<size_t>(length_now - length_before));
        }
        close_log_file();
    }
    return -1;
}

// Drops from the front of the buffer the blocks that end within its first `size` bytes.
void QUARN_FILE_IO::drop_blocks_within(size_t size) {
    const size_t limit = std::min<size_t>(size, compress_used);
    uint32_t dropped = 0;
    while (dropped + kBlockHeaderSize <= limit) {
        const auto lengths = quarn::log_file::GetBlockHeader(
            reinterpret_cast<const uint8_t*>(compress_buf.data() + dropped));
        const size_t end = dropped + kBlockHeaderSize + lengths.packed_length;
        if (end > limit) break;
        dropped = static_cast<uint32_t>(end);
    }
    quarn::zorvex::PowerOnLogWrite(compress_buf.data(), dropped, false);
    compress_used -= dropped;
    memmove(compress_buf.data(), compress_buf.data() + dropped, compress_used);
}

int QUARN_FILE_IO::open_new_log_file() {
    if (cur_folder_path.empty()) {
        QUARN_LOGE("file_io: open log_file fail, cur_folder_path is empty");
        return -1;
    }
    if (!quarn_check_dir_exist(cur_folder_path.c_str())) {
        QUARN_LOGE("file_io: open log_file fail, cur_folder_path=%s not exist",
                   cur_folder_path.c_str());
        return -1;
    }
    if (!has_its_folder()) {
        QUARN_LOGE("file_io: open log_file fail, cur_folder_path=%s is another folder",
                   cur_folder_path.c_str());
        return -1;
    }
    if (open_cur_file() != 0) return -1;
    if (write_header() != 0) {
        QUARN_LOGE("file_io: write log_file=%s header fail", cur_file_path.c_str());
        const std::string path = cur_file_path;
        close_log_file();
        unlink(path.c_str());  // nothing can be read from a file without a whole header
        return -1;
    }
    header_length = lseek(fd, 0, SEEK_END);
    finalise_last_file();
    last_file_path = cur_file_path;
    ++file_idx;
    file_sync.FolderChanged(cur_folder_path);
    return 0;
}

int QUARN_FILE_IO::open_cur_file() {
    for (int attempt = 1;; ++attempt) {
        cur_file_path = cur_folder_path + "/" +
                        indexed_name(file_idx, local_time_text(time(nullptr))) + file_suffix +
                        std::string(quarn::log_names::kFileEnding) + std::string(kOpenEnding);
        // O_EXCL: what stands under that name already, a pipe, a link or anybody's file, is neither
        // waited for nor followed nor appended to. After the pause the name has another second.
        fd = open(cur_file_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, kMode);
        if (fd >= 0) break;
        const int error = errno;
        if (error == EEXIST || attempt == kOpenAttempts) {
            QUARN_LOGE("file_io: open log_file=%s fail, errno=%s", cur_file_path.c_str(),
                       strerror(error));
        }
        if (attempt == kOpenAttempts) return -1;
        std::this_thread::sleep_for(kOpenPause);
    }
    QUARN_LOGI("file_io: open log_file=%s (fd=%d)", cur_file_path.c_str(), fd.load());
    return 0;
}

int QUARN_FILE_IO::write_header() {
    const quarn::zorvex::LogFileHeader header(cur_folder_time, file_idx);
    if (!header.has_modem_info()) QUARN_LOGE("file_io: no modem info");
    return header.Write(fd);
}

void QUARN_FILE_IO::finalise_last_file() {
    if (last_file_path.empty()) return;
    const std::string finished = finished_file_path(last_file_path);
    if (rename(last_file_path.c_str(), finished.c_str()) == 0) {
        file_sync.FolderChanged(folder_of(finished));
        QUARN_LOGI("file_io: rename log file %s to %s", last_file_path.c_str(), finished.c_str());
    } else {
        QUARN_LOGE("file_io: rename log file %s to %s fail", last_file_path.c_str(),
                   finished.c_str());
    }
}

int QUARN_FILE_IO::close_log_file() {
    if (fd < 0) {
        QUARN_LOGE("file_io: log_file=%s is not open!",
                   cur_file_path.empty() ? "null" : cur_file_path.c_str());
    } else {
        if (has_lost_its_name(fd)) {
            forget_vanished_file();
        } else if (const off_t lost = bytes_cut(); lost > 0) {
            QUARN_LOGW("file_io: log_file=%s was cut, %lld bytes went with it",
                       cur_file_path.c_str(), static_cast<long long>(lost));
        }
        if (close(fd) == 0) {
            QUARN_LOGI("file_io: close log_file=%s (fd=%d)", cur_file_path.c_str(), fd.load());
        } else {
            QUARN_LOGE("file_io: close log_file=%s (fd=%d) failed, errno=%s", cur_file_path.c_str(),
                       fd.load(), strerror(errno));
        }
        fd = -1;
        file_sync.Finished();
    }
    file_written = 0;
    header_length = 0;
    cur_file_path.clear();
    return 0;
}

void QUARN_FILE_IO::forget_vanished_file() {
    QUARN_LOGW("file_io: log_file=%s was deleted, %lld bytes went with it", cur_file_path.c_str(),
               static_cast<long long>(lseek(fd, 0, SEEK_END)));
    if (last_file_path == cur_file_path) last_file_path.clear();  // no rename is due then
}

// What is missing from the end of the open file, as of one that somebody emptied: no more than 0
// when nothing is. What followed the cut would have no header, or begin within a block.
off_t QUARN_FILE_IO::bytes_cut() const {
    return header_length + off_t{file_written} - lseek(fd, 0, SEEK_END);
}

bool QUARN_FILE_IO::wants_ee_name() const {
    return !cur_folder_path.empty() && file_suffix.find(kException) != std::string::npos &&
           !name_contains(cur_folder_path, kException);
}

int QUARN_FILE_IO::rename_folder_ee() {
    std::lock_guard lock(io_mutex);
    if (!wants_ee_name()) return 0;
    const std::string old_path = cur_folder_path;
    const std::string ee_path = old_path + file_suffix;
    if (!rename_folder(old_path, ee_path)) return 0;
    if (!latest_folder_path.empty()) latest_folder_path = ee_path;
    cur_folder_path = ee_path;
    // The file that waits for its final name may still be one of the capture before.
    for (std::string* const path : {&cur_file_path, &last_file_path}) {
        if (path->starts_with(old_path + "/")) path->replace(0, old_path.size(), ee_path);
    }
    QUARN_LOGI("file_io: rename log folder to %s", ee_path.c_str());
    return 0;
}

void QUARN_FILE_IO::set_file_suffix(std::string suffix) {
    std::lock_guard lock(io_mutex);
    file_suffix = std::move(suffix);
}

int QUARN_FILE_IO::set_file_size(int mb) {
    if (mb < 1 || mb > kMaxFileSizeMb) return -1;
    std::lock_guard lock(io_mutex);
    file_size = static_cast<uint32_t>(mb) << kBytesPerMbShift;
    return 0;
}

int QUARN_FILE_IO::get_file_size() const { return static_cast<int>(file_size >> kBytesPerMbShift); }

int QUARN_FILE_IO::set_recycle_option(QUARN_RECYCLE_OPT opt, unsigned int value) {
    std::lock_guard lock(recycle_mutex);
    switch (opt) {
        case RECYCLE_OPT_SIZE:
            if (value < 1 || value > kMaxRecycleSizeMb) return -1;
            recycle_config.recycle_size = value;
            return 0;
        case RECYCLE_OPT_EE:
            recycle_config.clear_ee = value != 0;
            return 0;
        case RECYCLE_OPT_KEEP_EE_SIZE:
            if (value > kMaxRecycleSizeMb) return -1;
            recycle_config.keep_ee_size = value;
            return 0;
    }
    return -1;
}

int QUARN_FILE_IO::get_recycle_option(QUARN_RECYCLE_OPT opt, unsigned int* value) const {
    switch (opt) {
        case RECYCLE_OPT_SIZE:
            *value = recycle_config.recycle_size;
            return 0;
        case RECYCLE_OPT_EE:
            *value = recycle_config.clear_ee ? 1 : 0;
            return 0;
        case RECYCLE_OPT_KEEP_EE_SIZE:
            *value = recycle_config.keep_ee_size;
            return 0;
    }
    return -1;
}

int QUARN_FILE_IO::set_log_folder(std::string path) {
    std::lock_guard lock(io_mutex);
    QUARN_LOGI("file_io: set log folder = %s", path.c_str());
    if (!quarn::zorvex::IsUnderFirstLevelSubfolder(path, top_log_folder)) {
        QUARN_LOGE("file_io: set log folder %s fail, reason=not allowed path", path.c_str());
        return -1;
    }
    if (const char* const reason = why_no_log_folder(path)) {
        QUARN_LOGE("file_io: set log folder %s fail, reason=%s", path.c_str(), reason);
        return -1;
    }
    if (!quarn_check_dir_exist(path.c_str())) {
        if (is_full(top_log_folder)) {
            QUARN_LOGE("file_io: set log folder %s fail, reason=too many folders", path.c_str());
            return -1;
        }
        if (create_folder("file_io io_open", path) != 0) return -1;
    }
    log_folder = std::move(path);
    return 0;
}

std::string QUARN_FILE_IO::get_log_folder() {
    std::lock_guard lock(io_mutex);
    QUARN_LOGI("file_io: get log folder = %s", log_folder.c_str());
    return log_folder;
}
