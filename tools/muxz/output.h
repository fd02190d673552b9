// The output of a command: a file, or standard output.
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

// Buffers the output. If writing fails, the program prints a message and ends with status 2,
// because a stream with missing bytes is of no use.
class Output {
  public:
    // Creates or truncates the file at `path`. An empty path means standard output.
    explicit Output(const std::string& path);

    // Returns a buffer of at least `size` bytes. The caller writes into it, and then calls
    // `Filled`. The buffer is valid until the next call of Room.
    uint8_t* Room(size_t size);
    // Adds the first `size` bytes of the buffer to the output.
    void Filled(size_t size) { used += size; }
    // Writes the buffered bytes.
    void Flush();
    // Writes the buffered bytes and closes the file. Some file systems report a full disk only
    // here.
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

// Returns true if the output is not a terminal. Otherwise prints a message and returns false.
bool MayTakeBinary(const char* command, const std::string& output_path);

// Returns true if the output may be written to `path`. Prints a message and returns false if `path`
// is an existing log file, or one of the files from which the model was read. This protects log
// files from mistyped arguments.
bool MayOverwrite(const std::string& path, const Model& model, Messages& messages);

}  // namespace muxz
