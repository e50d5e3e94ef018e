// What the self-test's daemon says on its standard output, taken apart.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kelctl {

enum class Verdict { information, passed, failed, warning };

struct SelftestLine {
  Verdict verdict = Verdict::information;
  std::string text;        ///< without a line feed
  bool continued = false;  ///< goes on with what the line before it said
};

/// Makes lines of output as it comes. Three of the daemon's messages have no line end, so that the next
/// one stands behind them in the same line; each becomes a line of its own.
class SelftestLines {
 public:
  /// Bytes of one line, after which it is cut.
  static constexpr std::size_t kMaxLineBytes = 65536;

  /// Takes some more output and returns the lines that it completes.
  std::vector<SelftestLine> add(std::string_view output);
  /// The output has ended: returns what was left without a line end.
  std::vector<SelftestLine> end();

 private:
  void append(std::string_view line, std::vector<SelftestLine>& lines);

  std::string buffer_;
  Verdict last_ = Verdict::information;
};

}  // namespace kelctl
