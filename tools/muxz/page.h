// The report: a model as one page of HTML that needs nothing else, no network and no script.
#pragma once

#include <string>

#include "tools/muxz/model.h"

namespace muxz {

// Every value on the page is one of `model` or follows from such. An element that shows one has its
// place in the model as `data-key`, as in "totals.blocks.raw" or "phones.0.captures.2.size", and
// its plain value as `data-value`.
std::string ReportPage(const Model& model);

}  // namespace muxz
