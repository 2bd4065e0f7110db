#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <sstream>
#include <thread>

#include "bthal/child_case.h"
#include "bthal/report_check.h"
#include "bthal/sequence_runner.h"
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

namespace shim = android::hardware::bluetooth::hci::shim;

size_t Send(HciFlowControl& flow, uint8_t type, const std::string& hex) {
  const Bytes packet = test::ParseHex(hex);
  return flow.Send(type, packet.data(), packet.size());
}

// Notes its calls in a list shared by several. Unregisters itself at its end.
class NotingWatcher final : public HciEventWatcher {
 public:
  using Notes = std::vector<std::string>;  // written while an event is delivered or by this thread

  NotingWatcher(HciFlowControl& flow, const std::string& name, uint8_t code, uint16_t opcode,
                bool keeps, Notes& calls)
      : HciEventWatcher(name.c_str(), code, opcode), flow_(flow), keeps_(keeps), calls_(calls) {}
  ~NotingWatcher() override { flow_.UnregisterEventWatcher(this); }
  bool OnEventReceive(const hidl_vec<uint8_t>&) override {
    calls_.push_back(name());
    return keeps_;
  }
  void OnHalt() override { calls_.push_back(name() + "!"); }

 private:
  HciFlowControl& flow_;
  const bool keeps_;
  Notes& calls_;
};

// Plays a sequence over a real tty.
void Play(const test::Vector& sequence) {
  SCOPED_TRACE(sequence.name);
  test::SequenceRunner runner("bthal.flowcontrol");
  HciFlowControl& flow = runner.flow();
  NotingWatcher::Notes calls;
  std::map<std::string, std::unique_ptr<NotingWatcher>> watchers;
  bool halted = false;
  const std::pair<const char*, uint8_t> kinds[] = {{"send", 1}, {"acl", 2}, {"sco", 3}, {"iso", 5}};
  for (const auto& [word, type] : kinds) {
    runner.Define(word, [&, type = type](const std::string& hex) {
      EXPECT_EQ(Send(flow, type, hex) == 0, halted);
    });
  }
  runner.Define("noack", [&](const std::string& hex) {
    const Bytes packet = test::ParseHex(hex);
    EXPECT_EQ(flow.SendNoAck(1, packet.data(), packet.size()), halted ? 0 : packet.size() + 1);
  });
  // Whatever an event leads to is written when it is delivered.
  runner.Define("wire", [&](const std::string& hex) {
    EXPECT_EQ(test::ToHex(runner.rig().pty().TakeWritten()), test::ToHex(test::ParseHex(hex)));
  });
  runner.Define("halt", [&](const std::string&) {
    flow.Halt();
    halted = true;
  });
  runner.Define("watch", [&](const std::string& arguments) {
    std::istringstream in(arguments);
    std::string name, keeps;
    int code = 0, opcode = 0;
    in >> name >> std::hex >> code >> opcode >> keeps;
    watchers[name] =
        std::make_unique<NotingWatcher>(flow, name, static_cast<uint8_t>(code),
                                        static_cast<uint16_t>(opcode), keeps == "keeps", calls);
    flow.RegisterEventWatcher(watchers[name].get());
  });
  runner.Define("register", [&](const std::string& name) {
    flow.RegisterEventWatcher(watchers.at(name).get());
  });
  runner.Define("unregister", [&](const std::string& name) {
    flow.UnregisterEventWatcher(watchers.at(name).get());
  });
  runner.Define("calls", [&](const std::string& names) {
    EXPECT_EQ(std::exchange(calls, {}), test::SplitTrimmed(names, ','));
  });
  runner.Run(sequence.fields[0] + " ; wire");
}

TEST(FlowControl, SequencesAreExact) {
  for (const test::Vector& v : test::LoadVectors("flow_control.txt")) Play(v);
}

TEST(FlowControl, WatchersAreCalledAsDerived) {
  for (const test::Vector& v : test::LoadVectors("flow_watchers.txt")) Play(v);
}

TEST(FlowControl, TooManyWaitingCommands_AreRefused) {
  UartRig rig;
  ASSERT_TRUE(rig.Open());
  const size_t limit = HciFlowControl::kMaxWaiting;
  EXPECT_EQ(Send(*rig.flow(), 1, "03 0C 00"), 4u) << "goes out, and is never answered";
  for (size_t i = 0; i < limit; ++i) ASSERT_EQ(Send(*rig.flow(), 1, "09 10 00"), 3u);
  EXPECT_EQ(Send(*rig.flow(), 1, "09 10 00"), 0u);
}

TEST(FlowControl, HaltedCalls_WarnWithTheirName) {
  UartRig rig;
  ASSERT_TRUE(rig.Open());
  HciFlowControl& flow = *rig.flow();
  flow.Halt();
  testing::internal::CaptureStderr();
  NotingWatcher::Notes calls;
  NotingWatcher watcher(flow, "w", 0xFF, 0, false, calls);
  Send(flow, 1, "03 0C 00");
  flow.SendNoAck(1, test::ParseHex("03 0C 00").data(), 3);
  flow.RegisterEventWatcher(&watcher);
  flow.UnregisterEventWatcher(&watcher);
  flow.Halt();
  EXPECT_FALSE(flow.HciEventPreProcess(test::ToVec({0xFF, 0x01, 0x58})));
  flow.HciEventPostProcess(test::ToVec({0xFF, 0x01, 0x58}));
  const std::string log = testing::internal::GetCapturedStderr();
  for (const char* operation :
       {"Send", "SendNoAck", "RegisterEventWatcher", "UnregisterEventWatcher", "Halt",
        "HciEventPreProcess", "HciEventPostProcess"}) {
    EXPECT_THAT(log, HasSubstr(std::string(" ") + operation + ": called after being halted!"));
  }
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
    // Whoever kept the object beyond the closing of the transport meets a halted one.
    EXPECT_EQ(Send(*flow, 1, "03 0C 00") + Send(*flow, 2, "40 20 01 00 AA"), 0u);
  }
}

CHILD_CASE(DeliverEvent) {
  UartRig rig;
  if (!rig.Open()) return 1;
  test::PrintReports();
  const Bytes event = test::ParseHex(arguments[0]);
  NotingWatcher::Notes calls;
  NotingWatcher watcher(*rig.flow(), "delivered", event.empty() ? 0 : event[0], 0, true, calls);
  rig.flow()->RegisterEventWatcher(&watcher);
  rig.flow()->OnHciEventReady(test::ToVec(event), [](const hidl_vec<uint8_t>&) {});
  return 0;
}

TEST(FlowControl, InvalidEvent_IsReportedAndDeliveredNowhere) {
  for (const test::Vector& v : test::LoadVectors("invalid_events.txt")) {
    SCOPED_TRACE(v.name);
    test::CrashRoot root;
    test::WriteConfiguration(root.path());
    const test::ChildRun run = test::RunChild("DeliverEvent", root.path(), {v.fields[0]});
    test::ExpectReport(130, v.fields[1], run, root);
  }
}

}  // namespace
