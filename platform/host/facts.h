// What the host's answers follow from, as a value that can be kept and put in force again.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace platform {

/// The link to the scratch partition's directory.
inline constexpr const char* kScratchLink = "/scratch";

/// The host in force as a model file describes it (docs/model-host.md), and `scratch`, the target of
/// `scratchLink`. Of a modelled host that is its file's own content; `options` are those in force.
/// What cannot be read is left out. No object in it has a null. Throws std::invalid_argument where
/// KORVEL_HOST names no host.
nlohmann::json hostFacts(const std::string& scratchLink = kScratchLink);

/// The options in force, by name.
nlohmann::json optionsInForce();

}  // namespace platform
