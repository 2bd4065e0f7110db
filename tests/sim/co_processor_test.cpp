// The co-processor's message server, driven over its socket in literal bytes.
#include <bt_messages_generated.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>

#include "support/unix_socket.h"
#include "tests/sim/host.h"

namespace test {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

Bytes U32(uint32_t value) {
  return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
          static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
}

uint32_t U32At(const Bytes& bytes, size_t at) {
  return static_cast<uint32_t>(Little(bytes, at, 4));
}

// A request's table: offset of the table, its two fields' places, the fields.
Bytes RequestTable(uint32_t type, uint32_t server) {
  return B("0c 00 00 00 08 00 0c 00 04 00 08 00 08 00 00 00") + U32(type) + U32(server);
}

struct Answer {
  uint32_t kind = 0;  // 0: none came
  uint32_t error = 0;
  Bytes payload;
};

// A host that speaks the messaging library's protocol. What comes in between is kept by kind.
class CoHost {
 public:
  explicit CoHost(const Host& host)
      : socket_(ConnectUnix(host.root() + "/run/qvr/transport", SOCK_SEQPACKET)) {}
  ~CoHost() { close(socket_); }

  bool connected() const { return connected_; }
  void SendRaw(const Bytes& datagram) {
    EXPECT_EQ(send(socket_, datagram.data(), datagram.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(datagram.size()));
  }
  // The next datagram; empty when none came or the connection has ended.
  Bytes Next(milliseconds deadline = kDeadline) {
    pollfd ready{socket_, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(deadline.count())) <= 0) return {};
    Bytes datagram(262144);
    const ssize_t count = recv(socket_, datagram.data(), datagram.size(), 0);
    if (count <= 0) connected_ = false;
    datagram.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return datagram;
  }
  bool Ended(milliseconds deadline = kDeadline) {
    while (connected_ && !Next(deadline).empty()) {
    }
    return !connected_;
  }

  // Sends and waits for the answer with the same serial.
  Answer Ask(uint32_t kind, const Bytes& table, const Bytes& payload,
             milliseconds deadline = kDeadline) {
    const uint32_t serial = ++serial_;
    SendRaw(U32(kind) + U32(serial) + U32(0) + U32(static_cast<uint32_t>(table.size())) + table +
            payload);
    for (;;) {
      const Bytes answer = Next(deadline);
      if (answer.size() < 16) return {};
      if (U32At(answer, 4) == serial) {
        EXPECT_EQ(U32At(answer, 12), 0u) << "an answer has no table";
        return {U32At(answer, 0), U32At(answer, 8), Bytes(answer.begin() + 16, answer.end())};
      }
      messages_.push_back(answer);
    }
  }
  Answer Find(const std::string& name) { return Ask(1, {}, Bytes(name.begin(), name.end())); }
  // Control requests and packets to the server that Find has told.
  Answer Control(const Bytes& payload, milliseconds deadline = kDeadline) {
    return Ask(5, RequestTable(36, server()), payload, deadline);
  }
  Answer SendPacket(const Bytes& payload) { return Ask(3, RequestTable(8, server()), payload); }
  uint32_t server() {
    if (!server_) server_ = U32At(Find("chre_bt").payload, 0);
    return *server_;
  }

  // The next message's event: its kind and then its packet. Empty when none came.
  Bytes Event(milliseconds deadline = kDeadline) {
    Bytes message;
    if (messages_.empty()) {
      message = Next(deadline);
    } else {
      message = messages_.front();
      messages_.erase(messages_.begin());
    }
    if (message.empty()) return {};
    EXPECT_EQ(Bytes(message.begin(), message.begin() + 12), U32(7) + U32(0) + U32(8));
    EXPECT_EQ(U32At(message, 12), message.size() - 16);
    flatbuffers::Verifier verifier(message.data() + 16, message.size() - 16);
    if (!verifier.VerifyBuffer<chre::bt::Event>(nullptr)) return B("ff");
    const auto* event = flatbuffers::GetRoot<chre::bt::Event>(message.data() + 16);
    Bytes bytes{static_cast<uint8_t>(event->packet_kind())};
    bytes.insert(bytes.end(), event->packet()->begin(), event->packet()->end());
    return bytes;
  }

 private:
  const int socket_;
  bool connected_ = socket_ >= 0;
  uint32_t serial_ = 0;
  std::optional<uint32_t> server_;
  std::vector<Bytes> messages_;
};

const std::vector<std::string> kReady = {"--chip", "ready", "--co-processor"};
const Bytes kOn = B("00 00");
const Bytes kReset = B("01 01 03 0c 00");
const Bytes kResetDone = B("08 0e 04 01 03 0c 00");

// Both the co-processor and the controller.
void PowerOn(Host& host, CoHost& co_host) {
  EXPECT_EQ(co_host.Control(kOn).error, 0u);
  host.Power(true);
  EXPECT_TRUE(host.Started());
}

TEST(SimulatorCoProcessor, PacketsAndPower_GoThroughTheServer) {
  Host host(kReady, "after 0x1801 inject 03 02 00 01 55\n");
  EXPECT_THAT(ReadFile(host.root() + "/vendor/etc/bluetooth/bt_vendor.conf"),
              HasSubstr("UserialType = 2"));
  EXPECT_NE(access((host.root() + "/dev/ttySAC16").c_str(), F_OK), 0) << "the line is not ours";
  CoHost co_host(host);
  ASSERT_TRUE(co_host.connected());
  EXPECT_EQ(co_host.Find("chre_wifi").error, 7u);
  const Answer found = co_host.Find("chre_bt");
  EXPECT_EQ(found.kind, 2u);
  EXPECT_EQ(found.error, 0u);
  EXPECT_EQ(found.payload.size(), 4u);
  EXPECT_EQ(co_host.SendPacket(kReset).error, 12u) << "not powered";
  PowerOn(host, co_host);
  const Answer completed = co_host.SendPacket(kReset);
  EXPECT_EQ(completed.kind, 4u);
  EXPECT_EQ(completed.error, 0u);
  EXPECT_EQ(co_host.Event(), kResetDone);
  // ACL and ISO in local loopback; synchronous data by the scenario.
  EXPECT_EQ(co_host.SendPacket(B("01 01 02 18 01 01")).error, 0u);
  EXPECT_EQ(co_host.Event()[1], 0x03);
  EXPECT_EQ(co_host.Event()[1], 0x03);
  EXPECT_EQ(co_host.Event(), B("08 0e 04 01 02 18 00"));
  EXPECT_EQ(co_host.SendPacket(B("00 02 01 20 02 00 aa bb")).error, 0u);
  EXPECT_EQ(co_host.Event(), B("09 01 20 02 00 aa bb"));
  EXPECT_EQ(co_host.Event()[1], 0x13);
  EXPECT_EQ(co_host.SendPacket(B("00 05 01 20 01 00 cc")).error, 0u);
  EXPECT_EQ(co_host.Event(), B("0b 01 20 01 00 cc"));
  EXPECT_EQ(co_host.Event()[1], 0x13);
  EXPECT_EQ(co_host.SendPacket(B("01 01 01 18 00")).error, 0u);
  EXPECT_EQ(co_host.Event(), B("08 0e 05 01 01 18 00 01"));
  EXPECT_EQ(co_host.Event(), B("0a 02 00 01 55"));

  EXPECT_EQ(co_host.Control(B("03")).error, 0u);
  const Bytes dump = co_host.Event();
  EXPECT_EQ(Bytes(dump.begin(), dump.begin() + 5), B("08 ff ff 58 14"));
  EXPECT_EQ(co_host.Control(B("01 00 18")).error, 0u);
  EXPECT_TRUE(host.StatusHolds("\"low_power\": true"));
  EXPECT_EQ(co_host.Control(B("01 01 00")).error, 0u);
  EXPECT_TRUE(host.StatusHolds("\"low_power\": false"));
  EXPECT_EQ(co_host.Control(B("00 01")).error, 0u);
  EXPECT_EQ(co_host.SendPacket(kReset).error, 12u);
  EXPECT_TRUE(host.StatusHolds("\"power\": 2"));
}

TEST(SimulatorCoProcessor, WrongRequests_AreRefused) {
  Host host(kReady);
  CoHost co_host(host);
  EXPECT_EQ(co_host.Control(kOn).error, 0u);
  for (const Vector& row : LoadVectors("simulator_requests.txt")) {
    const Bytes payload = B(row.fields[0]);
    const Answer answer =
        row.name == "control" ? co_host.Control(payload) : co_host.SendPacket(payload);
    EXPECT_EQ(std::to_string(answer.error), row.fields[1]) << row.name << " " << row.fields[0];
  }
  EXPECT_EQ(co_host.Ask(5, RequestTable(9, co_host.server()), kOn).error, 8u);
  EXPECT_EQ(co_host.Ask(5, RequestTable(36, co_host.server() + 1), kOn).error, 7u);
  EXPECT_EQ(co_host.Ask(5, B("ff ff ff 7f 00 00 00 00"), kOn).error, 9u);
  EXPECT_EQ(co_host.Ask(5, {}, kOn).error, 9u);
}

TEST(SimulatorCoProcessor, Speeds_MustMatchAcrossTheLine) {
  Host host(kReady);
  CoHost co_host(host);
  PowerOn(host, co_host);
  EXPECT_EQ(co_host.Control(B("02 00 c0 5d 00 02")).error, 0u);
  EXPECT_EQ(co_host.SendPacket(kReset).error, 0u);
  EXPECT_TRUE(host.StatusHolds("\"bytes_from_host\": 4,"));
  EXPECT_NE(co_host.Event(milliseconds(100)), kResetDone);
  EXPECT_EQ(co_host.Control(B("00 01")).error, 0u);
  host.Power(false);
  PowerOn(host, co_host);
  EXPECT_EQ(co_host.SendPacket(B("01 01 18 fc 06 00 00 80 8d 5b 00")).error, 0u);
  EXPECT_EQ(co_host.Event(), B("08 0e 04 01 18 fc 00"));
  EXPECT_EQ(co_host.Control(B("02 00 c0 5d 00 02")).error, 0u);
  EXPECT_EQ(co_host.SendPacket(kReset).error, 0u);
  EXPECT_EQ(co_host.Event(), kResetDone) << "6144000 is near enough to 6000000";
}

TEST(SimulatorCoProcessor, BadDatagrams_EndTheConnectionOnly) {
  Host host(kReady);
  const Bytes header = U32(1) + U32(1) + U32(0);
  const std::vector<Bytes> datagrams = {B("01"),
                                        header,
                                        header + U32(1),
                                        header + U32(0xFFFFFFFF) + Bytes(40, 0),
                                        U32(7) + U32(1) + U32(0) + U32(0),
                                        U32(2) + U32(1) + U32(0) + U32(0),
                                        U32(0) + U32(1) + U32(0) + U32(0),
                                        Bytes(196609, 1)};
  for (const Bytes& datagram : datagrams) {
    CoHost co_host(host);
    ASSERT_TRUE(co_host.connected());
    co_host.SendRaw(datagram);
    EXPECT_TRUE(co_host.Ended()) << datagram.size();
    EXPECT_TRUE(host.StatusHolds("\"connected\": false"));
  }
  CoHost first(host);
  EXPECT_EQ(first.Find("chre_bt").error, 0u);
  CoHost second(host);
  EXPECT_TRUE(second.Ended()) << "one host at a time";
  EXPECT_EQ(first.Find("chre_bt").error, 0u);
}

TEST(SimulatorCoProcessor, Faults_ArePlayed) {
  Host host(kReady,
            "request power nth 1 status 5\n"
            "request power nth 2 no-answer\n"
            "request power nth 3 lost\n"
            "request power nth 4 late 150ms\n"
            "request packet nth 1 co-event 12 01 02\n"
            "request packet nth 2 co-table 8 01 02 03\n"
            "request packet nth 3 co-truncated\n"
            "request packet nth 4 co-garbage 100\n"
            "request packet nth 5 co-disconnect\n"
            "request packet nth 6 co-absent 500ms\n");
  {
    CoHost co_host(host);
    EXPECT_EQ(co_host.Control(kOn).error, 5u);
    EXPECT_TRUE(host.StatusHolds("\"on\": false"));
    EXPECT_EQ(co_host.Control(kOn, milliseconds(50)).kind, 0u);
    EXPECT_TRUE(host.StatusHolds("\"on\": false"));
    EXPECT_EQ(co_host.Control(kOn, milliseconds(50)).kind, 0u);
    EXPECT_TRUE(host.StatusHolds("\"on\": true")) << "done, but the answer is lost";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(co_host.Control(kOn).error, 0u);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(150));
    EXPECT_EQ(co_host.SendPacket(kReset).error, 0u);
    EXPECT_EQ(co_host.Event(), B("0c 01 02"));
    EXPECT_EQ(co_host.SendPacket(kReset).error, 0u);
    EXPECT_EQ(co_host.Event(), B("ff")) << "no table";
    EXPECT_EQ(co_host.SendPacket(kReset).error, 0u);
    EXPECT_EQ(co_host.Event(), B("ff")) << "half a table";
    const uint32_t server = co_host.server();
    co_host.SendRaw(U32(3) + U32(99) + U32(0) + U32(24) + RequestTable(8, server) + kReset);
    EXPECT_EQ(co_host.Next().size(), 100u);
    EXPECT_EQ(co_host.Next().size(), 16u);
    EXPECT_EQ(co_host.SendPacket(kReset).kind, 0u);
    EXPECT_TRUE(co_host.Ended());
    EXPECT_TRUE(host.StatusHolds("\"on\": true")) << "only the connection is gone";
  }
  {
    CoHost co_host(host);
    EXPECT_EQ(co_host.SendPacket(kReset).kind, 0u);
    EXPECT_TRUE(co_host.Ended());
    EXPECT_FALSE(CoHost(host).connected());
    EXPECT_TRUE(host.StatusHolds("\"on\": false"));
  }
  EXPECT_TRUE(WaitFor([&] { return CoHost(host).connected(); })) << "it comes back";
}

}  // namespace
}  // namespace test
