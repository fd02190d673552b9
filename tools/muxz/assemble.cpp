#include "tools/muxz/assemble.h"

#include <algorithm>
#include <iterator>

namespace muxz {

namespace {

CaptureFacts OfFolder(const FoundGroup& group, std::vector<FileFacts> files) {
    CaptureFacts capture;
    capture.path = group.path;
    capture.name = group.capture->name;
    capture.log_folder = group.capture->folder;
    capture.index = group.capture->index;
    capture.copy = group.copy;
    capture.whole = group.whole;
    capture.others = group.others;
    capture.given = group.given;
    capture.start = ParseNameTime(group.capture->time);
    if (!group.capture->finished) capture.state = CaptureFacts::State::kUnfinished;
    if (group.capture->exception) capture.exception.emplace();
    for (FileFacts& file : files) {
        if (!capture.folder_time) capture.folder_time = file.header.folder_time;
        const bool gone = std::any_of(file.findings.begin(), file.findings.end(),
                                      [](auto& f) { return f.what == Finding::What::kRecycled; });
        if (gone) {
            std::move(file.findings.begin(), file.findings.end(),
                      std::back_inserter(capture.findings));
        } else {
            capture.files.push_back(std::move(file));
        }
    }
    return capture;
}

bool IsForeign(const FileFacts& file) {
    return file.header.kind == HeaderFacts::Kind::kForeign ||
           file.header.kind == HeaderFacts::Kind::kNone;
}

// Finds files that do not belong into the folder. Somebody may have put a file of another capture
// there. And all files of a capture have the same header layout: a header of unknown layout among
// headers of the known layout is damaged.
void FindStrangers(CaptureFacts& capture) {
    const bool known = std::any_of(
        capture.files.begin(), capture.files.end(),
        [](const FileFacts& file) { return file.header.kind == HeaderFacts::Kind::kOwn; });
    const auto tell = [&](const FileFacts& file, Finding::What what, std::string text) {
        capture.findings.push_back(NoteOn(file.path, what, std::move(text)));
        capture.findings.back().kind = Finding::Kind::kFault;
    };
    for (const FileFacts& file : capture.files) {
        const auto& time = file.header.folder_time;
        if (time && time != capture.folder_time) {
            tell(file, Finding::What::kWrongName,
                 "its header says another capture, of " + ShowUtc(*time));
        }
        if (known && IsForeign(file)) {
            tell(file, Finding::What::kHeader,
                 "damaged header: of no known layout, unlike that of other files of the capture");
        }
    }
}

void Sum(CaptureFacts& capture) {
    for (const FileFacts& file : capture.files) {
        capture.size += file.size;
        capture.blocks.Add(file.blocks);
        capture.damaged_bytes += file.damaged_bytes;
        for (const Finding& finding : file.findings) {
            capture.raw_missing += finding.raw_missing.value_or(0);
            const bool unknown = finding.what == Finding::What::kDamage && !finding.raw_missing;
            capture.raw_estimated = capture.raw_estimated || finding.raw_estimated || unknown;
        }
    }
}

void AddTo(Totals& totals, const CaptureFacts& capture) {
    if (capture.copy) {
        ++totals.copies;
        return;
    }
    ++totals.captures;
    totals.files += capture.files.size();
    totals.size += capture.size;
    totals.blocks.Add(capture.blocks);
    totals.exceptions += capture.exception ? 1 : 0;
    totals.damaged_bytes += capture.damaged_bytes;
    totals.raw_missing += capture.raw_missing;
    totals.raw_estimated = totals.raw_estimated || capture.raw_estimated;
}

void Append(std::vector<Finding>& all, const std::vector<Finding>& more) {
    all.insert(all.end(), more.begin(), more.end());
}

void TakeFindings(Model& model) {
    for (const Phone& phone : model.phones) {
        for (const FileFacts& log : phone.power_on_logs) Append(model.findings, log.findings);
        for (const CaptureFacts& capture : phone.captures) {
            if (capture.copy) continue;
            Append(model.findings, capture.findings);
            for (const FileFacts& file : capture.files) Append(model.findings, file.findings);
        }
    }
    for (const Finding& finding : model.findings) {
        if (finding.kind == Finding::Kind::kFault) ++model.totals.faults;
        if (finding.what == Finding::What::kHole) ++model.totals.holes;
    }
}

void TakePowerOnLogs(std::vector<FileFacts> logs, Model& model) {
    for (FileFacts& log : logs) {
        Phone* owner = &model.phones.front();
        for (Phone& phone : model.phones) {
            const CustomValue hardware{2, phone.hardware_id};
            const auto& custom = log.header.custom;
            if (std::find(custom.begin(), custom.end(), hardware) != custom.end()) owner = &phone;
        }
        owner->power_on_logs.push_back(std::move(log));
    }
}

void Choose(const PhoneChoice& choice, Model& model) {
    model.phones_found = model.phones.size();
    if (model.phones_found > 1) {
        model.findings.push_back(NoteOn("", Finding::What::kPhones,
                                        "these are files of " + std::to_string(model.phones_found) +
                                            " phones: " + model.phones_why));
    }
    if (choice.which != PhoneChoice::Which::kOne) return;
    std::vector<Phone> chosen;
    if (choice.number >= 1 && choice.number <= model.phones.size())
        chosen.push_back(std::move(model.phones[choice.number - 1]));
    model.phones = std::move(chosen);
}

// Gives the last capture of a phone its state.
void MarkNewest(Phone& phone) {
    const auto newest = std::find_if(phone.captures.rbegin(), phone.captures.rend(),
                                     [](const CaptureFacts& c) { return !c.copy; });
    if (newest == phone.captures.rend()) return;
    // If the user gave only this folder of a tree, later captures may exist that muxz does not
    // see. Then the folder name alone says whether it is the newest.
    const bool is_alone = !newest->name.empty() && (newest->given || !newest->whole);
    if (!is_alone || newest->state != CaptureFacts::State::kFinished)
        newest->state = CaptureFacts::State::kNewest;
}

bool IsReordered(const Model& model) {
    std::pair<size_t, size_t> last;
    for (const FileFacts* file : model.Files()) {
        if (file->place < last) return true;
        last = file->place;
    }
    return false;
}

}  // namespace

Model Assemble(const Listing& listing, ScannedFiles scanned, const BuildOptions& options) {
    Model model;
    model.depth = options.depth;
    model.history = listing.history;
    Append(model.findings, listing.findings);
    std::vector<CaptureFacts> captures;
    std::vector<FileFacts> unsorted, power_on;
    std::vector<uint32_t> others;
    bool whole = true;
    for (size_t i = 0; i < listing.groups.size(); ++i) {
        const FoundGroup& group = listing.groups[i];
        std::vector<FileFacts>& files = scanned[i];
        if (group.kind == FoundGroup::Kind::kCapture) {
            captures.push_back(OfFolder(group, std::move(files)));
        } else if (group.kind == FoundGroup::Kind::kPowerOn) {
            std::move(files.begin(), files.end(), std::back_inserter(power_on));
        } else {
            std::move(files.begin(), files.end(), std::back_inserter(unsorted));
            others.insert(others.end(), group.others.begin(), group.others.end());
            whole = whole && group.whole;
        }
    }
    std::vector<CaptureFacts> grouped = GroupUnsorted(std::move(unsorted));
    for (CaptureFacts& capture : grouped) {
        capture.whole = whole;
        capture.others = others;
        captures.push_back(std::move(capture));
    }
    for (CaptureFacts& capture : captures) {
        OrderFiles(capture);
        Sum(capture);
    }
    OrderCaptures(captures);
    if (options.phones.which == PhoneChoice::Which::kSame) {
        model.phones.emplace_back().captures = std::move(captures);
    } else {
        model.phones = TellApart(std::move(captures), model.phones_why);
    }
    TakePowerOnLogs(std::move(power_on), model);
    Choose(options.phones, model);
    for (Phone& phone : model.phones) {
        TellTimes(phone);
        for (const FileFacts& log : phone.power_on_logs) {
            ++model.totals.power_on_logs;
            model.totals.power_on_blocks.Add(log.blocks);
        }
        MarkNewest(phone);
        for (CaptureFacts& capture : phone.captures) {
            FindFileGaps(capture);
            FindStrangers(capture);
            AddTo(model.totals, capture);
        }
    }
    Append(model.findings, FindCaptureGaps(model.phones, model.history));
    TakeFindings(model);
    model.reordered = IsReordered(model);
    return model;
}

}  // namespace muxz
