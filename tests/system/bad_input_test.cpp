// Input that is wrong: one clear line each, and no harm.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "support/unix_socket.h"
#include "support/wait.h"
#include "system/handset.h"

namespace test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

std::string RandomBytes(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(size, 0);
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

// Mode: accelerated.
TEST(BadInput, ConfigurationOfRandomBytes_DefaultsHold) {
  Handset handset(Mode::kAccelerated);
  WriteFile(handset.Path("vendor/etc/bluetooth/bt_vendor_overlay.conf"), RandomBytes(20000, 1));
  handset.StartService();
  EXPECT_EQ(handset.Ctl({"cmd", "reset"}).exit_code, 0) << handset.Log();
}

// Mode: accelerated.
TEST(BadInput, PropertyLineWithoutEquals_IsNamedOnceAndSkipped) {
  Handset handset(Mode::kAccelerated);
  WriteFile(handset.Path("vendor/build.prop"),
            ReadFile(handset.Path("vendor/build.prop")) + "\nno equals sign here\n");
  handset.StartService();
  EXPECT_EQ(handset.Ctl({"cmd", "reset"}).exit_code, 0) << handset.Log();
  EXPECT_EQ(CountOf("no equals sign here", handset.Log()), 1) << handset.Log();
}

TEST(BadInput, AbsentRootFolder_OneLineAndExitCodeOne) {
  std::string output;
  const ChildResult result =
      test::Run({ServiceProgram()}, &output, {{"BTHAL_ROOT", "/nonexistent/folder"}});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(output, HasSubstr("there is no root folder /nonexistent/folder"));
  EXPECT_EQ(CountOf("\n", output), 1) << output;
}

// Mode: accelerated.
TEST(BadInput, SecondServiceOnARootFolder_SaysSoAndTheFirstServesOn) {
  Handset handset(Mode::kAccelerated);
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"cmd", "reset"}).exit_code, 0) << handset.Log();
  std::string output;
  const ChildResult second =
      test::Run({ServiceProgram()}, &output, {{"BTHAL_ROOT", handset.root()}});
  EXPECT_EQ(second.exit_code, 1);
  EXPECT_EQ(CountOf("\n", output), 1) << output;
  EXPECT_THAT(output, HasSubstr("another service runs on the root folder"));
  EXPECT_EQ(handset.Ctl({"cmd", "reset"}).exit_code, 0) << handset.Log();
}

// Mode: plain. A port that cannot be opened ends the service.
TEST(BadInput, PortThatIsNoTerminal_ServiceEndsWithAReasonAndTheClientSaysSo) {
  Handset handset(Mode::kPlain);
  fs::remove(handset.Path("dev/ttySAC16"));
  WriteFile(handset.Path("dev/ttySAC16"), "");
  handset.StartService();
  const CtlResult up = handset.Ctl({"up", "--detach", "-q"});
  EXPECT_EQ(up.exit_code, 3) << up.output;
  EXPECT_THAT(up.output, HasSubstr("the service died while it brought Bluetooth up"));
  EXPECT_THAT(handset.Log(),
              HasSubstr("Can't open Bluetooth UART port: Inappropriate ioctl for device"));
}

// Mode: accelerated.
TEST(BadInput, GarbageAtTheServicesSockets_EndsThoseConnectionsOnly) {
  Handset handset(Mode::kAccelerated);
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"up", "--detach", "-q"}).exit_code, 0) << handset.Log();
  int sent = 0;
  const int count = Count("garbage messages", 2000);
  for (const auto& entry : fs::directory_iterator(handset.Path("run/bthal"))) {
    // Both the names that services are found by and the socket behind them.
    if (!fs::is_socket(entry.status()) || entry.path().filename() == "holder") continue;
    for (int i = 0; i < count; ++i) {
      const int fd = ConnectUnix(entry.path().string(), SOCK_SEQPACKET);
      if (fd < 0) continue;
      const std::string bytes =
          RandomBytes(1 + static_cast<size_t>(i) % 500, 7u + static_cast<unsigned>(i));
      if (send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0) ++sent;
      close(fd);
    }
  }
  EXPECT_GE(sent, count);
  EXPECT_EQ(handset.Ctl({"cmd", "read_bd_addr"}).exit_code, 0) << handset.Log();
}

// Mode: accelerated. The holder hands packets on as they are.
TEST(BadInput, PacketsWhoseLengthLies_AreDroppedWithAWarningEach) {
  Handset handset(Mode::kAccelerated);
  handset.StartService();
  ASSERT_EQ(handset.Ctl({"up", "--detach", "-q"}).exit_code, 0) << handset.Log();
  const int holder = ConnectUnix(handset.Path("run/bthal/holder"), SOCK_SEQPACKET);
  ASSERT_GE(holder, 0);
  const std::vector<std::vector<uint8_t>> packets = {
      {1},                          // nothing after the type
      {1, 0x03},                    // half an opcode
      {1, 0x03, 0x0C},              // no length
      {1, 0x03, 0x0C, 0x05},        // five bytes promised
      {1, 0x03, 0x0C, 0x00, 0xAA},  // one too many
      {2, 0x01, 0x20, 0xFF},        // ACL without its length
      {2, 0x01, 0x20, 0xFF, 0xFF, 0x00},
      {3, 0x01},
      {3, 0x01, 0x00, 0xFF, 0x00},
      {5, 0x01, 0x00, 0x00},
      {5, 0x01, 0x00, 0xFF, 0x3F, 0x00},
  };
  const size_t before = CountOf(" W ", handset.Log());
  for (const auto& packet : packets) {
    ASSERT_GT(send(holder, packet.data(), packet.size(), MSG_NOSIGNAL), 0);
  }
  EXPECT_TRUE(WaitFor([&] { return CountOf(" W ", handset.Log()) >= before + packets.size(); }))
      << handset.Log();
  EXPECT_EQ(handset.Ctl({"cmd", "read_bd_addr"}).exit_code, 0) << handset.Log();
  EXPECT_EQ(CountOf(" W ", handset.Log()), before + packets.size()) << handset.Log();
  close(holder);
}

}  // namespace
}  // namespace test
