#include "platform/str.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

TEST(StrAsprintf, formatsAndGivesTheLength) {
  std::size_t length = 99;
  char* text = Str_Asprintf(&length, "%s%d", "nic", 0);
  EXPECT_STREQ(text, "nic0");
  EXPECT_EQ(length, 4U);
  std::free(text);
}

TEST(StrAsprintf, lengthPointerMayBeNull) {
  char* text = Str_Asprintf(nullptr, "%s", "");
  EXPECT_STREQ(text, "");
  std::free(text);
}

TEST(StrStrcpy, copiesWhatFitsExactly) {
  std::string buffer = "######";
  EXPECT_EQ(Str_Strcpy(buffer.data(), "abcd", 5), buffer.data());
  EXPECT_EQ(buffer, std::string("abcd\0#", 6));
}

TEST(StrStrcpy, leavesAnEmptyStringWhereItDoesNotFit) {
  std::string buffer = "######";
  EXPECT_EQ(Str_Strcpy(buffer.data(), "abcd", 4), nullptr);
  EXPECT_EQ(buffer, std::string("\0#####", 6));
}

TEST(StrStrcpy, touchesNothingOfAnEmptyDestination) {
  std::string buffer = "##";
  EXPECT_EQ(Str_Strcpy(buffer.data(), "", 0), nullptr);
  EXPECT_EQ(buffer, "##");
}

TEST(StrStrcpy, readsNoFurtherThanTheSizeOfALongSource) {
  const std::string unterminated(8, 'x');
  char buffer[4];
  EXPECT_EQ(Str_Strcpy(buffer, unterminated.data(), sizeof buffer), nullptr);
  EXPECT_STREQ(buffer, "");
}

}  // namespace
