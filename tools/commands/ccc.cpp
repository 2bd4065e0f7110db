#include <hardware/nuvexa/bluetooth/ccc/1.1/IBluetoothCcc.h>

#include <algorithm>
#include <cstdio>

#include "tools/base/mailbox.h"
#include "tools/commands/commands.h"
#include "tools/link/extension.h"

namespace bthalctl {
namespace {

using ::android::sp;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::hardware::nuvexa::bluetooth::ccc::V1_0::BluetoothAddress;
using ::hardware::nuvexa::bluetooth::ccc::V1_0::Direction;
using ::hardware::nuvexa::bluetooth::ccc::V1_0::LmpEventId;
using Ccc = ::hardware::nuvexa::bluetooth::ccc::V1_1::IBluetoothCcc;
using Timestamp1_0 = ::hardware::nuvexa::bluetooth::ccc::V1_0::Timestamp;
using Timestamp1_1 = ::hardware::nuvexa::bluetooth::ccc::V1_1::Timestamp;

struct CccOptions : CommandValues {
  std::vector<std::string> addresses;
  std::vector<std::string> events = {"connect", "phy"};
  uint64_t count = 0;  // 0: no end
  double seconds = 0;  // 0: no end
  bool old_interface = false;
};

struct Report {
  enum class Kind { kEvent, kAccepted, kRefused, kServiceDied };
  Kind kind = Kind::kEvent;
  Bytes address;  // least significant byte first
  Direction direction = Direction::TX;
  LmpEventId event = LmpEventId::CONNECT_IND;
  uint16_t counter = 0;
  uint64_t system_time = 0;
  uint64_t bluetooth_time = 0;
};

// What the service calls, on a thread of the HIDL pool.
class Callback : public ::hardware::nuvexa::bluetooth::ccc::V1_1::IBluetoothCccCallback,
                 public ::android::hardware::hidl_death_recipient {
 public:
  Return<void> lmpEventReceived(const Timestamp1_0& time, const BluetoothAddress& address,
                                Direction direction, LmpEventId event, uint16_t counter) override {
    return Put(time.systemTime, time.bluetoothTime, UINT32_MAX, address, direction, event, counter);
  }
  Return<void> lmpEventReceived_1_1(const Timestamp1_1& time, const BluetoothAddress& address,
                                    Direction direction, LmpEventId event,
                                    uint16_t counter) override {
    return Put(time.systemTime, time.bluetoothTime, UINT64_MAX, address, direction, event, counter);
  }
  void serviceDied(uint64_t, const ::android::wp<::android::hidl::base::V1_0::IBase>&) override {
    Report report;
    report.kind = Report::Kind::kServiceDied;
    reports.Put(report);
  }

  Mailbox<Report> reports;

 private:
  // refused: both times of a registration that the controller refused; an accepted one has zeros.
  Return<void> Put(uint64_t system_time, uint64_t bluetooth_time, uint64_t refused,
                   const BluetoothAddress& address, Direction direction, LmpEventId event,
                   uint16_t counter) {
    Report report = {Report::Kind::kEvent,
                     Bytes(address.data(), address.data() + 6),
                     direction,
                     event,
                     counter,
                     system_time,
                     bluetooth_time};
    std::reverse(report.address.begin(), report.address.end());
    if (static_cast<uint8_t>(direction) == 0 && static_cast<uint8_t>(event) == 0 && counter == 0) {
      if (system_time == 0 && bluetooth_time == 0) report.kind = Report::Kind::kAccepted;
      if (system_time == refused && bluetooth_time == refused) {
        report.kind = Report::Kind::kRefused;
      }
    }
    reports.Put(report);
    return Void();
  }
};

std::string Name(LmpEventId event) {
  switch (event) {
    case LmpEventId::CONNECT_IND:
      return "CONNECT_IND";
    case LmpEventId::LL_PHY_UPDATE_IND:
      return "LL_PHY_UPDATE_IND";
  }
  return "event " + std::to_string(static_cast<unsigned>(event));
}

std::string Name(Direction direction) {
  switch (direction) {
    case Direction::TX:
      return "TX";
    case Direction::RX:
      return "RX";
  }
  return "direction " + std::to_string(static_cast<unsigned>(direction));
}

void Show(const Report& report, bool as_json) {
  if (report.kind != Report::Kind::kEvent) return;  // of a registration that came late
  if (as_json) {
    const nlohmann::json line = {
        {"address", AddressText(report.address)},  {"event", Name(report.event)},
        {"direction", Name(report.direction)},     {"event_counter", report.counter},
        {"bluetooth_time", report.bluetooth_time}, {"system_time", report.system_time}};
    std::puts(line.dump().c_str());
  } else {
    std::printf("%s  %s %s  connection event %u, bluetooth time %llu, system time %llu\n",
                AddressText(report.address).c_str(), Name(report.event).c_str(),
                Name(report.direction).c_str(), report.counter,
                static_cast<unsigned long long>(report.bluetooth_time),
                static_cast<unsigned long long>(report.system_time));
  }
  std::fflush(stdout);
}

// Registrations, ended with the object if the service is still there.
class Registrations {
 public:
  Registrations(const sp<Ccc>& service, const sp<Callback>& callback)
      : service_(service), callback_(callback) {
    service_->linkToDeath(callback_, 0).isOk();
  }
  ~Registrations() {
    service_->unlinkToDeath(callback_).isOk();
    for (const BluetoothAddress& address : addresses_) {
      service_->unregisterLmpEvents(address).isOk();
    }
  }
  Registrations(const Registrations&) = delete;
  Registrations& operator=(const Registrations&) = delete;

  void Add(const Bytes& little_endian, const hidl_vec<LmpEventId>& events, bool old_interface) {
    BluetoothAddress address;
    std::copy(little_endian.rbegin(), little_endian.rend(), address.data());
    CallOutcome outcome("bthal.ccc");
    if (old_interface) {
      Demand(service_->registerForLmpEvents(callback_, address, events));
    } else {
      Demand(service_->registerForLmpEvents_1_1(callback_, address, events));
    }
    addresses_.push_back(address);
    outcome.Accepted();  // throws when there is no Bluetooth, which the callback does not tell
  }

 private:
  const sp<Ccc> service_;
  const sp<Callback> callback_;
  std::vector<BluetoothAddress> addresses_;
};

// Until deadline; throws when the service dies.
std::optional<Report> Receive(Callback& callback, TimePoint deadline) {
  std::optional<Report> report = callback.reports.Take();
  while (!report && WaitReadable(callback.reports.fd(), deadline)) {
    report = callback.reports.Take();
  }
  if (report && report->kind == Report::Kind::kServiceDied) {
    throw Failure(ExitCode::kNoService, "the service died");
  }
  return report;
}

void WatchEvents(const Options& options, const CccOptions& ccc) {
  std::vector<Bytes> addresses;
  for (const std::string& text : ccc.addresses) {
    const auto address = ParseAddress(text);
    if (!address) {
      throw Failure(ExitCode::kUsage, "\"" + text + "\" is no address such as 11:22:33:44:55:66");
    }
    addresses.push_back(*address);
  }
  std::vector<LmpEventId> events;
  for (const std::string& name : ccc.events) {
    events.push_back(name == "connect" ? LmpEventId::CONNECT_IND : LmpEventId::LL_PHY_UPDATE_IND);
  }

  const auto service = FindExtension<Ccc>(options.wait());
  CatchStopSignals();
  const sp<Callback> callback = new Callback;
  Registrations registrations(service, callback);
  try {
    for (const auto& address : addresses) {
      registrations.Add(address, events, ccc.old_interface);
      std::optional<Report> outcome;
      const TimePoint deadline = Clock::now() + std::chrono::seconds(3);
      do {
        outcome = Receive(*callback, deadline);
        if (!outcome) throw Failure("the registration was not confirmed within 3 s");
        Show(*outcome, ccc.json);
      } while (outcome->kind == Report::Kind::kEvent);
      if (outcome->kind == Report::Kind::kRefused) throw Failure("the controller refused");
      std::fprintf(stderr, "watching %s\n", AddressText(address).c_str());
    }
    const TimePoint deadline = EndAfter(ccc.seconds);
    for (uint64_t shown = 0; ccc.count == 0 || shown < ccc.count;) {
      const auto report = Receive(*callback, deadline);
      if (!report) return;
      Show(*report, ccc.json);
      if (report->kind == Report::Kind::kEvent) ++shown;
    }
  } catch (const Interrupted&) {
    // The way to end it.
  }
}

}  // namespace

void AddCcc(CLI::App& app, const Options& options) {
  CLI::App* const group = app.add_subcommand("ccc", "link-layer events of chosen peers");
  group->require_subcommand(1);
  auto [command, ccc] = AddCommand(*group, options, WatchEvents, "watch",
                                   "register for a peer's events and show them as they come",
                                   "one JSON object per line");
  command.add_option("ADDRESS", ccc.addresses, "of the peers, such as 11:22:33:44:55:66")
      ->type_name("")
      ->required();
  command
      .add_option("-e,--events", ccc.events,
                  "connect (CONNECT_IND), phy (LL_PHY_UPDATE_IND); both when left out")
      ->type_name("NAME")
      ->check(CLI::IsMember({"connect", "phy"}))
      ->default_str("");
  command.add_option("-n,--count", ccc.count, "end after so many events");
  AddSeconds(command, "-t,--time", ccc.seconds, "end after so many seconds; else at Ctrl-C", 0,
             86400);
  command.add_flag("--1-0", ccc.old_interface,
                   "register through version 1.0 of the interface: times of 32 bits");
  command.footer(
      "The Bluetooth time is the controller's clock; the system time is the kernel's time of the\n"
      "same moment (/proc/bluetooth/timesync), less the controller's offset. Without a reading of\n"
      "the kernel's time it is 0 less the offset: a very large number. The connection event is\n"
      "the counter of the one in which the event happened. An address has one registration: a\n"
      "later one, of any client, replaces it. Registrations end with the client and when\n"
      "Bluetooth goes off.\n"
      "Example:\n  bthalctl ccc watch C2:56:4B:AD:00:03 --events connect -n 1");
}

}  // namespace bthalctl
