#include "platform/vthread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace {

/// Runs `body` on a thread of its own.
template <typename Body>
void onThread(Body body) {
  std::thread(body).join();
}

std::string kernelName() {
  char name[16] = {};
  EXPECT_EQ(pthread_getname_np(pthread_self(), name, sizeof name), 0);
  return name;
}

TEST(VThread, firstThreadIsMain) {
  EXPECT_STREQ(VThreadBase_CurName(), "main");
}

TEST(VThread, unnamedThreadHasItsKernelId) {
  onThread([] { EXPECT_EQ(VThreadBase_CurName(), "thread-" + std::to_string(gettid())); });
}

TEST(VThread, nameIsWhatWasSet) {
  onThread([] {
    VThreadBase_SetName("UserLevelCorrelator");
    EXPECT_STREQ(VThreadBase_CurName(), "UserLevelCorrelator");
    VThreadBase_SetName("net");
    EXPECT_STREQ(VThreadBase_CurName(), "net");
  });
}

TEST(VThread, kernelShowsTheFirst15Characters) {
  onThread([] {
    VThreadBase_SetName("UserLevelCorrelator");
    EXPECT_EQ(kernelName(), "UserLevelCorrel");
    VThreadBase_SetName("scsi");
    EXPECT_EQ(kernelName(), "scsi");
  });
}

TEST(VThread, longNameIsCutTo63Characters) {
  onThread([] {
    VThreadBase_SetName(std::string(200, 'n').c_str());
    EXPECT_EQ(VThreadBase_CurName(), std::string(63, 'n'));
  });
}

TEST(VThread, threadsKeepTheirOwnNames) {
  onThread([] {
    VThreadBase_SetName("outer");
    onThread([] {
      VThreadBase_SetName("inner");
      EXPECT_STREQ(VThreadBase_CurName(), "inner");
    });
    EXPECT_STREQ(VThreadBase_CurName(), "outer");
  });
}

TEST(VThread, ownNameCanBeSetAgain) {
  onThread([] {
    VThreadBase_SetName("again");
    VThreadBase_SetName(VThreadBase_CurName());
    EXPECT_STREQ(VThreadBase_CurName(), "again");
  });
}

}  // namespace
