#include <algorithm>
#include <optional>

#include "tools/muxz/assemble.h"
#include "tools/muxz/text.h"

namespace muxz {

namespace {

constexpr uint8_t kRadioVersion = 1;
constexpr uint8_t kHardwareId = 2;
// If the time between two files is longer, muxz assumes that the clock was set.
constexpr int64_t kLongestFile = 86400;  // s
constexpr size_t kNeighbours = 64;       // a capture is compared with so many captures before it

std::string ValueOf(const CaptureFacts& capture, uint8_t type) {
    for (const CustomValue& value : capture.custom()) {
        if (value.type == type) return value.value;
    }
    return "";
}

std::string NameOf(const CaptureFacts& capture) {
    if (!capture.name.empty()) return PrintablePath(capture.path);
    return capture.files.empty() ? "a capture" : PrintablePath(capture.files.front().path);
}

// Returns true if a file of `inner` was opened between two consecutive files of `outer`. On one
// phone this is impossible, because a daemon writes one capture at a time.
bool LiesWithin(const CaptureFacts& inner, const CaptureFacts& outer) {
    for (size_t i = 1; i < outer.files.size(); ++i) {
        const auto before = outer.files[i - 1].opened, behind = outer.files[i].opened;
        if (!before || !behind || *behind - *before > kLongestFile) continue;
        if (std::any_of(inner.files.begin(), inner.files.end(), [&](const FileFacts& file) {
                return file.opened && *before < *file.opened && *file.opened < *behind;
            }))
            return true;
    }
    return false;
}

// Returns why two captures cannot come from one phone. Returns no value if they can.
std::optional<std::string> Conflict(const CaptureFacts& a, const CaptureFacts& b) {
    const std::string both = NameOf(a) + " and " + NameOf(b);
    if (a.index && b.index && a.log_folder == b.log_folder) {
        // Their numbers show their order. Overlapping times then only mean that the clock was set.
        if (*a.index != *b.index) return std::nullopt;
        return "one capture number, " + std::to_string(*a.index) + ", for " + both;
    }
    const bool unsorted = !a.index && !b.index;
    if (unsorted && a.folder_time && a.folder_time == b.folder_time)
        return "captures of one second, in " + both;
    if (LiesWithin(a, b) || LiesWithin(b, a)) {
        const bool guess = unsorted && (!a.folder_time || !b.folder_time);
        return "captures at the same time, " + both +
               (guess ? " (which file is whose is a guess by names)" : "");
    }
    return std::nullopt;
}

std::optional<std::string> Conflict(const Phone& phone, const CaptureFacts& capture) {
    const std::string hardware = ValueOf(capture, kHardwareId);
    if (!hardware.empty() && !phone.hardware_id.empty() && hardware != phone.hardware_id) {
        return "hardware ids " + Printable(phone.hardware_id) + " and " + Printable(hardware) +
               ", the latter in " + NameOf(capture);
    }
    size_t compared = 0;
    for (auto other = phone.captures.rbegin();
         other != phone.captures.rend() && compared < kNeighbours; ++other) {
        if (other->copy) continue;
        ++compared;
        if (auto why = Conflict(*other, capture)) return why;
    }
    return std::nullopt;
}

// Returns how similar `capture` is to captures of the phone: 2 for the same log folder, plus 1 for
// the same radio version.
int Likeness(const Phone& phone, const CaptureFacts& capture) {
    int best = 0;
    size_t compared = 0;
    for (auto place = phone.captures.rbegin();
         place != phone.captures.rend() && compared < kNeighbours; ++place, ++compared) {
        const CaptureFacts& other = *place;
        int likeness = ValueOf(other, kRadioVersion) == ValueOf(capture, kRadioVersion) ? 1 : 0;
        if (other.index && capture.index && other.log_folder == capture.log_folder) likeness += 2;
        best = std::max(best, likeness);
    }
    return best;
}

}  // namespace

std::vector<Phone> TellApart(std::vector<CaptureFacts> captures, std::string& why) {
    std::vector<Phone> phones;
    for (CaptureFacts& capture : captures) {
        Phone* best = nullptr;
        for (Phone& phone : phones) {
            if (!capture.copy) {
                if (auto conflict = Conflict(phone, capture)) {
                    if (why.empty()) why = *conflict;
                    continue;
                }
            }
            if (best == nullptr || Likeness(phone, capture) > Likeness(*best, capture))
                best = &phone;
        }
        if (best == nullptr) best = &phones.emplace_back();
        if (best->hardware_id.empty()) best->hardware_id = ValueOf(capture, kHardwareId);
        best->captures.push_back(std::move(capture));
    }
    if (phones.empty()) phones.emplace_back();
    if (phones.size() == 1) why.clear();
    return phones;
}

}  // namespace muxz
