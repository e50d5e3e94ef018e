// Log lines that a standing condition must not repeat without end.
#pragma once

#include <chrono>
#include <string>

namespace platform {

/// How long a condition that lasts is not mentioned again.
inline constexpr std::chrono::seconds kComplaintPause{60};

/// Logs `text` unless this process has logged the same text before. Any thread.
void logOnce(const std::string& text);

/// Logs `text` unless a line about `subject` was logged less than kComplaintPause ago. Any thread.
void logSparsely(const std::string& subject, const std::string& text);

}  // namespace platform
