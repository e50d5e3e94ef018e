// Argument areas for the tests of this folder, at addresses that suit no type.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/msgfmt.h"

/// What MsgFmt_GetArgsWithBuf made of a template and its arguments, in a buffer whose bytes outside
/// the space offered are watched.
class TestArea {
 public:
  static constexpr std::size_t kPlenty = 4096;

  /// Reads arguments into `space` bytes. Templates may be malformed on purpose, so the compiler
  /// does not check them.
  static TestArea read(std::size_t space, const char* format, ...);
  /// An area of raw bytes.
  static TestArea ofBytes(const std::string& bytes, std::uint32_t count);

  [[nodiscard]] bool ok() const { return ok_; }
  [[nodiscard]] std::size_t used() const { return used_; }
  [[nodiscard]] std::uint32_t count() const { return count_; }
  [[nodiscard]] const std::string& error() const { return error_; }
  [[nodiscard]] const char* start() const { return buffer_.data() + kMargin; }
  [[nodiscard]] char* start() { return buffer_.data() + kMargin; }
  [[nodiscard]] const char* end() const { return start() + used_; }
  [[nodiscard]] std::string bytes() const { return {start(), used_}; }
  [[nodiscard]] MsgFmt_Arg entry(std::size_t index) const { return MsgFmt_LoadArg(start(), index); }
  /// The string that local entry `index` points to.
  [[nodiscard]] const char* localText(std::size_t index) const;
  void set(std::size_t index, const MsgFmt_Arg& entry);
  bool swizzle() { return MsgFmt_SwizzleArgs(start(), used_, count_); }
  /// True while nothing was written around the space that was offered.
  [[nodiscard]] bool marginsIntact() const;

 private:
  static constexpr std::size_t kMargin = 67;
  static constexpr char kUntouched = '\x5a';

  explicit TestArea(std::size_t space) : buffer_(space + 2 * kMargin, kUntouched) {}

  std::vector<char> buffer_;
  bool ok_ = false;
  std::size_t used_ = 0;
  std::uint32_t count_ = 0;
  std::string error_;
};

MsgFmt_Arg makeEntry(std::uint32_t type, std::uint64_t value, std::uint32_t flags = 0);
/// The bytes of `entries`, as they stand in an area.
std::string entryBytes(const std::vector<MsgFmt_Arg>& entries);
/// Formats a local array and releases the text; checks that the length given is the text's.
std::string formatted(const char* format, const void* array, std::uint32_t count);
/// Formats a local array of `entries`.
std::string formatted(const char* format, const std::vector<MsgFmt_Arg>& entries);
/// Formats a swizzled area.
std::string formattedSwizzled(const char* format, const TestArea& area);
