#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "bring_up/firmware_download.h"
#include "bring_up/firmware_patch.h"
#include "bthal/bring_up_script.h"
#include "bthal/child_case.h"
#include "bthal/uart_rig.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

using android::hardware::bluetooth::FindFirmwarePatch;
using android::hardware::bluetooth::FirmwareDownload;
using std::chrono::steady_clock;
using test::Bytes;
using test::OpcodeOf;
using test::ScriptedController;
using testing::HasSubstr;

constexpr char kFirmware[] = "/vendor/firmware/tovu/";
constexpr uint16_t kDownloadMinidriver = 0xFC2E;

TEST(FirmwareDownload, SendsTheFileFiftyMillisecondsAfterMinidriver) {
  const std::string file = test::RootFolder() + kFirmware + "ZVK.hcd";
  test::UartRig rig;
  ASSERT_TRUE(rig.Open());
  for (const test::Vector& v : test::LoadVectors("firmware.txt")) {
    SCOPED_TRACE(v.name);
    const auto chip = static_cast<uint8_t>(std::stoul(v.fields[0], nullptr, 16));
    if (v.fields[2] == "-") {
      std::filesystem::remove(file);
    } else {
      const Bytes records = test::ParseHex(v.fields[2]);
      test::WriteFile(file, std::string(records.begin(), records.end()));
    }
    steady_clock::time_point minidriver, next;
    ScriptedController controller(rig.pty(), [&](const Bytes& command) -> Bytes {
      if (minidriver != steady_clock::time_point() && next == steady_clock::time_point()) {
        next = steady_clock::now();
      }
      if (OpcodeOf(command) == kDownloadMinidriver) minidriver = steady_clock::now();
      for (const std::string& answer : test::SplitTrimmed(v.fields[3], ' ')) {
        if (answer == "-" || std::stoul(answer, nullptr, 16) != OpcodeOf(command)) continue;
        if (answer.substr(5) == "none") return {};
        return ScriptedController::Complete(command, test::ParseHex(answer.substr(5))[0]);
      }
      return test::BringUpAnswer(command);
    });
    EXPECT_EQ(FirmwareDownload(rig.flow().get(), chip, v.fields[1] == "-").Run(),
              v.fields[5] == "ok");
    std::vector<Bytes> expected;
    for (const std::string& command : test::SplitTrimmed(v.fields[4], ';')) {
      expected.push_back(test::ParseHex(command));
    }
    EXPECT_EQ(controller.Commands(), expected);
    controller.Stop();
    if (next != steady_clock::time_point()) {
      EXPECT_GE(next - minidriver, std::chrono::milliseconds(50));
    }
  }
}

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
