// From the host's answers to values, and exceptions where there are none.
#pragma once

#include <cerrno>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include "host/files.h"
#include "host/host.h"
#include "platform/hostctl.h"

namespace platform {

/// Calls `ask` and returns its outcome or Answer; whatever it throws becomes a HostCtlException about
/// `what`.
template <typename Ask>
auto asked(const std::string& what, const Ask& ask) {
  try {
    return ask();
  } catch (const std::exception& trouble) {
    throw HostCtl::Lib::HostCtlException(what + ": " + trouble.what());
  }
}

[[noreturn]] inline void refuse(const std::string& what, const Outcome& outcome) {
  throw HostCtl::Lib::HostCtlException(what + ": " + reasonOf(outcome), outcome.status);
}

/// The value that the host answers. Throws HostCtlException where it has none.
template <typename Ask>
auto answered(const std::string& what, const Ask& ask) {
  auto answer = asked(what, ask);
  if (!answer.ok()) refuse(what, answer.outcome);
  return std::move(answer.value);
}

/// The same, nothing where the host knows that there is none (ENOENT).
template <typename Ask>
auto answeredIfAny(const std::string& what, const Ask& ask) {
  auto answer = asked(what, ask);
  if (!answer.ok() && answer.outcome.status != ENOENT) refuse(what, answer.outcome);
  return answer.ok() ? std::optional(std::move(answer.value)) : std::nullopt;
}

/// Does something to the host. Throws HostCtlException where it fails.
template <typename Act>
void done(const std::string& what, const Act& act) {
  const Outcome outcome = asked(what, act);
  if (!outcome.ok()) refuse(what, outcome);
}

}  // namespace platform
