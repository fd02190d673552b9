// Fuzz target: reads any bytes as Android log text, and makes the report page from it.
#include <sstream>
#include <string>

#include "fuzz.h"
#include "tools/common/android_log.h"
#include "tools/muxz/page.h"

namespace {

size_t Count(const std::string& text, std::string_view what) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) ++count;
    return count;
}

}  // namespace

void fuzz::SetUp() {}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::istringstream text{std::string(fuzz::Text(data, size))};
    muxz::Model model;
    model.android_log = muxz::ReadAndroidLog(text, {1763852530, 3600});
    const muxz::AndroidLog& log = *model.android_log;
    fuzz::Check(log.reports.size() + log.events.size() <= log.lines, "a line tells one thing");
    fuzz::Check(log.untimed <= log.lines, "lines are counted once");
    const std::string page = muxz::ReportPage(model);
    fuzz::Check(Count(page, "<script") == 1, "text of the log is no markup");
    return 0;
}
