// Properties.
#include <android-base/properties.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/test_root.h"
#include "support/temp_dir.h"

namespace {

using android::base::GetBoolProperty;
using android::base::GetIntProperty;
using android::base::GetProperty;
using android::base::SetProperty;
using test::RootFolder;

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

TEST(Properties, Set_RefusesWhatIsNoPropertyAndKeepsThePersistentOnes) {
  EXPECT_TRUE(SetProperty("test.new", "x"));
  EXPECT_EQ(GetProperty("test.new", ""), "x");
  EXPECT_TRUE(SetProperty("test.new", ""));
  EXPECT_EQ(GetProperty("test.new", "default"), "default");
  EXPECT_FALSE(SetProperty("", "x"));
  EXPECT_TRUE(SetProperty("test.new", " \vx\f"));  // as a file is read
  EXPECT_EQ(GetProperty("test.new", ""), "x");
  for (const char* name : {"a=b", " a", "a ", "#a"}) EXPECT_FALSE(SetProperty(name, "x")) << name;
  EXPECT_FALSE(SetProperty("test.lines", "a\nb"));
  EXPECT_TRUE(SetProperty("test.long", std::string(91, 'x')));
  EXPECT_FALSE(SetProperty("test.long", std::string(92, 'x')));
  EXPECT_FALSE(SetProperty("ro.build.type", "user")) << "set twice";
  EXPECT_TRUE(SetProperty("persist.old", "2"));
  EXPECT_TRUE(SetProperty("persist.new", "3"));
  EXPECT_EQ(test::ReadFile(RootFolder() + kPersistent),
            "persist.old=2\nbroken line\ntest.shared=kept\npersist.new=3\n");
}

}  // namespace
