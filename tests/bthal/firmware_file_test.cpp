#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bring_up/firmware_patch.h"
#include "bthal/child_case.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

using android::hardware::bluetooth::FindFirmwarePatch;
using testing::HasSubstr;

constexpr char kFirmware[] = "/vendor/firmware/tovu/";

// In a process of its own: some properties are set once a process. Argument: chip id.
CHILD_CASE(ChooseFirmware) {
  std::string name;
  FindFirmwarePatch(static_cast<uint8_t>(std::stoul(arguments[0], nullptr, 16)), &name);
  printf("chosen: %s\n", name.c_str());
  return 0;
}

TEST(FirmwareFile, IsTheFirstCandidateThatExists) {
  for (const test::Vector& v : test::LoadVectors("firmware_choice.txt")) {
    test::TempDir root;
    test::WriteFile(root / "vendor/build.prop", test::Replaced(v.fields[1], " ", "\n") + "\n");
    for (const std::string& name : test::SplitTrimmed(v.fields[2], ' ')) {
      test::WriteFile(root.path() + kFirmware + name, "");
    }
    EXPECT_THAT(test::RunChild("ChooseFirmware", root.path(), {v.fields[0]}).output,
                HasSubstr("chosen: " + v.fields[3] + "\n"))
        << v.name;
  }
}

}  // namespace
