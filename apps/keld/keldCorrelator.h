// What is known of a correlator before it runs: how to start it and what it translates.
#pragma once

#include <span>
#include <string_view>

#include "keldAgent.h"
#include "keldRow.h"

namespace keld {

struct CorrelatorInfo {
  const char* nameWord;
  std::span<const char* const> groups;
  std::span<const char* const> identifiers;
  AgentEntry entry;
  std::span<const Row> rows;
  std::span<const Judged> judged;
};

/// Every correlator in the order in which the daemon starts them.
std::span<const CorrelatorInfo* const> correlators();

}  // namespace keld
