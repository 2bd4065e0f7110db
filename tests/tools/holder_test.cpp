#include "tools/link/holder.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>

#include "fake_link.h"
#include "support/temp_dir.h"
#include "support/unix_socket.h"
#include "support/wait.h"
#include "tools/base/unix_socket.h"
#include "tools/link/holder_protocol.h"

namespace bthalctl {
namespace {

using ::android::base::unique_fd;

// What a client is sent next; empty when that is the end.
Bytes Receive(const unique_fd& client) {
  Bytes message(holder::kMaxMessage);
  ssize_t size = -1;
  test::WaitFor(
      [&] { return (size = recv(client.get(), message.data(), message.size(), 0)) >= 0; });
  message.resize(size > 0 ? static_cast<size_t>(size) : 0);
  return message;
}

void Send(const unique_fd& client, const Bytes& message) {
  ASSERT_EQ(send(client.get(), message.data(), message.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(message.size()));
}

// A holder of a link on a thread. The link answers each command by 20 packets of 64 kB.
class HolderTest : public ::testing::Test {
 protected:
  HolderTest() : holder_(folder_ / "holder") {
    link_.on_send = [this](const Packet&) {
      for (int i = 0; i < 20; ++i) link_.Arrive({PacketType::kAcl, Bytes(65000, 0x5A)});
      link_.Arrive({PacketType::kEvent, {0x0E, 0x04, 0x01, 0x03, 0x0C, 0x00}});
    };
    thread_ = std::thread([this] {
      holder_.Run(link_);
      holder_.Finish();
    });
  }
  ~HolderTest() override {
    const unique_fd last = ConnectUnix(folder_ / "holder", SOCK_SEQPACKET);
    if (last.ok()) Send(last, {holder::kQuit});
    thread_.join();
  }

  unique_fd Connect() {
    unique_fd fd = ConnectUnix(folder_ / "holder", SOCK_SEQPACKET);
    EXPECT_TRUE(fd.ok());
    return fd;
  }

  const test::TempDir folder_;
  FakeLink link_;
  Holder holder_;
  std::thread thread_;
};

TEST_F(HolderTest, ClientThatDoesNotRead_IsDroppedAndTheOthersGoOn) {
  const unique_fd silent = Connect();
  const unique_fd reader = Connect();
  const Bytes reset = {1, 0x03, 0x0C, 0x00};
  for (int round = 0; round < 20; ++round) {  // 26 MB in all
    Send(reader, reset);
    for (int i = 0; i < 20; ++i) ASSERT_EQ(Receive(reader).size(), 65001u) << round;
    ASSERT_EQ(Receive(reader).front(), static_cast<uint8_t>(PacketType::kEvent)) << round;
  }
  // What the socket held for the silent one, then its end.
  size_t bytes = 0;
  for (Bytes message; !(message = Receive(silent)).empty();) bytes += message.size();
  EXPECT_LT(bytes, 16u << 20);

  Send(reader, {holder::kStatus});
  const Bytes status = Receive(reader);
  EXPECT_NE(std::string(status.begin(), status.end()).find("\"clients\":1,"), std::string::npos);
}

}  // namespace
}  // namespace bthalctl
