// Where a raw stream goes: a file, or standard output.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "tools/muxz/model.h"
#include "tools/muxz/source.h"
#include "tools/muxz/tree.h"

namespace muxz {

class Messages;

// Gathers what is written. An error of the output ends the program with status 2: nothing that
// follows could be of use.
class Output {
  public:
    // An empty path means standard output. The file is created or emptied.
    explicit Output(const std::string& path);

    // Room for `size` bytes, to be filled and then told to `Filled`.
    uint8_t* Room(size_t size);
    void Filled(size_t size) { used += size; }
    // Writes what was gathered.
    void Flush();
    // A file system may tell only now that it had no room.
    void Close();

  private:
    void Write(Bytes bytes);
    [[noreturn]] void Fail();

    const std::string name;
    Fd file;
    int fd = STDOUT_FILENO;
    std::unique_ptr<uint8_t[]> buffer;
    size_t capacity = 0;
    size_t used = 0;
};

// Returns false, and tells, when the raw stream would go to a terminal.
bool MayTakeBinary(const char* command, const std::string& output_path);

// An existing log must not be lost by a slip of the arguments. Returns false, and tells, when
// `path` is a log file or holds what the model was read from.
bool MayOverwrite(const std::string& path, const Model& model, Messages& messages);

}  // namespace muxz
