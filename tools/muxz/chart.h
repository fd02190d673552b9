// Draws charts as inline SVG, for a page of HTML.
//
// Horizontal positions are percentages, so a chart fits any width, and its text keeps its size. The
// style sheet in page_frame.h adds colours and hatching. The script there adds hovering and
// zooming. A chart can be read without the script.
//
// Styles are names of classes in the style sheet. Each class has its own dash or hatch as well as
// its own colour, so that a page printed in black and white can be read.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace muxz {

// Escapes any text for use as HTML text or attribute value.
std::string Escaped(std::string_view text);

// Shows a number with about three significant digits: "0.042", "3.82", "122".
std::string ShowNumber(double value);

// The time axis of all charts on a page.
struct TimeAxis {
    double from, to;     // UTC seconds; `to` is greater than `from`
    int32_t utc_offset;  // seconds; the page shows times with this offset
};

// A time range that is drawn on the time axis. A span of length 0 is drawn as a line.
struct Span {
    double from, to;
    const char* style;
    std::string label;  // drawn in or beside the span, if it fits
    std::string text;   // shown when the user points at the span
    size_t lane = 0;
};

struct Curve {
    const char* style;
    std::string name;
    std::vector<std::pair<double, double>> points;  // time and value, ordered by time
};

struct LegendEntry {
    const char* style;
    const char* text;
};

// A chart over time. It has either curves over a scale, or spans in lanes.
struct TimeChart {
    std::string title;
    std::string note;                // explains the chart in one or two sentences
    std::string unit;                // unit of the curves' values
    std::vector<Curve> curves;       // empty for a chart with lanes
    std::vector<std::string> lanes;  // names of the lanes; empty for a chart with curves
    std::vector<Span> spans;         // drawn behind the curves, or in their lanes
    // Explains the styles of the spans. The legend of the curves is made from their names.
    std::vector<LegendEntry> legend = {};
};
std::string Draw(const TimeChart& chart, const TimeAxis& axis);

// A chart with one bar for each value.
struct Bar {
    std::string name;
    double value;
    std::string text;  // the value for people
};
struct BarChart {
    std::string title;
    std::string note;
    std::vector<Bar> bars;
    double limit = 0;  // drawn as a line across all bars; 0 draws none
    std::string limit_text;
};
std::string Draw(const BarChart& chart);

}  // namespace muxz
