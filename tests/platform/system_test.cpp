// Properties and wake locks.
#include <android-base/properties.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hardware_legacy/power.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "platform/test_root.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace {

using android::base::GetBoolProperty;
using android::base::GetIntProperty;
using android::base::GetProperty;
using android::base::SetProperty;
using test::ReadFile;
using test::RootFolder;
using testing::HasSubstr;

constexpr char kPersistent[] = "/data/property/persistent.prop";

// The store is read once, by the log's constructor: before the first static object.
__attribute__((constructor(102))) void WriteFiles() {
  test::WriteFile(RootFolder() + "/vendor/build.prop",
                  "# a comment\n\nro.build.type=userdebug\n  spaced.name =  a value \r\n"
                  "test.number=42\ntest.flag=true\nno equals sign\n=no name\ntwo words=x\n"
                  "test.shared=build\nlast=line");
  test::WriteFile(RootFolder() + kPersistent, "persist.old=1\nbroken line\ntest.shared=kept\n");
}

TEST(Properties, ComeFromFiles_LaterFileWins) {
  EXPECT_EQ(GetProperty("ro.build.type", ""), "userdebug");
  EXPECT_EQ(GetProperty("spaced.name", ""), "a value");
  EXPECT_EQ(GetProperty("test.shared", ""), "kept");
  EXPECT_EQ(GetProperty("last", ""), "line");
  EXPECT_EQ(GetProperty("two", "nothing"), "nothing");
  EXPECT_EQ(GetIntProperty("test.number", 0), 42);  // in the library, yet of our store
  EXPECT_TRUE(GetBoolProperty("test.flag", false));
}

TEST(Properties, Set_RefusesWhatIsNoProperty) {
  EXPECT_TRUE(SetProperty("test.new", "x"));
  EXPECT_EQ(GetProperty("test.new", ""), "x");
  EXPECT_TRUE(SetProperty("test.new", ""));
  EXPECT_EQ(GetProperty("test.new", "default"), "default");
  EXPECT_FALSE(SetProperty("", "x"));
  EXPECT_FALSE(SetProperty("a=b", "x"));
  EXPECT_FALSE(SetProperty("test.lines", "a\nb"));
  EXPECT_TRUE(SetProperty("test.long", std::string(91, 'x')));
  EXPECT_FALSE(SetProperty("test.long", std::string(92, 'x')));
  EXPECT_EQ(GetProperty("test.long", "").size(), 91u);
  EXPECT_FALSE(SetProperty("ro.build.type", "user")) << "set twice";
  EXPECT_EQ(GetProperty("ro.build.type", ""), "userdebug");
}

TEST(Properties, Persistent_AreWrittenAtOnceAndNothingElseIsLost) {
  EXPECT_TRUE(SetProperty("persist.old", "2"));
  EXPECT_TRUE(SetProperty("persist.new", "3"));
  EXPECT_TRUE(SetProperty("test.volatile", "4"));
  EXPECT_EQ(ReadFile(RootFolder() + kPersistent),
            "persist.old=2\nbroken line\ntest.shared=kept\npersist.new=3\n");
}

TEST(Properties, ManyThreads_SeeWholeValues) {
  const int rounds = test::Count("property writes per thread", 20000);
  std::vector<std::thread> threads;
  for (char letter = 'a'; letter < 'd'; ++letter) {
    threads.emplace_back([letter, rounds] {
      for (int i = 0; i < rounds; ++i) {
        SetProperty("test.racy", std::string(20, letter));
        const std::string seen = GetProperty("test.racy", "");
        ASSERT_EQ(seen, std::string(20, seen[0]));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(WakeLocks, GoToTheKernelElseAreCounted) {
  EXPECT_EQ(acquire_wake_lock(PARTIAL_WAKE_LOCK, "a_lock"), 0) << "no kernel file";
  EXPECT_EQ(release_wake_lock("a_lock"), 0);
  EXPECT_EQ(acquire_wake_lock(0, "a_lock"), -EINVAL);

  const std::string locked = RootFolder() + "/sys/power/wake_lock";
  const std::string unlocked = RootFolder() + "/sys/power/wake_unlock";
  test::WriteFile(locked, "");
  test::WriteFile(unlocked, "");
  EXPECT_EQ(acquire_wake_lock(PARTIAL_WAKE_LOCK, "a_lock"), 0);
  EXPECT_EQ(ReadFile(locked), "a_lock");
  EXPECT_EQ(ReadFile(unlocked), "");
  EXPECT_EQ(release_wake_lock("a_lock"), 0);
  EXPECT_EQ(ReadFile(unlocked), "a_lock");
}

}  // namespace
