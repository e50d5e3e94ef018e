// A model file's content in the form of the file.
#pragma once

#include <nlohmann/json.hpp>

#include "model/modelFile.h"

namespace platform {

/// The sections that no other query of a host shows: storage, vms, cpu, pageRetire, datastorePaths
/// and failures, each with what the file says.
nlohmann::ordered_json modelSections(const ModelFile& model);

}  // namespace platform
