// Draws charts as inline SVG, for a page of HTML.
//
// Horizontal places are percentages, so a chart takes any width and its text keeps its size. The
// style sheet and the script in page_frame.h give it colours, hatching, hovering and zooming;
// without the script it reads the same. Styles are the names of classes there; each also differs in
// its dash or hatch, for a page printed in black and white.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace muxz {

// Text that may hold anything, for HTML text and attributes.
std::string Escaped(std::string_view text);

// A number with about three digits that count: "0.042", "3.82", "122".
std::string ShowNumber(double value);

// The time axis that charts of one page share.
struct TimeAxis {
    double from, to;     // UTC seconds; `to` is above `from`
    int32_t utc_offset;  // of the times shown
};

// Something with a place on the time axis. One of no length is a line.
struct Span {
    double from, to;
    const char* style;
    std::string label;  // beside or in it, as far as there is room
    std::string text;   // shown when pointed at
    size_t lane = 0;
};

struct Curve {
    const char* style;
    std::string name;
    std::vector<std::pair<double, double>> points;  // time and value, by time
};

struct LegendEntry {
    const char* style;
    const char* text;
};

// A chart over time: curves over a scale, or spans in lanes.
struct TimeChart {
    std::string title;
    std::string note;                      // what is to be known of it; one sentence or two
    std::string unit;                      // of the curves' values
    std::vector<Curve> curves;             // empty: a chart of lanes
    std::vector<std::string> lanes;        // names; a chart of curves has none
    std::vector<Span> spans;               // behind the curves, or in their lanes
    std::vector<LegendEntry> legend = {};  // of the spans' styles; the curves have one of their own
};
std::string Draw(const TimeChart& chart, const TimeAxis& axis);

// Bars side by side, each with its name and its value.
struct Bar {
    std::string name;
    double value;
    std::string text;  // the value for people
};
struct BarChart {
    std::string title;
    std::string note;
    std::vector<Bar> bars;
    double limit = 0;  // a line across all bars; 0: none
    std::string limit_text;
};
std::string Draw(const BarChart& chart);

}  // namespace muxz
