// The lines of a capture that are none of the trace (docs/formats/capture.md). Pure.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace kelctl {

/// Nanoseconds since the epoch.
using CaptureTime = std::int64_t;

/// As the first field of a trace line: seconds, '.', nanoseconds in nine digits.
std::string captureTimeText(CaptureTime time);
/// The first field of a trace line; nothing where it is no time.
std::optional<CaptureTime> renderingTime(std::string_view entry);

/// The capture's first line. Facts that would make it longer than a reader takes are left out.
std::string captureHeaderLine(const nlohmann::json& header);

// Each with its line feed, as the header.
std::string factsLine(CaptureTime time, const nlohmann::json& patch);
std::string stepLine(CaptureTime time, CaptureTime to);
std::string restartLine(CaptureTime time);
std::string endLine(CaptureTime time);

/// A line of the trace. One that a reader would not take for one entry of its own goes behind "#bad".
std::string captureEntry(std::string_view entry, bool recovered);

/// The merge patch (RFC 7396) that makes `to` of `from`. No object in `to` has a null.
nlohmann::json mergePatch(const nlohmann::json& from, const nlohmann::json& to);

}  // namespace kelctl
