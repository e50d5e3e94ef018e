#include "words.h"

#include <optional>

namespace kelctl {

namespace {

class Splitter {
 public:
  explicit Splitter(std::string_view line) : line_(line) {}

  std::variant<std::vector<std::string>, WordsError> split() {
    while (at_ < line_.size()) {
      if (isBlank(line_[at_])) {
        endWord();
        ++at_;
        continue;
      }
      if (std::optional<WordsError> error = takePart()) return std::move(*error);
    }
    endWord();
    return std::move(words_);
  }

 private:
  static bool isBlank(char c) { return c == ' ' || c == '\t'; }

  void endWord() {
    if (inWord_) words_.push_back(std::move(word_));
    word_.clear();
    inWord_ = false;
  }

  /// Takes one character, or one quoted stretch, of a word.
  std::optional<WordsError> takePart() {
    inWord_ = true;
    const char c = line_[at_++];
    if (c == '\'') return takeSingleQuoted();
    if (c == '"') return takeDoubleQuoted();
    if (c != '\\') {
      word_ += c;
      return std::nullopt;
    }
    if (at_ == line_.size()) return WordsError{"the line ends with a backslash"};
    word_ += line_[at_++];
    return std::nullopt;
  }

  std::optional<WordsError> takeSingleQuoted() {
    const std::size_t end = line_.find('\'', at_);
    if (end == std::string_view::npos) return WordsError{"a single quote is not closed"};
    word_ += line_.substr(at_, end - at_);
    at_ = end + 1;
    return std::nullopt;
  }

  std::optional<WordsError> takeDoubleQuoted() {
    constexpr std::string_view kEscapable = "$`\"\\";
    while (at_ < line_.size()) {
      const char c = line_[at_++];
      if (c == '"') return std::nullopt;
      if (c == '\\' && at_ < line_.size() && kEscapable.find(line_[at_]) != std::string_view::npos) {
        word_ += line_[at_++];
      } else {
        word_ += c;
      }
    }
    return WordsError{"a double quote is not closed"};
  }

  std::string_view line_;
  std::size_t at_ = 0;
  bool inWord_ = false;
  std::string word_;
  std::vector<std::string> words_;
};

}  // namespace

std::variant<std::vector<std::string>, WordsError> splitWords(std::string_view line) {
  if (line.find('\0') != std::string_view::npos) return WordsError{"the line holds a NUL byte"};
  return Splitter(line).split();
}

}  // namespace kelctl
