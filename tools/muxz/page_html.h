// The pieces of the report page: values for people, and tables.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/muxz/model.h"

namespace muxz::page {

constexpr double kMillion = 1e6;

std::string ShowBytes(uint64_t bytes);  // "3.63 GB", with a thousand to the next unit
std::string ShowRate(double bytes, double seconds);
std::string ShowRatio(const BlockFacts& blocks);  // "2.53", empty without blocks
std::string ShowOptionalTime(const std::optional<PhoneTime>& time);
std::string Plural(uint64_t count, const std::string& one);
std::string Name(const CaptureFacts& capture);

// A value as it is shown. One that the model has at the place `key` is found there by programs; one
// without a key follows from others.
struct Value {
    std::string key, plain, shown;
};
Value Count(const std::string& key, uint64_t count);
Value Bytes(const std::string& key, uint64_t bytes);
Value Shown(const std::string& text);
std::string Attributes(const Value& value);  // of the element that shows it

struct Cell {
    Value value;
    bool bad = false;
};
// A row of one cell is the heading of those behind it.
using Row = std::vector<Cell>;
struct Column {
    const char* name;
    bool number;
};
std::string Table(const std::vector<Column>& columns, const std::vector<Row>& rows);

std::string Heading(const char* text);
std::string Paragraph(const std::string& text);

}  // namespace muxz::page
