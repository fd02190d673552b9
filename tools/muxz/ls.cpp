// muxz ls: the captures of a tree.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/muxz/commands.h"
#include "tools/muxz/header.h"
#include "tools/muxz/input.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/tree.h"

namespace muxz {

namespace {

class Lister {
  public:
    explicit Lister(LsOptions chosen) : options(chosen), messages(isatty(STDOUT_FILENO) == 0) {}

    int List(const std::string& root) {
        Tree tree;
        std::vector<Complaint> complaints;
        Capture capture;
        if (CaptureAt(root, capture) && OpenCapture(capture)) {
            tree.captures.push_back(capture);
        } else if (!ListTree(root, tree, complaints)) {
            messages.IoError(root, strerror(errno));
            return messages.status;
        }
        messages.Tell(complaints);
        Row("INDEX", "TIME", "FILES", "PACKED", "RAW", "STATE", "PATH");
        for (Capture& listed : tree.captures) ListCapture(listed);
        for (const std::string& path : tree.power_on_logs) ListPowerOnLog(path);
        messages.progress.Clear();
        return messages.status;
    }

  private:
    void Row(const std::string& index, const std::string& time, const std::string& files,
             const std::string& packed, const std::string& raw, const std::string& state,
             const std::string& path) {
        messages.progress.Clear();
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
        if (!TakeHeader(source, log, header, messages)) return 0;
        BlockReader reader(source, header.length, BlockReader::Mode::kLengths);
        const uint64_t raw = Count(reader, messages.progress).raw;
        TellEnd(reader, log, messages, "");
        return raw;
    }

    void ListCapture(Capture& capture) {
        const Fd folder = OpenCapture(capture);
        std::vector<LogFile> files;
        std::vector<Complaint> complaints;
        if (!folder && errno == ENOENT) return messages.Note(capture.path(), "gone");
        if (!folder || !ListFiles(folder, capture.path(), files, complaints)) {
            messages.IoError(capture.path(), strerror(errno));
            return;
        }
        messages.Tell(complaints);
        uint64_t packed = 0, raw = 0;
        std::vector<uint64_t> raw_of_file;
        for (LogFile& file : files) {
            std::string why;
            const Fd fd = options.raw ? OpenFile(folder, file, why) : Fd();
            const std::string path = capture.path() + "/" + file.name;
            if (options.raw && !fd && errno != ENOENT) messages.IoError(path, why);
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
    Messages messages;
};

}  // namespace

int Ls(const std::string& root, LsOptions options) { return Lister(options).List(root); }

}  // namespace muxz
