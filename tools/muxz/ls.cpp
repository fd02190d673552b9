// muxz ls: lists the captures, and their files if requested.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/muxz/commands.h"
#include "tools/muxz/json.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/reading.h"

namespace muxz {

namespace {

class Lister {
  public:
    explicit Lister(LsOptions chosen) : options(chosen) {}

    void List(const Model& model) {
        for (size_t i = 0; i < model.phones.size(); ++i) {
            const Phone& phone = model.phones[i];
            if (model.phones.size() > 1) {
                printf("%sphone %zu%s%s\n", i == 0 ? "" : "\n", i + 1,
                       phone.hardware_id.empty() ? "" : ", hardware id ",
                       Printable(phone.hardware_id).c_str());
            }
            Row("INDEX", "TIME", "FILES", "PACKED", "RAW", "STATE", "PATH");
            for (const CaptureFacts& capture : phone.captures) ListCapture(capture);
            for (const FileFacts& log : phone.power_on_logs) {
                Row("", "", "1", Size(log.size, options.exact), Size(log.blocks.raw, options.exact),
                    "power-on log", log.path);
            }
        }
    }

  private:
    void Row(const std::string& index, const std::string& time, const std::string& files,
             const std::string& packed, const std::string& raw, const std::string& state,
             const std::string& path) const {
        const int width = options.exact ? 14 : 9;
        printf("%10s  %-19s  %6s  %*s  ", index.c_str(), time.c_str(), files.c_str(), width,
               packed.c_str());
        if (options.raw) printf("%*s  ", width, raw.c_str());
        printf("%-16s  %s\n", state.c_str(), PrintablePath(path).c_str());
    }

    void ListCapture(const CaptureFacts& capture) const {
        const std::string state = std::string(Text(capture.state)) +
                                  (capture.exception ? " EE" : "") + (capture.copy ? " copy" : "");
        // The folder around unsorted files does not identify a capture.
        const std::string path =
            capture.name.empty() && !capture.files.empty()
                ? capture.files.front().path + (capture.files.size() > 1 ? " ..." : "")
            : !capture.whole && capture.files.size() == 1 ? capture.files.front().path
                                                          : capture.path;
        Row(capture.index ? std::to_string(*capture.index) : "-",
            capture.start ? ShowTime(*capture.start) : "-", std::to_string(capture.files.size()),
            Size(capture.size, options.exact), Size(capture.blocks.raw, options.exact), state,
            path);
        if (options.files) ListFiles(capture);
    }

    void ListFiles(const CaptureFacts& capture) const {
        for (const FileFacts& file : capture.files) {
            const bool last =
                &file == &capture.files.back() && capture.state != CaptureFacts::State::kFinished;
            const std::string_view state_of_file =
                Text(!file.may_be_open ? CaptureFacts::State::kFinished
                     : last            ? capture.state
                                       : CaptureFacts::State::kUnfinished);
            Row(file.index ? std::to_string(*file.index) : "-",
                file.opened ? ShowTime(*file.opened) : "-", "", Size(file.size, options.exact),
                Size(file.blocks.raw, options.exact),
                std::string(state_of_file) + (file.exception ? " EE" : ""), "  " + file.name);
        }
    }

    const LsOptions options;
};

}  // namespace

int Ls(const Selection& selection, LsOptions options) {
    Messages messages(true);
    const Depth depth = options.raw ? Depth::kLengths : Depth::kHeaders;
    const Model model = Read(selection, {.depth = depth, .copies = options.raw}, messages);
    if (options.json) return PrintJson(model, "ls");
    if (model.totals.captures + model.totals.copies + model.totals.power_on_logs != 0)
        Lister(options).List(model);
    messages.Tell(model.findings);
    return messages.status;
}

}  // namespace muxz
