// What the simulated handset answers, row by row, and what it survives.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <sstream>

#include "sim/host.h"
#include "support/unix_socket.h"

namespace test {
namespace {

const std::vector<std::string> kReady = {"--chip", "ready"};

TEST(SimulatorCommands, WhatLinuxSends_IsAnsweredInFullAndAmongTheSupportedCommands) {
  Host host(kReady);
  host.PowerUp();
  const Bytes supported = host.Command(0x1002, {});
  ASSERT_EQ(supported.size(), 7u + 64);
  for (const Vector& row : LoadVectors("simulator_linux.txt")) {
    const Bytes answer = host.Command(
        static_cast<uint16_t>(std::stoul(row.fields.at(0), nullptr, 16)), B(row.fields.at(1)));
    ASSERT_EQ(answer.size(), 6 + std::stoul(row.fields.at(3))) << row.name << " " << ToHex(answer);
    EXPECT_EQ((Bytes{answer[1], answer[6]}), B("0E 00")) << row.name;
    const std::string& bit = row.fields[2];
    const uint8_t octet = supported[7 + std::stoul(bit)];
    EXPECT_NE(octet & 1u << std::stoul(bit.substr(bit.find('.') + 1)), 0u) << row.name;
  }
}

TEST(SimulatorController, AnyCommandWithAnyParameters_IsSurvived) {
  std::mt19937 random(11);
  const unsigned groups[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x08, 0x3F};
  Host host(kReady);
  for (int rounds = Count("rounds of random commands", 20); rounds > 0; --rounds) {
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
  }
  host.PowerUp();
  EXPECT_EQ(host.Command(0x0C03, {}), B("04 0E 04 01 03 0C 00")) << host.zvksim().Output();
}

TEST(SimulatorBridge, StandardGoesToTheEmulatorInWholePackets_VendorStays) {
  TempDir folder;
  Host host({"--chip", "ready", "--radio", "unix:" + (folder / "radio")});
  host.PowerUp();  // before the emulator is there
  host.Send(B("01 03 0C"));
  host.Send(B("00 01 79 FC 00 02 40 00 01 00 55"));
  EXPECT_EQ(host.Next(), B("04 0E 09 01 79 FC 00 30 01 00 01 00"));
  const ::android::base::unique_fd listener(ListenUnix(folder / "radio", SOCK_STREAM));
  const ::android::base::unique_fd emulator(accept(listener.get(), nullptr, nullptr));
  Bytes heard(10);
  EXPECT_EQ(recv(emulator.get(), heard.data(), heard.size(), MSG_WAITALL), 10);
  EXPECT_EQ(heard, B("01 03 0C 00 02 40 00 01 00 55"));
  for (const Bytes& part : {B("04 0E 04 01 03"), B("0C 00 02 40 20 01 00 66")}) {
    EXPECT_EQ(write(emulator.get(), part.data(), part.size()), static_cast<ssize_t>(part.size()));
  }
  EXPECT_EQ(host.Next(), B("04 0E 04 01 03 0C 00"));
  EXPECT_EQ(host.Next(), B("02 40 20 01 00 66"));
  host.Power(false);
  EXPECT_EQ(recv(emulator.get(), heard.data(), heard.size(), 0), 0) << "disconnected with it";
}

// Clients that say nothing, or too much, hold up neither the host nor the next client.
TEST(SimulatorControl, ClientsWithoutEnd_HarmNobody) {
  Host host(kReady);
  host.PowerUp();
  const std::string path = host.root() + "/run/zvksim/control";
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0600});
  std::vector<::android::base::unique_fd> clients;
  for (int i = 0; i < 100; ++i) {
    clients.emplace_back(ConnectUnix(path, SOCK_SEQPACKET));
    ASSERT_TRUE(clients.back().ok());
    if (i % 3 == 0) send(clients.back().get(), Bytes(100000).data(), 100000, MSG_NOSIGNAL);
  }
  EXPECT_EQ(host.Command(0x0C03, {}), B("04 0E 04 01 03 0C 00"));
  std::string output;
  EXPECT_EQ(
      test::Run({ProgramDir() + "/zvksim", "ctl", host.root(), "stray", "0x77"}, &output).exit_code,
      0)
      << output;
  EXPECT_EQ(host.Receive(1), B("77"));
}

TEST(SimulatorCommandLine, WrongUse_IsOneLineAndItsExitCode) {
  TempDir folder;
  WriteFile(folder / "bad", "at 2s hangup\non 0xFC18 explode\n");
  const Bytes middle =
      B("62 74 73 6E 6F 6F 70 00 00 00 00 01 00 00 03 EA 00 00 00 04 00 00 00 04 "
        "00*16 01 14 0C 00");
  WriteFile(folder / "middle", std::string(middle.begin(), middle.end()));
  Host other(kReady);
  for (const Vector& row : LoadVectors("simulator_command_lines.txt")) {
    std::vector<std::string> command = {ProgramDir() + "/zvksim"};
    std::istringstream words(Replaced(row.name, "@OTHER@", other.root()));
    for (std::string word; words >> word;) {
      command.push_back(Replaced(word, "@DIR@", folder / ""));
    }
    std::string output;
    EXPECT_EQ(test::Run(command, &output).exit_code, std::stoi(row.fields.at(0))) << output;
    EXPECT_THAT(output, testing::HasSubstr(row.fields.at(1)));
  }
}

}  // namespace
}  // namespace test
