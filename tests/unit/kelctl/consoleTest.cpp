#include "console.h"

#include <gtest/gtest.h>

#include "hostText.h"

namespace {

TEST(Printable, ShowsControlCharactersAsText) {
  EXPECT_EQ(kelctl::printable("a\nb\tc\x1b[31m\x7f"), "a\\nb\\tc\\x1b[31m\\x7f");
  EXPECT_EQ(kelctl::printable("plain \xc3\xa4"), "plain \xc3\xa4");
}

TEST(HostText, IndentsWhatIsInside) {
  const auto host =
      kelctl::Json::parse(R"({"host":"linux","options":[{"name":"A/B","value":1},{"name":"C/D","value":2}],
                                            "system":{"uuid":{"error":"none","status":2}},"vms":[],"list":[1,[2]]})");
  EXPECT_EQ(kelctl::hostText(host),
            "host: linux\n"
            "options:\n"
            "  - name A/B, value 1\n"
            "  - name C/D, value 2\n"
            "system:\n"
            "  uuid:\n"
            "    error: none\n"
            "    status: 2\n"
            "vms: none\n"
            "list:\n"
            "  - 1\n"
            "  -\n"
            "    - 2\n");
}

}  // namespace
