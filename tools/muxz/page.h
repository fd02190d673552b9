// The report: shows a model as one HTML page. The page needs no network, no other file and no
// script.
#pragma once

#include <string>

#include "tools/muxz/model.h"

namespace muxz {

// Returns the page. Every value on it is in `model` or is computed from values in `model`. An
// element that shows a value of the model has the path of this value in `data-key`, for example
// "totals.blocks.raw" or "phones.0.captures.2.size", and the plain value in `data-value`.
std::string ReportPage(const Model& model);

}  // namespace muxz
