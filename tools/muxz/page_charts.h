// What of a model is drawn: its charts, as descriptions.
#pragma once

#include <string>
#include <vector>

#include "tools/muxz/chart.h"
#include "tools/muxz/model.h"
#include "tools/muxz/stretch.h"

namespace muxz::page {

struct Charts {
    std::string notes;  // on the times shown
    TimeAxis axis;
    std::vector<TimeChart> over_time;
    bool log_is_longer = false;  // the Android log goes on where nothing is drawn
    std::vector<BarChart> sizes;
};
Charts ChartsOf(const Model& model);

std::string CrashText(const Crash& crash);

}  // namespace muxz::page
