// The block buffer and the names of folders and files, in memory.
#include <gtest/gtest.h>
#include <snappy-c.h>

#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "storage/block_buffer.h"
#include "storage/log_names.h"
#include "support.h"

namespace names = quarn::log_names;
using quarn::zorvex::BlockBuffer;

TEST(BlockBuffer, DropsTheBlocksThatAreWholeWithinABound) {
    const std::vector<std::string> raw = {"a", std::string(5000, 'b'), "", test::StreamBytes(300)};
    std::vector<size_t> ends = {0};  // offsets of the ends of the blocks
    const auto fill = [&](BlockBuffer& buffer) {
        buffer.Clear();
        ends.resize(1);
        for (const std::string& bytes : raw) {
            ASSERT_TRUE(buffer.Append(bytes));
            ends.push_back(buffer.bytes().size());
        }
    };
    const auto buffer = std::make_unique<BlockBuffer>();
    fill(*buffer);
    const std::string all(buffer->bytes());
    EXPECT_EQ(buffer->bytes_and_stray().size(), all.size() + 1);
    for (size_t size = 0; size <= all.size() + 7; ++size) {
        SCOPED_TRACE(size);
        fill(*buffer);
        size_t whole = 0;
        for (const size_t end : ends) whole = end <= size ? end : whole;
        EXPECT_EQ(buffer->BlocksWithin(size), all.substr(0, whole));
        buffer->DropBlocksWithin(size);
        EXPECT_EQ(buffer->bytes(), all.substr(whole));
        EXPECT_EQ(buffer->empty(), whole == all.size());
    }
}

// The buffer reserves space for bytes that do not compress, and for the stray byte.
TEST(BlockBuffer, TakesNoMoreThanFits) {
    constexpr size_t kSize = 1024 * 1024;
    const auto buffer = std::make_unique<BlockBuffer>();
    size_t most = kSize;  // raw bytes of one block
    while (6 + snappy_max_compressed_length(most) >= kSize) --most;
    EXPECT_TRUE(BlockBuffer::CanHold(most));
    EXPECT_FALSE(BlockBuffer::CanHold(most + 1));
    EXPECT_TRUE(buffer->HasRoomFor(most));
    EXPECT_FALSE(buffer->HasRoomFor(most + 1));
    ASSERT_TRUE(buffer->Append(""));
    EXPECT_EQ(buffer->bytes(), std::string("\0\0\0\1\0\0\0", 7));
    EXPECT_FALSE(buffer->HasRoomFor(most));
    EXPECT_TRUE(buffer->HasRoomFor(most - 7));
    buffer->Clear();
    EXPECT_TRUE(buffer->empty() && buffer->HasRoomFor(most));
}

TEST(LogNames, AreMadeAndFinished) {
    setenv("TZ", "UTC-1", 1);
    tzset();
    EXPECT_EQ(names::IndexedName(4294967295, 1706745599), "QRXMDLog_4294967295_2024_0201_005959");
    EXPECT_EQ(names::OpenFileName(0, 0, "_EE"), "QRXMDLog_0_1970_0101_010000_EE.muxz.tmp");

    struct {
        const char* path;
        const char* finished_folder;
        const char* finished_file;
        bool exception;
    } const rows[] = {
        {"/l/Q_7_0t", "/l/Q_7_0", "/l/Q_7_0t", false},
        {"/l/Q_7_0", "/l/Q_7_0", "/l/Q_7_0", false},
        {"/l/Q_7_0t_EE", "/l/Q_7_0_EE", "/l/Q_7_0t_EE", true},
        // The character before the mark is always removed, but never a part of the path above.
        {"/l/Q_7_0_EE", "/l/Q_7__EE", "/l/Q_7_0_EE", true},
        {"/l/_EE", "/l/_EE", "/l/_EE", true},
        {"/l/Q_EE_0t_EE", "/l/Q_EE_0_EE", "/l/Q_EE_0t_EE", true},
        // Marks in other components of the path do not count.
        {"/a_EE.tmpt/Q_7_0", "/a_EE.tmpt/Q_7_0", "/a_EE.tmpt/Q_7_0", false},
        {"/a_EE.tmp/Q_7.muxz.tmp", "/a_EE.tmp/Q_7.muxz.tmp", "/a_EE.tmp/Q_7.muxz", false},
        {"Q.tmp.tmp", "Q.tmp.tmp", "Q.tmp", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(names::FinishedFolder(row.path), row.finished_folder);
        EXPECT_EQ(names::FinishedFile(row.path), row.finished_file);
        EXPECT_EQ(names::HasException(row.path), row.exception);
    }

    struct {
        const char* path;
        const char* last;
    } const components[] = {{"", ""},    {"/", ""},     {"a", "a"},
                            {"/a", "a"}, {"/a//", "a"}, {"/a/b.c", "b.c"}};
    for (const auto& row : components) EXPECT_EQ(names::LastComponent(row.path), row.last);
    struct {
        const char* name;
        std::optional<uint32_t> index;
    } const indexes[] = {{"QRXMDLog_12_x", 12},
                         {"QRXMDLog_12", std::nullopt},
                         {"QRXMDLog", std::nullopt},
                         {"my_QRXMDLog_12_x", 0},
                         {"QRXMDLog_4294967295_x", ~0u},
                         {"QRXMDLog_4294967296_x", 0},
                         {"QRXMDLog__x", 0},
                         {"QRXMDLog_1x_", 0}};
    for (const auto& row : indexes) EXPECT_EQ(names::IndexOf(row.name), row.index) << row.name;
}
