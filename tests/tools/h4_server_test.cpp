#include "tools/h4/h4_server.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "fake_link.h"
#include "support/temp_dir.h"
#include "support/unix_socket.h"
#include "support/wait.h"
#include "tools/base/failure.h"
#include "tools/base/unix_socket.h"

namespace bthalctl {
namespace {

using ::android::base::unique_fd;
using ::testing::HasSubstr;

enum class Kind { kPty, kUnix, kTcp };

void PrintTo(Kind kind, std::ostream* out) {
  *out << (kind == Kind::kPty ? "Pty" : kind == Kind::kUnix ? "Unix" : "Tcp");
}

const Bytes kReset = {0x01, 0x03, 0x0C, 0x00};
const Bytes kResetDone = {0x04, 0x0E, 0x04, 0x01, 0x03, 0x0C, 0x00};

// A server over a fake link, and hosts over real descriptors; one thread does both in turn.
class H4ServerTest : public ::testing::TestWithParam<Kind> {
 protected:
  H4ServerTest() {
    switch (GetParam()) {
      case Kind::kPty:
        endpoint_ = MakePtyEndpoint(folder_ / "tty");
        break;
      case Kind::kUnix:
        endpoint_ = MakeUnixEndpoint(folder_ / "socket");
        break;
      case Kind::kTcp:
        endpoint_ = MakeTcpEndpoint("127.0.0.1:0");
        break;
    }
    server_ = std::make_unique<H4Server>(link_, *endpoint_,
                                         [this](const std::string& line) { said_ += line + "\n"; });
  }

  unique_fd Connect() {
    unique_fd fd;
    if (GetParam() == Kind::kPty) {
      fd.reset(open((folder_ / "tty").c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    } else if (GetParam() == Kind::kUnix) {
      fd.reset(test::ConnectUnix(folder_ / "socket", SOCK_STREAM));
    } else {
      const std::string name = endpoint_->Name();
      sockaddr_in address = {};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      address.sin_port = htons(static_cast<uint16_t>(std::stoi(name.substr(name.rfind(':') + 1))));
      fd.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    fcntl(fd.get(), F_SETFL, O_NONBLOCK);
    return fd;
  }

  bool StepUntil(const std::function<bool()>& condition) {
    return test::WaitFor([&] {
      server_->Step(Clock::now() + std::chrono::milliseconds(5));
      return condition();
    });
  }

  void Write(const unique_fd& host, const Bytes& bytes) {
    ASSERT_EQ(write(host.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

  bool Receives(const unique_fd& host, const Bytes& expected) {
    Bytes got;
    StepUntil([&] {
      uint8_t buffer[256];
      const ssize_t size = read(host.get(), buffer, sizeof buffer);
      if (size > 0) got.insert(got.end(), buffer, buffer + size);
      return got.size() >= expected.size();
    });
    return got == expected;
  }

  const test::TempDir folder_;
  FakeLink link_;
  std::unique_ptr<Endpoint> endpoint_;
  std::unique_ptr<H4Server> server_;
  std::string said_;
};

INSTANTIATE_TEST_SUITE_P(At, H4ServerTest, ::testing::Values(Kind::kPty, Kind::kUnix, Kind::kTcp),
                         [](const auto& kind) { return ::testing::PrintToString(kind.param); });

TEST_P(H4ServerTest, Packets_GoBothWays) {
  const unique_fd host = Connect();
  for (const uint8_t byte : kReset) Write(host, {byte});
  ASSERT_TRUE(StepUntil([&] { return link_.sent.size() == 1; }));
  EXPECT_EQ(link_.sent[0], (Packet{PacketType::kCommand, {0x03, 0x0C, 0x00}}));
  link_.Arrive({PacketType::kEvent, Bytes(kResetDone.begin() + 1, kResetDone.end())});
  EXPECT_TRUE(Receives(host, kResetDone));
  // The bytes that a terminal would spoil.
  const Bytes control = {0x02, 0x01, 0x20, 0x07, 0x00, 0x0A, 0x0D, 0x11, 0x13, 0xFF, 0x03, 0x04};
  Write(host, control);
  ASSERT_TRUE(StepUntil([&] { return link_.sent.size() == 2; }));
  EXPECT_EQ(link_.sent[1], (Packet{PacketType::kAcl, Bytes(control.begin() + 1, control.end())}));
  link_.Arrive(link_.sent[1]);
  EXPECT_TRUE(Receives(host, control));
}

TEST_P(H4ServerTest, HostThatLeavesMidPacketOrSendsNone_IsDroppedAndTheNextIsServed) {
  {
    const unique_fd host = Connect();
    Write(host, {0x01, 0x03});
    ASSERT_TRUE(StepUntil([&] { return server_->has_host(); }));
    server_->Step(Clock::now() + std::chrono::milliseconds(20));
  }
  ASSERT_TRUE(StepUntil([&] { return !server_->has_host(); })) << said_;
  link_.Arrive({PacketType::kEvent, {0x10, 0x01, 0x00}});  // nobody's
  server_->Step(Clock::now() + std::chrono::milliseconds(20));
  const unique_fd next = Connect();
  Write(next, kReset);
  ASSERT_TRUE(StepUntil([&] { return link_.sent.size() == 1; }));
  EXPECT_EQ(link_.sent[0].bytes, (Bytes{0x03, 0x0C, 0x00}));
  link_.Arrive({PacketType::kEvent, Bytes(kResetDone.begin() + 1, kResetDone.end())});
  EXPECT_TRUE(Receives(next, kResetDone)) << "what came while nobody was there is dropped";
  Write(next, {0x77});
  EXPECT_TRUE(StepUntil([&] { return !server_->has_host(); }));
  EXPECT_THAT(said_, HasSubstr("it sent 0x77 where a packet type belongs"));
}

TEST_P(H4ServerTest, HostThatDoesNotRead_IsDisconnectedAndNothingWaits) {
  const unique_fd host = Connect();
  Write(host, kReset);
  ASSERT_TRUE(StepUntil([&] { return link_.sent.size() == 1; }));
  for (int i = 0; i < 10'000; ++i) {
    link_.Arrive({PacketType::kAcl, Bytes(1025, 0)});
    link_.Arrive({PacketType::kAcl, {}});
  }
  EXPECT_TRUE(StepUntil([&] { return !server_->has_host(); }));
  EXPECT_THAT(said_, HasSubstr("it does not read"));
  const unique_fd next = Connect();
  Write(next, kReset);
  EXPECT_TRUE(StepUntil([&] { return link_.sent.size() == 2; }));
}

TEST(Endpoint, PlaceThatIsTakenOrBad_IsRefusedAndAStaleOneIsNot) {
  const test::TempDir folder;
  test::WriteFile(folder / "file", "x");
  EXPECT_THROW(MakePtyEndpoint(folder / "file"), Failure);
  EXPECT_THROW(MakeUnixEndpoint(folder / "file"), Failure);
  const auto first = MakeUnixEndpoint(folder / "socket");
  EXPECT_THROW(MakeUnixEndpoint(folder / "socket"), Failure);
  EXPECT_THROW(MakeUnixEndpoint(folder / "absent/socket"), Failure);
  const auto tcp = MakeTcpEndpoint("0");
  EXPECT_THROW(MakeTcpEndpoint(tcp->Name().substr(4)), Failure);
  close(test::ListenUnix(folder / "stale", SOCK_STREAM));
  EXPECT_NO_THROW(MakeUnixEndpoint(folder / "stale"));
  const std::string deep = folder / std::string(120, 'd');
  test::WriteFile(deep + "/x", "");
  EXPECT_NO_THROW(MakeUnixEndpoint(deep + "/socket")) << "longer than a socket's address";
}

TEST(UnixSocket, ListenersAtOnce_OneGetsThePathAndKeepsIt) {
  const test::TempDir folder;
  const int rounds = test::Count("rounds of listeners at once", 200);
  for (int round = 0; round < rounds; ++round) {
    const std::string path = folder / std::to_string(round);
    close(test::ListenUnix(path, SOCK_SEQPACKET));  // left over by a program that died
    std::atomic<int> not_ready{4};
    std::vector<::android::base::unique_fd> listeners(4);
    std::vector<std::thread> threads;
    for (auto& listener : listeners) {
      threads.emplace_back([&] {
        for (--not_ready; not_ready > 0;) continue;
        try {
          listener = ListenUnix(path, SOCK_SEQPACKET);
        } catch (const Failure&) {
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    const auto listening = std::count_if(listeners.begin(), listeners.end(),
                                         [](const auto& listener) { return listener.ok(); });
    ASSERT_EQ(listening, 1) << "round " << round;
    ASSERT_TRUE(ConnectUnix(path, SOCK_SEQPACKET).ok()) << "round " << round;
  }
}

}  // namespace
}  // namespace bthalctl
