// Packets as fast as they go, between a controller and a stack that are both this process, and
// stacks that do not keep up.

#include <android/hardware/bluetooth/1.1/IBluetoothHci.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include "platform/test_root.h"
#include "support/wait.h"
#include "system/board.h"
#include "tools/wire/h4_framer.h"

namespace test {
namespace {

using android::sp;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::bluetooth::V1_0::Status;
using android::hardware::bluetooth::V1_1::IBluetoothHci;
using android::hardware::bluetooth::V1_1::IBluetoothHciCallbacks;
using std::chrono::milliseconds;
using std::chrono::seconds;
using wire::PacketType;

struct Stack : public IBluetoothHciCallbacks {
  using OnPacket = std::function<void(PacketType type, const hidl_vec<uint8_t>& packet)>;
  explicit Stack(OnPacket on_packet) : packet(std::move(on_packet)) {}

  Return<void> initializationComplete(Status status) override {
    ready = status == Status::SUCCESS;
    return Void();
  }
  Return<void> hciEventReceived(const hidl_vec<uint8_t>& event) override {
    if (event[0] == kTestEvent) packet(PacketType::kEvent, event);
    return Void();
  }
  Return<void> aclDataReceived(const hidl_vec<uint8_t>& data) override {
    packet(PacketType::kAcl, data);
    return Void();
  }
  Return<void> scoDataReceived(const hidl_vec<uint8_t>& data) override {
    packet(PacketType::kSco, data);
    return Void();
  }
  Return<void> isoDataReceived(const hidl_vec<uint8_t>& data) override {
    packet(PacketType::kIso, data);
    return Void();
  }

  static constexpr uint8_t kTestEvent = 0x3E;
  const OnPacket packet;
  std::atomic<bool> ready{false};
};

// Packets of mixed types and sizes up to the longest; the same seed gives the same ones.
class PacketSource {
 public:
  PacketSource(unsigned seed, std::vector<PacketType> types)
      : random_(seed), types_(std::move(types)) {}

  PacketType type() const { return type_; }
  const Bytes& Next() {
    type_ = types_[random_() % types_.size()];
    const size_t longest = type_ == PacketType::kAcl ? 1021 : type_ == PacketType::kIso ? 251 : 255;
    const size_t size = 1 + random_() % (random_() % 4 == 0 ? longest : 32);
    const wire::PacketLayout& layout = *wire::LayoutOf(static_cast<uint8_t>(type_));
    packet_.resize(layout.header + size);
    for (uint8_t& byte : packet_) byte = static_cast<uint8_t>(random_());
    if (type_ == PacketType::kEvent) packet_[0] = Stack::kTestEvent;
    packet_[layout.length_offset] = static_cast<uint8_t>(size);
    if (layout.length_width == 2)
      packet_[layout.length_offset + 1] = static_cast<uint8_t>(size >> 8);
    return packet_;
  }
  // The next one's, and whether it is this.
  bool NextIs(PacketType type, const uint8_t* data, size_t size) {
    Next();
    return type == type_ && size == packet_.size() && memcmp(data, packet_.data(), size) == 0;
  }

 private:
  std::minstd_rand random_;
  const std::vector<PacketType> types_;
  PacketType type_ = PacketType::kEvent;
  Bytes packet_;
};

constexpr unsigned kToHost = 1, kToController = 2;  // seeds
PacketSource ToHost() {
  return {kToHost, {PacketType::kEvent, PacketType::kAcl, PacketType::kSco, PacketType::kIso}};
}
PacketSource ToController() {
  return {kToController, {PacketType::kAcl, PacketType::kSco, PacketType::kIso}};
}

class Stream : public ::testing::Test {
 protected:
  Stream() : vector_(LoadWireVectors().bring_ups.front()), board_(Mode::kPlain, vector_) {
    // This process looks for the service below a root folder of its own.
    std::filesystem::remove(RootFolder() + "/run");
    std::filesystem::create_directory_symlink(board_.Path("run"), RootFolder() + "/run");
    board_.Play([this](const Bytes& command) { return Completion(vector_, command); });
    board_.StartService();
  }
  ~Stream() override {
    stop_ = true;
    // A thread that writes must not wait for a service that has gone.
    WaitFor([this] { return board_.pty().DropUnread(), !writing_; });
    if (writer_.joinable()) writer_.join();
  }

  void Attach(Stack::OnPacket on_packet) {
    hal_ = IBluetoothHci::getService("default");
    ASSERT_NE(hal_, nullptr) << board_.Log();
    const sp<Stack> stack = new Stack(std::move(on_packet));
    ASSERT_TRUE(hal_->initialize_1_1(stack).isOk());
    ASSERT_TRUE(stack->ready) << board_.Log();
  }
  // The controller sends this many packets, in writes that begin and end anywhere.
  void Write(size_t count) {
    writing_ = true;
    writer_ = std::thread([this, count] {
      PacketSource source = ToHost();
      Bytes batch;
      for (size_t i = 0; i < count && !stop_; ++i) {
        const Bytes& packet = source.Next();
        batch.push_back(static_cast<uint8_t>(source.type()));
        batch.insert(batch.end(), packet.begin(), packet.end());
        if (batch.size() < 3000 && i + 1 < count) continue;
        board_.pty().WriteToHost(batch);
        batch.clear();
        written_ = i + 1;
      }
      writing_ = false;
    });
  }
  bool LineStandsStill(milliseconds time) const {
    const size_t before = written_;
    return !WaitFor([&] { return written_ != before; }, time);
  }
  // Another client is served meanwhile.
  void ExpectServing() {
    std::string output;
    const std::vector<std::string> status = {ProgramDir() + "/bthalctl", "--root", board_.Path(""),
                                             "status"};
    EXPECT_EQ(test::Run(status, &output, {}, seconds(5)).exit_code, 0) << output;
  }

  const WireVector vector_;
  Board board_;
  sp<IBluetoothHci> hal_;
  std::atomic<bool> stop_{false}, writing_{false};
  std::atomic<size_t> written_{0};
  std::thread writer_;
};

using StreamSlow = Stream;

TEST_F(StreamSlow, MixedPackets_ComeInOrderByteForByteWhileClientsComeAndGo) {
  const auto count = static_cast<size_t>(Count("packets to the host", 1'000'000));
  const size_t back = count / 10;
  std::atomic<size_t> received{0}, sent_on{0}, wrong{0};
  Attach([&, source = ToHost()](PacketType type, const hidl_vec<uint8_t>& packet) mutable {
    if (!source.NextIs(type, packet.data(), packet.size())) ++wrong;
    ++received;
  });
  board_.StopPlaying();
  [[maybe_unused]] const int memory = ResidentKilobytes(board_.service().pid());
  std::atomic<bool> done{false};
  std::thread controller([&] {
    PacketSource source = ToController();
    wire::H4Framer framer(
        wire::H4Framer::From::kHost,
        [&](PacketType type, wire::ByteView packet) {
          if (type == PacketType::kCommand) return;  // of the service's own
          if (!source.NextIs(type, packet.data(), packet.size())) ++wrong;
          ++sent_on;
        },
        [&](uint8_t) { ++wrong; });
    for (Bytes buffer(65536); !done;) {
      pollfd readable{board_.pty().master(), POLLIN, 0};
      if (poll(&readable, 1, 100) != 1) continue;
      const ssize_t n = read(board_.pty().master(), buffer.data(), buffer.size());
      if (n > 0) framer.Push({buffer.data(), static_cast<size_t>(n)});
    }
  });
  // Every other one is killed before it is through.
  size_t visits = 0;
  std::thread clients([&] {
    for (; !done; ++visits) {
      ChildProcess client({ProgramDir() + "/bthalctl", "--root", board_.Path(""),
                           visits % 4 < 2 ? "status" : "debug"});
      client.Wait(visits % 2 == 0 ? milliseconds(visits % 40) : milliseconds(kDeadline));
    }
  });
  Write(count);
  PacketSource source = ToController();
  for (size_t i = 0; i < back && wrong == 0; ++i) {
    const hidl_vec<uint8_t> packet = source.Next();
    const Return<void> sent = source.type() == PacketType::kAcl   ? hal_->sendAclData(packet)
                              : source.type() == PacketType::kSco ? hal_->sendScoData(packet)
                                                                  : hal_->sendIsoData(packet);
    if (!sent.isOk()) break;
  }
  for (size_t before = 0; received < count && wrong == 0 && received != before;) {
    before = received;
    WaitFor([&] { return received == count || wrong != 0; }, seconds(10));
  }
  EXPECT_TRUE(WaitFor([&] { return sent_on == back || wrong != 0; }));
  done = true;
  controller.join();
  clients.join();
  EXPECT_EQ(wrong, 0u);
  EXPECT_EQ(received, count);
  EXPECT_EQ(sent_on, back);
  EXPECT_GT(visits, 0u);
#ifndef BTHAL_SANITIZED  // a sanitizer keeps what is freed
  EXPECT_LT(ResidentKilobytes(board_.service().pid()), memory + 1024);
#endif
  EXPECT_FALSE(board_.service().Wait(milliseconds(0))) << board_.Log();
}

TEST_F(StreamSlow, StackThatTakesAPacketASecond_HoldsUpTheLineAndNothingElse) {
  constexpr size_t kPackets = 20000;
  std::atomic<bool> slow{true};
  std::atomic<size_t> received{0}, wrong{0};
  Attach([&, source = ToHost()](PacketType type, const hidl_vec<uint8_t>& packet) mutable {
    if (!source.NextIs(type, packet.data(), packet.size())) ++wrong;
    ++received;
    if (slow) WaitFor([&] { return !slow; }, seconds(1));
  });
  Write(kPackets);
  ASSERT_TRUE(WaitFor([this] { return LineStandsStill(milliseconds(300)); }));
  EXPECT_LT(written_, kPackets);
  const size_t before = received;
  ExpectServing();
  EXPECT_TRUE(hal_->sendAclData({0x01, 0x00, 0x00, 0x00}).isOk());
  std::this_thread::sleep_for(seconds(13));  // longer than a stack may be silent
  EXPECT_GT(received, before + 8);
  slow = false;
  EXPECT_TRUE(WaitFor([&] { return received == kPackets; })) << received << board_.Log();
  EXPECT_EQ(wrong, 0u);
  EXPECT_EQ(CountOf("was not answered", board_.Log()), 0u);
}

class StreamToADeafStackSlow : public Stream, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(, StreamToADeafStackSlow, ::testing::Bool(), [](const auto& killed) {
  return killed.param ? "ThatIsKilled" : "ThatStaysSilent";
});

TEST_P(StreamToADeafStackSlow, HoldsUpTheLineUntilItsEnd_TheNextStackIsServed) {
  board_.StartStack();
  ASSERT_TRUE(board_.stack()->WaitForOutput("initialize done", kDeadline)) << board_.Log();
  const int descriptors = CountDescriptors(board_.service().pid());
  board_.stack()->Signal(SIGSTOP);
  Write(SIZE_MAX);
  ASSERT_TRUE(WaitFor([this] { return LineStandsStill(milliseconds(300)); }));
  ExpectServing();
  if (GetParam()) {
    board_.stack()->Signal(SIGKILL);
  } else {
    EXPECT_TRUE(
        board_.service().WaitForOutput("a call to it was not answered for 10 s", kDeadline));
  }
  EXPECT_TRUE(board_.service().WaitForOutput("serviceDied", kDeadline)) << board_.Log();
  stop_ = true;
  EXPECT_TRUE(WaitFor([this] { return board_.pty().DropUnread(), !writing_; }));
  board_.pty().DropUnread();
  std::atomic<size_t> received{0};
  Attach([&](PacketType, const hidl_vec<uint8_t>&) { ++received; });
  board_.pty().WriteToHost({0x04, Stack::kTestEvent, 0x01, 0x00});
  EXPECT_TRUE(WaitFor([&] { return received == 1; })) << board_.Log();
  EXPECT_TRUE(WaitFor([&] { return CountDescriptors(board_.service().pid()) <= descriptors; }));
}

}  // namespace
}  // namespace test
