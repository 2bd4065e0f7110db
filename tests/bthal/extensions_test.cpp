// Each extension service against its literal data: bytes, texts and what the stack gets.

#include <gtest/gtest.h>

#include <future>
#include <sstream>

#include "bluetooth_ewp.h"
#include "bluetooth_sar.h"
#include "bt_channel_avoidance.h"
#include "bthal/child_case.h"
#include "bthal/sequence_runner.h"
#include "hci_inject.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace {

namespace vendor = hardware::nuvexa::bluetooth;
using android::sp;
using android::hardware::hidl_array;
using test::Bytes;
using test::ParseHex;
using test::SequenceRunner;
using vendor::bt_channel_avoidance::V1_0::implementation::BTChannelAvoidance;
using vendor::ewp::V1_0::implementation::BluetoothEwp;
using vendor::ext::V1_0::implementation::BluetoothExt;
using vendor::sar::V1_1::implementation::BeamformingCaps;
using vendor::sar::V1_1::implementation::BluetoothSar;
using vendor::sar::V1_1::implementation::ChainCaps;

std::vector<int8_t> ParseCaps(const std::string& text) {
  std::vector<int8_t> caps;
  std::istringstream in(text);
  for (int cap; in >> cap;) caps.push_back(static_cast<int8_t>(cap));
  return caps;
}

TEST(Extensions, ChannelAvoidance) {
  SequenceRunner runner("bthal.channel_avoidance");
  const sp<BTChannelAvoidance> service = new BTChannelAvoidance;
  runner.DefineSwitch(BTChannelAvoidance::OnBluetoothEnabled,
                      BTChannelAvoidance::OnBluetoothDisabled);
  runner.Define("map", [&](const std::string& hex) {
    const Bytes map = ParseHex(hex);
    ASSERT_EQ(map.size(), 10u);
    service->setBluetoothChannelStatus(hidl_array<uint8_t, 10>(map.data()));
  });
  runner.RunFile("channel_avoidance.txt");
}

void RunPowerCaps(const std::string& file) {
  SequenceRunner runner("bthal.sar");
  const sp<BluetoothSar> service = new BluetoothSar;
  runner.DefineSwitch(BluetoothSar::OnBluetoothEnabled, BluetoothSar::OnBluetoothDisabled);
  runner.Define("cap", [&](const std::string& text) {
    service->setBluetoothTxPowerCap(ParseCaps(text).at(0));
  });
  runner.Define("tech", [&](const std::string& text) {
    const std::vector<int8_t> caps = ParseCaps(text);
    service->setBluetoothTechBasedTxPowerCap(caps.at(0), caps.at(1), caps.at(2));
  });
  runner.Define("mode", [&](const std::string& text) {
    const std::vector<int8_t> caps = ParseCaps(text);
    ASSERT_EQ(caps.size(), 12u);
    service->setBluetoothModeBasedTxPowerCap(ChainCaps(caps.data()), ChainCaps(caps.data() + 3),
                                             BeamformingCaps(caps.data() + 6));
  });
  runner.RunFile(file);
}

TEST(Extensions, PowerCaps) { RunPowerCaps("sar.txt"); }

CHILD_CASE(PowerCapsInHighResolution) {
  RunPowerCaps("sar_high_resolution.txt");
  return testing::Test::HasFailure() ? 1 : 0;
}

TEST(Extensions, PowerCapsInHighResolution) {
  test::TempDir root;
  test::WriteConfiguration(root.path(), "SarBackOffHighResolution = true\n");
  const test::ChildRun run = test::RunChild("PowerCapsInHighResolution", root.path());
  EXPECT_EQ(run.result.exit_code, 0) << run.output;
}

TEST(Extensions, Injection) {
  SequenceRunner runner("bthal.btext");
  const sp<BluetoothExt> service = new BluetoothExt;
  std::future<bool> result;
  runner.DefineSwitch(BluetoothExt::OnBluetoothEnabled, BluetoothExt::OnBluetoothDisabled);
  runner.DefineRecord(0x5B);
  runner.Define("inject", [&](const std::string& arguments) {
    const auto opcode = static_cast<uint16_t>(std::stoul(arguments.substr(0, 4), nullptr, 16));
    result = std::async(std::launch::async, [&service, opcode, hex = arguments.substr(4)] {
      return static_cast<bool>(service->setBluetoothCmdPacket(opcode, ParseHex(hex)));
    });
  });
  runner.Define("result",
                [&](const std::string& text) { EXPECT_EQ(result.get() ? "yes" : "no", text); });
  runner.RunFile("inject.txt");
}

TEST(Extensions, EwpSwitch) {
  SequenceRunner runner("bthal.ewp");
  const sp<BluetoothEwp> service = new BluetoothEwp;
  runner.DefineSwitch(BluetoothEwp::OnBluetoothEnabled, BluetoothEwp::OnBluetoothDisabled);
  runner.DefineRecord(0x5C);
  runner.Define("enable", [&](const std::string& interval) {
    service->EnableEwp(static_cast<uint16_t>(std::stoul(interval)));
  });
  runner.Define("disable", [&](const std::string&) { service->DisableEwp(); });
  runner.RunFile("ewp.txt");
}

TEST(Extensions, EwpRecords) {
  test::LogCapture log;
  for (const test::Vector& vector : test::LoadVectors("ewp_records.txt")) {
    SCOPED_TRACE(vector.name);
    std::vector<std::string> expected;
    if (vector.fields[2] != "-") {
      for (const std::string& line : test::SplitTrimmed(vector.fields[2], ';')) {
        expected.push_back("W  " + line);  // the line begins with a blank
      }
    }
    EXPECT_EQ(
        BluetoothEwp::PrintEwpLogging(std::stoi(vector.fields[0]), ParseHex(vector.fields[1])),
        !expected.empty());
    EXPECT_EQ(log.Take("bthal.ewp"), expected);
  }
}

}  // namespace
