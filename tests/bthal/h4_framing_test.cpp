#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "bthal/uart_rig.h"
#include "h4/h4_protocol.h"
#include "support/temp_dir.h"
#include "support/vectors.h"
#include "support/wait.h"

namespace {

using android::hardware::hidl_vec;
using android::hardware::bluetooth::hci::H4Protocol;
using test::Bytes;
using test::UartRig;
using testing::HasSubstr;
using Packets = std::vector<UartRig::Packet>;

// A framer that keeps what it delivers.
class Framer {
 public:
  explicit Framer(int fd = -1) : h4(fd, Keep(4), Keep(2), Keep(3), Keep(5)) {}

  void Feed(const Bytes& bytes) { h4.OnBytes(bytes.data(), bytes.size()); }
  Packets Take() { return std::exchange(packets_, {}); }

 private:
  android::hardware::bluetooth::hci::PacketReceiver Keep(uint8_t type) {
    return [this, type](const hidl_vec<uint8_t>& packet) {
      packets_.push_back({type, test::ToBytes(packet)});
    };
  }
  Packets packets_;

 public:
  H4Protocol h4;
};

Bytes Framed(const Packets& packets) {
  Bytes stream;
  for (const UartRig::Packet& packet : packets) {
    stream = test::Concat(test::Concat(stream, {packet.type}), packet.bytes);
  }
  return stream;
}

const UartRig::Packet kProbe = {0x03, {0x01, 0x00, 0x01, 0xCC}};

// Each is delivered with its last byte; one without payload with the byte behind it.
TEST(H4Framing, SplitAtEveryByte_YieldsSamePackets) {
  for (const test::Vector& v : test::LoadVectors("h4_packets.txt")) {
    SCOPED_TRACE(v.name);
    const UartRig::Packet packet = {test::ParseHex(v.fields[0])[0], test::ParseHex(v.fields[1])};
    const Bytes stream = Framed({packet, kProbe});
    const size_t end = 1 + packet.bytes.size();
    const size_t delivered = packet.bytes.size() <= 4 && packet.bytes.back() == 0 ? end + 1 : end;
    for (size_t cut = 0; cut<stream.size(); cut += cut> 300 && cut + 300 < end ? 100 : 1) {
      Framer framer;
      framer.Feed(Bytes(stream.begin(), stream.begin() + static_cast<long>(cut)));
      Packets packets = framer.Take();
      ASSERT_EQ(packets.size(), cut < delivered ? 0u : 1u) << "cut at " << cut;
      framer.Feed(Bytes(stream.begin() + static_cast<long>(cut), stream.end()));
      for (const UartRig::Packet& more : framer.Take()) packets.push_back(more);
      ASSERT_EQ(packets, (Packets{packet, kProbe})) << "cut at " << cut;
    }
  }
}

// --- reading and writing a descriptor ---

class H4Descriptor : public testing::Test {
 protected:
  ~H4Descriptor() override {
    close(read_fd_);
    if (write_fd_ >= 0) close(write_fd_);
  }

  // A pipe that takes 4096 bytes at once.
  void SetUp() override {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    read_fd_ = fds[0];
    write_fd_ = fds[1];
    ASSERT_EQ(fcntl(write_fd_, F_SETPIPE_SZ, 4096), 4096);
    ASSERT_EQ(fcntl(write_fd_, F_SETFL, O_NONBLOCK), 0);
  }
  Bytes Read(size_t size) {
    Bytes bytes(size);
    size_t done = 0;
    while (done < size) {
      const ssize_t n = read(read_fd_, bytes.data() + done, size - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    bytes.resize(done);
    return bytes;
  }

  int read_fd_ = -1;
  int write_fd_ = -1;
};

// A Send() on a thread of its own.
struct Sending {
  Sending(H4Protocol& h4, const Bytes& data)
      : thread([this, &h4, data] {
          tid = gettid();
          result = h4.Send(2, data.data(), data.size());
          done = true;
        }) {}
  ~Sending() { thread.join(); }
  // In poll, not in a loop.
  bool WaitUntilAsleep() {
    return test::WaitFor([this] { return tid != 0 && !done && test::IsAsleep(tid); });
  }
  std::atomic<pid_t> tid{0};
  std::atomic<bool> done{false};
  std::atomic<size_t> result{0};
  std::thread thread;
};

// More than there is room for: what lets the sender go on, or gives it up.
TEST_F(H4Descriptor, SendOfMoreThanThereIsRoom_WaitsForRoomOrTheEnd) {
  Bytes data(5000);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
  const struct {
    const char* happens;
    size_t sent;
    const char* line;
  } rows[] = {
      {"room", 5001, "Send: 4096/5001 bytes written - retrying remaining 905 bytes"},
      {"close", 4096, "Send error writing to UART ("},
      {"nothing", 4096, "Send error writing to UART (Connection timed out)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.happens);
    const std::string happens = row.happens;
    Framer framer(write_fd_);
    testing::internal::CaptureStderr();
    const auto start = std::chrono::steady_clock::now();
    {
      Sending sending(framer.h4, data);
      EXPECT_TRUE(sending.WaitUntilAsleep());
      if (happens == "room") {
        const Bytes other(5000, 0xEE);
        Sending second(framer.h4, other);
        EXPECT_TRUE(second.WaitUntilAsleep());
        EXPECT_EQ(Read(5001), test::Concat({0x02}, data));
        EXPECT_EQ(Read(5001), test::Concat({0x02}, other)) << "not mixed with the first";
      } else if (happens == "close") {
        framer.h4.Close();
      }
      EXPECT_TRUE(test::WaitFor([&] { return sending.done.load(); }));
      EXPECT_EQ(sending.result, row.sent);
    }
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(row.line));
    if (happens == "room") continue;
    if (happens == "nothing") {
      EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    }
    // There may be room again, but what came now would be taken for the rest of that packet, or go
    // to a file that has the port's number by now.
    Read(4096);
    const uint8_t byte = 0;
    EXPECT_EQ(framer.h4.Send(1, &byte, 1), 0u);
    int left = 0;
    ioctl(read_fd_, FIONREAD, &left);
    EXPECT_EQ(left, 0);
  }
}

// The reader pauses for 5 s on a port that hung up, but not once it is being closed.
TEST_F(H4Descriptor, PauseAfterHangUp_EndsOnClose) {
  Framer framer;
  close(std::exchange(write_fd_, -1));
  testing::internal::CaptureStderr();
  std::atomic<pid_t> tid{0};
  const auto start = std::chrono::steady_clock::now();
  std::thread reader([&] {
    tid = gettid();
    framer.h4.OnDataReady(read_fd_);
  });
  EXPECT_TRUE(test::WaitFor([&] { return tid != 0 && test::IsAsleep(tid); }));
  framer.h4.Close();
  reader.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("OnDataReady: Unexpected EOF reading the packet type!"));
}

}  // namespace
