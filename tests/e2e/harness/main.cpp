#include <gtest/gtest.h>

#include <array>
#include <iostream>
#include <locale>

#include "endToEnd.h"
#include "privateDev.h"

namespace {

/// Regular expressions are made on several threads, and the library's tables of characters, which it
/// fills when they are first used, know no lock.
void fillCharacterTables() {
  const auto& characters = std::use_facet<std::ctype<char>>(std::locale());
  constexpr char kOne[] = "a";
  std::array<char, 1> result{};
  characters.narrow(kOne, kOne + 1, '\0', result.data());
  characters.widen(kOne, kOne + 1, result.data());
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  fillCharacterTables();
  if (!GTEST_FLAG_GET(list_tests)) {
    e2e::noPrivateDev = e2e::enterPrivateDev();
    if (!e2e::noPrivateDev.empty()) std::cerr << "all tests are skipped: " << e2e::noPrivateDev << '\n';
  }
  return RUN_ALL_TESTS();
}
