// Describes the charts of the report page. chart.h draws them.
#pragma once

#include <string>
#include <vector>

#include "tools/muxz/chart.h"
#include "tools/muxz/model.h"
#include "tools/muxz/stretch.h"

namespace muxz::page {

struct Charts {
    std::string notes;  // about the times on the axis, for people
    TimeAxis axis;
    std::vector<TimeChart> over_time;
    bool log_is_longer = false;  // the Android log has times outside of the axis
    std::vector<BarChart> sizes;
};
Charts ChartsOf(const Model& model);

// Describes a crash in one sentence for people.
std::string CrashText(const Crash& crash);

}  // namespace muxz::page
