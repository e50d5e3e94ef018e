#include "replayStory.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>
#include <variant>

#include "msgfmt/eventRecord.h"
#include "replayOutput.h"

namespace kelctl {

namespace {

constexpr const char* kPosting = "posting";

struct ToJson {
  Json operator()(TraceUnknown /*unknown*/) const { return nullptr; }
  Json operator()(const auto& value) const { return value; }
};

std::int64_t secondsOf(const keld::Decision& decision, std::span<const keld::DecisionValue> values) {
  if (decision.seconds >= 0) return decision.seconds;
  const auto index = static_cast<std::size_t>(-decision.seconds - 1);
  const auto* const value = index < values.size() ? std::get_if<std::int64_t>(&values[index]) : nullptr;
  return value != nullptr ? *value : 0;
}

/// How a correlator reads an observation's arguments, where it knows the observation.
const std::string_view* readingOf(const keld::CorrelatorInfo& by, const std::string& id) {
  for (const keld::Row& row : by.rows) {
    if (row.observation == id) return &row.read;
  }
  for (const keld::Judged& judged : by.judged) {
    if (judged.observation == id) return &judged.read;
  }
  return nullptr;
}

bool isJudgedWithoutEvent(const keld::CorrelatorInfo& by, const std::string& id) {
  return std::any_of(by.judged.begin(), by.judged.end(),
                     [&](const auto& judged) { return judged.observation == id && judged.events.empty(); });
}

bool readable(std::string_view wanted, const TraceArgument& argument) {
  const bool isText = std::holds_alternative<std::string>(argument);
  return !std::holds_alternative<TraceUnknown>(argument) && (wanted == "string") == isText;
}

/// Why nothing came of an observation that a correlator has a handler for, and said nothing of.
std::string whyNothing(const keld::CorrelatorInfo& by, const StoryStep& step) {
  if (isJudgedWithoutEvent(by, step.id)) return "known, and never an event";
  const std::string_view* const reading = readingOf(by, step.id);
  if (reading == nullptr) return "nothing came of it";
  const auto wanted = readArguments(*reading);
  if (step.arguments.size() < wanted.size()) {
    return fmt::format("no event: {} arguments are read, and it has {}", wanted.size(), step.arguments.size());
  }
  for (std::size_t n = 0; n < wanted.size(); ++n) {
    if (!readable(wanted[n], step.arguments[n])) {
      return fmt::format("no event: argument {} is read as {} and is none", n + 1, wanted[n]);
    }
  }
  return "no event";
}

bool isFrameworkLine(std::string_view text, std::string_view id) {
  return text.find(fmt::format("us: [{}]", id)) != std::string_view::npos;
}

}  // namespace

const char* stepName(ReplayStep::What what) {
  switch (what) {
    case ReplayStep::What::start:
      return "start";
    case ReplayStep::What::observation:
      return "observation";
    case ReplayStep::What::timer:
      return "timer";
    case ReplayStep::What::facts:
      return "facts";
    case ReplayStep::What::clock:
      return "clock";
    case ReplayStep::What::agent:
      return "agent";
    case ReplayStep::What::restart:
      return "restart";
    case ReplayStep::What::end:
      break;
  }
  return "end";
}

Json storyJson(const StoryStep& step) {
  Json all{{"time_us", microsecondsOf(step.time)}, {"what", stepName(step.what)}};
  if (step.line != 0) all["line"] = step.line;
  if (step.what == ReplayStep::What::observation) {
    all["id"] = step.id;
    all["args"] = Json::array();
    for (const TraceArgument& argument : step.arguments) all["args"].push_back(std::visit(ToJson{}, argument));
  }
  if (!step.text.empty()) all["text"] = step.text;
  if (step.to) all["to_us"] = microsecondsOf(*step.to);
  Json takens = Json::array();
  for (const StoryTaken& taken : step.taken) {
    Json one{{"correlator", taken.correlator},
             {"decisions", Json::array()},
             {"events", Json::array()},
             {"actions", Json::array()},
             {"notes", taken.notes}};
    for (const StoryDecision& decision : taken.decisions) {
      one["decisions"].push_back({{"name", decision.decision->name},
                                  {"kind", decisionKindName(decision.decision->kind)},
                                  {"subject", decision.subject},
                                  {"text", decision.text},
                                  {"seconds", decision.seconds}});
    }
    for (const StoryEvent& event : taken.events) {
      one["events"].push_back({{"kind", event.kind}, {"event", event.event}, {"text", event.text}});
    }
    for (const std::string& action : taken.actions) one["actions"].push_back(Json::parse(action, nullptr, false));
    takens.push_back(std::move(one));
  }
  all["taken"] = std::move(takens);
  return all;
}

const char* decisionKindName(keld::DecisionKind kind) {
  switch (kind) {
    case keld::DecisionKind::counts:
      return "counts";
    case keld::DecisionKind::waits:
      return "waits";
    case keld::DecisionKind::holds:
      return "holds";
    case keld::DecisionKind::concludes:
      return "concludes";
    case keld::DecisionKind::acts:
      return "acts";
    case keld::DecisionKind::forgets:
      break;
  }
  return "forgets";
}

StoryTeller::StoryTeller(Take take) : take_(std::move(take)) {
  for (const keld::CorrelatorInfo* info : keld::correlators()) {
    for (const keld::Decision* decision : info->decisions) correlatorOfDecision_[decision->name] = info->nameWord;
    for (const keld::Row& row : info->rows) correlatorOfEvent_[keld::eventName(row.text)] = info->nameWord;
    for (const keld::Judged& judged : info->judged) {
      for (const keld::EventInfo* event : judged.events) {
        correlatorOfEvent_[keld::eventName(event->text)] = info->nameWord;
      }
    }
  }
}

void StoryTeller::begins(const ReplayStep& step) {
  finish();
  step_ = StoryStep{step.what, step.time, step.line, {}, {}, step.text, step.to, {}};
  if (step.entry != nullptr) {
    step_->id = step.entry->id;
    step_->arguments = step.entry->arguments;
  }
}

void StoryTeller::finish() {
  endTaken();
  if (!step_) return;
  const bool silent = step_->what == ReplayStep::What::timer && step_->taken.empty();
  StoryStep told = std::move(*step_);
  step_.reset();
  if (!silent) take_(std::move(told));
}

void StoryTeller::taken(const keld::CorrelatorInfo& by, bool handler) {
  if (!step_) return;
  endTaken();
  by_ = &by;
  handler_ = handler;
  step_->taken.push_back({by.nameWord, {}, {}, {}, {}});
}

void StoryTeller::endTaken() {
  if (by_ == nullptr || !step_) return;
  for (StoryTaken& taken : step_->taken) {
    if (taken.correlator != by_->nameWord) continue;
    const bool nothing = taken.decisions.empty() && taken.events.empty() && taken.actions.empty();
    if (!handler_ && nothing) taken.notes.insert(taken.notes.begin(), "no handler for this identifier");
    if (handler_ && nothing) taken.notes.insert(taken.notes.begin(), whyNothing(*by_, *step_));
  }
  by_ = nullptr;
}

StoryTaken& StoryTeller::takenBy(const std::string& correlator) {
  for (StoryTaken& taken : step_->taken) {
    if (taken.correlator == correlator) return taken;
  }
  return step_->taken.emplace_back(StoryTaken{correlator, {}, {}, {}, {}});
}

/// Who has the word: the one that has the observation, or the last that had.
StoryTaken& StoryTeller::current() {
  if (by_ != nullptr) return takenBy(by_->nameWord);
  return step_->taken.empty() ? takenBy(kPosting) : step_->taken.back();
}

void StoryTeller::decided(const keld::Decision& decision, std::string_view subject,
                          std::span<const keld::DecisionValue> values) {
  if (!step_) return;
  const auto owner = correlatorOfDecision_.find(decision.name);
  StoryTaken& taken = by_ != nullptr                         ? current()
                      : owner != correlatorOfDecision_.end() ? takenBy(owner->second)
                                                             : takenBy(kPosting);
  if (const auto fate = fateOf(decision, subject, values)) {
    taken.events.push_back({fate->kind, fate->event, keld::decisionText(decision, values)});
    return;
  }
  taken.decisions.push_back(
      {&decision, std::string(subject), keld::decisionText(decision, values), secondsOf(decision, values)});
}

void StoryTeller::posted(std::string_view record, std::string_view /*line*/) {
  const auto decoded = platform::decodeEventRecord(std::string(record));
  const auto* const event = std::get_if<platform::EventRecord>(&decoded);
  if (event == nullptr || !step_) return;
  const auto owner = correlatorOfEvent_.find(event->name);
  StoryTaken& taken = by_ != nullptr || owner == correlatorOfEvent_.end() ? current() : takenBy(owner->second);
  taken.events.push_back({std::string(platform::eventKindName(event->kind)), event->name, texts_.textOf(*event)});
}

void StoryTeller::acted(const std::string& action) {
  if (step_) current().actions.push_back(action);
}

void StoryTeller::logged(const char* text) {
  constexpr std::size_t kMostNotes = 16;
  if (!step_ || by_ == nullptr || isFrameworkLine(text, step_->id)) return;
  std::string line(text);
  // An event is logged as it is posted.
  if (line.find("us: [orn.") != std::string::npos) return;
  line.erase(line.find_last_not_of(" \n") + 1);
  StoryTaken& taken = current();
  if (taken.notes.size() < kMostNotes) taken.notes.push_back("logged: " + line);
}

void StoryTeller::stopped(const std::string& why) {
  if (step_) current().notes.push_back("the daemon would end here: " + why);
}

}  // namespace kelctl
