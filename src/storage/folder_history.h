// The folder history: "/data/vendor/radio/quarn/log_folder_history", the storage's notion of age.
//
// Plain text, one folder path a line, oldest first, each as the folder will be named once finished.
// One mutex guards every open of the file; both functions may be called from any thread.
#pragma once

#include <deque>
#include <string>

namespace quarn::zorvex {

// Readers never look further back.
constexpr int kHistoryRecords = 20;

// Appends one record; 0 on success. A file of more than 102,400 bytes is first cut to its last 20:
// it is replaced whole, or stays as it is.
int32_t UpdateFolderHistory(const std::string& folder_path);

// The last `n` records, oldest first; none when the file cannot be read.
std::deque<std::string> GetLatestHistoryRecord(int n);

}  // namespace quarn::zorvex
