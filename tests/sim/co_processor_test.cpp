// Bad input to the co-processor's message server, in literal bytes over its socket.
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "sim/host.h"
#include "support/unix_socket.h"

namespace test {
namespace {

Bytes U32(uint32_t value) {
  return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
          static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
}

uint32_t U32At(const Bytes& bytes, size_t at) {
  return bytes.at(at) | bytes.at(at + 1) << 8 | bytes.at(at + 2) << 16 |
         static_cast<uint32_t>(bytes.at(at + 3)) << 24;
}

// A request's table: offset of the table, its two fields' places, the fields.
Bytes RequestTable(uint32_t type, uint32_t server) {
  return B("0C 00 00 00 08 00 0C 00 04 00 08 00 08 00 00 00") + U32(type) + U32(server);
}

enum Kind : uint32_t { kFind = 1, kSend = 3, kCompleted = 4, kCall = 5 };
enum Type : uint32_t { kPackets = 8, kControl = 36 };

// A host that speaks the messaging library's protocol.
class CoHost {
 public:
  explicit CoHost(const Host& host)
      : socket_(ConnectUnix(host.root() + "/run/qvr/transport", SOCK_SEQPACKET)) {}

  void SendRaw(const Bytes& datagram) {
    EXPECT_EQ(send(socket_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(datagram.size()));
  }
  // The next datagram; empty when none came or the connection has ended.
  Bytes Next() {
    pollfd ready{socket_.get(), POLLIN, 0};
    poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(kDeadline).count()));
    Bytes datagram(262144);
    const ssize_t count = recv(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT);
    ended_ = count == 0 || (count < 0 && errno == ECONNRESET);
    datagram.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return datagram;
  }
  bool Ended() {
    while (!Next().empty()) {
    }
    return ended_;
  }
  // The datagram that answers a request; messages in between are dropped.
  Bytes Ask(uint32_t kind, const Bytes& table, const Bytes& payload) {
    const uint32_t serial = ++serial_;
    SendRaw(U32(kind) + U32(serial) + U32(0) + U32(static_cast<uint32_t>(table.size())) + table +
            payload);
    Bytes answer = Next();
    while (answer.size() >= 16 && U32At(answer, 4) != serial) answer = Next();
    return answer.size() >= 16 ? answer : Bytes(16, 0xFF);
  }
  uint32_t Error(uint32_t kind, const Bytes& table, const Bytes& payload) {
    return U32At(Ask(kind, table, payload), 8);
  }
  // Sends a request many times, when there is room, and returns how many were refused.
  int Errors(const Bytes& table, const Bytes& payload, int count) {
    int answers = 0, refused = 0;
    for (int sent = 0; answers < count;) {
      pollfd ready{socket_.get(), static_cast<short>(sent < count ? POLLIN | POLLOUT : POLLIN), 0};
      if (poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(kDeadline).count())) != 1)
        return -1;
      if ((ready.revents & POLLIN) != 0) {
        const Bytes answer = Next();
        if (answer.empty()) return -1;
        if (U32At(answer, 0) != kCompleted) continue;
        ++answers;
        if (U32At(answer, 8) != 0) ++refused;
      } else {
        SendRaw(U32(kSend) + U32(++serial_) + U32(0) + U32(static_cast<uint32_t>(table.size())) +
                table + payload);
        ++sent;
      }
    }
    return refused;
  }
  uint32_t FindServer() { return U32At(Ask(kFind, {}, B("63 68 72 65 5F 62 74")), 16); }  // chre_bt

 private:
  const ::android::base::unique_fd socket_;
  bool ended_ = false;
  uint32_t serial_ = 0;
};

TEST(SimulatorCoProcessor, WrongRequests_AreRefused) {
  Host host({"--chip", "ready", "--co-processor"});
  CoHost co_host(host);
  const uint32_t server = co_host.FindServer();
  const Bytes on = B("00 00");
  EXPECT_EQ(co_host.Error(kFind, {}, B("63 68 72 65 5F 77 69 66 69")), 7u);  // chre_wifi
  EXPECT_EQ(co_host.Error(kSend, RequestTable(kPackets, server), B("01 01 03 0C 00")), 12u);
  EXPECT_EQ(co_host.Error(kCall, RequestTable(kControl, server), on), 0u);
  for (const Vector& row : LoadVectors("simulator_requests.txt")) {
    const bool control = row.name == "control";
    EXPECT_EQ(std::to_string(co_host.Error(control ? kCall : kSend,
                                           RequestTable(control ? kControl : kPackets, server),
                                           B(row.fields[0]))),
              row.fields[1])
        << row.name << " " << row.fields[0];
  }
  EXPECT_EQ(co_host.Error(kCall, RequestTable(9, server), on), 8u);
  EXPECT_EQ(co_host.Error(kCall, RequestTable(kControl, server + 1), on), 7u);
  EXPECT_EQ(co_host.Error(kCall, B("FF FF FF 7F 00 00 00 00"), on), 9u);
  EXPECT_EQ(co_host.Error(kCall, {}, on), 9u);
}

// The host has to wait; nothing is refused.
TEST(SimulatorCoProcessor, AControllerThatIsBusy_HoldsUpTheHost) {
  Host host({"--chip", "ready", "--co-processor"}, "request packet nth 1 hang 1s\n");
  CoHost co_host(host);
  const uint32_t server = co_host.FindServer();
  EXPECT_EQ(co_host.Error(kCall, RequestTable(kControl, server), B("00 00")), 0u);
  const Bytes acl = B("01 02 40 00 E8 03") + Bytes(1000, 0x55);
  EXPECT_EQ(co_host.Errors(RequestTable(kPackets, server), acl, 3000), 0);
}

TEST(SimulatorCoProcessor, BadDatagrams_EndTheConnectionOnly) {
  Host host({"--chip", "ready", "--co-processor"});
  const Bytes header = U32(1) + U32(1) + U32(0);
  const Bytes datagrams[] = {B("01"),
                             header,
                             header + U32(1),
                             header + U32(0xFFFFFFFF) + Bytes(40, 0),
                             U32(7) + U32(1) + U32(0) + U32(0),
                             U32(0) + U32(1) + U32(0) + U32(0),
                             Bytes(196609, 1)};
  for (const Bytes& datagram : datagrams) {
    CoHost co_host(host);
    co_host.SendRaw(datagram);
    EXPECT_TRUE(co_host.Ended()) << datagram.size();
    EXPECT_TRUE(host.StatusHolds("\"connected\": false"));
  }
  CoHost first(host);
  const uint32_t server = first.FindServer();
  EXPECT_TRUE(CoHost(host).Ended()) << "one host at a time";
  EXPECT_EQ(first.FindServer(), server);
}

}  // namespace
}  // namespace test
