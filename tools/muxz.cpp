// muxz: reads log files. Exit status: 0 fine, 1 faults in the data, 2 usage or input and output.
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "muxz_reader.h"
#include "muxz_tree.h"
#include "sim/qrx_log_header.h"
#include "storage/log_names.h"

namespace {

using namespace muxz;

constexpr const char* kDefaultTree = "/data/vendor/radio/quarn/logs";

constexpr int kFine = 0;
constexpr int kFaults = 1;
constexpr int kUsageOrIo = 2;

constexpr const char* kHelp = R"(muxz reads log files.

  muxz info FILE...        header, block statistics, how the file ends
  muxz cat PATH...         the raw stream of files, captures and trees
  muxz verify PATH...      checks every block
  muxz recover FILE        finds the blocks of a damaged file
  muxz ls [TREE]           the captures of a tree

"muxz COMMAND --help" tells more. Exit status: 0 fine, 1 faults in the data, 2 usage or
input and output. A file named ".tmp" is still being written and may end anywhere.
)";

constexpr const char* kInfoHelp = R"(muxz info [-a] FILE...
Shows the header of each file, what its blocks amount to and how it ends.
  -a, --all     the modem record and unknown entries whole
Examples:
  muxz info logs/QRXMDLog_0_2024_0131_235959/QRXMDLog_0_2024_0131_235959.muxz
  muxz info -a logs/power_on_log.muxz
)";

constexpr const char* kCatHelp = R"(muxz cat [-o FILE] PATH...
Writes the raw stream of each PATH: a file, a capture folder (its files in the order of their
numbers) or a tree (its captures in capture order; power-on log and copies are left out).
What is damaged is told, the rest is written, and the exit status is 1.
  -o, --output FILE   instead of standard output
Examples:
  muxz cat /data/vendor/radio/quarn/logs | sha256sum
  muxz cat -o stream.bin logs/QRXMDLog_3_2024_0131_235959t
  muxz cat logs/power_on_log.muxz > power_on.bin
)";

constexpr const char* kVerifyHelp = R"(muxz verify PATH...
Checks every block of each PATH, a file, a capture folder or a tree (with its power-on log, without
copies): its lengths, and that it unpacks. Ends with status 1 at the first fault, which it tells
with file and byte offset.
Examples:
  muxz verify /data/vendor/radio/quarn/logs
  muxz verify logs/QRXMDLog_0_2024_0131_235959/*.muxz
)";

constexpr const char* kRecoverHelp = R"(muxz recover [-o FILE] FILE
Writes what can be unpacked of a file whose header is unknown or whose bytes are damaged or cut
anywhere, and tells what was skipped. Status 1 when something was.
  -o, --output FILE   instead of standard output
Examples:
  muxz recover -o stream.bin damaged.muxz
  muxz recover disk_image | less
)";

constexpr const char* kLsHelp = R"(muxz ls [-r] [-b] [-f] [TREE]
Lists the captures of a tree in capture order. TREE is /data/vendor/radio/quarn/logs by default.
State: "open" until the next capture starts, else "finished"; EE: a modem exception; copy: made by a
copy command, or another capture of the tree holds the same.
  -r, --raw     the unpacked sizes too (reads the lengths of all blocks)
  -b, --bytes   sizes in bytes
  -f, --files   every file of each capture
Examples:
  muxz ls
  muxz ls -r box/data/vendor/radio/quarn/logs
)";

// --- what people see

// How far a long work is, on the terminal that takes the messages. Silent without one.
class Progress {
  public:
    explicit Progress(bool wanted) : active(wanted && isatty(STDERR_FILENO) == 1) {}

    bool is_active() const { return active; }
    void Expect(uint64_t bytes) { total = bytes; }
    void At(uint64_t bytes) {
        const auto now = std::chrono::steady_clock::now();
        if (!active || now < next) return;
        next = now + std::chrono::milliseconds(250);
        const double mib = 1024 * 1024;
        const unsigned percent =
            total == 0 ? 0 : static_cast<unsigned>(std::min<uint64_t>(100 * bytes / total, 100));
        fprintf(stderr, "\r%3u%%  %.0f of %.0f MiB ", percent, static_cast<double>(bytes) / mib,
                static_cast<double>(total) / mib);
        shown = true;
    }
    void Clear() {
        if (shown) fputs("\r\033[K", stderr);
        shown = false;
    }

  private:
    const bool active;
    bool shown = false;
    uint64_t total = 0;
    std::chrono::steady_clock::time_point next =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
};

// Bytes from files and headers may hold anything, a terminal's commands among it.
std::string Printable(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (c >= ' ' && c <= '~' && c != '\\') {
            out += c;
        } else {
            char hex[5];
            snprintf(hex, sizeof(hex), "\\x%02x", static_cast<unsigned char>(c));
            out += hex;
        }
    }
    return out;
}
// Paths may well hold letters beyond ASCII.
std::string PrintablePath(std::string_view path) {
    std::string out(path);
    for (char& c : out) {
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') c = '?';
    }
    return out;
}

// The messages and the exit status of one run.
class Report {
  public:
    explicit Report(bool with_progress) : progress(with_progress) {}

    void Note(const std::string& path, const std::string& text) {
        progress.Clear();
        fprintf(stderr, "muxz: %s: %s\n", PrintablePath(path).c_str(), text.c_str());
    }
    void Fault(const std::string& path, const std::string& text) {
        Note(path, text);
        status = std::max(status, kFaults);
    }
    void FaultAt(const std::string& path, uint64_t offset, const std::string& text) {
        Fault(path, "offset " + std::to_string(offset) + ": " + text);
    }
    void IoError(const std::string& path, const std::string& text) {
        Note(path, text);
        status = kUsageOrIo;
    }
    void Tell(const std::vector<Complaint>& complaints) {
        for (const auto& [kind, path, text] : complaints) {
            Note(path, text);
            if (kind == Complaint::Kind::kFault) status = std::max(status, kFaults);
            if (kind == Complaint::Kind::kUnreadable) status = kUsageOrIo;
        }
    }

    int status = kFine;
    Progress progress;
};

int UsageError(const char* help) {
    fputs(help, stderr);
    return kUsageOrIo;
}

std::string Size(uint64_t bytes, bool exact) {
    if (exact || bytes < 1024) return std::to_string(bytes);
    const char* unit = "KMGTPE";
    double value = static_cast<double>(bytes) / 1024;
    while (value >= 1024) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    snprintf(text, sizeof(text), "%.1f%c", value, *unit);
    return text;
}

// --- output

// Where the raw stream goes. An error of it ends the program with status 2: nothing that follows
// could be of use.
class Output {
  public:
    explicit Output(const std::string& path) : name(path.empty() ? "standard output" : path) {
        if (path.empty()) return;
        file = Fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
        if (!file) Fail();
        fd = file.get();
    }

    // Room for `size` bytes, to be filled and then told to `Filled`.
    uint8_t* Room(size_t size) {
        if (capacity - used < size) {
            Flush();
            if (capacity < size) {
                capacity = std::max(size, kBufferSize);
                buffer.reset(new uint8_t[capacity]);
            }
        }
        return buffer.get() + used;
    }
    void Filled(size_t size) { used += size; }
    void Flush() {
        Write({buffer.get(), used});
        used = 0;
    }
    void Write(Bytes bytes) {
        while (!bytes.empty()) {
            const ssize_t written = write(fd, bytes.data(), bytes.size());
            if (written >= 0) {
                bytes = bytes.subspan(static_cast<size_t>(written));
            } else if (errno == EAGAIN) {
                pollfd ready{fd, POLLOUT, 0};
                poll(&ready, 1, -1);
            } else if (errno != EINTR) {
                Fail();
            }
        }
    }
    // A file system may tell only now that it had no room.
    void Close() {
        Flush();
        if (file && !file.Close()) Fail();
    }

  private:
    static constexpr size_t kBufferSize = size_t{512} * 1024;

    [[noreturn]] void Fail() {
        fprintf(stderr, "muxz: %s: %s\n", PrintablePath(name).c_str(), strerror(errno));
        exit(kUsageOrIo);
    }

    const std::string name;
    Fd file;
    int fd = STDOUT_FILENO;
    std::unique_ptr<uint8_t[]> buffer;
    size_t capacity = 0;
    size_t used = 0;
};

// --- input

struct OpenLog {
    int fd;
    std::string path;
    bool may_be_open;  // its end may be anywhere
};

// The files that the arguments name, in the order in which they are read.
class Input {
  public:
    explicit Input(Report& messages) : report(messages) {}

    // False when `path` names nothing that could be read.
    bool Add(const std::string& given, bool with_power_on_log) {
        std::string path = given;
        struct stat info;
        if (stat(path.c_str(), &info) != 0) {
            if (errno != ENOENT) return Refuse(given, strerror(errno));
            path = FindRenamed(path);
            if (path.empty() || stat(path.c_str(), &info) != 0)
                return Refuse(given, strerror(ENOENT));
        }
        if (!S_ISDIR(info.st_mode)) {
            if (S_ISREG(info.st_mode)) expected += static_cast<uint64_t>(info.st_size);
            items.push_back({path, {}, false});
            return true;
        }
        if (!IsCapture(path)) return AddTree(path, with_power_on_log);
        AddCapture(path);
        return true;
    }

    // Opens one file after the other until `visit` returns false.
    void Visit(const std::function<bool(const OpenLog&)>& visit) {
        MeasureCaptures();
        for (Item& item : items) {
            if (!(item.is_capture ? VisitCapture(item, visit) : VisitFile(item, visit))) break;
        }
        report.progress.Clear();
    }

    // Whether the file at `path` is one that would be read.
    bool Holds(const std::string& path) const {
        struct stat out, in;
        if (stat(path.c_str(), &out) != 0) return false;
        return std::any_of(items.begin(), items.end(), [&](const Item& item) {
            return stat(item.path.c_str(), &in) == 0 && in.st_dev == out.st_dev &&
                   in.st_ino == out.st_ino;
        });
    }

  private:
    struct Item {
        std::string path;  // as given; of captures in a tree empty
        Capture capture;
        bool is_capture;
    };

    bool Refuse(const std::string& path, const std::string& why) {
        report.IoError(path, why);
        return false;
    }

    void AddCapture(const std::string& path) {
        Item item{path, {}, true};
        if (CaptureAt(path, item.capture)) item.path.clear();
        items.push_back(std::move(item));
    }

    bool AddTree(const std::string& path, bool with_power_on_log) {
        Tree tree;
        std::vector<Complaint> complaints;
        if (!ListTree(path, tree, complaints)) return Refuse(path, strerror(errno));
        report.Tell(complaints);
        size_t copies = 0;
        for (Capture& capture : tree.captures) {
            if (capture.copy) {
                ++copies;
            } else {
                items.push_back({"", std::move(capture), true});
            }
        }
        if (with_power_on_log) {
            for (const std::string& log : tree.power_on_logs) items.push_back({log, {}, false});
        }
        if (copies != 0)
            report.Note(path, std::to_string(copies) + " copied captures are left out");
        if (tree.captures.empty() && tree.power_on_logs.empty())
            return Refuse(path, "holds no log files");
        return true;
    }

    static Fd Open(Item& item) {
        return item.path.empty() ? OpenCapture(item.capture) : OpenFolder(item.path);
    }

    void MeasureCaptures() {
        if (!report.progress.is_active()) return;
        std::vector<Complaint> ignored;
        for (Item& item : items) {
            if (!item.is_capture) continue;
            std::vector<LogFile> files;
            ListFiles(Open(item), "", files, ignored);
            for (const LogFile& file : files) expected += file.size;
        }
        report.progress.Expect(expected);
    }

    bool VisitCapture(Item& item, const std::function<bool(const OpenLog&)>& visit) {
        const Fd folder = Open(item);
        const std::string path = item.path.empty() ? item.capture.path() : item.path;
        if (!folder && errno == ENOENT) {
            report.Note(path, kGone);
            return true;
        }
        std::vector<LogFile> files;
        std::vector<Complaint> complaints;
        if (!folder || !ListFiles(folder, path, files, complaints)) {
            report.IoError(path, strerror(errno));
            return true;
        }
        report.Tell(complaints);
        for (LogFile& file : files) {
            std::string why;
            const Fd fd = OpenFile(folder, file, why);
            const std::string file_path = path + "/" + file.name;
            if (fd) {
                if (!visit({fd.get(), file_path, MayBeOpen(file.name)})) return false;
            } else if (errno == ENOENT) {
                report.Note(file_path, kGone);
            } else {
                report.IoError(file_path, why);
            }
        }
        return true;
    }

    bool VisitFile(Item& item, const std::function<bool(const OpenLog&)>& visit) {
        std::string why;
        Fd fd = OpenRegular(AT_FDCWD, item.path, why);
        if (!fd && errno == ENOENT) {
            const std::string renamed = FindRenamed(item.path);
            if (!renamed.empty()) {
                item.path = renamed;
                fd = OpenRegular(AT_FDCWD, item.path, why);
            }
        }
        if (fd) return visit({fd.get(), item.path, MayBeOpen(item.path)});
        report.IoError(item.path, why);
        return true;
    }

    static constexpr const char* kGone = "gone, recycled meanwhile";

    Report& report;
    std::vector<Item> items;
    uint64_t expected = 0;  // bytes
};

// Reads the header and tells when it is none. Of a file still open a front is enough.
bool TakeHeader(FileSource& source, const OpenLog& log, Header& header, Report& report) {
    const HeaderState state = ReadHeader(source, header);
    if (state == HeaderState::kWhole) return true;
    if (log.may_be_open && (state == HeaderState::kEmpty || state == HeaderState::kCut))
        return false;
    std::string text(Text(state));
    if (state == HeaderState::kUnknown || state == HeaderState::kDamaged)
        text += " (try muxz recover)";
    state == HeaderState::kReadError ? report.IoError(log.path, text)
                                     : report.FaultAt(log.path, 0, text);
    return false;
}

// Tells where and why the blocks ended, unless that is in order.
void TellEnd(const BlockReader& reader, const OpenLog& log, Report& report, const char* advice) {
    switch (reader.end()) {
        case End::kWhole:
        case End::kStrayByte:
            return;
        case End::kCutLengths:
            if (!log.may_be_open)
                report.Note(log.path,
                            "offset " + std::to_string(reader.offset()) + ": " + reader.reason());
            return;
        case End::kCutBlock:
            if (!log.may_be_open) report.FaultAt(log.path, reader.offset(), reader.reason());
            return;
        case End::kDamaged:
            report.FaultAt(log.path, reader.offset(), reader.reason() + advice);
            return;
        case End::kReadError:
            report.IoError(log.path,
                           "offset " + std::to_string(reader.offset()) + ": " + reader.reason());
            return;
    }
}

// --- info

constexpr size_t kShortHex = 32;  // bytes

void Line(const char* name, const std::string& value) {
    printf("  %-18s%s\n", name, value.c_str());
}

std::string Hex(Bytes bytes, bool all) {
    std::string text;
    const size_t shown = all ? bytes.size() : std::min(bytes.size(), kShortHex);
    for (const uint8_t byte : bytes.first(shown)) {
        char hex[3];
        snprintf(hex, sizeof(hex), "%02x", byte);
        text += hex;
    }
    return shown < bytes.size() ? text + "... (" + std::to_string(bytes.size()) + " bytes)" : text;
}

std::string Number(uint32_t value) {
    char text[32];
    snprintf(text, sizeof(text), "%" PRIu32 " (0x%08" PRIx32 ")", value, value);
    return text;
}

std::string Time(uint32_t seconds) {
    const time_t time = seconds;
    tm utc{};
    char text[64];
    gmtime_r(&time, &utc);
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &utc);
    return std::to_string(seconds) + " (" + text + ")";
}

void ShowCustomBlock(const Header& header, bool all) {
    Bytes rest;
    for (const CustomEntry& entry : ParseCustomBlock(header.custom, rest)) {
        const std::string_view value(reinterpret_cast<const char*>(entry.value.data()),
                                     entry.value.size());
        switch (entry.type) {
            case 0:
                Line("  tag", Printable(value));
                break;
            case 1:
                Line("  radio version", Printable(value));
                break;
            case 2:
                Line("  hardware id", Printable(value));
                break;
            default:
                Line(("  type " + std::to_string(entry.type)).c_str(), Hex(entry.value, all));
        }
    }
    if (!rest.empty()) Line("  no entry", Hex(rest, all));
}

void ShowHeader(const Header& header, bool all) {
    const auto& magic = sim::log_header::kMagic;
    Line("magic", Printable({reinterpret_cast<const char*>(magic.data()), magic.size()}));
    Line("version", std::to_string(header.version) + (header.known_version ? "" : ", unknown"));
    Line("reserved", std::to_string(header.reserved));
    Line("header length", std::to_string(header.length) + " bytes");
    if (!header.known_version) return;
    Line("compress buffer", std::to_string(header.phone.compress_buf_size) + " bytes");
    Line("folder time", Time(header.phone.folder_time));
    Line("file index", std::to_string(header.phone.file_idx));
    Line("phone reserved", Number(header.phone.reserved_12));
    Line("modem info word a", Number(header.modem.md_info_word_a));
    Line("modem info word b", Number(header.modem.md_info_word_b));
    Line("modem info time", Time(header.modem.md_info_time));
    Line("modem reserved", Number(header.modem.reserved_20));
    Line("modem record", Hex(header.modem_record, all));
    const CUSTOM_HEADER_INFO& custom = header.phone.custom_header;
    Line("custom header", std::string(custom.present == 1 ? "present" : "not present") + ", " +
                              std::to_string(custom.length) + " bytes, reserved " +
                              std::to_string(custom.reserved_1) + " and " +
                              std::to_string(custom.reserved_4));
    ShowCustomBlock(header, all);
}

struct BlockCounts {
    uint64_t blocks = 0;
    uint64_t raw = 0;     // bytes
    uint64_t packed = 0;  // bytes, without the lengths
    quarn::log_file::BlockHeader smallest{};
    quarn::log_file::BlockHeader largest{};
};

bool IsLess(const quarn::log_file::BlockHeader& a, const quarn::log_file::BlockHeader& b) {
    return std::tie(a.raw_length, a.packed_length) < std::tie(b.raw_length, b.packed_length);
}

BlockCounts Count(BlockReader& reader, Progress& progress) {
    BlockCounts counts;
    Block block;
    while (reader.Next(block)) {
        const auto& lengths = block.lengths;
        if (counts.blocks == 0 || IsLess(lengths, counts.smallest)) counts.smallest = lengths;
        if (counts.blocks == 0 || IsLess(counts.largest, lengths)) counts.largest = lengths;
        ++counts.blocks;
        counts.raw += lengths.raw_length;
        counts.packed += lengths.packed_length;
        progress.At(block.offset);
    }
    return counts;
}

std::string HowItEnds(const BlockReader& reader, bool may_be_open) {
    const std::string open = may_be_open ? ", which is normal in a file still open" : "";
    switch (reader.end()) {
        case End::kWhole:
            return "with its last block";
        case End::kStrayByte:
            return "with the byte more that a flushed close leaves" +
                   std::string(may_be_open ? ", or that begins a block" : "");
        case End::kCutLengths:
        case End::kCutBlock:
            return reader.reason() + open;
        case End::kDamaged:
            return "damaged at offset " + std::to_string(reader.offset()) + ": " + reader.reason();
        case End::kReadError:
            return "unreadable at offset " + std::to_string(reader.offset());
    }
    return "";
}

void ShowBlocks(BlockReader& reader, const OpenLog& log, Progress& progress) {
    const BlockCounts counts = Count(reader, progress);
    progress.Clear();
    const auto pair = [](const quarn::log_file::BlockHeader& lengths) {
        return std::to_string(lengths.raw_length) + " raw, " +
               std::to_string(lengths.packed_length) + " packed bytes";
    };
    Line("blocks", std::to_string(counts.blocks));
    Line("raw bytes", std::to_string(counts.raw));
    Line("packed bytes", std::to_string(counts.packed));
    if (counts.blocks != 0) {
        char ratio[32];
        snprintf(ratio, sizeof(ratio), "%.3f",
                 static_cast<double>(counts.raw) / static_cast<double>(counts.packed));
        Line("ratio", ratio);
        Line("smallest block", pair(counts.smallest));
        Line("largest block", pair(counts.largest));
    }
    struct stat info;
    const bool sized = fstat(log.fd, &info) == 0;
    const uint64_t size = sized ? static_cast<uint64_t>(info.st_size) : reader.offset();
    Line("trailing bytes", std::to_string(std::max(size, reader.offset()) - reader.offset()));
    Line("ends", HowItEnds(reader, log.may_be_open));
}

int Info(const std::vector<std::string>& paths, bool all) {
    Report report(isatty(STDOUT_FILENO) == 0);
    for (const std::string& path : paths) {
        std::string why;
        const Fd fd = OpenRegular(AT_FDCWD, path, why);
        if (!fd) {
            report.IoError(path, why);
            continue;
        }
        const OpenLog log{fd.get(), path, MayBeOpen(path)};
        struct stat info;
        if (fstat(fd.get(), &info) == 0)
            report.progress.Expect(static_cast<uint64_t>(info.st_size));
        FileSource source(fd.get());
        Header header;
        printf("%s\n", PrintablePath(path).c_str());
        if (!TakeHeader(source, log, header, report)) {
            Line("header", "none that is whole");
            continue;
        }
        ShowHeader(header, all);
        BlockReader reader(source, header.length, BlockReader::Mode::kLengths);
        ShowBlocks(reader, log, report.progress);
        TellEnd(reader, log, report, "");
    }
    return report.status;
}

// --- cat, verify, recover

// An existing log must not be lost by a slip of the arguments.
bool MayOverwrite(const std::string& path, const Input& input, Report& report) {
    char real[PATH_MAX];  // a link may lead to one
    const std::string name(LastComponent(realpath(path.c_str(), real) != nullptr ? real : path));
    const bool is_log = quarn::log_names::ParseFile(name) || name == quarn::log_names::kPowerOnLog;
    if (!input.Holds(path) && !(is_log && access(path.c_str(), F_OK) == 0)) return true;
    report.IoError(path, "is a log file, it is not overwritten");
    return false;
}

int Cat(const std::vector<std::string>& paths, const std::string& output_path) {
    Report report(!output_path.empty() || isatty(STDOUT_FILENO) == 0);
    Input input(report);
    bool any = false;
    for (const std::string& path : paths) any = input.Add(path, false) || any;
    if (!any) return report.status;
    if (!output_path.empty() && !MayOverwrite(output_path, input, report)) return report.status;
    Output output(output_path);
    uint64_t done = 0;
    input.Visit([&](const OpenLog& log) {
        FileSource source(log.fd);
        Header header;
        if (!TakeHeader(source, log, header, report)) return true;
        BlockReader reader(source, header.length);
        Block block;
        while (reader.Next(block)) {
            const size_t raw = block.lengths.raw_length;
            if (!reader.Unpack(block, output.Room(raw))) break;
            output.Filled(raw);
            report.progress.At(done + block.offset);
        }
        done += reader.offset();
        TellEnd(reader, log, report, "; the rest of the file is left out (try muxz recover)");
        return true;
    });
    output.Close();
    return report.status;
}

int Verify(const std::vector<std::string>& paths) {
    Report report(true);
    Input input(report);
    for (const std::string& path : paths) {
        if (!input.Add(path, true) || report.status != kFine) return report.status;
    }
    uint64_t files = 0, blocks = 0, raw = 0, done = 0;
    input.Visit([&](const OpenLog& log) {
        ++files;
        FileSource source(log.fd);
        Header header;
        if (!TakeHeader(source, log, header, report)) return report.status == kFine;
        BlockReader reader(source, header.length);
        Block block;
        while (reader.Next(block) && reader.Check(block)) {
            ++blocks;
            raw += block.lengths.raw_length;
            report.progress.At(done + block.offset);
        }
        done += reader.offset();
        TellEnd(reader, log, report, "");
        return report.status == kFine;
    });
    if (report.status == kFine)
        printf("%" PRIu64 " files, %" PRIu64 " blocks, %" PRIu64
               " raw bytes: every block is good\n",
               files, blocks, raw);
    return report.status;
}

int RecoverFile(const std::string& path, const std::string& output_path) {
    constexpr uint64_t kMostGapsTold = 100;
    Report report(!output_path.empty() || isatty(STDOUT_FILENO) == 0);
    std::string why;
    const Fd fd = OpenRegular(AT_FDCWD, path, why);
    if (!fd) {
        report.IoError(path, why);
        return report.status;
    }
    Input input(report);
    input.Add(path, false);
    if (!output_path.empty() && !MayOverwrite(output_path, input, report)) return report.status;
    struct stat info;
    if (fstat(fd.get(), &info) == 0) report.progress.Expect(static_cast<uint64_t>(info.st_size));
    Output output(output_path);

    uint64_t gaps_told = 0;
    FileSource source(fd.get());
    const Recovery result = Recover(
        source, {.block =
                     [&](uint64_t offset, Bytes raw) {
                         memcpy(output.Room(raw.size()), raw.data(), raw.size());
                         output.Filled(raw.size());
                         report.progress.At(offset);
                     },
                 .gap =
                     [&](Gap gap) {
                         if (++gaps_told > kMostGapsTold) return;
                         report.Note(path, "offset " + std::to_string(gap.offset) + ": skipped " +
                                               std::to_string(gap.length) + " bytes");
                     },
                 .progress = [&](uint64_t offset) { report.progress.At(offset); }});
    output.Close();

    if (gaps_told > kMostGapsTold)
        report.Note(path, std::to_string(gaps_told - kMostGapsTold) + " more gaps");
    const bool cut = result.ends_cut && result.gaps == 1;
    std::string summary = std::to_string(result.blocks) + " blocks, " +
                          std::to_string(result.raw_bytes) + " raw bytes recovered; " +
                          std::to_string(result.skipped) + " bytes skipped in " +
                          std::to_string(result.gaps) + " places";
    if (result.header != HeaderState::kWhole) summary += "; " + std::string(Text(result.header));
    if (result.ends_cut) summary += "; the file ends within a block";
    if (result.trailing > 1)
        summary += "; " + std::to_string(result.trailing) + " bytes of a block at the end";
    report.Note(path, summary);
    if (result.error != 0) {
        report.IoError(path,
                       "offset " + std::to_string(result.end) + ": " + strerror(result.error));
    } else if (result.gaps != 0 && !(cut && MayBeOpen(path))) {
        report.status = std::max(report.status, kFaults);
    }
    return report.status;
}

// --- ls

struct LsOptions {
    bool raw = false;
    bool exact = false;
    bool files = false;
};

class Lister {
  public:
    explicit Lister(LsOptions chosen) : options(chosen), report(isatty(STDOUT_FILENO) == 0) {}

    int List(const std::string& root) {
        Tree tree;
        std::vector<Complaint> complaints;
        Capture capture;
        if (CaptureAt(root, capture) && OpenCapture(capture)) {
            tree.captures.push_back(capture);
        } else if (!ListTree(root, tree, complaints)) {
            report.IoError(root, strerror(errno));
            return report.status;
        }
        report.Tell(complaints);
        Row("INDEX", "TIME", "FILES", "PACKED", "RAW", "STATE", "PATH");
        for (Capture& listed : tree.captures) ListCapture(listed);
        for (const std::string& path : tree.power_on_logs) ListPowerOnLog(path);
        report.progress.Clear();
        return report.status;
    }

  private:
    void Row(const std::string& index, const std::string& time, const std::string& files,
             const std::string& packed, const std::string& raw, const std::string& state,
             const std::string& path) {
        report.progress.Clear();
        const int width = options.exact ? 14 : 9;
        printf("%10s  %-19s  %6s  %*s  ", index.c_str(), time.c_str(), files.c_str(), width,
               packed.c_str());
        if (options.raw) printf("%*s  ", width, raw.c_str());
        printf("%-16s  %s\n", state.c_str(), PrintablePath(path).c_str());
    }

    // "2024_0131_235959" as people write it; what has another shape stays.
    static std::string ShowTime(const std::string& time) {
        int year, day, clock, end = 0;
        if (time.size() != 16 ||
            sscanf(time.c_str(), "%4d_%4d_%6d%n", &year, &day, &clock, &end) != 3 || end != 16)
            return time;
        char text[80];
        snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d", year, day / 100, day % 100,
                 clock / 10000, clock / 100 % 100, clock % 100);
        return text;
    }

    uint64_t RawBytes(const OpenLog& log) {
        FileSource source(log.fd);
        Header header;
        if (!TakeHeader(source, log, header, report)) return 0;
        BlockReader reader(source, header.length, BlockReader::Mode::kLengths);
        const uint64_t raw = Count(reader, report.progress).raw;
        TellEnd(reader, log, report, "");
        return raw;
    }

    void ListCapture(Capture& capture) {
        const Fd folder = OpenCapture(capture);
        std::vector<LogFile> files;
        std::vector<Complaint> complaints;
        if (!folder && errno == ENOENT) return report.Note(capture.path(), "gone");
        if (!folder || !ListFiles(folder, capture.path(), files, complaints)) {
            report.IoError(capture.path(), strerror(errno));
            return;
        }
        report.Tell(complaints);
        uint64_t packed = 0, raw = 0;
        std::vector<uint64_t> raw_of_file;
        for (LogFile& file : files) {
            std::string why;
            const Fd fd = options.raw ? OpenFile(folder, file, why) : Fd();
            const std::string path = capture.path() + "/" + file.name;
            if (options.raw && !fd && errno != ENOENT) report.IoError(path, why);
            raw_of_file.push_back(fd ? RawBytes({fd.get(), path, MayBeOpen(path)}) : 0);
            packed += file.size;
            raw += raw_of_file.back();
        }
        const std::string state = std::string(capture.finished ? "finished" : "open") +
                                  (capture.exception ? " EE" : "") + (capture.copy ? " copy" : "");
        Row(std::to_string(capture.index), ShowTime(capture.time), std::to_string(files.size()),
            Size(packed, options.exact), Size(raw, options.exact), state, capture.path());
        for (size_t i = 0; options.files && i < files.size(); ++i) {
            const LogFile& file = files[i];
            Row(std::to_string(file.index), ShowTime(file.time), "", Size(file.size, options.exact),
                Size(raw_of_file[i], options.exact),
                std::string(MayBeOpen(file.name) ? "open" : "finished") +
                    (file.exception ? " EE" : ""),
                "  " + file.name);
        }
    }

    void ListPowerOnLog(const std::string& path) {
        std::string why;
        const Fd fd = OpenRegular(AT_FDCWD, path, why);
        struct stat info;
        if (!fd || fstat(fd.get(), &info) != 0) return;
        const uint64_t raw = options.raw ? RawBytes({fd.get(), path, true}) : 0;
        Row("", "", "1", Size(static_cast<uint64_t>(info.st_size), options.exact),
            Size(raw, options.exact), "power-on log", path);
    }

    const LsOptions options;
    Report report;
};

// --- arguments

// What a command was given: the letters of its options, the argument of -o, and the rest.
struct Arguments {
    std::string letters;
    std::string output;
    std::vector<std::string> paths;
    bool wrong = false;

    bool Has(char letter) const { return letters.find(letter) != std::string::npos; }
};

Arguments Parse(int argc, char** argv, const char* allowed) {
    static constexpr option kLong[] = {
        {"help", no_argument, nullptr, 'h'},
        {"all", no_argument, nullptr, 'a'},
        {"raw", no_argument, nullptr, 'r'},
        {"bytes", no_argument, nullptr, 'b'},
        {"files", no_argument, nullptr, 'f'},
        {"output", required_argument, nullptr, 'o'},
        {nullptr, 0, nullptr, 0},
    };
    Arguments arguments;
    // getopt tells of what is no option at all; of what another command has it knows nothing.
    for (int letter; (letter = getopt_long(argc, argv, allowed, kLong, nullptr)) != -1;) {
        if (letter == '?' || strchr(allowed, letter) == nullptr) {
            arguments.wrong = true;
        } else {
            arguments.letters += static_cast<char>(letter);
            if (letter == 'o') arguments.output = optarg;
        }
    }
    if (arguments.Has('o') && arguments.output.empty()) arguments.wrong = true;
    arguments.paths.assign(argv + optind, argv + argc);
    return arguments;
}

struct Command {
    const char* help;
    const char* allowed;  // options as getopt takes them
    size_t least_paths;
    size_t most_paths;
    int (*run)(const Arguments&);
};

const std::map<std::string_view, Command> kCommands = {
    {"info",
     {kInfoHelp, "ha", 1, SIZE_MAX, [](const Arguments& a) { return Info(a.paths, a.Has('a')); }}},
    {"cat",
     {kCatHelp, "ho:", 1, SIZE_MAX, [](const Arguments& a) { return Cat(a.paths, a.output); }}},
    {"verify", {kVerifyHelp, "h", 1, SIZE_MAX, [](const Arguments& a) { return Verify(a.paths); }}},
    {"recover",
     {kRecoverHelp, "ho:", 1, 1,
      [](const Arguments& a) { return RecoverFile(a.paths[0], a.output); }}},
    {"ls",
     {kLsHelp, "hrbf", 0, 1,
      [](const Arguments& a) {
          return Lister({.raw = a.Has('r'), .exact = a.Has('b'), .files = a.Has('f')})
              .List(a.paths.empty() ? kDefaultTree : a.paths[0]);
      }}},
};

int Run(int argc, char** argv) {
    const std::string name = argc > 1 ? argv[1] : "";
    if (name == "--help" || name == "-h") {
        fputs(kHelp, stdout);
        return kFine;
    }
    const auto command = kCommands.find(name);
    if (command == kCommands.end()) return UsageError(kHelp);
    const auto& [help, allowed, least, most, run] = command->second;

    std::string program = "muxz " + name;
    argv[1] = program.data();  // for the messages of getopt
    const Arguments arguments = Parse(argc - 1, argv + 1, allowed);
    if (arguments.Has('h')) {
        fputs(help, stdout);
        return kFine;
    }
    if (arguments.wrong || arguments.paths.size() < least || arguments.paths.size() > most)
        return UsageError(help);
    return run(arguments);
}

}  // namespace

int main(int argc, char** argv) {
    // A reader that leaves and a limit on file sizes are told as errors of the write.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    const int status = Run(argc, argv);
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
    fprintf(stderr, "muxz: standard output: %s\n", strerror(errno));
    return kUsageOrIo;
}
