// A model file's content in the form of the file.
#pragma once

#include <nlohmann/json.hpp>

#include "model/modelFile.h"

namespace platform {

/// What no query of a host lists: the pages' status, datastorePaths and failures, each with what the
/// file says.
nlohmann::ordered_json modelSections(const ModelFile& model);

}  // namespace platform
