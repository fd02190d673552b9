#include "tools/muxz/reading.h"

namespace muxz {

Model Read(const std::vector<std::string>& paths, BuildOptions options, Messages& messages) {
    options.progress = [&](uint64_t done, uint64_t all) {
        messages.progress.Expect(all);
        messages.progress.At(done);
    };
    Model model = Build(paths, options);
    messages.progress.Clear();
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
