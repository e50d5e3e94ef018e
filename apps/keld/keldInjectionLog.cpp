#include "keldInjectionLog.h"

#include <algorithm>

#include "keldText.h"

namespace keld {

void InjectionLog::expire(std::int64_t now) {
  if (decisions_ != nullptr) tellExpired(now);
  while (!byTime_.empty() && byTime_.begin()->first + kKeepSeconds < now) {
    drop(byTime_.begin()->second);
    byTime_.erase(byTime_.begin());
  }
}

void InjectionLog::drop(const Place& place) {
  const auto machine = machines_.find(place.world);
  const auto run = machine->second.runs.find(place.page);
  run->second.sorted.erase(run->second.sorted.find(*place.time));
  run->second.times.erase(place.time);
  run->second.needed = 0;
  if (!isRepeated(run->second)) repeated_.erase({place.world, place.page});
  if (run->second.times.empty()) machine->second.runs.erase(run);
  if (machine->second.runs.empty()) machines_.erase(machine);
}

void InjectionLog::add(World world, Page page, std::int64_t now) {
  Run& run = machines_[world].runs[page];
  run.times.push_back(now);
  run.sorted.insert(now);
  byTime_.emplace(now, Place{world, page, std::prev(run.times.end())});
  if (isRepeated(run)) repeated_.emplace(world, page);
  if (decisions_ != nullptr) tellAdded(world, page);
}

/// Of a run that is repeated, and not of a machine that was killed, nothing is said: it is to be judged.
void InjectionLog::tellAdded(World world, Page page) const {
  const Machine& machine = machines_.at(world);
  const Run& run = machine.runs.at(page);
  const auto injections = static_cast<std::int64_t>(run.times.size());
  if (machine.killed) {
    kInjectionOfKilled.report(decisions_, subject(world), injections, hexText(page));
  } else if (!isRepeated(run)) {
    kInjectionCounted.report(decisions_, subject(world), injections, hexText(page),
                             *run.sorted.rbegin() - *run.sorted.begin(), kMinInjections, kMinSpreadSeconds);
  }
}

void InjectionLog::tellExpired(std::int64_t now) const {
  std::map<std::pair<World, Page>, std::size_t> dropped;
  std::map<World, std::size_t> droppedOf;
  for (const auto& [time, place] : byTime_) {
    if (time + kKeepSeconds >= now) break;
    ++dropped[{place.world, place.page}];
    ++droppedOf[place.world];
  }
  for (const auto& [run, count] : dropped) {
    const std::size_t all = machines_.at(run.first).runs.at(run.second).times.size();
    kInjectionExpired.report(decisions_, subject(run.first), static_cast<std::int64_t>(count), hexText(run.second),
                             kKeepSeconds, static_cast<std::int64_t>(all - count));
  }
  tellForgotten(droppedOf);
}

void InjectionLog::tellForgotten(const std::map<World, std::size_t>& dropped) const {
  for (const auto& [world, count] : dropped) {
    const Machine& machine = machines_.at(world);
    std::size_t all = 0;
    for (const auto& [page, run] : machine.runs) all += run.times.size();
    if (machine.killed && all == count) kKillForgotten.report(decisions_, subject(world), kKeepSeconds);
  }
}

std::vector<InjectionLog::Repeated> InjectionLog::repeated() {
  std::vector<Repeated> all;
  for (const auto& [world, page] : repeated_) {
    Machine& machine = machines_.at(world);
    if (machine.killed) continue;
    Run& run = machine.runs.at(page);
    // What is added behind them changes nothing about the first that suffice.
    if (run.needed == 0) run.needed = injectionsNeeded(run);
    all.push_back({world, page, run.needed});
  }
  return all;
}

void InjectionLog::setKilled(World world) {
  const auto machine = machines_.find(world);
  if (machine != machines_.end()) machine->second.killed = true;
}

bool InjectionLog::killed(World world) const {
  const auto machine = machines_.find(world);
  return machine != machines_.end() && machine->second.killed;
}

bool InjectionLog::isRepeated(const Run& run) {
  return run.times.size() >= kMinInjections && *run.sorted.rbegin() - *run.sorted.begin() >= kMinSpreadSeconds;
}

/// Of a repeated run: how many of its first injections suffice.
std::size_t InjectionLog::injectionsNeeded(const Run& run) {
  std::int64_t earliest = run.times.front(), latest = earliest;
  std::size_t count = 0;
  for (const std::int64_t time : run.times) {
    ++count;
    earliest = std::min(earliest, time);
    latest = std::max(latest, time);
    if (count >= kMinInjections && latest - earliest >= kMinSpreadSeconds) break;
  }
  return count;
}

}  // namespace keld
