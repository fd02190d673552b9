#include "tools/muxz/messages.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace muxz {

Progress::Progress(bool wanted) : active(wanted && isatty(STDERR_FILENO) == 1) {}

void Progress::At(uint64_t bytes) {
    const auto now = std::chrono::steady_clock::now();
    if (!active || now < next) return;
    next = now + std::chrono::milliseconds(250);
    const double seconds = std::chrono::duration<double>(now - start).count();
    fprintf(stderr, "\r%s\033[K", ProgressLine(bytes, total, seconds).c_str());
    shown = true;
}

std::string Coloured(Colour colour, const std::string& text) {
    const char* const unwanted = getenv("NO_COLOR");
    if (isatty(STDOUT_FILENO) == 0 || (unwanted != nullptr && *unwanted != '\0')) return text;
    return (colour == Colour::kRed ? "\033[31m" : "\033[32m") + text + "\033[0m";
}

void Progress::Clear() {
    if (shown) fputs("\r\033[K", stderr);
    shown = false;
}

void Messages::Note(const std::string& path, const std::string& text) {
    progress.Clear();
    const std::string place = path.empty() ? "" : PrintablePath(path) + ": ";
    fprintf(stderr, "muxz: %s%s\n", place.c_str(), text.c_str());
}

void Messages::Fault(const std::string& path, const std::string& text) {
    Note(path, text);
    status = std::max(status, kFaults);
}

void Messages::FaultAt(const std::string& path, uint64_t offset, const std::string& text) {
    Fault(path, "offset " + std::to_string(offset) + ": " + text);
}

void Messages::IoError(const std::string& path, const std::string& text) {
    Note(path, text);
    status = kUsageOrIo;
}

void Messages::Tell(const Finding& finding) {
    std::string text = finding.text;
    if (finding.offset) text = "offset " + std::to_string(*finding.offset) + ": " + text;
    switch (finding.kind) {
        case Finding::Kind::kNote:
            return Note(finding.path, text);
        case Finding::Kind::kFault:
            return Fault(finding.path, text);
        case Finding::Kind::kUnreadable:
            return IoError(finding.path, text);
    }
}

void Messages::Tell(const std::vector<Finding>& findings) {
    for (const Finding& finding : findings) Tell(finding);
}

}  // namespace muxz
