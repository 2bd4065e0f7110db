// The tap on the line to the controller, and what captures make of it.
#include "tap/tap.h"

#include <android-base/unique_fd.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "support/child_process.h"
#include "support/vectors.h"
#include "support/wait.h"
#include "tap/capture.h"
#include "tap/capture_format.h"

namespace {

using namespace android::hardware::bluetooth::tap;
using android::base::unique_fd;
using test::Bytes;

class CaptureRecords : public testing::TestWithParam<test::Vector> {};

TEST_P(CaptureRecords, AreWhatTheFormatSays) {
  const std::vector<std::string>& fields = GetParam().fields;
  Bytes file;
  const auto format = CaptureFormat::Make(
      fields[0], [&](const Bytes& record) { file = test::Concat(file, record); });
  ASSERT_NE(format, nullptr);
  constexpr int64_t kTime = 1'700'000'000'123'456'789;
  if (!fields[5].empty()) format->AddNote(kTime, fields[5]);
  const Bytes bytes = test::ParseHex(fields[3]);
  CapturedPacket packet;
  packet.type = test::ParseHex(fields[2])[0];
  packet.from_controller = fields[1] == "in";
  packet.time_ns = kTime;
  packet.lost_before = std::stoul(fields[4]);
  packet.data = bytes.data();
  packet.size = bytes.size();
  format->AddPacket(packet);
  EXPECT_EQ(test::ToHex(file), test::ToHex(test::ParseHex(fields[6])));
}

INSTANTIATE_TEST_SUITE_P(Vectors, CaptureRecords,
                         testing::ValuesIn(test::LoadVectors("capture_records.txt")),
                         [](const auto& vector) { return vector.param.name; });

TEST(CaptureFilter, RestrictsTheKindOfPacketItNames) {
  const Bytes reset = {0x03, 0x0C, 0}, reset_done = {0x0E, 4, 1, 0x03, 0x0C, 0};
  const Bytes status = {0x0F, 4, 0, 1, 0x05, 0x04}, report = {0x3E, 2, 0x0D, 0};
  const Bytes sent = {0x13, 1, 0}, acl = {0x40, 0x20, 1, 0, 9};
  const struct {
    const char* word;
    const char* passes;  // of the packets above, in their order
  } rows[] = {
      {"types=cmd,acl", "cmd acl"},
      {"opcodes=0x0c03", "cmd done report sent acl"},
      {"opcodes=1029", "status report sent acl"},
      {"events=0x13", "cmd sent acl"},
      {"no-events=0x13,0x0f", "cmd done report acl"},
      {"handles=0x040", "cmd done status report sent acl"},
      {"handles=1", "cmd done status report sent"},
      {"no-advertising", "cmd done status sent acl"},
  };
  for (const auto& row : rows) {
    CaptureFilter filter;
    ASSERT_TRUE(filter.Add(row.word)) << row.word;
    std::string passes;
    const auto try_one = [&](const char* name, uint8_t type, const Bytes& packet) {
      if (!filter.Passes(type, packet.data(), packet.size())) return;
      passes += (passes.empty() ? "" : " ") + std::string(name);
    };
    try_one("cmd", 1, reset);
    try_one("done", 4, reset_done);
    try_one("status", 4, status);
    try_one("report", 4, report);
    try_one("sent", 4, sent);
    try_one("acl", 2, acl);
    EXPECT_EQ(passes, row.passes) << row.word;
  }
  CaptureFilter filter;
  for (const char* word : {"", "nonsense", "types=", "types=xyz", "opcodes=0x10000", "events=x"}) {
    EXPECT_FALSE(filter.Add(word)) << word;
  }
}

// All that a reader takes: of each packet the number in its bytes.
struct Taken {
  uint64_t lost = 0;
  std::vector<uint32_t> numbers;

  void From(TapReader& reader) {
    Entries entries;
    for (uint64_t gap = 0; reader.Take(&entries, &gap);) {
      lost += gap;
      for (size_t at = 0; at < entries.size();) {
        EntryHeader header;
        const uint8_t* const bytes = NextEntry(entries, &at, &header);
        EXPECT_GE(header.monotonic_ns, last_ns_);
        last_ns_ = header.monotonic_ns;
        uint32_t number = 0;
        if (header.type != kNote) memcpy(&number, bytes, sizeof number);
        if (header.type != kNote) numbers.push_back(number);
      }
    }
  }

 private:
  int64_t last_ns_ = 0;
};

void AddPackets(Tap& tap, uint32_t from, uint32_t count, size_t size = 100) {
  Bytes packet(size);
  for (uint32_t number = from; number < from + count; ++number) {
    memcpy(packet.data(), &number, sizeof number);
    tap.Packet(4, true, packet.data(), packet.size());
  }
}

TEST(Tap, ReaderThatFallsBehind_IsToldHowManyItLost) {
  Tap tap;
  const auto reader = tap.Open(false);
  AddPackets(tap, 0, 10);
  Taken taken;
  taken.From(*reader);
  EXPECT_EQ(taken.numbers.size(), 10u);
  // More than the ring holds; packets of all sizes, so that they wrap at every place.
  constexpr uint32_t kMany = 50'000;
  for (uint32_t i = 0; i < kMany; i += 10) AddPackets(tap, 10 + i, 10, 4 + i % 1000);
  taken.From(*reader);
  EXPECT_GT(taken.lost, 0u);
  EXPECT_EQ(taken.lost + taken.numbers.size(), 10 + kMany);
  EXPECT_EQ(taken.numbers.back(), 10 + kMany - 1);
  EXPECT_EQ(taken.numbers[10], 10 + taken.lost) << "the gap is at its place";
}

TEST(Tap, ManyThreadsAndReaders_NothingIsLostOrTurnedRound) {
  Tap tap;
  const auto count = static_cast<uint32_t>(test::Count("packets through the tap", 100'000));
  std::vector<std::thread> threads;
  std::atomic<int> adding{2};
  for (uint32_t source = 0; source < 2; ++source) {
    threads.emplace_back([&, source] {
      AddPackets(tap, source << 24, count, 40);
      --adding;
    });
  }
  for (int round = 0; round < 2; ++round) {
    threads.emplace_back([&] {
      Taken taken;
      const auto reader = tap.Open(true);
      while (adding > 0) {
        taken.From(*reader);
        tap.Note('W', "a line between them");
      }
      taken.From(*reader);
      uint32_t last[2] = {};
      for (const uint32_t number : taken.numbers) {
        EXPECT_TRUE(last[number >> 24] == 0 || (number & 0xFFFFFF) > last[number >> 24]);
        last[number >> 24] = number & 0xFFFFFF;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(Tap, LastBringUp_IsKeptWithoutDataAndComesFirst) {
  Tap tap;
  const auto numbers = [&](bool with_bring_up) {
    Taken taken;
    taken.From(*tap.Open(with_bring_up));
    return taken.numbers;
  };
  AddPackets(tap, 1, 1);
  tap.BeginBringUp();
  const uint8_t command[] = {0x03, 0x0C, 0, 0}, answer[] = {0x0E, 4, 1, 0x03, 0x0C, 0};
  const uint8_t data[] = {0x40, 0x20, 1, 0, 9}, report[] = {0x3E, 2, 0x0D, 0};
  tap.Packet(1, false, command, sizeof command);
  EXPECT_THAT(numbers(true), testing::ElementsAre(0x000C03u)) << "while it goes on";
  tap.Packet(2, true, data, sizeof data);
  tap.Packet(4, true, report, sizeof report);
  tap.Packet(4, true, answer, sizeof answer);
  tap.EndBringUp();
  AddPackets(tap, 2, 1);
  EXPECT_THAT(numbers(true), testing::ElementsAre(0x000C03u, 0x0301040Eu & 0xFFFFFFFFu));
  EXPECT_THAT(numbers(false), testing::IsEmpty());
}

TEST(Capture, ReaderThatNeverReadsOrGoes_HoldsNobodyUp) {
  Tap& tap = Tap::Get();
  CaptureRequest request;
  ASSERT_TRUE(ParseCaptureRequest({"pcapng"}, &request));
  const int threads = test::CountThreads(getpid());
  int socket[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, socket), 0);
  unique_fd lazy(socket[0]), lazy_end(socket[1]), gone, gone_end;
  ASSERT_TRUE(android::base::Pipe(&gone, &gone_end));
  ASSERT_EQ(StartCapture(lazy_end.get(), request), "");
  ASSERT_EQ(StartCapture(gone_end.get(), request), "");
  gone.reset();
  const auto start = std::chrono::steady_clock::now();
  AddPackets(tap, 0, 100'000, 1000);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  lazy.reset();
  EXPECT_TRUE(test::WaitFor([&] { return test::CountThreads(getpid()) == threads; }));
  EXPECT_FALSE(tap.is_on());
}

TEST(Capture, MoreThanMayBe_AreRefused) {
  std::vector<unique_fd> ends;
  std::string trouble;
  for (size_t i = 0; i <= Tap::kMaxReaders; ++i) {
    unique_fd read_end, write_end;
    ASSERT_TRUE(android::base::Pipe(&read_end, &write_end));
    CaptureRequest request;
    ASSERT_TRUE(ParseCaptureRequest({"monitor", "no-data"}, &request));
    EXPECT_EQ(trouble, "");
    trouble = StartCapture(write_end.get(), request);
    ends.push_back(std::move(read_end));
  }
  EXPECT_THAT(trouble, testing::HasSubstr("as many as may be"));
  CaptureRequest request;
  EXPECT_THAT(StartCapture(unique_fd(open("/dev/null", O_WRONLY)).get(), request),
              testing::HasSubstr("a pipe or a socket"));
  ends.clear();
  EXPECT_TRUE(test::WaitFor([] { return !Tap::Get().is_on(); }));
}

}  // namespace
