// The steps by which Assemble makes a model of scanned files. Each reads and writes memory only.
#pragma once

#include <string>
#include <vector>

#include "tools/muxz/listing.h"
#include "tools/muxz/model.h"

namespace muxz {

// A note without a place in a file.
Finding NoteOn(const std::string& path, Finding::What what, std::string text);

// heap.cpp: the captures that files of a heap come from. Files of the known layout belong together
// by their folder time and custom header; of others the names tell, as far as they can: a file
// number that is not above the one before begins another capture.
std::vector<CaptureFacts> GroupHeap(std::vector<FileFacts> files);

// order.cpp: files of a capture by number, captures as docs/log-file-format.md tells.
void OrderFiles(CaptureFacts& capture);
void OrderCaptures(std::vector<CaptureFacts>& captures);

// phones.cpp: captures that cannot be one phone's apart from each other, in their order. `why` says
// by which signs there is more than one.
std::vector<Phone> TellApart(std::vector<CaptureFacts> captures, std::string& why);

// timeline.cpp: UTC offset, when files and captures ended, when the modem crashed.
void TellTimes(Phone& phone);

// gaps.cpp: files missing within captures, captures missing in log folders and those that only
// `history` names.
void FindFileGaps(CaptureFacts& capture);
std::vector<Finding> FindCaptureGaps(const std::vector<Phone>& phones,
                                     const std::vector<HistoryEntry>& history);

}  // namespace muxz
