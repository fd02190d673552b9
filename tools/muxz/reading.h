// How commands read: with progress on the terminal, and with a word on what several phones mean.
#pragma once

#include <string>
#include <vector>

#include "tools/muxz/commands.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/model.h"
#include "tools/muxz/stretch.h"

namespace muxz {

// Build, with progress, of the files that are selected. The model has the log of the selection too,
// and the budget that a configuration beside the tree or that log tells.
Model Read(const Selection& selection, BuildOptions options, Messages& messages);

// Returns true if the model holds the files of the one phone, or of those, that are wanted. Else
// tells which phones there are.
bool AreWanted(const Model& model, const Phones& phones, Messages& messages);

}  // namespace muxz
