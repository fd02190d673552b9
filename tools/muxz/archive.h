// Reads log files from an archive: tar, compressed tar, or zip. It creates no file with a name.
//
// The input may be any bytes. Names in an archive are never used as paths on disk, and links in an
// archive are not followed.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/muxz/source.h"
#include "tools/muxz/times.h"

namespace muxz {

// Returns true if a file that begins with `front` is an archive that ReadArchive can read.
// REQUIRES: `front` has the first kArchiveFront bytes of the file, or all if it is shorter.
constexpr size_t kArchiveFront = 512;
bool IsArchive(Bytes front);
// Returns true if ReadArchive needs random access to this archive, so that a pipe is not enough.
bool WantsSeeking(Bytes front);

// One file in an archive: a log file, a power-on log or a list of captures.
struct Member {
    std::string path;   // "archive.tar:logs/QRXMDLog_0_2024_0131_235959/..."
    uint64_t size = 0;  // bytes
    std::optional<UtcTime> last_change;
    std::function<std::unique_ptr<Source>()> open;
};

struct Archive {
    std::vector<Member> members;  // in the order of the archive
    // What is wrong with the archive, for people. `members` has what could be read all the same.
    std::vector<std::string> faults;
    std::vector<std::string> notes;
};

// Lists the members of an archive. Members of an uncompressed tar on disk are read directly from
// the archive. All other members are first copied to a temporary file.
//
// `size` is the size of the archive in bytes. It has no value if the archive comes through a pipe
// and can be read only once.
Archive ReadArchive(const std::string& path, std::shared_ptr<Source> source,
                    std::optional<uint64_t> size);

}  // namespace muxz
