#include "replayOutput.h"

#include <fmt/format.h>

#include <variant>

#include "console.h"
#include "glob.h"
#include "keldDelivery.h"
#include "keldVprob.h"
#include "msgfmt/eventRecord.h"

namespace kelctl {

namespace {

/// The daemon's decisions about an event's fate; the first number of some is the count of failures.
struct FateName {
  const keld::Decision* decision;
  const char* kind;
  bool counts;
};
constexpr FateName kFates[] = {
    {&keld::kEventDropped, "dropped", false}, {&keld::kEventQueued, "queued", false},
    {&keld::kEventWaiting, "waiting", true},  {&keld::kEventResent, "resent", true},
    {&keld::kEventLost, "lost", true},
};

}  // namespace

std::uint64_t microsecondsOf(WallTime time) {
  return static_cast<std::uint64_t>(std::chrono::floor<std::chrono::microseconds>(time.time_since_epoch()).count());
}

std::optional<Fate> fateOf(const keld::Decision& decision, std::string_view subject,
                           std::span<const keld::DecisionValue> values) {
  for (const FateName& fate : kFates) {
    if (fate.decision->name != decision.name) continue;
    Fate found{fate.kind, std::string(subject), std::nullopt};
    if (fate.counts && !values.empty()) found.failures = std::get<std::int64_t>(values.front());
    return found;
  }
  return std::nullopt;
}

std::string failuresText(const Fate& fate) {
  if (!fate.failures) return {};
  return fmt::format(" after {} failure{}", *fate.failures, *fate.failures == 1 ? "" : "s");
}

bool ReplayLines::wants(std::string_view name) const {
  return (!from_ || now_ >= *from_) && matchesAny(globs_, std::string(name));
}

void ReplayLines::text(std::string_view kind, std::string_view rest) {
  write_(fmt::format("{} {:<7} {}\n", utcTime(microsecondsOf(now_)), kind, printable(rest)));
}

void ReplayLines::json(std::string_view kind, const Json& rest) {
  Json line{{"time_us", microsecondsOf(now_)}, {"kind", kind}};
  line.update(rest);
  write_(jsonLine(line) + "\n");
}

void ReplayLines::posted(std::string_view record, std::string_view line) {
  // The plain trace of a whole day: nothing of the record is needed.
  if (form_ == ReplayForm::trace && globs_.empty()) {
    if (!from_ || now_ >= *from_) write_(line);
    return;
  }
  const auto decoded = platform::decodeEventRecord(std::string(record));
  const auto* const event = std::get_if<platform::EventRecord>(&decoded);
  if (event == nullptr || !wants(event->name)) return;
  switch (form_) {
    case ReplayForm::trace:
      write_(line);
      break;
    case ReplayForm::text:
      text(platform::eventKindName(event->kind), event->name + ' ' + texts_.textOf(*event));
      break;
    case ReplayForm::json:
      write_(eventJson(*event, texts_.textOf(*event)) + "\n");
      break;
  }
}

void ReplayLines::acted(const std::string& action) {
  const Json object = Json::parse(action, nullptr, false);
  if (!object.is_object() || !wants(object.value("action", std::string()))) return;
  if (form_ == ReplayForm::text) text("action", action);
  if (form_ == ReplayForm::json) json("action", {{"action", object}});
}

void ReplayLines::decided(const keld::Decision& decision, std::string_view subject,
                          std::span<const keld::DecisionValue> values) {
  if (form_ == ReplayForm::trace) return;
  const auto fate = fateOf(decision, subject, values);
  if (!fate || !wants(fate->event)) return;
  if (form_ == ReplayForm::text) {
    text(fate->kind, fate->event + failuresText(*fate));
  } else {
    Json rest{{"event", fate->event}};
    if (fate->failures) rest["failures"] = *fate->failures;
    json(fate->kind, rest);
  }
}

void ReplayLines::stopped(const std::string& why) {
  if (from_ && now_ < *from_) return;
  if (form_ == ReplayForm::text) text("stopped", why);
  if (form_ == ReplayForm::json) json("stopped", {{"text", why}});
}

}  // namespace kelctl
