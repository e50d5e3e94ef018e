// Captures as tests write them, and what comes of their replay.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>

#include "replayOutput.h"
#include "replayRun.h"

namespace support {

inline constexpr std::int64_t kCaptureStart = 1'767'225'600;  // 2026-01-01T00:00:00Z

/// Milliseconds behind 2026-01-01T00:00:00Z as a capture writes them.
inline std::string moment(std::int64_t milliseconds) {
  const std::string fraction = std::to_string(1000 + milliseconds % 1000).substr(1);
  return std::to_string(kCaptureStart + milliseconds / 1000) + '.' + fraction + "000000";
}

/// A line of the trace; `arguments` are written as there, each behind its comma.
inline std::string traced(const char* direction, std::int64_t milliseconds, const std::string& id,
                          const std::string& arguments) {
  return moment(milliseconds) + ',' + direction + ',' + std::to_string(kCaptureStart) + "000000," + id + ',' +
         arguments + '\n';
}
inline std::string in(std::int64_t milliseconds, const std::string& id, const std::string& arguments = "") {
  return traced("IN", milliseconds, id, arguments);
}
inline std::string out(std::int64_t milliseconds, const std::string& id, const std::string& arguments = "") {
  return traced("OUT", milliseconds, id, arguments);
}
inline std::string note(const std::string& word, std::int64_t milliseconds, const std::string& rest = "") {
  return '#' + word + ' ' + moment(milliseconds) + (rest.empty() ? "" : " " + rest) + '\n';
}

/// An observation that is an event at once, without any state.
inline std::string inactive(std::int64_t milliseconds, const std::string& msw = "msw1") {
  return in(milliseconds, "kel.net.lacp.uplink.inactive", ",\"" + msw + '"');
}
/// An observation that is put on record for a second.
inline std::string linkDown(std::int64_t milliseconds, const std::string& nic = "qnic0") {
  return in(milliseconds, "kel.net.qnic.linkstate.down", ",\"" + nic + '"');
}

/// What replay prints of these, at a time of day such as "00:00:01.000000".
inline std::string inactiveLine(const std::string& time, const std::string& msw = "msw1") {
  return "2026-01-01T" + time + "Z problem orn.problem.net.lacp.uplink.inactive All uplinks on MSW " + msw +
         " must be active for LACP\n";
}
inline std::string linkDownLine(const std::string& time, const std::string& nic = "qnic0") {
  return "2026-01-01T" + time + "Z problem orn.problem.net.qnic.linkstate.down Physical NIC " + nic +
         " linkstate is down\n";
}

inline kelctl::ReplayInput inputOf(std::string capture) {
  kelctl::ReplayInput input;
  input.content = std::move(capture);
  input.file = "the.capture";
  return input;
}

struct Replayed {
  std::string lines;
  std::string complaints;
  std::uint64_t bad = 0;
};

inline Replayed replayed(const kelctl::ReplayInput& input, kelctl::ReplayForm form = kelctl::ReplayForm::text) {
  Replayed result;
  kelctl::ReplayLines lines(form, {}, {}, [&](std::string_view line) { result.lines += line; });
  testing::internal::CaptureStderr();
  try {
    result.bad = kelctl::replay(input, lines);
  } catch (...) {
    testing::internal::GetCapturedStderr();
    throw;
  }
  result.complaints = testing::internal::GetCapturedStderr();
  return result;
}
inline Replayed replayed(const std::string& capture) {
  return replayed(inputOf(capture));
}

}  // namespace support
