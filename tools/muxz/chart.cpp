#include "tools/muxz/chart.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>

#include "tools/muxz/time_argument.h"

namespace muxz {

namespace {

constexpr int kCurveHeight = 150;  // pixels
constexpr int kLaneHeight = 28;
constexpr int kAxisHeight = 34;
constexpr size_t kMostPoints = 4000;  // of one curve; a screen cannot show more

std::string Decimal(double value, int digits) {
    char text[64];
    snprintf(text, sizeof(text), "%.*f", digits, value);
    return text;
}

std::string Percent(double share) { return Decimal(share * 100, 3) + "%"; }

// Returns a step for a scale: 1, 2 or 5 times a power of ten. `range` has at most `parts` steps.
double NiceStep(double range, int parts) {
    const double least = range / parts;
    const double power = std::pow(10, std::floor(std::log10(least)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (factor * power >= least * 0.999) return factor * power;
    }
    return 10 * power;
}

int64_t TimeStep(double range) {
    constexpr int64_t kSteps[] = {1,     2,     5,     10,    15,     30,     60,
                                  120,   300,   600,   900,   1800,   3600,   7200,
                                  10800, 21600, 43200, 86400, 172800, 604800, 1209600};
    constexpr double kMost = 9;  // ticks; a narrow page shows every second
    for (const int64_t step : kSteps) {
        if (range / static_cast<double>(step) <= kMost) return step;
    }
    return kSecondsPerDay * static_cast<int64_t>(std::ceil(range / kMost / kSecondsPerDay));
}

// Draws the line of times under a chart. When the user zooms, the script in page_frame.h draws this
// line again by the same rules.
std::string TimeTicks(const TimeAxis& axis, int top) {
    std::string svg = "<g class='ticks' data-top='" + std::to_string(top) + "'>";
    const int64_t step = TimeStep(axis.to - axis.from);
    const double first = std::ceil((axis.from + axis.utc_offset) / static_cast<double>(step));
    std::string day_before;
    size_t count = 0;
    for (int64_t wall = static_cast<int64_t>(first) * step;
         static_cast<double>(wall - axis.utc_offset) <= axis.to; wall += step, ++count) {
        const double share =
            (static_cast<double>(wall - axis.utc_offset) - axis.from) / (axis.to - axis.from);
        const std::string x = Percent(share);
        const char* const anchor = share < 0.04 ? "start" : share > 0.94 ? "end" : "middle";
        const std::string rank = count % 2 == 0 ? "" : " class='minor'";
        const auto text = [&](const std::string& what, int below) {
            svg += "<text" + rank + " x='" + x + "' y='" + std::to_string(top + below) +
                   "' text-anchor='" + anchor + "'>" + what + "</text>";
        };
        svg += "<line x1='" + x + "' x2='" + x + "' y1='0' y2='" + std::to_string(top + 4) + "'/>";
        const std::string day = ShowDay(wall), clock = ShowClock(wall);
        if (step < kSecondsPerDay) text(clock.substr(0, step < 60 ? 8 : 5), 16);
        if (day != day_before) text(day.substr(5), step < kSecondsPerDay ? 29 : 16);
        if (count % 2 == 0 || day == day_before) day_before = day;
    }
    return svg + "</g>";
}

// Draws the horizontal lines of a scale from 0 to `top`, with their values.
std::string ValueTicks(double top, double step) {
    std::string svg = "<g class='scale'>";
    const long steps = std::lround(top / step);
    for (long i = 0; i <= steps; ++i) {
        const double value = static_cast<double>(i) * step;
        const std::string y = Decimal(kCurveHeight * (1 - value / top), 1);
        svg += "<line x1='0' x2='100%' y1='" + y + "' y2='" + y + "'/><text x='-6' y='" + y +
               "' dy='4' text-anchor='end'>" + ShowNumber(value) + "</text>";
    }
    return svg + "</g>";
}

// Reduces a curve to at most `kMostPoints` points. Keeps the highest point of each group.
std::vector<std::pair<double, double>> Thin(const std::vector<std::pair<double, double>>& points) {
    const size_t together = points.size() / kMostPoints + 1;
    if (together == 1) return points;
    std::vector<std::pair<double, double>> thin;
    for (size_t i = 0; i < points.size(); i += together) {
        const auto end =
            points.begin() + static_cast<ptrdiff_t>(std::min(i + together, points.size()));
        thin.push_back(*std::max_element(points.begin() + static_cast<ptrdiff_t>(i), end,
                                         [](auto& a, auto& b) { return a.second < b.second; }));
    }
    return thin;
}

// Draws one curve in an SVG of its own. Its coordinates go from 0 to 1000 and from 0 to 100,
// whatever its size on the page is. A value below 0 interrupts the curve.
std::string DrawCurve(const Curve& curve, const TimeAxis& axis, double top) {
    std::string svg;
    bool drawing = false;
    const auto end = [&] {
        if (drawing) svg += "'/>";
        drawing = false;
    };
    for (const auto& [time, value] : Thin(curve.points)) {
        if (value < 0) {
            end();
            continue;
        }
        if (!drawing) svg += "<polyline class='" + std::string(curve.style) + "' points='";
        drawing = true;
        svg += Decimal((time - axis.from) / (axis.to - axis.from) * 1000, 2) + "," +
               Decimal(100 * (1 - value / top), 2) + " ";
    }
    end();
    return "<g class='curve' data-name='" + Escaped(curve.name) + "'>" + svg + "</g>";
}

std::string DrawSpan(const Span& span, const TimeAxis& axis, double y, double height) {
    const auto share = [&](double time) {
        return std::clamp((time - axis.from) / (axis.to - axis.from), 0.0, 1.0);
    };
    const double a = share(span.from), b = share(span.to);
    const bool is_line = !(span.to > span.from);
    const std::string place =
        " data-a='" + Decimal(a, 6) + "' data-b='" + Decimal(b, 6) + "' class='" + span.style + "'";
    const std::string low = Decimal(y + height, 1), high = Decimal(y, 1);
    const std::string title = "><title>" + Escaped(span.text) + "</title></";
    std::string svg;
    if (is_line) {
        svg = "<line" + place + " x1='" + Percent(a) + "' x2='" + Percent(a) + "' y1='" + high +
              "' y2='" + low + "'" + title + "line>";
    } else {
        svg = "<rect" + place + " x='" + Percent(a) + "' width='" + Percent(b - a) + "' y='" +
              high + "' height='" + Decimal(height, 1) + "'" + title + "rect>";
    }
    if (span.label.empty()) return svg;
    // The SVG around the label clips it at the end of its span.
    return svg + "<svg data-a='" + Decimal(a, 6) + "' data-b='" + Decimal(b, 6) + "' class='label" +
           (is_line ? " free" : "") + "' x='" + Percent(a) + "' width='" +
           (is_line ? "60" : Percent(b - a)) + "' y='" + high + "' height='" + Decimal(height, 1) +
           "'><text x='5' y='" + (is_line ? "10" : "50%") + "'>" + Escaped(span.label) +
           "</text></svg>";
}

std::string Figure(const std::string& kind, const std::string& title, const std::string& note,
                   const std::string& body) {
    return "<figure class='" + kind + "'><figcaption><h3>" + Escaped(title) + "</h3>" +
           (note.empty() ? "" : "<p>" + Escaped(note) + "</p>") + "</figcaption>" + body +
           "</figure>\n";
}

std::string CurveLegend(const std::vector<Curve>& curves, const std::string& unit) {
    std::string html = "<p class='legend'><span class='unit'>" + Escaped(unit) + "</span>";
    for (const Curve& curve : curves) {
        html += "<span><svg width='28' height='8'><line class='" + std::string(curve.style) +
                "' x1='0' x2='28' y1='4' y2='4'/></svg>" + Escaped(curve.name) + "</span>";
    }
    return html + "</p>";
}

std::string SpanLegend(const std::vector<LegendEntry>& entries) {
    if (entries.empty()) return "";
    std::string html = "<p class='legend'>";
    for (const auto& [style, text] : entries) {
        html += "<span><svg width='18' height='12'><rect class='" + std::string(style) +
                "' x='1' y='1' width='16' height='10'/></svg>" + text + "</span>";
    }
    return html + "</p>";
}

double Highest(const std::vector<Curve>& curves) {
    double highest = 0;
    for (const Curve& curve : curves) {
        for (const auto& [time, value] : curve.points) highest = std::max(highest, value);
    }
    return highest;
}

// REQUIRES: highest > 0.
std::string DrawCurves(const TimeChart& chart, const TimeAxis& axis, double highest) {
    const double step = NiceStep(highest, 4);
    const double top = std::ceil(highest / step * 0.999) * step;
    std::string svg = ValueTicks(top, step);
    for (const Span& span : chart.spans) svg += DrawSpan(span, axis, 0, kCurveHeight);
    svg += "<svg class='curves' data-top='" + Decimal(top, 9) + "' width='100%' height='" +
           std::to_string(kCurveHeight) + "' viewBox='0 0 1000 100' preserveAspectRatio='none'>";
    for (const Curve& curve : chart.curves) svg += DrawCurve(curve, axis, top);
    return svg + "</svg>";
}

std::string DrawLanes(const TimeChart& chart, const TimeAxis& axis) {
    std::string svg;
    for (size_t lane = 0; lane < chart.lanes.size(); ++lane) {
        const int top = static_cast<int>(lane) * kLaneHeight;
        const std::string y = std::to_string(top + kLaneHeight);
        svg += "<line class='lane' x1='0' x2='100%' y1='" + y + "' y2='" + y +
               "'/><text class='lane' x='-6' y='" + std::to_string(top + 18) +
               "' text-anchor='end'>" + Escaped(chart.lanes[lane]) + "</text>";
    }
    for (const Span& span : chart.spans)
        svg +=
            DrawSpan(span, axis, static_cast<double>(span.lane) * kLaneHeight + 4, kLaneHeight - 8);
    return svg;
}

}  // namespace

std::string Escaped(std::string_view text) {
    std::string html;
    for (const char c : text) {
        switch (c) {
            case '&':
                html += "&amp;";
                break;
            case '<':
                html += "&lt;";
                break;
            case '>':
                html += "&gt;";
                break;
            case '"':
                html += "&quot;";
                break;
            case '\'':
                html += "&#39;";
                break;
            default:
                html += c;
        }
    }
    return html;
}

std::string ShowNumber(double value) {
    const double size = std::abs(value);
    if (size >= 100 || size == 0) return Decimal(value, 0);
    std::string text = Decimal(value, size >= 10 ? 1 : size >= 0.1 ? 2 : 3);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text;
}

std::string Draw(const TimeChart& chart, const TimeAxis& axis) {
    std::string svg, legend = SpanLegend(chart.legend);
    int height = static_cast<int>(chart.lanes.size()) * kLaneHeight;
    if (chart.lanes.empty()) {
        const double highest = Highest(chart.curves);
        if (!(highest > 0))
            return Figure("chart", chart.title, chart.note,
                          "<p class='none'>None in this time.</p>");
        height = kCurveHeight;
        svg = DrawCurves(chart, axis, highest);
        legend += CurveLegend(chart.curves, chart.unit);
    } else {
        svg = DrawLanes(chart, axis);
    }
    svg = "<svg class='time' width='100%' height='" + std::to_string(height + kAxisHeight) +
          "' data-from='" + Decimal(axis.from + axis.utc_offset, 3) + "' data-to='" +
          Decimal(axis.to + axis.utc_offset, 3) + "' data-unit='" + Escaped(chart.unit) +
          "' role='img'>" + TimeTicks(axis, height) + svg + "</svg><output></output>";
    return Figure(chart.lanes.empty() ? "chart" : "chart lanes", chart.title, chart.note,
                  legend + "<div class='plot'>" + svg + "</div>");
}

std::string Draw(const BarChart& chart) {
    double top = chart.limit;
    for (const Bar& bar : chart.bars) top = std::max(top, bar.value);
    if (!(top > 0)) top = 1;
    std::string rows;
    const std::string limit = Percent(chart.limit / top * 0.995);
    for (const Bar& bar : chart.bars) {
        rows += "<div class='bar'><span>" + Escaped(bar.name) +
                "</span><svg width='100%' height='16'><rect class='fill' width='" +
                Percent(bar.value / top) + "' y='2' height='12'/>" +
                (chart.limit > 0
                     ? "<line class='limit' x1='" + limit + "' x2='" + limit + "' y1='0' y2='16'/>"
                     : "") +
                "</svg><span class='number'>" + Escaped(bar.text) + "</span></div>";
    }
    if (chart.limit > 0)
        rows +=
            "<p class='legend'><span><svg width='28' height='14'><line class='limit' x1='14' "
            "x2='14' y1='0' y2='14'/></svg>" +
            Escaped(chart.limit_text) + "</span></p>";
    return Figure("bars", chart.title, chart.note, rows);
}

}  // namespace muxz
