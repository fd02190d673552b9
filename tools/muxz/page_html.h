// Parts of the report page: values as people read them, and tables.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/muxz/model.h"

namespace muxz::page {

constexpr double kMillion = 1e6;

// "3.63 GB". The units are powers of 1000.
std::string ShowBytes(uint64_t bytes);
// "3.82 MB/s"; empty if `seconds` is not positive.
std::string ShowRate(double bytes, double seconds);
// "2.53": raw bytes for each packed byte. Empty if there are no packed bytes.
std::string ShowRatio(const BlockFacts& blocks);
std::string ShowOptionalTime(const std::optional<PhoneTime>& time);
std::string Plural(uint64_t count, const std::string& one);
std::string Name(const CaptureFacts& capture);

// A value on the page. `key` is the path of the value in the model, `plain` is the value for
// programs, and `shown` is the text for people. A computed value has no key.
struct Value {
    std::string key, plain, shown;
};
Value Count(const std::string& key, uint64_t count);
Value Bytes(const std::string& key, uint64_t bytes);
Value Shown(const std::string& text);
// The HTML attributes for the element that shows `value`.
std::string Attributes(const Value& value);

struct Cell {
    Value value;
    bool bad = false;
};
// A row with one cell is a heading for the rows that follow.
using Row = std::vector<Cell>;
struct Column {
    const char* name;
    bool number;
};
std::string Table(const std::vector<Column>& columns, const std::vector<Row>& rows);

std::string Heading(const char* text);
std::string Paragraph(const std::string& text);

}  // namespace muxz::page
