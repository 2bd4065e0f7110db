#include <android-base/properties.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <map>

#include "bthal/child_case.h"
#include "bthal/scripted_controller.h"
#include "bthal/uart_rig.h"
#include "btzvk_protocol.h"
#include "debug_central.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

using android::hardware::hidl_vec;
using android::hardware::bluetooth::BtZvkProtocol;
using android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;
using test::Bytes;
using test::ScriptedController;
using testing::ElementsAreArray;
using testing::HasSubstr;

constexpr char kFirmware[] = "/vendor/firmware/tovu/";

// A bring-up in a process of its own. Arguments: chip id, answers ("FC4C:0C FE72:none …"). Prints
// each command, and "ready" at the end of a bring-up that succeeded.
CHILD_CASE(BringUp) {
  std::map<uint16_t, std::string> answers;
  for (const std::string& answer : test::SplitTrimmed(arguments[1], ' ')) {
    if (answer == "-") continue;
    answers[static_cast<uint16_t>(std::stoul(answer.substr(0, 4), nullptr, 16))] = answer.substr(5);
  }
  const auto chip = static_cast<uint8_t>(std::stoul(arguments[0], nullptr, 16));
  test::UartRig rig;
  ScriptedController controller(rig.pty(), [&](const Bytes& command) -> Bytes {
    printf("command %s\n", test::ToHex(command).c_str());
    fflush(stdout);
    const auto opcode = static_cast<uint16_t>(command[0] | command[1] << 8);
    const auto answer = answers.find(opcode);
    if (answer != answers.end()) {
      if (answer->second == "none") return {};
      return ScriptedController::Complete(command, test::ParseHex(answer->second)[0]);
    }
    if (opcode == 0xFC79) return ScriptedController::Complete(command, 0, {chip});
    if (opcode == 0x0C14) return ScriptedController::Complete(command, 0, {'Z', 'V', 'K', 0});
    return ScriptedController::Complete(command, 0);
  });
  DebugCentral::Get().SetEventSink([](const hidl_vec<uint8_t>&) {});
  if (!rig.Open()) return 1;
  if (!BtZvkProtocol::GetInstacne()->Initialize(rig.flow().get())) return 2;
  printf("ready %s\n", BtZvkProtocol::GetInstacne()->LocalName().c_str());
  BtZvkProtocol::GetInstacne()->Shutdown();
  return 0;
}

// The commands of a bring-up.
std::vector<std::string> CommandsIn(const test::ChildRun& run) {
  std::vector<std::string> commands;
  for (const std::string& line : test::SplitTrimmed(run.output, '\n')) {
    if (line.rfind("command ", 0) == 0) commands.push_back(line.substr(8));
  }
  return commands;
}

bool IsReady(const test::ChildRun& run) {
  return run.output.find("\nready ZVK\n") != std::string::npos;
}

std::string Normalised(const std::string& hex) { return test::ToHex(test::ParseHex(hex)); }

std::map<std::string, std::string> NamedCommands() {
  std::map<std::string, std::string> commands;
  for (const test::Vector& v : test::LoadVectors("bringup_commands.txt")) {
    commands[v.name] = Normalised(v.fields[0]);
  }
  return commands;
}

// Runs a bring-up for each row, on a root folder that prepare fills; it returns the answers.
void ForEachVector(
    const std::vector<test::Vector>& rows,
    const std::function<std::string(const test::Vector&, const test::TempDir&)>& prepare,
    const std::function<void(const test::Vector&, const test::ChildRun&)>& check) {
  std::vector<test::TempDir> roots(rows.size());
  test::RunSideBySide(
      rows.size(),
      [&](size_t i) {
        const std::string answers = prepare(rows[i], roots[i]);
        return test::StartChild("BringUp", roots[i].path(), {rows[i].fields[0], answers});
      },
      [&](size_t i, const test::ChildRun& run) {
        SCOPED_TRACE(rows[i].name);
        check(rows[i], run);
      });
}

TEST(BringUp, Download_SendsTheFileBetweenTheTwoSpeedChanges) {
  const auto named = NamedCommands();
  ForEachVector(
      test::LoadVectors("firmware.txt"),
      [](const test::Vector& v, const test::TempDir& root) {
        test::WriteConfiguration(root.path(), v.fields[1] == "-" ? "" : v.fields[1] + "\n");
        std::filesystem::create_directories(root.path() + kFirmware);
        if (v.fields[2] != "-") {
          const Bytes file = test::ParseHex(v.fields[2]);
          test::WriteFile(root.path() + kFirmware + "ZVK.hcd",
                          std::string(file.begin(), file.end()));
        }
        return v.fields[3];
      },
      [&](const test::Vector& v, const test::ChildRun& run) {
        std::vector<std::string> expected = {named.at("reset"), named.at("chip_id"),
                                             named.at("baud_4000000")};
        for (const std::string& command : test::SplitTrimmed(v.fields[4], ';')) {
          expected.push_back(Normalised(command));
        }
        const bool ok = v.fields[5] == "ok";
        if (ok) {
          for (const char* name : {"reset", "chip_id", "baud_4000000", "local_name"}) {
            expected.push_back(named.at(name));
          }
        }
        EXPECT_THAT(CommandsIn(run), ElementsAreArray(expected));
        EXPECT_EQ(IsReady(run), ok) << run.output;
        if (!ok) {
          EXPECT_EQ(run.result.signal, SIGABRT);
          EXPECT_THAT(run.output, HasSubstr("vendor error code 148, extra info: Unable to "
                                            "download firmware patchram\n"));
        }
      });
}

TEST(BringUp, FirmwareFile_IsTheFirstCandidateThatExists) {
  ForEachVector(
      test::LoadVectors("firmware_choice.txt"),
      [](const test::Vector& v, const test::TempDir& root) {
        test::WriteConfiguration(root.path());
        std::string properties;
        for (const std::string& p : test::SplitTrimmed(v.fields[1], ' ')) {
          if (p != "-") properties += p + "\n";
        }
        test::WriteFile(root / "vendor/build.prop", properties);
        // Each file is one record that holds the file's own name.
        for (const std::string& name : test::SplitTrimmed(v.fields[2], ' ')) {
          test::WriteFile(root.path() + kFirmware + name,
                          std::string("\x4C\xFC") + static_cast<char>(name.size()) + name);
        }
        return "-";
      },
      [](const test::Vector& v, const test::ChildRun& run) {
        const std::string& name = v.fields[3];
        const Bytes record = test::Concat({0x4C, 0xFC, static_cast<uint8_t>(name.size())},
                                          Bytes(name.begin(), name.end()));
        EXPECT_THAT(CommandsIn(run), testing::Contains(test::ToHex(record)));
        EXPECT_TRUE(IsReady(run)) << run.output;
      });
}

// An answer with status 0, but no chip has the id 0.
TEST(BringUp, ChipIdZero_FailsTheReset) {
  test::TempDir root;
  test::WriteConfiguration(root.path());
  const test::ChildRun run = test::RunChild("BringUp", root.path(), {"00", "-"});
  EXPECT_EQ(run.result.signal, SIGABRT) << run.output;
  EXPECT_THAT(run.output, HasSubstr("vendor error code 147, extra info: HCI Reset error before "
                                    "downloading firmware\n"));
}

}  // namespace
