// The folder history, "/data/vendor/radio/quarn/log_folder_history". The recycler reads from it
// which capture folders are the oldest.
//
// A text file with one folder path per line, oldest first. Each path has the folder's final name,
// without an exception mark. The functions are thread-safe.
#pragma once

#include <deque>
#include <string>

namespace quarn::zorvex {

// The number of records that readers use.
constexpr int kHistoryRecords = 20;

// Appends one record. Returns 0 on success, else -1. A file of more than 102,400 bytes is first
// replaced by one with its last 20 records. If that fails, the old file stays unchanged.
int32_t UpdateFolderHistory(const std::string& folder_path);

// Returns the last `n` records, oldest first, or none if the file cannot be read.
std::deque<std::string> GetLatestHistoryRecord(int n);

}  // namespace quarn::zorvex
