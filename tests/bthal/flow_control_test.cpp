#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "bring_up/btzvk_command.h"
#include "bthal/child_case.h"
#include "bthal/report_check.h"
#include "bthal/uart_rig.h"
#include "hci/scoped_event_watcher.h"
#include "hci_flow_control.h"
#include "support/temp_dir.h"
#include "transport_shim.h"

namespace {

using android::hardware::hidl_vec;
using android::hardware::bluetooth::hci::HciEventWatcher;
using android::hardware::bluetooth::hci::HciFlowControl;
using test::Bytes;
using test::UartRig;
using testing::HasSubstr;
using testing::Not;

namespace shim = android::hardware::bluetooth::hci::shim;

size_t Send(HciFlowControl& flow, uint8_t type, const std::string& hex) {
  const Bytes packet = test::ParseHex(hex);
  return flow.Send(type, packet.data(), packet.size());
}

// Plays one sequence of tests/data/flow_control.txt over a real tty.
void Play(const std::vector<std::string>& steps) {
  UartRig rig;
  ASSERT_TRUE(rig.Open());
  HciFlowControl& flow = *rig.flow();
  Bytes wire;  // not yet expected by a "wire"
  bool halted = false;
  for (const std::string& step : steps) {
    const size_t blank = std::min(step.find(' '), step.size());
    const std::string word = step.substr(0, blank);
    const std::string rest = step.substr(blank);
    SCOPED_TRACE(step);
    const Bytes packet = word == "stack" ? Bytes{} : test::ParseHex(rest);
    if (word == "send" || word == "acl" || word == "sco" || word == "iso" || word == "noack") {
      const uint8_t type = word == "acl" ? 2 : word == "sco" ? 3 : word == "iso" ? 5 : 1;
      const size_t sent = word == "noack" ? flow.SendNoAck(type, packet.data(), packet.size())
                                          : flow.Send(type, packet.data(), packet.size());
      const Bytes written = rig.pty().TakeWritten();
      wire = test::Concat(wire, written);
      const size_t queued = halted ? 0 : packet.size();
      EXPECT_EQ(sent, written.empty() ? queued : packet.size() + 1);
    } else if (word == "event") {
      rig.DeliverEvent(packet);
      wire = test::Concat(wire, rig.pty().TakeWritten());
    } else if (word == "wire") {
      EXPECT_EQ(test::ToHex(wire), test::ToHex(packet));
      wire.clear();
    } else if (word == "stack") {
      std::vector<UartRig::Packet> expected;
      for (const std::string& event : test::SplitTrimmed(rest, ',')) {
        expected.push_back({4, test::ParseHex(event)});
      }
      EXPECT_EQ(rig.TakeReceived(), expected);
    } else if (word == "halt") {
      flow.Halt();
      halted = true;
    } else {
      FAIL() << "unknown step";
    }
  }
  EXPECT_TRUE(wire.empty()) << "unexpected on the wire: " << test::ToHex(wire);
}

class FlowControlSequence : public testing::TestWithParam<test::Vector> {};

TEST_P(FlowControlSequence, GoesAsDerived) { Play(test::SplitTrimmed(GetParam().fields[0], '/')); }
INSTANTIATE_TEST_SUITE_P(Vectors, FlowControlSequence,
                         testing::ValuesIn(test::LoadVectors("flow_control.txt")),
                         [](const auto& row) { return row.param.name; });

TEST(FlowControlQueue, TooManyWaitingCommands_AreRefused) {
  UartRig rig;
  ASSERT_TRUE(rig.Open());
  const size_t limit = HciFlowControl::kMaxWaiting;
  EXPECT_EQ(Send(*rig.flow(), 1, "03 0C 00"), 4u) << "goes out, and is never answered";
  for (size_t i = 0; i < limit; ++i) ASSERT_EQ(Send(*rig.flow(), 1, "09 10 00"), 3u);
  EXPECT_EQ(Send(*rig.flow(), 1, "09 10 00"), 0u);
}

// What several watchers note, on the reader thread and on the test's.
class Notes {
 public:
  void Add(const std::string& note) {
    const std::lock_guard<std::mutex> guard(lock_);
    notes_.push_back(note);
  }
  std::vector<std::string> Take() {
    const std::lock_guard<std::mutex> guard(lock_);
    return std::exchange(notes_, {});
  }

 private:
  std::mutex lock_;
  std::vector<std::string> notes_;
};

// A watcher that notes its calls in a list shared by several. Unregisters itself at its end.
class NotingWatcher final : public HciEventWatcher {
 public:
  NotingWatcher(HciFlowControl& flow, const char* name, uint8_t code, uint16_t opcode, bool keeps,
                Notes* calls)
      : HciEventWatcher(name, code, opcode), flow_(flow), keeps_(keeps), calls_(calls) {}
  ~NotingWatcher() override { flow_.UnregisterEventWatcher(this); }
  bool OnEventReceive(const hidl_vec<uint8_t>&) override {
    calls_->Add(name());
    return keeps_;
  }
  void OnHalt() override { calls_->Add(name() + " halted"); }

 private:
  HciFlowControl& flow_;
  const bool keeps_;
  Notes* const calls_;
};

class FlowControlWatchers : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(rig_.Open()); }
  HciFlowControl& flow() { return *rig_.flow(); }
  // Which watchers an event was offered to, in order; "stack" when the stack got it.
  std::vector<std::string> Offer(const std::string& event) {
    rig_.DeliverEvent(test::ParseHex(event));
    std::vector<std::string> calls = calls_.Take();
    for (size_t i = rig_.TakeReceived().size(); i > 0; --i) calls.push_back("stack");
    return calls;
  }

  using Calls = std::vector<std::string>;
  UartRig rig_;
  Notes calls_;
};

TEST_F(FlowControlWatchers, EventCodeAndOpcodeSelectThem) {
  NotingWatcher complete(flow(), "complete", 0x0E, 0x0C03, false, &calls_);
  NotingWatcher any_complete(flow(), "any complete", 0x0E, 0, false, &calls_);
  NotingWatcher status(flow(), "status", 0x0F, 0x0405, false, &calls_);
  // Outside completions the opcode does not count.
  NotingWatcher vendor(flow(), "vendor", 0xFF, 0x1234, false, &calls_);
  for (NotingWatcher* w : {&complete, &any_complete, &status, &vendor}) {
    flow().RegisterEventWatcher(w);
  }
  EXPECT_EQ(Offer("0E 04 01 03 0C 00"), (Calls{"complete", "any complete", "stack"}));
  EXPECT_EQ(Offer("0E 04 01 14 0C 00"), (Calls{"any complete", "stack"}));
  EXPECT_EQ(Offer("0F 04 00 01 05 04"), (Calls{"status", "stack"}));
  EXPECT_EQ(Offer("0F 04 00 01 06 04"), (Calls{"stack"}));
  EXPECT_EQ(Offer("FF 01 58"), (Calls{"vendor", "stack"}));
  EXPECT_EQ(Offer("13 05 01 40 00 01 00"), (Calls{"stack"}));
}

TEST_F(FlowControlWatchers, AllAreCalledInOrderAndOneIsEnoughToKeepTheEvent) {
  NotingWatcher first(flow(), "first", 0xFF, 0, false, &calls_);
  NotingWatcher keeper(flow(), "keeper", 0xFF, 0, true, &calls_);
  NotingWatcher last(flow(), "last", 0xFF, 0, false, &calls_);
  for (NotingWatcher* w : {&first, &keeper, &last}) flow().RegisterEventWatcher(w);
  flow().RegisterEventWatcher(&first);  // twice: kept once, in its place
  EXPECT_EQ(Offer("FF 01 58"), (Calls{"first", "keeper", "last"}));
  flow().UnregisterEventWatcher(&keeper);
  flow().UnregisterEventWatcher(&keeper);
  EXPECT_EQ(Offer("FF 01 58"), (Calls{"first", "last", "stack"}));
  NotingWatcher stranger(flow(), "stranger", 0xFF, 0, true, &calls_);
  flow().UnregisterEventWatcher(&stranger);
  flow().RegisterEventWatcher(&keeper);
  EXPECT_EQ(Offer("FF 01 58"), (Calls{"first", "last", "keeper"}));
}

// Bookkeeping does not depend on who got the event.
TEST_F(FlowControlWatchers, KeptCompletion_StillReleasesTheNextCommand) {
  NotingWatcher keeper(flow(), "keeper", 0x0E, 0x0C03, true, &calls_);
  flow().RegisterEventWatcher(&keeper);
  Send(flow(), 1, "03 0C 00");
  Send(flow(), 1, "01 10 00");
  rig_.pty().TakeWritten();
  EXPECT_EQ(Offer("0E 04 01 03 0C 00"), Calls{"keeper"});
  EXPECT_EQ(rig_.pty().TakeWritten(), test::ParseHex("01 01 10 00"));
}

TEST_F(FlowControlWatchers, Halt_TellsThemOnceAndLateComersAtOnce) {
  NotingWatcher first(flow(), "first", 0xFF, 0, true, &calls_);
  NotingWatcher late(flow(), "late", 0xFF, 0, true, &calls_);
  flow().RegisterEventWatcher(&first);
  flow().Halt();
  flow().Halt();
  EXPECT_EQ(calls_.Take(), Calls{"first halted"});
  flow().RegisterEventWatcher(&late);
  EXPECT_EQ(calls_.Take(), Calls{"late halted"});
  EXPECT_EQ(Offer("FF 01 58"), Calls{"stack"});
  flow().UnregisterEventWatcher(&first);
}

TEST_F(FlowControlWatchers, HaltedCalls_WarnWithTheirName) {
  flow().Halt();
  testing::internal::CaptureStderr();
  NotingWatcher watcher(flow(), "w", 0xFF, 0, false, &calls_);
  Send(flow(), 1, "03 0C 00");
  flow().SendNoAck(1, test::ParseHex("03 0C 00").data(), 3);
  flow().RegisterEventWatcher(&watcher);
  flow().UnregisterEventWatcher(&watcher);
  flow().Halt();
  EXPECT_FALSE(flow().HciEventPreProcess(test::ToVec({0xFF, 0x01, 0x58})));
  flow().HciEventPostProcess(test::ToVec({0xFF, 0x01, 0x58}));
  const std::string log = testing::internal::GetCapturedStderr();
  for (const char* operation :
       {"Send", "SendNoAck", "RegisterEventWatcher", "UnregisterEventWatcher", "Halt",
        "HciEventPreProcess", "HciEventPostProcess"}) {
    EXPECT_THAT(log, HasSubstr(std::string(": ") + operation + ": called after being halted!"));
  }
}

// Whoever kept the object beyond the closing of the transport meets a halted one.
TEST(FlowControl, LateCallers_MeetAHaltedObject) {
  auto rig = std::make_unique<UartRig>();
  ASSERT_TRUE(rig->Open());
  const std::shared_ptr<HciFlowControl> kept = rig->flow();
  rig.reset();
  EXPECT_EQ(Send(*kept, 1, "03 0C 00"), 0u);
  EXPECT_EQ(Send(*kept, 2, "40 20 01 00 AA"), 0u);
}

// Registration, sending and events at the same time, on a port that nobody reads, and the end in
// the midst of it.
TEST(FlowControl, UsedByManyThreadsWhileClosed_NeitherBlocksNorCallsADeadWatcher) {
  const int rounds = test::Count("closings under load", 30);
  for (int round = 0; round < rounds; ++round) {
    UartRig rig;
    ASSERT_TRUE(rig.Open());
    const std::shared_ptr<HciFlowControl> flow = rig.flow();
    std::atomic<bool> stop{false};
    std::atomic<int> sent{0};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
      while (!stop) {
        std::atomic<int> calls{0};
        android::hardware::bluetooth::hci::ScopedEventWatcher watcher(
            "short", flow.get(), 0xFF, 0, [&](const hidl_vec<uint8_t>&) {
              ++calls;
              return true;
            });
      }
    });
    threads.emplace_back([&] {
      for (; !stop; ++sent) Send(*flow, 3, "01 00 01 CC");
    });
    threads.emplace_back([&] {
      while (!stop) {
        flow->OnHciEventReady(test::ToVec({0xFF, 0x01, 0x57}), [](const hidl_vec<uint8_t>&) {});
      }
    });
    EXPECT_TRUE(test::WaitFor([&] { return sent > 20; }));
    shim::Deinitialize();
    stop = true;
    for (std::thread& thread : threads) thread.join();
  }
}

// --- events that end the process ---

CHILD_CASE(DeliverEvent) {
  UartRig rig;
  if (!rig.Open()) return 1;
  test::PrintReports();
  const Bytes event = test::ParseHex(arguments[0]);
  android::hardware::bluetooth::hci::ScopedEventWatcher watcher(
      "w", rig.flow().get(), event.empty() ? 0 : event[0], 0, [](const hidl_vec<uint8_t>&) {
        printf("delivered to a watcher\n");
        fflush(stdout);
        return false;
      });
  rig.flow()->OnHciEventReady(test::ToVec(event), [](const hidl_vec<uint8_t>&) {
    printf("delivered\n");
    fflush(stdout);
  });
  return 0;
}

TEST(FlowControl, InvalidEvent_IsReportedAndDeliveredNowhere) {
  for (const test::Vector& v : test::LoadVectors("invalid_events.txt")) {
    SCOPED_TRACE(v.name);
    test::TempDir root;
    test::WriteConfiguration(root.path());
    const test::ChildRun run = test::RunChild("DeliverEvent", root.path(), {v.fields[0]});
    EXPECT_EQ(run.result.signal, SIGABRT);
    EXPECT_THAT(run.output, HasSubstr("sink FF 04 58 05 00 82\n"));
    EXPECT_THAT(run.output, HasSubstr("Bluetooth HAL crash with error code 0, vendor error code "
                                      "130, extra info: " +
                                      v.fields[1] + "\n"));
    EXPECT_THAT(run.output, Not(HasSubstr("delivered")));
    EXPECT_THAT(run.output, HasSubstr("HostInvalidHciEvent"));
  }
}

}  // namespace
