#include <algorithm>
#include <limits>
#include <map>
#include <tuple>

#include "tools/muxz/assemble.h"
#include "tools/muxz/tree.h"

namespace muxz {

namespace {

constexpr PhoneTime kNever = std::numeric_limits<PhoneTime>::max();

// The sort keys of OrderByIndex, and the position of the item.
struct Placed {
    uint32_t index;
    PhoneTime time;
    std::string name;
    size_t at;
};

template <typename T>
void MoveInto(const std::vector<Placed>& order, std::vector<T>& things) {
    std::vector<T> ordered;
    ordered.reserve(things.size());
    for (const Placed& placed : order) ordered.push_back(std::move(things[placed.at]));
    things = std::move(ordered);
}

// Returns the time of a capture in UTC if `utc`, else the time in the names.
PhoneTime TimeOf(const CaptureFacts& capture, bool utc) {
    if (utc) return *capture.folder_time;
    if (capture.start) return *capture.start;
    return capture.files.empty() ? kNever : capture.files.front().opened.value_or(kNever);
}

}  // namespace

void OrderFiles(CaptureFacts& capture) {
    std::vector<Placed> order, nameless;
    for (size_t i = 0; i < capture.files.size(); ++i) {
        const FileFacts& file = capture.files[i];
        (file.index ? order : nameless)
            .push_back({file.index.value_or(0), file.opened.value_or(0), file.name, i});
    }
    OrderByIndex(order);
    order.insert(order.end(), nameless.begin(), nameless.end());
    MoveInto(order, capture.files);
}

void OrderCaptures(std::vector<CaptureFacts>& captures) {
    const bool utc = std::all_of(captures.begin(), captures.end(),
                                 [](const CaptureFacts& c) { return c.folder_time.has_value(); });
    // Each log folder has a list, ordered by numbers, because the clock may have been set. All
    // unsorted captures form one list, ordered by time.
    std::map<std::string, std::vector<Placed>> lists;
    for (size_t i = 0; i < captures.size(); ++i) {
        const CaptureFacts& capture = captures[i];
        const bool counted = capture.index.has_value();
        lists[counted ? capture.log_folder : ""].push_back(
            {capture.index.value_or(0), TimeOf(capture, utc), capture.name, i});
    }
    using Head = std::tuple<PhoneTime, bool, uint32_t, std::string>;
    std::map<Head, std::pair<const std::vector<Placed>*, size_t>> heads;
    const auto put = [&](const std::string& folder, const std::vector<Placed>& list, size_t at) {
        if (at == list.size()) return;
        const bool open = captures[list[at].at].state != CaptureFacts::State::kFinished;
        heads[{list[at].time, open, list[at].index, folder}] = {&list, at};
    };
    for (auto& [folder, list] : lists) {
        if (folder.empty()) {
            std::stable_sort(list.begin(), list.end(),
                             [](const Placed& a, const Placed& b) { return a.time < b.time; });
        } else {
            OrderByIndex(list);
        }
        put(folder, list, 0);
    }
    std::vector<Placed> order;
    while (!heads.empty()) {
        const auto [head, place] = *heads.begin();
        heads.erase(heads.begin());
        order.push_back((*place.first)[place.second]);
        put(std::get<3>(head), *place.first, place.second + 1);
    }
    MoveInto(order, captures);
}

}  // namespace muxz
