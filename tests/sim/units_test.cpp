// Parts by themselves: the event loop; bad input to scenario files and firmware downloads.
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <stdexcept>

#include "sim/base/event_loop.h"
#include "sim/firmware/download.h"
#include "sim/firmware/image.h"
#include "sim/handset/handset.h"
#include "support/vectors.h"

namespace zvk {
namespace {

// A controller that starts late on a busy machine must not miss what was sent after its start.
TEST(EventLoop, InputAfterATimerWasDue_ComesAfterTheTimer) {
  EventLoop loop;
  const ::android::base::unique_fd input(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  std::string order;
  loop.Watch(input.get(), EPOLLIN, [&](uint32_t) {
    order += "input ";
    loop.Stop();
  });
  constexpr std::chrono::milliseconds kDelay(2);
  const EventLoop::Time due = EventLoop::Clock::now() + kDelay;
  loop.After(kDelay, [&] { order += "timer "; });
  loop.SetIdle([&] {
    while (EventLoop::Clock::now() <= due + kDelay) {
    }
    const uint64_t one = 1;
    ASSERT_EQ(write(input.get(), &one, sizeof one), static_cast<ssize_t>(sizeof one));
  });
  loop.Run();
  EXPECT_EQ(order, "timer input ");
}

TEST(Scenario, Mistakes_AreNamedByFileLineAndReason) {
  for (const test::Vector& row : test::LoadVectors("scenario_mistakes.txt")) {
    try {
      ParseScenario(*test::ParseText(row.name), "f", Handset::ActionTypes());
      ADD_FAILURE() << row.name;
    } catch (const std::runtime_error& caught) {
      EXPECT_EQ(caught.what(), row.fields[0]);
    }
  }
}

using Records = std::vector<std::pair<uint16_t, Bytes>>;  // opcode, parameters

TEST(FirmwareDownload, AnythingWrong_VoidsIt) {
  ImageOptions image;
  image.size = 2000;
  image.chip_id = 0xB5;
  const Bytes file = MakeFirmware(image);
  Records good;
  for (ByteView rest(file); !rest.empty(); rest = rest.From(3u + rest[2])) {
    good.emplace_back(rest.U16(0), rest.Sub(3, rest[2]).Copy());
  }
  const struct {
    const char* fault;
    uint8_t launch;  // status of Launch RAM
    void (*change)(Records& records);
  } rows[] = {
      {"", 0, [](Records&) {}},
      {"no image header", 0x1F, [](Records& r) { r.erase(r.begin()); }},
      {"was next", 0x1F, [](Records& r) { std::swap(r[2], r[3]); }},
      {"was next", 0x1F, [](Records& r) { r.insert(r.begin() + 2, r[2]); }},
      {"was next", 0x1F, [](Records& r) { r.erase(r.begin() + 3); }},
      {"are missing", 0x1F, [](Records& r) { r.erase(r.end() - 2); }},
      {"more data", 0x1F,
       [](Records& r) {
         r.insert(r.end() - 1, {kWriteRamOpcode, {0xD0, 0x07, 0x20, 0x00, 0x01}});
       }},
      {"checksum", 0x1F, [](Records& r) { r[4].second[50] ^= 1; }},
      {"without data", 0x1F, [](Records& r) { r[1].second.resize(4); }},
      {"another chip", 0x1F, [](Records& r) { r[0].second[4 + 10] = 0xAE; }},
      {"unknown address", 0x1F, [](Records& r) { r.back().second[0] = 0; }},
  };
  for (const auto& row : rows) {
    Records records = good;
    row.change(records);
    Download download(0xB5);
    for (size_t i = 0; i + 1 < records.size(); ++i) download.Write(records[i].second);
    EXPECT_EQ(download.Launch(records.back().second), row.launch) << row.fault;
    EXPECT_NE(download.fault().find(row.fault), std::string::npos) << download.fault();
  }
}

}  // namespace
}  // namespace zvk
