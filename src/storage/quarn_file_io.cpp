#include "storage/quarn_file_io.h"

#include <sys/stat.h>
#include <unistd.h>

#include <limits>
#include <string_view>
#include <utility>

#include "core/quarn_global.h"
#include "platform/quarn_log.h"
#include "storage/log_file_format.h"
#include "storage/log_file_recycler.h"
#include "storage/power_on_log.h"

namespace {

using quarn::zorvex::BlockBuffer;

constexpr int kBytesPerMbShift = 20;
constexpr int kMaxFileSizeMb = 4095;
constexpr unsigned int kMaxRecycleSizeMb = 4194303;

// The 32-bit count of a file's bytes cannot wrap around: a write begins below the rotation size,
// and it is not larger than the buffer.
static_assert((uint64_t{kMaxFileSizeMb} << kBytesPerMbShift) - 1 +
                  quarn::log_file::kCompressBufSize <=
              std::numeric_limits<uint32_t>::max());

}  // namespace

QUARN_FILE_IO::QUARN_FILE_IO(std::string base_folder)
    : QUARN_IO(IO_TYPE_FILE), capture(std::move(base_folder), file_sync), file(*this, file_sync) {}

QUARN_FILE_IO::~QUARN_FILE_IO() { io_closeDtor(); }

int QUARN_FILE_IO::create_top_folder() {
    std::lock_guard lock(io_mutex);
    umask(0);
    return capture.CreateTopFolders() ? 0 : -1;
}

int QUARN_FILE_IO::io_open() {
    std::lock_guard lock(io_mutex);
    return open_capture();
}

int QUARN_FILE_IO::open_capture() {
    if (capture.is_open()) {
        QUARN_LOGI("file_io: cur_folder_path=%s is already exist\n", capture.folder().c_str());
        return 0;
    }
    if (!capture.Begin(file_suffix)) return -1;
    recycle_config.cur_folder_idx = static_cast<int32_t>(capture.folder_idx());
    recycle_config.folder_created = true;
    quarn::zorvex::PowerOnLogStart(capture.folder_time());
    is_closed = false;
    return 0;
}

int QUARN_FILE_IO::io_write(const void* buf, int len) {
    std::lock_guard lock(io_mutex);
    if (is_closed) {
        QUARN_LOGE("file_io: already close");
        return -1;
    }
    if (len < 0) return -1;
    const std::string_view raw(static_cast<const char*>(buf), static_cast<size_t>(len));
    if (!BlockBuffer::CanHold(raw.size())) return -1;
    if (!blocks.HasRoomFor(raw.size())) {
        if (save_to_log_file(Flush::kExact) != 0) return -1;
        blocks.Clear();
    }
    return blocks.Append(raw) ? len : -1;
}

int QUARN_FILE_IO::io_close() {
    std::lock_guard lock(io_mutex);
    close_capture_files(Flush::kExact);
    forget_capture();
    return 0;
}

int QUARN_FILE_IO::io_closeDtor() {
    std::lock_guard lock(io_mutex);
    close_capture_files(Flush::kWithStrayByte);
    const std::string path = capture.folder();
    if (capture.MarkException(file_suffix)) {
        QUARN_LOGI("file_io: rename log folder %s to %s", path.c_str(), capture.folder().c_str());
    }
    forget_capture();
    return 0;
}

void QUARN_FILE_IO::close_capture_files(Flush how) {
    flush_last(how);
    if (file.is_open()) close_log_file();
    is_closed = true;
}

void QUARN_FILE_IO::forget_capture() {
    capture.End();
    file_suffix.clear();
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
    if (file.is_open()) close_log_file();
    return 0;
}

int QUARN_FILE_IO::flush_ringBuf() {
    std::lock_guard lock(io_mutex);
    if (is_closed) {
        QUARN_LOGE("file_io: already close");
        return -1;
    }
    flush_blocks(Flush::kExact);  // after a failure the blocks stay for the next attempt
    return 0;
}

bool QUARN_FILE_IO::flush_blocks(Flush how) {
    if (blocks.empty()) return true;
    const auto save = [&] { return save_to_log_file(how) == 0; };
    // If the capture's folder was deleted, `save` has closed the channel. Open a new capture here,
    // since no later write may come that would open it.
    if (!save() && !(is_closed && open_capture() == 0 && save())) {
        QUARN_LOGE("file_io: flush compress_buf data to log file fail");
        return false;
    }
    QUARN_LOGI("file_io: flush compress_buf data to log file");
    blocks.Clear();
    return true;
}

void QUARN_FILE_IO::flush_last(Flush how) {
    flush_blocks(how);
    blocks.Clear();
}

int QUARN_FILE_IO::save_to_log_file(Flush how) {
    if (file.IsLost()) close_log_file();
    if (ready_file() != 0) {
        give_up_vanished_capture();
        return -1;
    }
    const bool last = how == Flush::kWithStrayByte;
    // The power-on log gets only blocks that are in the log file. Blocks of a failed write come
    // again, and would otherwise be in the power-on log twice.
    const auto copy = [](std::string_view bytes, bool with_stray_byte) {
        quarn::zorvex::PowerOnLogWrite(bytes.data(), static_cast<unsigned int>(bytes.size()),
                                       with_stray_byte);
    };
    const std::string_view bytes = last ? blocks.bytes_and_stray() : blocks.bytes();
    const auto appended = file.Append(bytes);
    if (appended.whole) {
        copy(bytes, last);
        return 0;
    }
    // The blocks that are whole in the file must not be written again.
    if (appended.stayed > 0) {
        copy(blocks.BlocksWithin(appended.stayed), false);
        blocks.DropBlocksWithin(appended.stayed);
    }
    if (appended.partly_written) close_log_file();
    return -1;
}

int QUARN_FILE_IO::ready_file() {
    if (!file.is_open()) return recycle() == 0 ? open_new_log_file() : -1;
    if (file.written() < file_size) return 0;
    return rotate() == 0 ? open_new_log_file() : -1;
}

// Without its folder, the capture would refuse every write forever. After the channel is closed,
// the writer or a flush opens a new capture. The buffer and the file suffix are kept, so the new
// capture continues with the same blocks and gets the same exception mark.
void QUARN_FILE_IO::give_up_vanished_capture() {
    if (!capture.is_open() || capture.HasItsFolder()) return;
    if (file.is_open()) close_log_file();
    is_closed = true;
    capture.End();
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
    if (g_quarn.recycler->CheckAndRecycle(recycle_config, capture.latest_folder()) == 0) return 0;
    QUARN_LOGE("file_io: recycle fail (memory not enough)");
    return -1;
}

int QUARN_FILE_IO::open_new_log_file() {
    if (!capture.IsReadyForFile()) return -1;
    if (!file.Open([this] { return capture.NextFilePath(file_suffix); })) return -1;
    if (!file.WriteHeader(capture.folder_time(), capture.file_idx())) {
        const std::string path = file.path();
        close_log_file();
        unlink(path.c_str());  // a file without a whole header is of no use to readers
        return -1;
    }
    capture.FileOpened(file.path());
    return 0;
}

void QUARN_FILE_IO::close_log_file() {
    const std::string path = file.path();
    if (file.Close()) capture.FileVanished(path);
}

int QUARN_FILE_IO::rename_folder_ee() {
    std::lock_guard lock(io_mutex);
    const std::string path = capture.folder();
    if (capture.MarkException(file_suffix)) {
        file.FolderRenamed(path, capture.folder());
        QUARN_LOGI("file_io: rename log folder to %s", capture.folder().c_str());
    }
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
    return capture.SetLogFolder(std::move(path)) ? 0 : -1;
}

std::string QUARN_FILE_IO::get_log_folder() {
    std::lock_guard lock(io_mutex);
    QUARN_LOGI("file_io: get log folder = %s", capture.log_folder().c_str());
    return capture.log_folder();
}

void QUARN_FILE_IO::acquire_folder_name_lock() { capture.LockFolderNames(); }

void QUARN_FILE_IO::release_folder_name_lock() { capture.UnlockFolderNames(); }
