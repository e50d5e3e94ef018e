#include <gtest/gtest.h>

#include <iostream>

#include "endToEnd.h"
#include "privateDev.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!GTEST_FLAG_GET(list_tests)) {
    e2e::noPrivateDev = e2e::enterPrivateDev();
    if (!e2e::noPrivateDev.empty()) std::cerr << "all tests are skipped: " << e2e::noPrivateDev << '\n';
  }
  return RUN_ALL_TESTS();
}
