// The steps in which Assemble makes a model from scanned files. No step reads files or folders.
#pragma once

#include <string>
#include <vector>

#include "tools/muxz/listing.h"
#include "tools/muxz/model.h"

namespace muxz {

// Returns a note that has no offset in a file.
Finding NoteOn(const std::string& path, Finding::What what, std::string text);

// unsorted.cpp: sorts files without capture folders into captures. Files whose headers contain the
// folder time belong together if folder time and custom header are equal. Other files are grouped
// by their names, as far as possible: a file number that is not greater than the one before begins
// another capture.
std::vector<CaptureFacts> GroupUnsorted(std::vector<FileFacts> files);

// order.cpp: orders the files of a capture by number, and captures by the rules in
// docs/log-file-format.md, "Capture order".
void OrderFiles(CaptureFacts& capture);
void OrderCaptures(std::vector<CaptureFacts>& captures);

// phones.cpp: distributes captures to phones, so that no two captures of a phone contradict each
// other. Keeps the order of the captures. If the result has more than one phone, `why` says for
// people what showed this. Otherwise `why` is empty.
std::vector<Phone> TellApart(std::vector<CaptureFacts> captures, std::string& why);

// timeline.cpp: finds the UTC offset, the ends of files and captures, and the times of modem
// crashes.
void TellTimes(Phone& phone);

// gaps.cpp: FindFileGaps finds files that are missing in a capture. FindCaptureGaps finds captures
// that are missing in log folders, and captures that only `history` names.
void FindFileGaps(CaptureFacts& capture);
std::vector<Finding> FindCaptureGaps(const std::vector<Phone>& phones,
                                     const std::vector<HistoryEntry>& history);

}  // namespace muxz
