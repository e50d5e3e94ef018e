// Splitting a line into words as a POSIX shell does, without any expansion.
#pragma once

#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kelctl {

/// Why words are not understood, in one line without a line end.
struct WordsError {
  std::string reason;
};

/// The words of `line`, which has no line end. Blanks and tabs part words; '…' keeps everything,
/// "…" keeps all but a backslash before one of $ ` " and backslash, and a backslash elsewhere keeps
/// the next character. Nothing else has a meaning. A quote that is not closed, a backslash at the
/// end and a NUL are errors.
std::variant<std::vector<std::string>, WordsError> splitWords(std::string_view line);

}  // namespace kelctl
