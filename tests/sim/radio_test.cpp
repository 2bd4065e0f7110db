// The air behind the simulated controller: advertisers, peers, loopback, another emulator.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>

#include "support/unix_socket.h"
#include "tests/sim/host.h"

namespace test {
namespace {

using std::chrono::milliseconds;

// A handset that is up without a patch, every event unmasked.
class SimulatorRadio : public testing::Test {
 protected:
  void SetUp() override { Up(host_); }

  static void Up(Host& host) {
    host.PowerUp();
    EXPECT_EQ(host.Command(0x0C01, B("ff ff ff ff ff ff ff 3f"))[6], 0);
    EXPECT_EQ(host.Command(0x2001, B("ff ff 0f 00 00 00 00 00"))[6], 0);
  }

  // Connects with the extended command and returns the handle.
  uint16_t Connect(const std::string& type_and_address) {
    const Bytes phy = B("60 00 30 00 18 00 28 00 00 00 f4 01 00 00 00 00");
    EXPECT_EQ(host_.Command(0x2043, B("00 00 " + type_and_address + " 01") + phy),
              B("04 0f 04 00 01 43 20"));
    const Bytes complete = host_.Find(B("04 3e 1f 0a 00"));
    if (complete.size() < 34) return 0;
    EXPECT_EQ(Bytes(complete.begin() + 8, complete.begin() + 15), B(type_and_address));
    EXPECT_EQ(Bytes(complete.begin() + 27, complete.begin() + 33), B("28 00 00 00 f4 01"));
    return static_cast<uint16_t>(complete[5] | (complete[6] << 8));
  }

  // One L2CAP frame to an ATT server and its first answer, as far as 27 bytes a fragment go.
  Bytes Att(uint16_t handle, const Bytes& pdu) {
    const auto size = static_cast<uint8_t>(pdu.size());
    const auto low = static_cast<uint8_t>(handle);
    host_.Send(Bytes{0x02, low, 0x00, static_cast<uint8_t>(size + 4), 0, size, 0, 4, 0} + pdu);
    return Frame(low);
  }

  // The next L2CAP frame on the ATT channel, put together.
  Bytes Frame(uint8_t low) {
    const Bytes first = host_.Find({0x02, low, 0x20});
    if (first.size() < 9) return {};
    Bytes frame(first.begin() + 5, first.end());
    while (frame.size() < 4u + frame[0]) {
      const Bytes next = host_.Find({0x02, low, 0x10});
      if (next.size() < 6) return {};
      EXPECT_LE(next.size(), 5u + 27u);
      frame.insert(frame.end(), next.begin() + 5, next.end());
    }
    EXPECT_EQ(Bytes(frame.begin() + 2, frame.begin() + 4), B("04 00"));
    return {frame.begin() + 4, frame.end()};
  }

  Host host_{{"--chip", "ready"}};
};

const char kGattPeer[] = "00 04 00 ad 4b 56 5a";
const char kLoopPeer[] = "01 03 00 ad 4b 56 c2";

TEST_F(SimulatorRadio, Scan_ReportsEachAdvertiserAsTheHostAsked) {
  // Legacy, active, duplicates filtered: four advertisers and three scan responses, once each.
  ASSERT_EQ(host_.Command(0x200B, B("01 60 00 30 00 00 00"))[6], 0);
  ASSERT_EQ(host_.Command(0x200C, B("01 01"))[6], 0);
  std::set<Bytes> legacy;
  while (legacy.size() < 7) {
    const Bytes report = host_.Find(B("04 3e"));
    ASSERT_GT(report.size(), 14u) << legacy.size();
    ASSERT_EQ(report[3], 0x02);
    ASSERT_EQ(report.size(), 15u + report[13]);
    EXPECT_TRUE(legacy.insert(Bytes(report.begin() + 5, report.begin() + 13)).second);
  }
  EXPECT_EQ(legacy.count(B("00 00 04 00 ad 4b 56 5a")), 1u) << "connectable";
  EXPECT_EQ(legacy.count(B("04 00 04 00 ad 4b 56 5a")), 1u) << "its scan response";
  EXPECT_EQ(legacy.count(B("03 00 01 00 ad 4b 56 5a")), 1u) << "a beacon";
  EXPECT_EQ(host_.Command(0x2041, B("00 00 01 00 60 00 30 00"))[6], 0x0C) << "both kinds";

  ASSERT_EQ(host_.Command(0x0C03)[6], 0);
  Up(host_);
  // Extended, passive, for 300 ms: no scan responses, duplicates, then the end.
  ASSERT_EQ(host_.Command(0x2041, B("00 00 01 00 60 00 30 00"))[6], 0);
  ASSERT_EQ(host_.Command(0x2042, B("01 00 1e 00 00 00"))[6], 0);
  std::multiset<Bytes> extended;
  Bytes event = host_.Find(B("04 3e"));
  while (event.size() > 4 && event[3] == 0x0D) {
    ASSERT_EQ(event.size(), 29u + event[28]);
    EXPECT_EQ(event[5] & 0x08, 0) << "a scan response";
    extended.insert(Bytes(event.begin() + 5, event.begin() + 14));
    event = host_.Find(B("04 3e"));
  }
  EXPECT_EQ(event, B("04 3e 01 11")) << "scan time-out";
  EXPECT_GT(extended.count(B("13 00 00 04 00 ad 4b 56 5a")), 1u);
}

TEST_F(SimulatorRadio, MaskedEvents_AreNotSent) {
  host_.Command(0x0C03);  // LE events are masked again
  ASSERT_EQ(host_.Command(0x200C, B("01 00"))[6], 0);
  EXPECT_TRUE(host_.Find(B("04 3e"), milliseconds(300)).empty());
}

TEST_F(SimulatorRadio, AttPeer_AnswersAStacksDiscoveryReadsAndWrites) {
  const uint16_t handle = Connect(kGattPeer);
  for (const Vector& row : LoadVectors("simulator_att.txt")) {
    EXPECT_EQ(Att(handle, B(row.fields[0])), B(row.fields[1])) << row.name << " " << row.fields[0];
  }
  const Bytes value = Pattern(200);
  EXPECT_EQ(Att(handle, B("12 09 00") + value), B("13"));
  EXPECT_EQ(Att(handle, B("0a 09 00")), B("0b") + value) << "in fragments";
}

TEST_F(SimulatorRadio, AttPeer_NotifiesOnWriteAndEachSecondWhileItIsAsked) {
  const uint16_t handle = Connect(kGattPeer);
  const auto low = static_cast<uint8_t>(handle);
  EXPECT_EQ(Att(handle, B("12 0a 00 01 00")), B("13"));
  EXPECT_EQ(Frame(low), B("1b 09 00 68 65 6c 6c 6f")) << "by itself";
  EXPECT_EQ(Att(handle, B("52 09 00 78")), B("1b 09 00 78")) << "on a write command";
  EXPECT_EQ(Att(handle, B("12 0a 00 00 00")), B("13"));
  EXPECT_TRUE(host_.Find({0x02}, milliseconds(1200)).empty());
}

TEST_F(SimulatorRadio, Connection_ProceduresAndEnd) {
  const uint16_t handle = Connect(kLoopPeer);
  const auto low = static_cast<uint8_t>(handle);
  EXPECT_EQ(host_.Command(0x2043, B(std::string("00 00 ") + kLoopPeer + " 01") + Bytes(16))[3],
            0x0B);
  EXPECT_EQ(host_.Command(0x041D, {low, 0})[3], 0);
  EXPECT_EQ(host_.Find(B("04 0c")).size(), 11u);
  EXPECT_EQ(host_.Command(0x2016, {low, 0})[3], 0);
  EXPECT_EQ(host_.Find(B("04 3e 0c 04 00")).size(), 15u);
  EXPECT_EQ(host_.Command(0x2022, {low, 0, 0xFB, 0, 0x48, 0x08})[6], 0);
  EXPECT_EQ(host_.Find(B("04 3e 0b 07")).size(), 14u);
  // The loop peer returns ACL fragments as they are, with the flags of a controller.
  const Bytes data = Pattern(60);
  host_.Send(Bytes{0x02, low, 0x00, 60, 0} + data + Bytes{0x02, low, 0x10, 60, 0} + data);
  EXPECT_EQ(host_.Find({0x02}), (Bytes{0x02, low, 0x20, 60, 0} + data));
  EXPECT_EQ(host_.Find({0x02}), (Bytes{0x02, low, 0x10, 60, 0} + data));
  EXPECT_EQ(host_.Find(B("04 13")), (Bytes{0x04, 0x13, 5, 1, low, 0, 2, 0}));
  EXPECT_EQ(host_.Command(0x0406, {low, 0, 0x13})[3], 0);
  EXPECT_EQ(host_.Find(B("04 05")), (Bytes{0x04, 0x05, 4, 0, low, 0, 0x16}));
  EXPECT_EQ(host_.Command(0x0406, {low, 0, 0x13})[3], 0x02);
}

TEST_F(SimulatorRadio, ConnectionToNobody_LastsUntilItIsCancelled) {
  const Bytes parameters =
      B("60 00 30 00 00 00 66 55 44 33 22 11 00 18 00 28 00 00 00 f4 01 00 00 00 00");
  EXPECT_EQ(host_.Command(0x200E)[6], 0x0C);
  EXPECT_EQ(host_.Command(0x200D, parameters), B("04 0f 04 00 01 0d 20"));
  EXPECT_EQ(host_.Command(0x200D, parameters)[3], 0x0C);
  EXPECT_EQ(host_.Command(0x200E)[6], 0);
  EXPECT_EQ(host_.Next()[4], 0x02);
}

TEST_F(SimulatorRadio, LeEncrypt_IsAes) {
  // FIPS 197, appendix C.1, both least significant byte first.
  EXPECT_EQ(host_.Command(0x2017, B("0f 0e 0d 0c 0b 0a 09 08 07 06 05 04 03 02 01 00 "
                                    "ff ee dd cc bb aa 99 88 77 66 55 44 33 22 11 00")),
            B("04 0e 14 01 17 20 00 5a c5 b4 70 80 b7 cd d8 30 04 7b 6a d8 e0 c4 69"));
}

// Bluetooth Core 5.3, Vol 4, Part E, 7.6.2.
TEST_F(SimulatorRadio, Loopback_ReturnsCommandsAsEventsAndDataAsItIs) {
  EXPECT_EQ(host_.Command(0x1802, B("01"))[6], 0);
  ASSERT_EQ(host_.before().size(), 2u);
  EXPECT_EQ(host_.before()[0], B("04 03 0b 00 01 00 00 00 f0 4b 56 5a 01 00")) << "ACL";
  EXPECT_EQ(host_.before()[1], B("04 03 0b 00 02 00 00 00 f0 4b 56 5a 00 00")) << "synchronous";
  host_.Send(B("01 03 10 00"));
  EXPECT_EQ(host_.Next(), B("04 19 03 03 10 00"));
  EXPECT_EQ(host_.Command(0x1005)[6], 0) << "executed as ever";
  EXPECT_EQ(host_.Command(0x1801), B("04 0e 05 01 01 18 00 01"));
  host_.Send(B("02 07 20 01 00 aa 03 02 00 01 bb"));  // the first on no connection's handle
  EXPECT_EQ(host_.Next(), B("03 02 00 01 bb"));
  EXPECT_EQ(host_.Command(0x1802, B("00"))[6], 0);
  ASSERT_EQ(host_.before().size(), 2u);
  EXPECT_EQ(host_.before()[0], B("04 05 04 00 01 00 16"));
  EXPECT_EQ(host_.Command(0x1003)[6], 0);
}

TEST_F(SimulatorRadio, HostThatOverrunsTheBuffers_IsToldSo) {
  EXPECT_EQ(host_.Command(0x1802, B("01"))[6], 0);
  Bytes burst;
  for (int i = 0; i < 11; ++i) burst = burst + B("02 01 20 01 00 aa");  // there are 10
  host_.Send(burst);
  EXPECT_EQ(host_.Find(B("04 1a")), B("04 1a 01 01"));
  EXPECT_EQ(host_.Find(B("04 13")), B("04 13 05 01 01 00 0a 00"));
}

TEST_F(SimulatorRadio, HostFlowControl_HoldsDataForCredits) {
  EXPECT_EQ(host_.Command(0x0C33, B("fd 03 ff 01 00 00 00"))[6], 0);  // one ACL packet
  EXPECT_EQ(host_.Command(0x0C31, B("01"))[6], 0);
  EXPECT_EQ(host_.Command(0x1802, B("01"))[6], 0);
  host_.Send(B("02 01 20 01 00 aa 02 01 20 01 00 bb"));
  EXPECT_EQ(host_.Next(), B("02 01 20 01 00 aa"));
  EXPECT_EQ(host_.Next(), B("04 13 05 01 01 00 02 00"));
  EXPECT_TRUE(host_.Next(milliseconds(100)).empty());
  host_.Send(B("01 35 0c 05 01 01 00 01 00"));  // not answered
  EXPECT_EQ(host_.Next(), B("02 01 20 01 00 bb"));
  EXPECT_TRUE(host_.Next(milliseconds(100)).empty());
}

// Another emulator's end of the radio socket.
class Emulator {
 public:
  explicit Emulator(const std::string& path) : listener_(ListenUnix(path, SOCK_STREAM)) {}
  ~Emulator() {
    close(connection_);
    close(listener_);
  }
  void Accept() { connection_ = accept(listener_, nullptr, nullptr); }
  Bytes Read() {
    Bytes bytes(1024);
    const ssize_t count = recv(connection_, bytes.data(), bytes.size(), 0);
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
  }
  void Write(const Bytes& bytes) {
    EXPECT_EQ(send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }

 private:
  const int listener_;
  int connection_ = -1;
};

TEST(SimulatorBridge, StandardGoesToTheEmulatorInWholePackets_VendorStays) {
  TempDir folder;
  Host host({"--chip", "ready", "--radio", "unix:" + (folder / "radio")});
  host.PowerUp();  // before the emulator is there
  host.Send(B("01 03 0c"));
  host.Send(B("00 01 79 fc 00 02 40 00 01 00 55"));
  EXPECT_EQ(host.Next(), B("04 0e 09 01 79 fc 00 30 01 00 01 00"));
  Emulator emulator(folder / "radio");
  emulator.Accept();
  const Bytes sent = B("01 03 0c 00 02 40 00 01 00 55");
  Bytes heard;
  while (heard.size() < sent.size()) heard = heard + emulator.Read();
  EXPECT_EQ(heard, sent);
  emulator.Write(B("04 0e 04 01 03"));
  emulator.Write(B("0c 00 02 40 20 01 00 66"));
  EXPECT_EQ(host.Next(), B("04 0e 04 01 03 0c 00"));
  EXPECT_EQ(host.Next(), B("02 40 20 01 00 66"));
  host.Power(false);
  EXPECT_EQ(emulator.Read(), Bytes()) << "disconnected with the power";
}

}  // namespace
}  // namespace test
