// The table of a scenario's actions. docs/simulator.md describes each.

#include <algorithm>

#include "sim/controller/quality_reports.h"
#include "sim/handset/handset.h"

namespace zvk {
namespace {

constexpr uint16_t kTraceHandle = 0x0040;
constexpr uint32_t kDumpBytes = 4096;
constexpr uint32_t kDefaultRecordBytes = 40;

Bytes RandomBytes(std::mt19937& random, size_t size) {
  Bytes bytes(size);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  return bytes;
}

Address AddressOf(const Arguments& a) { return AddressAt(a.bytes, 0); }

// An action of a part that is not always there.
template <typename Part, typename Run>
ActionType::Act With(std::unique_ptr<Part> Handset::*part, const char* absent, Run run) {
  return [part, absent, run](Handset& handset, const Arguments& arguments) {
    if (!(handset.*part)) throw NoSuchPart(absent);
    run(*(handset.*part), arguments);
  };
}

}  // namespace

const std::vector<ActionType>& Handset::ActionTypes() {
  using A = Argument;
  constexpr auto kAnyAnswer = ActionType::Answer::kOfAnything;
  constexpr auto kAnswer = ActionType::Answer::kOfCommand;
  const auto controller = [](auto run) {
    return With(&Handset::controller_, "the controller has no power", run);
  };
  const auto co_processor = [](auto run) {
    return With(&Handset::co_processor_, "there is no co-processor", run);
  };
  using Fault = CommandFault;
  using Values = const Arguments;
  static const std::vector<ActionType> kTypes = {
      // Changes to the answer of the command or the request that triggers the step.
      {"no-answer", {}, kAnyAnswer, [](Fault& f, Values&) { f.no_answer = true; }},
      {"late", {{A::kTime}}, kAnyAnswer, [](Fault& f, Values& a) { f.late = a.time; }},
      {"lost", {}, kAnyAnswer, [](Fault& f, Values&) { f.change.lost = true; }},
      {"status", {{A::kByte}}, kAnyAnswer, [](Fault& f, Values& a) { f.change.status = a.byte(); }},
      {"wrong-opcode",
       {{A::kOpcode, 0x0C7F}},
       kAnswer,
       [](Fault& f, Values& a) { f.change.opcode = static_cast<uint16_t>(a.number); }},
      {"zero-credits", {}, kAnswer, [](Fault& f, Values&) { f.change.credits = uint8_t{0}; }},
      {"credits", {{A::kByte}}, kAnswer, [](Fault& f, Values& a) { f.change.credits = a.byte(); }},
      {"answer",
       {{A::kHex, 0}},
       kAnswer,
       [](Fault& f, Values& a) { f.change.parameters = a.bytes; }},
      {"command-status",
       {{A::kByte, 0}},
       kAnswer,
       [](Fault& f, Values& a) { f.change.event_status = a.byte(); }},
      {"twice", {}, kAnswer, [](Fault& f, Values&) { f.change.twice = true; }},
      {"truncated", {}, kAnswer, [](Fault& f, Values&) { f.change.truncated = true; }},

      // By the handset, at any time.
      {"hangup", {}, [](Handset& h, Values&) { h.HangUp(); }},
      {"silence", {{A::kTime, 0}}, [](Handset& h, Values& a) { h.line_.BeSilent(a.time); }},
      {"hang", {{A::kTime, 0}}, [](Handset& h, Values& a) { h.Hang(a.time); }},
      {"stray", {{A::kByte}}, [](Handset& h, Values& a) { h.uart_.Send(Writer{a.byte()}); }},
      // Announces more bytes than there are: what follows is taken for the rest of this event.
      {"truncated-event",
       {},
       [](Handset& h, Values&) {
         h.uart_.Send(Writer{static_cast<uint8_t>(PacketType::kEvent), event::kVendor, 0x20, 0x00});
       }},
      {"hardware-error",
       {{A::kByte}},
       [](Handset& h, Values& a) {
         h.SendToHost(PacketType::kEvent, Writer{event::kHardwareError, 1, a.byte()});
       }},
      {"inject", {{A::kHex}}, [](Handset& h, Values& a) { h.uart_.Send(a.bytes); }},
      {"coex", {{A::kByte}}, [](Handset& h, Values& a) { h.coex_.Notify(a.byte()); }},
      {"coex-message", {{A::kHex}}, [](Handset& h, Values& a) { h.coex_.Send(a.bytes); }},
      {"coex-hangup", {}, [](Handset& h, Values&) { h.coex_.HangUp(); }},
      {"timesync",
       {{A::kMicroseconds}},
       [](Handset& h, Values& a) { h.time_sync_.Record(a.number); }},
      {"noise",
       {{A::kCount}},
       [](Handset& h, Values& a) { h.uart_.Send(RandomBytes(h.random_, a.number)); }},
      {"split",
       {{A::kCount}, {A::kTime, 5}},
       [](Handset& h, Values& a) { h.line_.SplitAfter(a.number, a.time); }},
      {"merge",
       {{A::kCount}, {A::kTime, 100}},
       [](Handset& h, Values& a) { h.line_.Merge(a.number, a.time); }},
      {"speed", {{A::kSpeed}}, [](Handset& h, Values& a) { h.SetSpeed(a.number); }},
      {"warm-up", {{A::kTime}}, [](Handset& h, Values& a) { h.warm_up_ = a.time; }},
      {"brown-out", {}, [](Handset& h, Values&) { h.BrownOut(); }},

      // By the co-processor.
      {"co-absent", {{A::kTime, 0}}, co_processor([](CoProcessor& c, Values& a) {
         c.Leave(a.time);
       })},
      {"co-disconnect", {}, co_processor([](CoProcessor& c, Values&) { c.Disconnect(); })},
      {"co-garbage",
       {{A::kCount}},
       [](Handset& h, Values& a) {
         if (!h.co_processor_) throw NoSuchPart("there is no co-processor");
         h.co_processor_->SendRaw(RandomBytes(h.random_, a.number));
       }},
      {"co-table", {{A::kByte}, {A::kHex, 0}}, co_processor([](CoProcessor& c, Values& a) {
         c.SendTable(a.number, a.bytes);
       })},
      {"co-event", {{A::kByte}, {A::kHex, 0}}, co_processor([](CoProcessor& c, Values& a) {
         c.SendEvent(a.byte(), a.bytes);
       })},
      {"co-truncated", {}, co_processor([](CoProcessor& c, Values&) { c.SendTruncatedEvent(); })},

      // By the controller while it has power.
      {"grant", {{A::kByte}}, controller([](Controller& c, Values& a) {
         c.out().GrantCredits(a.byte());
       })},
      {"crash", {{A::kByte}, {A::kByte}}, controller([](Controller& c, Values& a) {
         c.debug().Crash(a.byte(), static_cast<uint8_t>(a.second));
       })},
      {"debug-info", {{A::kCount, kDumpBytes}}, controller([](Controller& c, Values& a) {
         c.debug().DebugInfo(a.number);
       })},
      {"soc-dump", {{A::kCount, kDumpBytes}}, controller([](Controller& c, Values& a) {
         c.debug().SocDump(a.number);
       })},
      {"chre-dump", {{A::kCount, kDumpBytes}}, controller([](Controller& c, Values& a) {
         c.debug().ChreDump(a.number);
       })},
      {"quality", {{A::kReport}, {A::kHandle, 0x0040}}, controller([](Controller& c, Values& a) {
         c.out().Event(event::kVendor, LinkQualityReport(a.byte(), static_cast<uint16_t>(a.second),
                                                         c.chip().vendor_version));
       })},
      {"latency-trace",
       {{A::kByte}, {A::kByte, UINT32_MAX}},
       controller([](Controller& c, Values& a) {
         c.out().Event(event::kVendor,
                       LatencyTrace(kTraceHandle, a.byte(), std::min(a.number, a.second)));
       })},
      {"link-layer",
       {{A::kAddress}, {A::kLinkEvent}, {A::kDirection, 0}},
       controller([](Controller& c, Values& a) {
         c.ccc().OnLinkLayer(AddressOf(a), a.byte(), static_cast<CccCommands::Direction>(a.second),
                             0);
       })},
      {"toggle", {{A::kByte, 1}}, controller([](Controller& c, Values& a) {
         c.ccc().Toggle(a.number);
       })},
      {"ewp", {{A::kRecordBytes, kDefaultRecordBytes}}, controller([](Controller& c, Values& a) {
         c.ewp().Record(PacketType::kAcl, a.number);
       })},
      {"ewp-iso",
       {{A::kRecordBytes, kDefaultRecordBytes}},
       controller([](Controller& c, Values& a) { c.ewp().Record(PacketType::kIso, a.number); })},
      {"activity",
       {{A::kActivityState}, {A::kCount}, {A::kTime}},
       controller([](Controller& c, Values& a) {
         c.activity().Add(static_cast<ActivityCounters::State>(a.number), a.second, a.time);
       })},
  };
  return kTypes;
}

}  // namespace zvk
