#include "tools/muxz/page_html.h"

#include <cstdio>
#include <iterator>

#include "tools/muxz/chart.h"
#include "tools/muxz/time_argument.h"

namespace muxz::page {

std::string ShowBytes(uint64_t bytes) {
    const char* const units[] = {" bytes", " kB", " MB", " GB", " TB", " PB", " EB"};
    double value = static_cast<double>(bytes);
    size_t unit = 0;
    while (value >= 999.5) {
        value /= 1000;
        ++unit;
    }
    return ShowNumber(value) + units[unit];
}

std::string ShowRate(double bytes, double seconds) {
    return seconds > 0 ? ShowNumber(bytes / seconds / kMillion) + " MB/s" : "";
}

std::string ShowRatio(const BlockFacts& blocks) {
    if (blocks.packed == 0) return "";
    char text[32];
    snprintf(text, sizeof(text), "%.2f",
             static_cast<double>(blocks.raw) / static_cast<double>(blocks.packed));
    return text;
}

std::string ShowOptionalTime(const std::optional<PhoneTime>& time) {
    return time ? ShowTime(*time) : "";
}

std::string Plural(uint64_t count, const std::string& one) {
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

std::string Name(const CaptureFacts& capture) {
    if (capture.index) return "capture " + std::to_string(*capture.index);
    return capture.name.empty() ? "files in " + capture.path : capture.name;
}

Value Count(const std::string& key, uint64_t count) {
    return {key, std::to_string(count), std::to_string(count)};
}
Value Bytes(const std::string& key, uint64_t bytes) {
    return {key, std::to_string(bytes), ShowBytes(bytes)};
}
Value Shown(const std::string& text) { return {"", "", text}; }

std::string Attributes(const Value& value) {
    if (value.key.empty()) return "";
    return " data-key='" + value.key + "' data-value='" + Escaped(value.plain) + "'";
}

std::string Table(const std::vector<Column>& columns, const std::vector<Row>& rows) {
    if (rows.empty()) return Paragraph("None.");
    std::string html = std::string("<div class='table") + (columns.size() == 2 ? " small" : "") +
                       "' tabindex='0'><table><thead><tr>";
    for (const Column& column : columns)
        html += std::string("<th") + (column.number ? " class='r'>" : ">") + column.name + "</th>";
    html += "</tr></thead><tbody>\n";
    for (const Row& row : rows) {
        if (row.size() == 1) {
            html += "<tr class='group'><th colspan='" + std::to_string(columns.size()) + "'>" +
                    Escaped(row[0].value.shown) + "</th></tr>\n";
            continue;
        }
        html += "<tr>";
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string style =
                std::string(columns[i].number ? "r" : "") + (row[i].bad ? " bad" : "");
            html += "<td" + (style.empty() ? "" : " class='" + style + "'") +
                    Attributes(row[i].value) + ">" + Escaped(row[i].value.shown) + "</td>";
        }
        html += "</tr>\n";
    }
    return html + "</tbody></table></div>\n";
}

std::string Heading(const char* text) { return std::string("<h2>") + text + "</h2>\n"; }
std::string Paragraph(const std::string& text) {
    return "<p class='soft'>" + Escaped(text) + "</p>\n";
}

}  // namespace muxz::page
