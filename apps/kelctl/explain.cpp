#include "explain.h"

#include <fmt/format.h>

#include <algorithm>

#include "console.h"
#include "glob.h"
#include "json.h"
#include "replayOutput.h"

namespace kelctl {

namespace {

std::string shown(const TraceArgument& argument) {
  if (const auto* const text = std::get_if<std::string>(&argument)) return '"' + printable(*text) + '"';
  if (const auto* const number = std::get_if<std::int64_t>(&argument)) return std::to_string(*number);
  if (const auto* const number = std::get_if<std::uint64_t>(&argument)) return std::to_string(*number);
  return "???";
}

std::string headline(const StoryStep& step) {
  std::string text = utcTime(microsecondsOf(step.time));
  if (step.line != 0) text += fmt::format(" line {}", step.line);
  switch (step.what) {
    case ReplayStep::What::observation:
      text += ": " + printable(step.id);
      for (const TraceArgument& argument : step.arguments) text += ' ' + shown(argument);
      return text;
    case ReplayStep::What::timer:
      return text + ": a timer fires";
    case ReplayStep::What::start:
      return text + ": the daemon starts";
    case ReplayStep::What::facts:
      return text + ": the host's facts change: " + printable(step.text);
    case ReplayStep::What::clock:
      return text + ": the clock is " + step.text;
    case ReplayStep::What::agent:
      return text + ": the management agent is " + step.text;
    case ReplayStep::What::restart:
      return text + ": the daemon starts anew";
    case ReplayStep::What::end:
      break;
  }
  return text + ": the capture ends";
}

bool settlesLater(const StoryDecision& decision) {
  return decision.decision->kind == keld::DecisionKind::waits;
}

bool stillWaits(const StoryTaken& taken, const std::string& subject) {
  return std::any_of(taken.decisions.begin(), taken.decisions.end(), [&](const StoryDecision& decision) {
    return decision.subject == subject && settlesLater(decision);
  });
}

template <typename Any>
bool anyOf(const StoryStep& step, const Any& any) {
  return std::any_of(step.taken.begin(), step.taken.end(), any);
}

}  // namespace

std::string explainStep(const StoryStep& step) {
  std::string text = headline(step) + '\n';
  if (step.what == ReplayStep::What::observation && step.taken.empty()) {
    text += "  no correlator takes this identifier\n";
  }
  for (const StoryTaken& taken : step.taken) {
    text += fmt::format("  {}\n", taken.correlator);
    for (const StoryDecision& decision : taken.decisions) {
      text += fmt::format("    {}{}{} [{}]\n", printable(decision.subject), decision.subject.empty() ? "" : ": ",
                          printable(decision.text), decision.decision->name);
    }
    for (const std::string& action : taken.actions) text += fmt::format("    action {}\n", printable(action));
    for (const StoryEvent& event : taken.events) {
      text += fmt::format("    {} {}\n      {}\n", event.kind, printable(event.event), printable(event.text));
    }
    for (const std::string& note : taken.notes) text += fmt::format("    {}\n", printable(note));
    if (taken.events.empty() && step.what == ReplayStep::What::observation && !taken.decisions.empty()) {
      text += "    no event now\n";
    }
  }
  return text;
}

bool Explainer::wanted(const StoryStep& step) const {
  if ((wish_.from && step.time < *wish_.from) || (wish_.until && step.time > *wish_.until)) return false;
  if (!wish_.any()) return true;
  if (wish_.line && step.line == *wish_.line) return true;
  if (!wish_.observations.empty() && step.what == ReplayStep::What::observation &&
      matchesAny(wish_.observations, step.id)) {
    return true;
  }
  return anyOf(step, [&](const StoryTaken& taken) {
    const bool event =
        !wish_.events.empty() && std::any_of(taken.events.begin(), taken.events.end(),
                                             [&](const auto& e) { return matchesAny(wish_.events, e.event); });
    return event ||
           (!wish_.subjects.empty() && std::any_of(taken.decisions.begin(), taken.decisions.end(), [&](const auto& d) {
             return matchesAny(wish_.subjects, d.subject);
           }));
  });
}

bool Explainer::followed(const StoryStep& step) const {
  return step.what == ReplayStep::What::timer && anyOf(step, [&](const StoryTaken& taken) {
           return std::any_of(taken.decisions.begin(), taken.decisions.end(), [&](const auto& decision) {
             return following_.contains({taken.correlator, decision.subject});
           });
         });
}

void Explainer::write(const StoryStep& step) {
  ++explained_;
  write_(step);
}

void Explainer::take(StoryStep&& step) {
  if (step.what == ReplayStep::What::restart) {
    // What waited is gone.
    onRecord_.clear();
    following_.clear();
    remembered_ = 0;
  }
  const bool told = wanted(step) || followed(step);
  if (step.what == ReplayStep::What::timer) settle(step, told);
  if (told) write(step);
  if (step.what == ReplayStep::What::observation) remember(step, told);
}

/// What a timer settles is off the record. Where the timer is told of, so is what stood there untold.
void Explainer::settle(const StoryStep& step, bool told) {
  std::map<std::uint64_t, StoryStep> untold;
  for (const StoryTaken& taken : step.taken) {
    for (const StoryDecision& decision : taken.decisions) {
      if (settlesLater(decision)) continue;
      const Matter matter{taken.correlator, decision.subject};
      const bool waits = stillWaits(taken, decision.subject);
      if (const auto found = onRecord_.find(matter); found != onRecord_.end() && (told || !waits)) {
        remembered_ -= found->second.size();
        for (StoryStep& before : found->second) untold.try_emplace(before.line, std::move(before));
        onRecord_.erase(found);
      }
      if (told && waits) following_.insert(matter);
      if (told && !waits) following_.erase(matter);
    }
  }
  if (!told) return;
  for (const auto& [line, before] : untold) write(before);
}

void Explainer::remember(const StoryStep& step, bool told) {
  for (const StoryTaken& taken : step.taken) {
    for (const StoryDecision& decision : taken.decisions) {
      if (!settlesLater(decision)) continue;
      const Matter matter{taken.correlator, decision.subject};
      if (told) {
        following_.insert(matter);
        continue;
      }
      std::vector<StoryStep>& steps = onRecord_[matter];
      const bool known = !steps.empty() && steps.back().line == step.line;
      if (known || remembered_ == kMostRemembered) continue;
      steps.push_back(step);
      ++remembered_;
    }
  }
}

}  // namespace kelctl
