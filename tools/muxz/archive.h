// Log files in an archive: tar, also compressed, and zip. Nothing is unpacked to a name.
//
// Any bytes may be thrown at it. Names and links in an archive are texts here and lead nowhere.
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

// Whether a file that begins so is an archive that can be read. `front` holds its first
// kArchiveFront bytes or all.
constexpr size_t kArchiveFront = 512;
bool IsArchive(Bytes front);
// Whether that archive cannot be read from front to end in one go.
bool WantsSeeking(Bytes front);

// What is wanted of an archive: log files, power-on logs and lists of captures.
struct Member {
    std::string path;   // "archive.tar:logs/QRXMDLog_0_2024_0131_235959/..."
    uint64_t size = 0;  // bytes
    std::optional<UtcTime> last_change;
    std::function<std::unique_ptr<Source>()> open;
};

struct Archive {
    std::vector<Member> members;  // in the order of the archive
    // What is wrong with it, for people; its members are there as far as they could be read.
    std::vector<std::string> faults;
    std::vector<std::string> notes;
};

// Members of an uncompressed tar on disk are read where they lie; others go to a temporary file
// first. `size`: bytes of the archive; none when it comes through a pipe and can be read only once.
Archive ReadArchive(const std::string& path, std::shared_ptr<Source> source,
                    std::optional<uint64_t> size);

}  // namespace muxz
