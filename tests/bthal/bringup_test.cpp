#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "bring_up/firmware_download.h"
#include "bring_up/firmware_patch.h"
#include "bthal/bring_up_script.h"
#include "bthal/child_case.h"
#include "bthal/report_check.h"
#include "bthal/uart_rig.h"
#include "btzvk_protocol.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

using android::hardware::bluetooth::BtZvkProtocol;
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

// A bring-up in a process of its own. Arguments: an opcode, and which of its commands fails: with a
// status, or, when it asks for the chip id, with the id 0, which no chip has.
CHILD_CASE(BringUp) {
  test::PrintReports();
  test::UartRig rig;
  int left = std::stoi(arguments[1]);
  ScriptedController controller(rig.pty(), [&](const Bytes& command) {
    const bool fails = OpcodeOf(command) == std::stoul(arguments[0], nullptr, 16) && --left == 0;
    if (!fails) return test::BringUpAnswer(command);
    if (OpcodeOf(command) == 0xFC79) return test::BringUpAnswer(command, 0);
    return ScriptedController::Complete(command, 0x0C);
  });
  if (!rig.Open()) return 1;
  return BtZvkProtocol::GetInstacne()->Initialize(rig.flow().get()) ? 0 : 2;
}

// The whole table, against the whole service, is in the system's tests.
TEST(BringUp, StepThatFails_ShutsDownAndIsReported) {
  const struct {
    test::Arguments fault;
    const char* report;
  } rows[] = {{{"0C03", "1"}, "147, extra info: HCI Reset error before downloading firmware\n"},
              {{"FC79", "1"}, "147, extra info: HCI Reset error before downloading firmware\n"},
              {{"FC18", "1"},
               "146, extra info: Unable to change to 4M baud rate before downloading firmware\n"},
              {{"FC2E", "1"}, "148, extra info: Unable to download firmware patchram\n"},
              {{"0C03", "2"}, "149, extra info: HCI Reset error after firmware downloaded\n"},
              {{"FC79", "2"}, "149, extra info: HCI Reset error after firmware downloaded\n"},
              {{"FC18", "2"},
               "146, extra info: Unable to change to 4M baud rate after firmware downloaded\n"}};
  std::vector<test::TempDir> roots(std::size(rows));
  test::RunSideBySide(
      roots.size(),
      [&](size_t i) {
        test::WriteConfiguration(roots[i].path());
        test::WriteFile(roots[i].path() + kFirmware + "ZVK.hcd", "");
        return test::StartChild("BringUp", roots[i].path(), rows[i].fault);
      },
      [&](size_t i, const test::ChildRun& run) {
        EXPECT_EQ(run.result.signal, SIGABRT) << run.output;
        const size_t shut_down = run.output.find(" bthal.zvkproto: Shutdown\n");
        EXPECT_NE(run.output.find(std::string("vendor error code ") + rows[i].report, shut_down),
                  std::string::npos)
            << run.output;
      });
}

}  // namespace
