// muxz report: writes the model as an HTML page.
#include <cstring>
#include <string>

#include "tools/muxz/commands.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/output.h"
#include "tools/muxz/page.h"
#include "tools/muxz/reading.h"

namespace muxz {

int WriteReport(const Selection& selection, const std::string& output_path, const Phones& phones) {
    Messages messages(true);
    BuildOptions options{.depth = Depth::kBlocks};
    if (phones) options.phones = *phones;
    const Model model = Read(selection, options, messages);
    if (!AreWanted(model, phones, messages)) return messages.status;
    if (!output_path.empty() && !MayOverwrite(output_path, model, messages)) return messages.status;
    const std::string page = ReportPage(model);
    Output output(output_path);
    memcpy(output.Room(page.size()), page.data(), page.size());
    output.Filled(page.size());
    output.Close();
    return model.Status();
}

}  // namespace muxz
