#include "testArea.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

std::string taken(char* text, std::size_t length) {
  EXPECT_NE(text, nullptr);
  if (text == nullptr) return "(out of memory)";
  EXPECT_EQ(std::strlen(text), length);
  std::string result(text);
  std::free(text);
  return result;
}

}  // namespace

TestArea TestArea::read(std::size_t space, const char* format, ...) {
  TestArea area(space);
  std::size_t size = space;
  char* error = nullptr;
  std::va_list arguments;
  va_start(arguments, format);
  area.ok_ = MsgFmt_GetArgsWithBuf(format, arguments, area.start(), &size, &area.count_, &error);
  va_end(arguments);
  EXPECT_EQ(area.ok_, error == nullptr) << "an error text goes with a failure";
  if (error != nullptr) {
    area.error_ = error;
    std::free(error);
  }
  area.used_ = area.ok_ ? size : 0;
  EXPECT_LE(area.used_, space);
  EXPECT_TRUE(area.ok_ || size == space) << "the size is untouched on failure";
  EXPECT_TRUE(area.marginsIntact()) << "bytes outside the space were written";
  return area;
}

TestArea TestArea::ofBytes(const std::string& bytes, std::uint32_t count) {
  TestArea area(bytes.size());
  std::copy(bytes.begin(), bytes.end(), area.start());
  area.ok_ = true;
  area.used_ = bytes.size();
  area.count_ = count;
  return area;
}

const char* TestArea::localText(std::size_t index) const {
  return reinterpret_cast<const char*>(entry(index).value);
}

void TestArea::set(std::size_t index, const MsgFmt_Arg& entry) {
  std::memcpy(start() + index * sizeof entry, &entry, sizeof entry);
}

bool TestArea::marginsIntact() const {
  const auto untouched = [](char c) { return c == kUntouched; };
  return std::all_of(buffer_.begin(), buffer_.begin() + kMargin, untouched) &&
         std::all_of(buffer_.end() - kMargin, buffer_.end(), untouched);
}

MsgFmt_Arg makeEntry(std::uint32_t type, std::uint64_t value, std::uint32_t flags) {
  MsgFmt_Arg entry;
  entry.type = type;
  entry.flags = flags;
  entry.value = value;
  return entry;
}

std::string entryBytes(const std::vector<MsgFmt_Arg>& entries) {
  std::string bytes(entries.size() * sizeof(MsgFmt_Arg), '\0');
  if (!entries.empty()) std::memcpy(bytes.data(), entries.data(), bytes.size());
  return bytes;
}

std::string formatted(const char* format, const void* array, std::uint32_t count) {
  std::size_t length = 0;
  char* text = MsgFmt_Asprintf(&length, format, array, count);
  return taken(text, length);
}

std::string formatted(const char* format, const std::vector<MsgFmt_Arg>& entries) {
  const std::string unaligned = " " + entryBytes(entries);
  return formatted(format, unaligned.data() + 1, static_cast<std::uint32_t>(entries.size()));
}

std::string formattedSwizzled(const char* format, const TestArea& area) {
  std::size_t length = 0;
  char* text = MsgFmt_AsprintfSwizzled(&length, format, area.start(), area.used(), area.count());
  return taken(text, length);
}
