// What the commands of muxz read: the log files that the arguments name, and the messages that each
// file calls for, from its header to where its blocks end.
//
// What cannot be read is told to the messages, and the rest is read. The daemon may rename and
// recycle meanwhile: what was renamed is found again, what a capture lost is told and no fault.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/muxz/header.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/reader.h"
#include "tools/muxz/tree.h"

namespace muxz {

struct OpenLog {
    int fd;
    std::string path;
    bool may_be_open;  // its end may be anywhere
};

// The files that the arguments name, in the order in which they are read.
class Input {
  public:
    explicit Input(Messages& told) : messages(told) {}

    // False when `path` names nothing that could be read.
    bool Add(const std::string& given, bool with_power_on_log);

    // Opens one file after the other until `visit` returns false.
    void Visit(const std::function<bool(const OpenLog&)>& visit);

    // Whether the file at `path` is one that would be read.
    bool Holds(const std::string& path) const;

  private:
    struct Item {
        std::string path;  // as given; of captures in a tree empty
        Capture capture;
        bool is_capture;
    };

    bool Refuse(const std::string& path, const std::string& why);
    void AddCapture(const std::string& path);
    bool AddTree(const std::string& path, bool with_power_on_log);
    static Fd Open(Item& item);
    void MeasureCaptures();
    bool VisitCapture(Item& item, const std::function<bool(const OpenLog&)>& visit);
    bool VisitFile(Item& item, const std::function<bool(const OpenLog&)>& visit);

    Messages& messages;
    std::vector<Item> items;
    uint64_t expected = 0;  // bytes
};

// Reads the header and tells when it is none. Of a file still open a front is enough.
bool TakeHeader(FileSource& source, const OpenLog& log, Header& header, Messages& messages);

// Tells where and why the blocks ended, unless that is in order. `advice` follows on damage.
void TellEnd(const BlockReader& reader, const OpenLog& log, Messages& messages, const char* advice);

// What the blocks of a file amount to.
struct BlockCounts {
    uint64_t blocks = 0;
    uint64_t raw = 0;     // bytes
    uint64_t packed = 0;  // bytes, without the lengths
    quarn::log_file::BlockHeader smallest{};
    quarn::log_file::BlockHeader largest{};
};

// Walks the blocks to their end; `smallest` and `largest` count only when there are any.
BlockCounts Count(BlockReader& reader, Progress& progress);

}  // namespace muxz
