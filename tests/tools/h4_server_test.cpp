#include "tools/h4/h4_server.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

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

const Bytes kReset = {0x01, 0x03, 0x0C, 0x00};
const Bytes kResetDone = {0x04, 0x0E, 0x04, 0x01, 0x03, 0x0C, 0x00};

// A server over a fake link, and hosts over real descriptors; one thread does both in turn.
class H4ServerTest : public ::testing::Test {
 protected:
  void Serve(std::unique_ptr<Endpoint> endpoint) {
    endpoint_ = std::move(endpoint);
    server_ = std::make_unique<H4Server>(link_, *endpoint_,
                                         [this](const std::string& line) { said_ += line + "\n"; });
  }

  unique_fd Connect() {
    unique_fd fd(test::ConnectUnix(folder_ / "socket", SOCK_STREAM));
    fcntl(fd.get(), F_SETFL, O_NONBLOCK);
    return fd;
  }
  unique_fd OpenTerminal() {
    return unique_fd(open((folder_ / "tty").c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
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

TEST_F(H4ServerTest, HostsOneAfterTheOther_EachGetsItsPackets) {
  Serve(MakeUnixEndpoint(folder_ / "socket"));
  {
    const unique_fd host = Connect();
    for (const uint8_t byte : kReset) Write(host, {byte});
    ASSERT_TRUE(StepUntil([&] { return link_.sent.size() == 1; }));
    EXPECT_EQ(link_.sent[0], (Packet{PacketType::kCommand, {0x03, 0x0C, 0x00}}));
    link_.Arrive({PacketType::kEvent, Bytes(kResetDone.begin() + 1, kResetDone.end())});
    EXPECT_TRUE(Receives(host, kResetDone));
    Write(host, {0x01, 0x03});  // leaves in the middle of a packet
    server_->Step(Clock::now() + std::chrono::milliseconds(20));
  }
  ASSERT_TRUE(StepUntil([&] { return !server_->has_host(); })) << said_;
  link_.Arrive({PacketType::kEvent, {0x10, 0x01, 0x00}});
  server_->Step(Clock::now() + std::chrono::milliseconds(20));
  const unique_fd next = Connect();
  Write(next, kReset);
  ASSERT_TRUE(StepUntil([&] { return link_.sent.size() == 2; }));
  EXPECT_EQ(link_.sent[1].bytes, (Bytes{0x03, 0x0C, 0x00}));
  link_.Arrive({PacketType::kEvent, Bytes(kResetDone.begin() + 1, kResetDone.end())});
  EXPECT_TRUE(Receives(next, kResetDone))
      << "a packet that comes while there is no host is dropped";
  Write(next, {0x77});
  EXPECT_TRUE(StepUntil([&] { return !server_->has_host(); }));
  EXPECT_THAT(said_, HasSubstr("it sent 0x77 where a packet type belongs"));
}

TEST_F(H4ServerTest, PseudoTerminal_LeavesBytesAsTheyAreAndStartsEmptyForTheNextHost) {
  Serve(MakePtyEndpoint(folder_ / "tty"));
  const Bytes control = {0x02, 0x01, 0x20, 0x07, 0x00, 0x0A, 0x0D, 0x11, 0x13, 0xFF, 0x03, 0x04};
  for (size_t hosts = 1; hosts <= 2; ++hosts) {
    const unique_fd host = OpenTerminal();
    Write(host, control);
    ASSERT_TRUE(StepUntil([&] { return link_.sent.size() == hosts; }));
    const Packet& sent = link_.sent.back();
    EXPECT_EQ(sent, (Packet{PacketType::kAcl, Bytes(control.begin() + 1, control.end())}));
    link_.Arrive(sent);
    EXPECT_TRUE(Receives(host, control));
    link_.Arrive(sent);  // not read by this host
    server_->Step(Clock::now() + std::chrono::milliseconds(20));
  }
}

TEST_F(H4ServerTest, HostThatDoesNotRead_IsDisconnectedAndNothingWaits) {
  for (const bool terminal : {false, true}) {
    Serve(terminal ? MakePtyEndpoint(folder_ / "tty") : MakeUnixEndpoint(folder_ / "socket"));
    const size_t before = link_.sent.size();
    const unique_fd host = terminal ? OpenTerminal() : Connect();
    Write(host, kReset);
    ASSERT_TRUE(StepUntil([&] { return link_.sent.size() == before + 1; }));
    for (int i = 0; i < 10'000; ++i) link_.Arrive({PacketType::kAcl, Bytes(1025, 0)});
    EXPECT_TRUE(StepUntil([&] { return !server_->has_host(); }));
    EXPECT_THAT(said_, HasSubstr("it does not read"));
    const unique_fd next = terminal ? OpenTerminal() : Connect();
    Write(next, kReset);
    EXPECT_TRUE(StepUntil([&] { return link_.sent.size() == before + 2; }));
    said_.clear();
  }
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

}  // namespace
}  // namespace bthalctl
