#include "tools/muxz/reading.h"

#include <filesystem>
#include <fstream>

namespace muxz {

namespace {

namespace fs = std::filesystem;

// Returns the recycle size limit in bytes from the daemon's configuration file. The file lies in
// the folder "config" beside the log folder. `path` is the log folder, or a file or folder in it.
std::optional<uint64_t> BudgetBeside(const std::string& path) {
    constexpr int kLevels = 4;  // from a log file up to the folder that contains "config"
    constexpr int kBytesPerMbShift = 20;
    std::error_code error;
    fs::path folder = fs::absolute(path, error).lexically_normal();
    for (int level = 0; !error && level < kLevels; ++level, folder = folder.parent_path()) {
        std::ifstream config(folder / "config" / "quarn.cfg");
        uint64_t mb;
        for (std::string key; config >> key;) {
            if (key == "recycle_size" && config >> mb) return mb << kBytesPerMbShift;
        }
    }
    return std::nullopt;
}

}  // namespace

Model Read(const Selection& selection, BuildOptions options, Messages& messages) {
    options.progress = [&](uint64_t done, uint64_t all) {
        messages.progress.Expect(all);
        messages.progress.At(done);
    };
    if (!selection.parts.empty())
        options.narrow = [&](Listing& listing) { Narrow(listing, selection.parts); };
    Model model = Build(selection.paths, options);
    messages.progress.Clear();
    model.android_log = selection.log;
    for (const std::string& path : selection.paths) {
        if (!model.budget) model.budget = BudgetBeside(path);
    }
    if (!model.budget && model.android_log) model.budget = model.android_log->budget;
    return model;
}

bool AreWanted(const Model& model, const Phones& phones, Messages& messages) {
    if (phones && !model.phones.empty()) return true;
    if (!phones && model.phones_found <= 1) return true;
    if (phones) {
        messages.IoError("", "there is no phone " + std::to_string(phones->number) + ", only " +
                                 std::to_string(model.phones_found));
        return false;
    }
    for (const Finding& finding : model.findings) {
        if (finding.what == Finding::What::kPhones) messages.Tell(finding);
    }
    messages.IoError("", "choose with --phone N, --phone all or --phone same; muxz ls shows them");
    return false;
}

}  // namespace muxz
