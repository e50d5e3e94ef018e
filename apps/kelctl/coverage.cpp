#include "coverage.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "console.h"
#include "failure.h"
#include "glob.h"
#include "keldDelivery.h"
#include "keldVprob.h"
#include "replayRun.h"

namespace kelctl {

namespace {

namespace fs = std::filesystem;

constexpr const keld::Decision* kPostingDecisions[] = {&keld::kEventDropped, &keld::kEventQueued, &keld::kEventWaiting,
                                                       &keld::kEventResent, &keld::kEventLost};

std::vector<std::string> capturesIn(const std::string& place) {
  std::error_code error;
  if (!fs::is_directory(place, error)) return {place};
  std::vector<std::string> found;
  for (fs::recursive_directory_iterator at(place, error), end; !error && at != end; at.increment(error)) {
    if (at->path().extension() == ".capture") found.push_back(at->path().string());
  }
  if (error) throw Failure(fmt::format("cannot look through {}: {}", place, error.message()));
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace

Coverage::Coverage() {
  for (const keld::CorrelatorInfo* info : keld::correlators()) {
    for (const keld::Row& row : info->rows) rows_.known.insert(row.observation);
    for (const keld::Judged& judged : info->judged) handlers_.known.insert(judged.observation);
    for (const keld::Decision* decision : info->decisions) decisions_.known.insert(decision->name);
  }
  for (const keld::Decision* decision : kPostingDecisions) decisions_.known.insert(decision->name);
}

void Coverage::see(Part& part, std::string_view name) {
  if (const auto known = part.known.find(name); known != part.known.end()) part.seen.insert(*known);
}

void Coverage::begins(const ReplayStep& step) {
  by_ = nullptr;
  id_ = step.entry != nullptr ? step.entry->id : std::string();
}

void Coverage::taken(const keld::CorrelatorInfo& by, bool handler) {
  by_ = &by;
  if (handler) {
    see(handlers_, id_);
    return;
  }
  // A fallback that judges is listed by its group.
  for (const char* const group : by.groups) see(handlers_, fmt::format("kel.{}.*", group));
}

void Coverage::decided(const keld::Decision& decision, std::string_view /*subject*/,
                       std::span<const keld::DecisionValue> /*values*/) {
  see(decisions_, decision.name);
}

void Coverage::posted(std::string_view /*record*/, std::string_view /*line*/) {
  if (by_ != nullptr) see(rows_, id_);
}

int reportCoverage(const std::vector<std::string>& places, const std::vector<std::string>& except) {
  if (places.empty()) throw UsageError("--coverage takes captures, or directories of them");
  Coverage coverage;
  std::size_t captures = 0;
  for (const std::string& place : places) {
    for (const std::string& file : capturesIn(place)) {
      ReplayInput input;
      input.file = file;
      replay(input, coverage);
      ++captures;
    }
  }
  Output out;
  bool whole = true;
  out.write(fmt::format("{:<10} {}\n", "captures", captures));
  for (const Coverage::Part* part : coverage.parts()) {
    out.write(fmt::format("{:<10} {} of {}\n", part->name, part->seen.size(), part->known.size()));
    for (const std::string_view name : part->known) {
      if (part->seen.contains(name)) continue;
      const bool excepted = !except.empty() && matchesAny(except, std::string(name));
      whole = whole && excepted;
      out.write(
          out.paint(excepted ? Colour::dim : Colour::red, fmt::format("  {}{}", name, excepted ? " (excepted)" : "")) +
          "\n");
    }
  }
  out.flush();
  return whole ? kDone : kFailed;
}

}  // namespace kelctl
