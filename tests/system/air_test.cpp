// Two handsets on an air of other authors: BlueZ's btvirt is the radio of both controllers.

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <deque>
#include <random>

#include "support/unix_socket.h"
#include "support/vectors.h"
#include "support/wait.h"
#include "system/handset.h"
#include "tools/wire/h4_framer.h"

namespace test {
namespace {

using ::android::base::unique_fd;
using std::chrono::steady_clock;
using wire::Packet;
using wire::PacketType;
using wire::Writer;

constexpr char kProgram[] = "/usr/bin/btvirt";
// The one place where btvirt listens for BR/EDR controllers. Those with LE need ciphers of the
// kernel, which it does not have everywhere.
constexpr char kAir[] = "/tmp/bt-server-bredr";

// btvirt. One test at a time has it, on the whole machine: whoever has locked the program's file.
class Air {
 public:
  Air() : lock_(open(kProgram, O_RDONLY | O_CLOEXEC)) {}
  // btvirt leaves its sockets, which would be in the way of other users of the machine.
  ~Air() {
    if (!btvirt_) return;
    btvirt_.reset();
    for (const char* kind : {"bredr", "bredrle", "le", "amp", "mon"}) {
      unlink((std::string("/tmp/bt-server-") + kind).c_str());
    }
  }

  bool Start() {
    if (!WaitFor([this] { return flock(lock_.get(), LOCK_EX | LOCK_NB) == 0; })) return false;
    unlink(kAir);
    btvirt_.emplace(std::vector<std::string>{kProgram, "-s"});
    return WaitFor([] { return unique_fd(ConnectUnix(kAir, SOCK_STREAM)).ok(); });
  }
  std::string Output() const {
    if (btvirt_) return btvirt_->Output();
    return lock_.ok() ? "another test has btvirt" : std::string("there is no ") + kProgram;
  }

 private:
  const unique_fd lock_;
  std::optional<ChildProcess> btvirt_;
};

// A handset, the service on it, and a host stack at the service's H4 port, in bytes.
class Host {
 public:
  using Condition = std::function<bool(const Packet& packet)>;

  Host() : handset_(Mode::kPlain, {"--radio", std::string("unix:") + kAir}) {
    handset_.StartService();
    server_.emplace(handset_.CtlCommand({"serve-h4", "--unix", handset_.Path("h4")}));
  }

  bool Connect() {
    if (!server_->WaitForOutput("ready unix:", kDeadline)) return false;
    port_.reset(ConnectUnix(handset_.Path("h4"), SOCK_STREAM));
    return port_.ok();
  }

  // With its type byte, in one write.
  void Send(PacketType type, const Bytes& packet) {
    const Bytes bytes = Writer{static_cast<uint8_t>(type)}.Append(packet).Done();
    ASSERT_EQ(write(port_.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

  // The next packet for which condition holds; those before it are dropped. Empty when none comes.
  Bytes Await(const Condition& condition) {
    const auto deadline = steady_clock::now() + kDeadline;
    for (;;) {
      while (!packets_.empty()) {
        const Packet packet = std::move(packets_.front());
        packets_.pop_front();
        if (condition(packet)) return packet.bytes;
      }
      pollfd port = {port_.get(), POLLIN, 0};
      uint8_t chunk[4096];
      if (steady_clock::now() > deadline) return {};
      if (poll(&port, 1, 100) <= 0) continue;
      const ssize_t size = read(port_.get(), chunk, sizeof chunk);
      if (size <= 0) return {};
      framer_.Push({chunk, static_cast<size_t>(size)});
    }
  }
  Bytes AwaitEvent(uint8_t code) {
    return Await([code](const Packet& packet) {
      return packet.type == PacketType::kEvent && packet.bytes[0] == code;
    });
  }
  Bytes AwaitData() {
    return Await([](const Packet& packet) { return packet.type == PacketType::kAcl; });
  }

  // Returns what follows the opcode in the Command Complete, or, for a command that goes on, the
  // status in the Command Status.
  Bytes Command(uint16_t opcode, const Bytes& params = {}) {
    Send(PacketType::kCommand,
         Writer().U16(opcode).U8(static_cast<unsigned>(params.size())).Append(params).Done());
    Bytes answer;
    Await([&](const Packet& packet) {
      const wire::ByteView event = packet.bytes;
      if (packet.type != PacketType::kEvent) return false;
      if (event[0] == 0x0E && event.U16(3) == opcode) answer = event.From(5).Copy();
      if (event[0] == 0x0F && event.U16(4) == opcode) answer = {event[2]};
      return !answer.empty();
    });
    return answer;
  }

  std::string Log() const { return server_->Output() + Tail(handset_.Log()); }

 private:
  Handset handset_;
  std::optional<ChildProcess> server_;
  unique_fd port_;
  std::deque<Packet> packets_;
  wire::H4Framer framer_{wire::H4Framer::From::kController,
                         [this](PacketType type, wire::ByteView packet) {
                           packets_.push_back({type, packet.Copy()});
                         },
                         [](uint8_t bad) { ADD_FAILURE() << "no packet type: " << int{bad}; }};
};

const Bytes kDone = {0x00};

Bytes Field(const Bytes& packet, size_t offset, size_t size) {
  return wire::ByteView(packet).Sub(offset, size).Copy();
}

// The address of whoever answers an inquiry.
Bytes Inquire(Host& host) {
  EXPECT_EQ(host.Command(0x0401, ParseHex("33 8B 9E 08 00")), kDone);  // general, 10 s, no limit
  const Bytes result = host.AwaitEvent(0x02);
  EXPECT_EQ(host.Command(0x0402), kDone);
  return Field(result, 3, 6);
}

// btvirt drops what finds its socket full: each packet waits until the one before has arrived.
void SendData(Host& from, Host& to, uint16_t handle, const Bytes& payload) {
  const Bytes rest = Writer().U16(static_cast<unsigned>(payload.size())).Append(payload).Done();
  from.Send(PacketType::kAcl, Writer().U16(handle).Append(rest).Done());
  const Bytes arrived = to.AwaitData();
  EXPECT_EQ(wire::ByteView(arrived).U16(0), handle | 0x2000) << "the start of a message";
  EXPECT_EQ(ToHex(Field(arrived, 2, arrived.size())), ToHex(rest));
  EXPECT_EQ(from.AwaitEvent(0x13), Writer({0x13, 5, 1}).U16(handle).U16(1).Done());
}

TEST(Air, TwoHandsets_FindEachOtherConnectAndExchangeData) {
  Air air;
  ASSERT_TRUE(air.Start()) << air.Output();
  Host first, second;
  ASSERT_TRUE(first.Connect()) << first.Log();
  ASSERT_TRUE(second.Connect()) << second.Log();
  std::vector<Bytes> addresses;
  for (Host* host : {&first, &second}) {
    ASSERT_EQ(host->Command(0x0C03), kDone) << host->Log();
    ASSERT_EQ(host->Command(0x0C1A, {0x03}), kDone) << "found and called by others";
    addresses.push_back(Field(host->Command(0x1009), 1, 6));
  }
  ASSERT_NE(addresses[0], addresses[1]);
  ASSERT_EQ(Inquire(first), addresses[1]);
  ASSERT_EQ(Inquire(second), addresses[0]);

  EXPECT_EQ(first.Command(0x0405, Concat(addresses[1], ParseHex("18 CC 01 00 00 00 01"))), kDone);
  ASSERT_EQ(Field(second.AwaitEvent(0x04), 2, 6), addresses[0]);
  EXPECT_EQ(second.Command(0x0409, Concat(addresses[0], {0x01})), kDone);
  const Bytes connected = first.AwaitEvent(0x03), accepted = second.AwaitEvent(0x03);
  ASSERT_EQ(Field(connected, 2, 1), kDone);
  ASSERT_EQ(Field(connected, 5, 6), addresses[1]);
  ASSERT_EQ(Field(accepted, 5, 6), addresses[0]);
  const uint16_t handles[] = {wire::ByteView(connected).U16(3), wire::ByteView(accepted).U16(3)};

  const size_t longest = wire::ByteView(first.Command(0x1005)).U16(1);
  ASSERT_GT(longest, 27u);
  std::minstd_rand random(NewSeed());
  for (int i = 0; i < 50 && !HasFailure(); ++i) {
    Bytes payload(i == 0 ? longest : 1 + random() % longest);
    for (uint8_t& byte : payload) byte = static_cast<uint8_t>(random());
    SendData(first, second, handles[0], payload);
    SendData(second, first, handles[1], payload);
  }

  EXPECT_EQ(second.Command(0x0406, Writer().U16(handles[1]).U8(0x13).Done()), kDone);
  for (Host* host : {&first, &second}) EXPECT_EQ(Field(host->AwaitEvent(0x05), 2, 1), kDone);
}

}  // namespace
}  // namespace test
