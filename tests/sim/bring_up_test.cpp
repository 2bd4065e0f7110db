// The simulated handset driven through its files, as the service drives it up to a running
// firmware.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <random>

#include "tests/sim/host.h"

namespace test {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

TEST(SimulatorBringUp, PatchedFastAndRecordByRecord_RunsTheFirmware) {
  struct Row {
    const char* chip;
    uint8_t id;
    const char* file;
    bool set_fast;  // Set Download Config
    bool answered;  // records are
  };
  for (const Row& row :
       {Row{"B5", 0xB5, "ZVK_B5.hcd", true, false}, Row{"AE", 0xAE, "ZVK_AE.hcd", false, true},
        Row{"AA", 0xAA, "ZVK.hcd", false, false}, Row{"20", 0x20, "ZVK.hcd", false, true}}) {
    SCOPED_TRACE(row.chip);
    Host host({"--chip", row.chip, "--firmware-size", "5000"});
    host.PowerUp();
    const Bytes verbose = host.Command(0xFC79);
    ASSERT_GT(verbose.size(), 7u);
    EXPECT_EQ(verbose[7], row.id);
    EXPECT_EQ(host.Command(0x2003)[1], 0x0F) << "the ROM knows no LE commands";
    if (row.set_fast) {
      EXPECT_EQ(host.Command(0xFE72, B("00 01"))[6], 0);
    }
    EXPECT_EQ(host.Command(0xFC2E)[6], 0);
    EXPECT_EQ(host.Command(0x0C03)[6], 0x0C) << "only records while downloading";
    EXPECT_EQ(host.Download(host.Firmware(row.file), !row.answered), 0);
    EXPECT_TRUE(host.before().empty()) << "a fast record was answered";
    EXPECT_TRUE(host.Started());
    EXPECT_TRUE(host.StatusHolds("\"patched\": true"));
    EXPECT_EQ(host.Command(0x0C03), B("04 0e 04 01 03 0c 00"));
    const Bytes name = host.Command(0x0C14);
    EXPECT_EQ(name.size(), 255u);
    const std::string stem = std::string(row.file).substr(0, std::string(row.file).find('.'));
    EXPECT_THAT(std::string(name.begin() + 7, name.end()), HasSubstr(stem));
    EXPECT_EQ(host.Command(0x2003)[1], 0x0E);
  }
}

TEST(SimulatorBringUp, WarmUp_LastsAsLongAsAskedAndIgnoresWhatComes) {
  Host host({"--firmware-size", "500"}, "power warm-up 400ms\n");
  host.PowerUp();
  host.Command(0xFC2E);
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(host.Download(host.Firmware("ZVK.hcd"), false), 0);
  host.Send(B("01 03 0c 00"));
  EXPECT_TRUE(host.Started());
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(400));
  EXPECT_TRUE(host.StatusHolds("\"0xFC4E\": 1"));
  EXPECT_THAT(host.Status(), testing::Not(HasSubstr("0x0C03")));
  EXPECT_EQ(host.Command(0x0C03)[6], 0);
}

TEST(SimulatorBringUp, BadDownload_LaunchIsRefusedUntilANewOne) {
  Host host({"--firmware-size", "2000"});
  host.PowerUp();
  EXPECT_EQ(host.Command(0xFC4E, B("ff ff ff ff"))[6], 0x0C) << "without minidriver";
  EXPECT_EQ(host.Command(0xFC2E)[6], 0);
  EXPECT_EQ(host.Command(0xFC4C, B("00 00 20 00 01 02"))[6], 0x12) << "no header";
  EXPECT_EQ(host.Command(0xFC4E, B("ff ff ff ff"))[6], 0x1F);
  EXPECT_EQ(host.Command(0xFC2E)[6], 0);
  EXPECT_EQ(host.Download(host.Firmware("ZVK.hcd"), false), 0);
}

TEST(SimulatorLine, SpeedMismatch_IsNoiseBothWaysAndResetRecovers) {
  ReadyHost host;
  ASSERT_EQ(host.Command(0xFC18, B("00 00 00 09 3d 00")), B("04 0e 04 01 18 fc 00"));
  host.Send(B("01 03 0c 00 01 03 0c 00 01 03 0c 00"));  // still at 115200
  EXPECT_TRUE(host.StatusHolds("\"sync_losses\": 1"));
  EXPECT_NE(host.Raw(), B("04 10 01 10")) << "what the host hears is noise, too";
  host.SetSpeed(4000000);
  EXPECT_EQ(host.Command(0x0C03), B("04 0e 04 01 03 0c 00"));
  EXPECT_EQ(host.Command(0xFC18, B("00 00 39 30 00 00"))[6], 0x12) << "12345 baud";
}

TEST(SimulatorLine, Garbage_IsAHardwareErrorAndResetRecovers) {
  ReadyHost host;
  host.Send(B("77 01 02 01 03 01 03 0c 00"));
  EXPECT_EQ(host.Next(), B("04 10 01 10"));
  EXPECT_EQ(host.Next(), B("04 0e 04 01 03 0c 00"));
  // Too short for their commands, unknown, and an event from the host.
  EXPECT_EQ(host.Command(0xFC18, B("00"))[6], 0x12);
  EXPECT_EQ(host.Command(0xFCEE), B("04 0e 04 01 ee fc 01"));
  EXPECT_EQ(host.Command(0x1FFF), B("04 0f 04 01 01 ff 1f"));
  host.Send(B("04 0e 00"));
  EXPECT_EQ(host.Next(), B("04 10 01 10"));
  EXPECT_EQ(host.Command(0x0C03)[6], 0);
}

TEST(SimulatorLine, Paced_BytesTakeTheirTime) {
  Host host({"--chip", "ready", "--pace"});
  host.PowerUp();
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 4; ++i) EXPECT_EQ(host.Command(0x0C14).size(), 255u);
  // 1020 bytes at 115200 baud, 10 bits each: 88.5 ms.
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(80));
}

TEST(SimulatorController, Reset_KeepsAddressSpeedAndSleepMode_PowerOffDoesNot) {
  Host host({"--firmware-size", "500"});
  host.BringUp();
  EXPECT_EQ(host.Command(0xFC01, B("55 44 33 22 11 00"))[6], 0);
  EXPECT_EQ(host.Command(0xFC27, B("01 18 18 01 01 01 01 00 00 00 00 00"))[6], 0);
  EXPECT_EQ(host.Command(0xFC18, B("00 00 c0 c6 2d 00"))[6], 0);
  host.SetSpeed(3000000);
  EXPECT_EQ(host.Command(0x0C03)[6], 0);
  EXPECT_EQ(host.Command(0x1009), B("04 0e 0a 01 09 10 00 55 44 33 22 11 00"));
  EXPECT_TRUE(host.StatusHolds("\"sleep_mode\": true"));
  EXPECT_TRUE(host.StatusHolds("\"address\": \"00:11:22:33:44:55\""));
  host.PowerUp();
  EXPECT_TRUE(host.StatusHolds("\"sleep_mode\": false"));
  EXPECT_NE(host.Command(0x1009), B("04 0e 0a 01 09 10 00 55 44 33 22 11 00"));
  EXPECT_EQ(host.Command(0x2003)[1], 0x0F) << "the patch is gone";
}

TEST(SimulatorController, WhatLinuxSends_IsAnsweredInFullAndAmongTheSupportedCommands) {
  ReadyHost host;
  const Bytes supported = host.Command(0x1002);
  ASSERT_EQ(supported.size(), 7u + 64);
  for (const Vector& row : LoadVectors("simulator_linux.txt")) {
    const auto opcode = static_cast<uint16_t>(std::stoul(row.fields.at(0), nullptr, 16));
    const Bytes answer = host.Command(opcode, B(row.fields.at(1)));
    const size_t size = std::stoul(row.fields.at(3));
    const Bytes start = {0x04,
                         0x0E,
                         static_cast<uint8_t>(3 + size),
                         0x01,
                         static_cast<uint8_t>(opcode),
                         static_cast<uint8_t>(opcode >> 8),
                         0x00};
    EXPECT_EQ(Bytes(answer.begin(), answer.begin() + 7), start) << row.name << ToHex(answer);
    EXPECT_EQ(answer.size(), 6 + size) << row.name;
    const std::string& bit = row.fields.at(2);
    const uint8_t octet = supported[7 + std::stoul(bit)];
    EXPECT_NE(octet & 1u << std::stoul(bit.substr(bit.find('.') + 1)), 0u) << row.name;
  }
}

TEST(SimulatorController, AnyCommandWithAnyParameters_IsSurvived) {
  std::mt19937 random(11);
  const unsigned groups[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x08, 0x3F};
  const int rounds = Count("rounds of random commands", 20);
  Host host({"--chip", "ready"});
  for (int round = 0; round < rounds; ++round) {
    host.PowerUp();
    for (int i = 0; i < 1000; ++i) {
      const unsigned opcode = (groups[random() % 8] << 10) | (random() % 0x80);
      const size_t size = random() % 2 == 0 ? random() % 8 : random() % 256;
      Bytes packet = {0x01, static_cast<uint8_t>(opcode), static_cast<uint8_t>(opcode >> 8),
                      static_cast<uint8_t>(size)};
      for (size_t at = 0; at < size; ++at) packet.push_back(static_cast<uint8_t>(random() % 5));
      if (i % 7 == 0) {  // data, mostly for the first connection, with a frame's beginning
        packet = B("02 40 00 05 00 06 00 04 00 12");
        packet[2] = static_cast<uint8_t>(random() % 4 << 4);
      }
      host.Send(packet);
    }
    host.Settle(milliseconds(20));
  }
  host.PowerUp();
  EXPECT_EQ(host.Command(0x0C03), B("04 0e 04 01 03 0c 00")) << host.zvksim().Output();
}

TEST(SimulatorSleep, WithoutWake_BytesAreLost) {
  ReadyHost host;
  host.Write("/proc/bluetooth/sleep/lpm", "1");
  host.Write("/proc/bluetooth/sleep/btwrite", "1");
  ASSERT_EQ(host.Command(0xFC27, B("01 18 18 01 01 01 01 00 00 00 00 00"))[6], 0);
  EXPECT_EQ(host.Command(0x0C03)[6], 0);
  host.Send(B("01 09 10 00"));  // written before the line was released: still taken
  host.Write("/proc/bluetooth/sleep/btwrite", "0");
  EXPECT_EQ(host.Next().size(), 13u);
  EXPECT_TRUE(host.StatusHolds("\"awake\": false"));
  host.Send(B("01 03 0c 00"));
  EXPECT_TRUE(host.StatusHolds("\"bytes_lost_asleep\": 4"));
  host.Write("/proc/bluetooth/sleep/btwrite", "1");
  EXPECT_EQ(host.Command(0x0C03)[6], 0);
  EXPECT_TRUE(host.before().empty());
  host.Write("/proc/bluetooth/sleep/btwrite", "0");
  host.Write("/proc/bluetooth/sleep/lpm", "0");  // the driver holds it awake then
  EXPECT_TRUE(host.StatusHolds("\"lpm_enabled\": false"));
  EXPECT_EQ(host.Command(0x0C03)[6], 0);
}

// As when the machine is slow: the simulator sees the end of one session and the beginning of the
// next at once.
TEST(SimulatorPower, CycleSeenAsAWhole_WhatWasWrittenBeforeIsNotHeard) {
  Host host;
  host.PowerUp();
  host.SetSpeed(4000000);
  kill(host.zvksim().pid(), SIGSTOP);
  host.Send(B("01 09 10 00 02 01 00 ff 00"));  // a command, and the head of a large packet
  host.Write("/sys/class/rfkill/rfkill0/state", "01");
  kill(host.zvksim().pid(), SIGCONT);
  EXPECT_TRUE(host.StatusHolds("\"power_cycles\": 2"));
  host.SetSpeed(115200);
  EXPECT_EQ(host.Command(0x0C03)[6], 0);
  EXPECT_TRUE(host.before().empty());
  EXPECT_TRUE(host.StatusHolds("\"sync_losses\": 0"));
}

// As the kernel's: a lock that is held already is not held twice.
TEST(SimulatorWakeLocks, Account_CountsByNameAndOneReleaseFrees) {
  TempDir folder;
  const std::string trace = folder / "trace";
  Host host({"--trace", trace});
  host.Write("/sys/power/wake_lock", "bthal_wakelock");
  host.Write("/sys/power/wake_lock", "bthal_wakelock");
  EXPECT_TRUE(host.StatusHolds("\"acquired\": 2"));
  host.Write("/sys/power/wake_lock", "other 1000000\n");
  EXPECT_TRUE(host.StatusHolds("\"other\": {"));
  host.Write("/sys/power/wake_unlock", "bthal_wakelock\n");
  EXPECT_TRUE(host.StatusHolds("\"held\": false,\n\"acquired\": 2,\n\"released\": 1"));
  host.Write("/sys/power/wake_lock", "bthal_wakelock");
  EXPECT_TRUE(host.StatusHolds("\"held\": true,\n\"acquired\": 3,\n\"released\": 1"));
  const std::string notes = ReadFile(trace);
  const size_t released = notes.find("- wake lock bthal_wakelock released\n");
  EXPECT_LT(notes.find("- wake lock bthal_wakelock held\n"), released) << notes;
  EXPECT_NE(notes.find("- wake lock bthal_wakelock held\n", released), std::string::npos) << notes;
}

TEST(SimulatorRoot, RestartOnOneRoot_KeepsUserFilesAndRemovesLinks) {
  Host host;
  const std::string config = host.root() + "/vendor/etc/bluetooth/bt_vendor.conf";
  EXPECT_THAT(ReadFile(config), HasSubstr("UartPort = /dev/ttySAC16"));
  WriteFile(config, "AccelBtDisable = 1\n");
  std::string output;
  EXPECT_EQ(test::Run({ProgramDir() + "/zvksim", "--root", host.root()}, &output).exit_code, 1);
  EXPECT_THAT(output, HasSubstr("another zvksim runs on"));
  host.Restart();
  EXPECT_EQ(ReadFile(config), "AccelBtDisable = 1\n");
  host.PowerUp();
  EXPECT_EQ(host.Command(0x0C03)[6], 0);
  host.zvksim().Signal(SIGINT);
  EXPECT_EQ(host.zvksim().Wait(kDeadline)->exit_code, 0);
  EXPECT_FALSE(std::filesystem::is_symlink(host.root() + "/dev/ttySAC16"));
}

TEST(SimulatorCommandLine, WrongUse_IsOneLineAndItsExitCode) {
  TempDir folder;
  WriteFile(folder / "bad", "at 2s hangup\non 0xFC18 explode\n");
  const std::string zvksim = ProgramDir() + "/zvksim";
  struct Row {
    std::vector<std::string> arguments;
    int exit_code;
    const char* error;
  };
  const Row rows[] = {
      {{}, 2, "--root DIR is missing"},
      {{"--root", folder / "r", "--chip", "ZZ"}, 2, "unknown --chip"},
      {{"--root", folder / "r", "--chunk", "0"}, 2, "chunk"},
      {{"--root", folder / "r", "--radio", "udp:1"}, 2, "neither unix:PATH nor tcp:HOST:PORT"},
      {{"--root", folder / "r", "--scenario", folder / "bad"}, 1, "bad:2: \"explode\" is not"},
      {{"--root", folder / "r", "--scenario", folder / "none"}, 1, "cannot read"},
      {{"--root", folder / "bad"}, 1, "bad/dev"},
      {{"make-firmware"}, 2, "--output"},
      {{"make-firmware", "--output", folder / "no/f.hcd"}, 1, "cannot write"},
      {{"--help"}, 0, "Examples:"},
  };
  for (const Row& row : rows) {
    std::vector<std::string> command = {zvksim};
    command.insert(command.end(), row.arguments.begin(), row.arguments.end());
    std::string output;
    EXPECT_EQ(test::Run(command, &output).exit_code, row.exit_code) << output;
    EXPECT_THAT(output, HasSubstr(row.error));
  }
}

}  // namespace
}  // namespace test
