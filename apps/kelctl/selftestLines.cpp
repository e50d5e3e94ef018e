#include "selftestLines.h"

#include <algorithm>
#include <optional>

namespace kelctl {

namespace {

struct Tag {
  std::string_view text;
  Verdict verdict;
};

constexpr Tag kTags[] = {
    {"INFO: ", Verdict::information}, {"PASS: ", Verdict::passed},     {"FAIL: ", Verdict::failed},
    {"FAILURE: ", Verdict::failed},   {"WARNING: ", Verdict::warning},
};

/// The messages without a line end: how each begins and how it ends.
struct Unterminated {
  std::string_view beginning;
  std::string_view ending;
};

constexpr Unterminated kUnterminated[] = {
    {"FAILURE: Duplicate test start kels", "?!"},
    {"FAILURE: Received END without matching start", "!"},
    {"WARNING: received kel ", " before test 'START' kel. (Ignoring.)"},
};

/// How long the message is that `line` begins with; all of it where it is the line's only one.
std::size_t messageLength(std::string_view line) {
  for (const Unterminated& message : kUnterminated) {
    if (!line.starts_with(message.beginning)) continue;
    const std::size_t ending = line.find(message.ending, message.beginning.size());
    if (ending != std::string_view::npos) return ending + message.ending.size();
  }
  return line.size();
}

std::optional<Verdict> tagOf(std::string_view text) {
  const auto* const tag =
      std::find_if(std::begin(kTags), std::end(kTags), [text](const Tag& t) { return text.starts_with(t.text); });
  return tag == std::end(kTags) ? std::nullopt : std::optional(tag->verdict);
}

/// A failure stays one where something unforeseen stands before it.
bool mentionsFailure(std::string_view text) {
  return text.find("FAIL: ") != std::string_view::npos || text.find("FAILURE: ") != std::string_view::npos;
}

}  // namespace

void SelftestLines::append(std::string_view line, std::vector<SelftestLine>& lines) {
  do {
    const std::string_view text = line.substr(0, messageLength(line));
    line.remove_prefix(text.size());
    const std::optional<Verdict> tag = tagOf(text);
    const bool hidden = tag.value_or(Verdict::information) == Verdict::information && mentionsFailure(text);
    if (tag) last_ = *tag;
    if (hidden) last_ = Verdict::failed;
    lines.push_back({last_, std::string(text), !tag && !hidden});
  } while (!line.empty());
}

std::vector<SelftestLine> SelftestLines::add(std::string_view output) {
  buffer_ += output;
  std::vector<SelftestLine> lines;
  std::size_t begin = 0;
  for (std::size_t end = 0; (end = buffer_.find('\n', begin)) != std::string::npos; begin = end + 1) {
    append(std::string_view(buffer_).substr(begin, end - begin), lines);
  }
  buffer_.erase(0, begin);
  while (buffer_.size() >= kMaxLineBytes) {
    append(std::string_view(buffer_).substr(0, kMaxLineBytes), lines);
    buffer_.erase(0, kMaxLineBytes);
  }
  return lines;
}

std::vector<SelftestLine> SelftestLines::end() {
  std::vector<SelftestLine> lines;
  if (!buffer_.empty()) append(buffer_, lines);
  buffer_.clear();
  return lines;
}

}  // namespace kelctl
