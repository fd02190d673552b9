// Reads the model for a command: shows progress, and checks the choice between several phones.
#pragma once

#include <string>
#include <vector>

#include "tools/muxz/commands.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/model.h"
#include "tools/muxz/stretch.h"

namespace muxz {

// Builds the model of the selected files and shows progress. Adds the Android log of the selection.
// Adds the recycle size limit from a configuration file beside the tree, or else from that log.
Model Read(const Selection& selection, BuildOptions options, Messages& messages);

// Returns true if the model has the files of one phone, or of the phones that `phones` chooses.
// Otherwise prints a message and returns false.
bool AreWanted(const Model& model, const Phones& phones, Messages& messages);

}  // namespace muxz
