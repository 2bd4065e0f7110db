#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <sstream>
#include <thread>

#include "bthal/child_case.h"
#include "bthal/notes.h"
#include "bthal/report_check.h"
#include "bthal/sequence_runner.h"
#include "bthal/uart_rig.h"
#include "hci_flow_control.h"

namespace {

using android::hardware::hidl_vec;
using android::hardware::bluetooth::hci::HciEventWatcher;
using android::hardware::bluetooth::hci::HciFlowControl;
using test::Bytes;
using test::UartRig;

size_t Send(HciFlowControl& flow, uint8_t type, const std::string& hex) {
  const Bytes packet = test::ParseHex(hex);
  return flow.Send(type, packet.data(), packet.size());
}

// Notes its calls in a list shared by several. Unregisters itself at its end.
class NotingWatcher final : public HciEventWatcher {
 public:
  NotingWatcher(HciFlowControl& flow, const std::string& name, uint8_t code, uint16_t opcode,
                bool keeps, test::Notes& calls)
      : HciEventWatcher(name.c_str(), code, opcode), flow_(flow), keeps_(keeps), calls_(calls) {}
  ~NotingWatcher() override { flow_.UnregisterEventWatcher(this); }
  bool OnEventReceive(const hidl_vec<uint8_t>&) override {
    calls_.Add(name());
    return keeps_;
  }
  void OnHalt() override { calls_.Add(name() + "!"); }

 private:
  HciFlowControl& flow_;
  const bool keeps_;
  test::Notes& calls_;
};

// Plays a sequence over a real tty.
void Play(const test::Vector& sequence) {
  SCOPED_TRACE(sequence.name);
  test::SequenceRunner runner("bthal.flowcontrol");
  HciFlowControl& flow = runner.flow();
  test::Notes calls;
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
    EXPECT_EQ(calls.Take(), test::SplitTrimmed(names, ','));
  });
  runner.Run(sequence.fields[0] + " ; wire");
}

TEST(FlowControl, SequencesAreExact) {
  for (const char* file : {"flow_control.txt", "flow_watchers.txt"}) {
    for (const test::Vector& v : test::LoadVectors(file)) Play(v);
  }
}

// A controller that takes no data before its own is read.
TEST(FlowControl, DataThatIsHeldUp_LetsEventsPass) {
  std::atomic<bool> inside{false}, passed{false};
  const auto nothing = [](const auto&) {};
  const auto flow = HciFlowControl::Create({nothing, nothing, nothing, nothing},
                                           {[&](uint8_t, const uint8_t*, size_t length, bool) {
                                              inside = true;
                                              EXPECT_TRUE(test::WaitFor([&] { return !!passed; }));
                                              return length;
                                            },
                                            [] {}});
  flow->Connect(nothing);
  std::thread sender([&] { EXPECT_EQ(Send(*flow, 2, "01 00 00 00"), 4u); });
  EXPECT_TRUE(test::WaitFor([&] { return !!inside; }));
  flow->OnHciEventReady(test::ToVec(test::ParseHex("13 05 01 01 00 01 00")), nothing);
  passed = true;
  sender.join();
}

TEST(FlowControl, TooManyWaitingCommands_AreRefused) {
  UartRig rig;
  ASSERT_TRUE(rig.Open());
  const size_t limit = HciFlowControl::kMaxWaiting;
  EXPECT_EQ(Send(*rig.flow(), 1, "03 0C 00"), 4u) << "goes out, and is never answered";
  for (size_t i = 0; i < limit; ++i) ASSERT_EQ(Send(*rig.flow(), 1, "09 10 00"), 3u);
  EXPECT_EQ(Send(*rig.flow(), 1, "09 10 00"), 0u);
}

CHILD_CASE(DeliverEvent) {
  UartRig rig;
  if (!rig.Open()) return 1;
  test::PrintReports();
  const Bytes event = test::ParseHex(arguments[0]);
  test::Notes calls;
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
