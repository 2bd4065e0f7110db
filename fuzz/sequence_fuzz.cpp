// The service between its transport and its clients: flow control, every watcher of events, the
// extensions, as they are called. An input is a row of events as they come; those of three codes
// are other steps: 00 LENGTH COMMAND, a command of the stack; 01 N SERVICE METHOD PARCEL, a
// client's call with a parcel of 4 * N bytes (the corpus has one of each); 02 STEP, one of Step.
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <hidl/HidlTransportSupport.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include "bluetooth_Activity.h"
#include "bluetooth_ccc.h"
#include "bluetooth_ewp.h"
#include "bluetooth_sar.h"
#include "bt_channel_avoidance.h"
#include "bthal/command_sender.h"
#include "controller_activity_watcher.h"
#include "debug_central.h"
#include "extensions.h"
#include "hci_inject.h"
#include "root_folder/root_folder.h"
#include "target.h"

namespace {

using namespace android::hardware::bluetooth;
using activitywatcher::ControllerActivityWatcher;
using android::sp;
using android::hardware::hidl_vec;
using android::hardware::IBinder;
using android::hardware::Parcel;
using android::hardware::Return;
using V1_1::zvkbtlinux::activity::BtActivitiesLogger;
using V1_1::zvkbtlinux::debug::DebugCentral;
namespace vendor = ::hardware::nuvexa::bluetooth;
namespace ccc = vendor::ccc;
using vendor::bt_channel_avoidance::V1_0::implementation::BTChannelAvoidance;
using vendor::ewp::V1_0::implementation::BluetoothEwp;
using vendor::ext::V1_0::implementation::BluetoothExt;
using vendor::sar::V1_1::implementation::BluetoothSar;

enum Step : uint8_t {
  kOffAndOn,
  kLineStuck,  // or free again
  kClientDies,
  kStates,  // the provider asks for them
  kReport,
  kDumps,  // can be written from here on: each takes a thousand times as long as an event
  kData,
};

using Address = android::hardware::hidl_array<uint8_t, 6>;

// A client of link-layer events; dies when told to.
class CccClient : public ccc::V1_1::IBluetoothCccCallback {
 public:
  void Die() {
    for (const auto& recipient : std::exchange(recipients_, {})) recipient->serviceDied(0, this);
  }

 private:
  using Recipient = sp<android::hardware::hidl_death_recipient>;
  Return<void> lmpEventReceived(const ccc::V1_0::Timestamp&, const Address&, ccc::V1_0::Direction,
                                ccc::V1_0::LmpEventId, uint16_t) override {
    return {};
  }
  Return<void> lmpEventReceived_1_1(const ccc::V1_1::Timestamp&, const Address&,
                                    ccc::V1_0::Direction, ccc::V1_0::LmpEventId,
                                    uint16_t) override {
    return {};
  }
  Return<bool> linkToDeath(const Recipient& recipient, uint64_t) override {
    recipients_.push_back(recipient);
    return true;
  }
  std::vector<Recipient> recipients_;
};

template <typename Interface>
sp<IBinder> BinderOf(Interface* service) {
  return android::hardware::toBinder<Interface>(sp<Interface>(service));
}

constexpr uint8_t kInject = 4;  // this service waits for an answer unless sending fails
constexpr uint16_t kOwnOpcodes[] = {0x0C3F, 0xFE69, 0xFE20, 0xFD63, 0xFD59};

std::string DumpFolder() { return root_folder::Resolve("/data/vendor/ssrdump"); }

class Service {
 public:
  // Bluetooth stays on from input to input: to go on and off takes threads.
  Service() {
    fuzz::LogEverything();
    fuzz::Put("/proc/bluetooth/timesync", "");
    SwitchOn();
  }

  void Begin() { DebugCentral::Get().StartMonitor(flow_.get()); }

  // Leaves nothing of an input for the next one.
  void End() {
    stuck_ = failed_ = false;
    client_->Die();
    while (outstanding_) Answer(opcode_);
    for (; calls_ > 0; --calls_) {
      for (const uint16_t opcode : kOwnOpcodes) Answer(opcode);
    }
    Handle({0x0E, 14, 0x01, 0x53, 0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x01});
    DebugCentral::Get().StopMonitor();
    switches_ = 0;
    if (std::exchange(dumps_, false)) std::filesystem::remove_all(DumpFolder());
  }

  void Handle(const hidl_vec<uint8_t>& event) {
    if (outstanding_ && hci::hci_event_extract_command_opcode(event) == opcode_) {
      outstanding_ = false;
    }
    bool told = false;
    flow_->OnHciEventReady(event, [&](const hidl_vec<uint8_t>& same) {
      fuzz::Require(!told && same == event, "an event reaches the stack once, as it came");
      told = true;
      BtActivitiesLogger::GetInstacne()->LogActivities(hci::HCI_PACKET_TYPE_EVENT, same);
    });
  }

  void Command(const hidl_vec<uint8_t>& packet) {
    if (!hci::LengthIsRight(hci::HCI_PACKET_TYPE_COMMAND, packet.data(), packet.size())) return;
    BtActivitiesLogger::GetInstacne()->LogActivities(hci::HCI_PACKET_TYPE_COMMAND, packet);
    flow_->Send(hci::HCI_PACKET_TYPE_COMMAND, packet.data(), packet.size());
  }

  void Call(uint8_t service, uint8_t method, const std::string& bytes) {
    if (service >= binders_.size() || (service == kInject && !failed_)) return;
    ++calls_;
    Parcel data, reply;
    data.receive(bytes.data(), bytes.size(), {},
                 {BinderOf<ccc::V1_1::IBluetoothCccCallback>(client_.get())});
    binders_[service]->transact(method, data, &reply, 0, [](Parcel&) {});
  }

  void Take(Step step) {
    BtActivitiesLogger& activities = *BtActivitiesLogger::GetInstacne();
    const hidl_vec<uint8_t> data = {0x01, 0x2E, 0x02, 0x00, 0x55, 0xAA};
    std::vector<activitywatcher::StateResidency> states;
    switch (step) {
      case kOffAndOn:
        if (++switches_ > 2) return;
        SwitchOff();
        SwitchOn();
        return Begin();
      case kLineStuck:
        stuck_ = !stuck_;
        failed_ = false;
        return;
      case kClientDies:
        return client_->Die();
      case kStates:
        ++calls_;
        watcher_->getStateResidency(&states);
        return fuzz::Require(states.size() == 4, "there are four states");
      case kReport:
        return activities.DumpBtActivitiesStatistics(nowhere_.get());
      case kDumps:
        dumps_ = std::filesystem::create_directories(DumpFolder() + "/coredump") || dumps_;
        return;
      case kData:
        activities.LogActivities(hci::HCI_PACKET_TYPE_ACL_DATA, data);
        BluetoothEwp::PrintEwpLogging(BluetoothEwp::kAclData, data);
        return;
    }
  }

 private:
  void SwitchOn() {
    flow_ = hci::HciFlowControl::Create({}, {[this](uint8_t, const uint8_t* packet, size_t length,
                                                    bool) { return Write(packet, length); },
                                             [] {}});
    flow_->Connect([](const auto&) {});
    outstanding_ = false;
    EnableExtensions(flow_.get());
    flow_->RegisterEventWatcher(watcher_.get());
    hal_->Use(flow_);
    watcher_->startWatcher();
  }
  void SwitchOff() {
    DebugCentral::Get().StopMonitor();
    watcher_->stopWatcher();
    flow_->UnregisterEventWatcher(watcher_.get());
    hal_->Use(nullptr);
    DisableExtensions();
    flow_->Halt();
    fuzz::Require(flow_.use_count() == 1, "nobody keeps the flow control once Bluetooth is off");
  }

  void Answer(uint16_t opcode) {
    Handle({0x0E, 0x04, 0x01, static_cast<uint8_t>(opcode), static_cast<uint8_t>(opcode >> 8), 0});
  }

  size_t Write(const uint8_t* packet, size_t length) {
    fuzz::Require(!outstanding_, "one command is under way at a time");
    outstanding_ = true;
    opcode_ = static_cast<uint16_t>(packet[0] | packet[1] << 8);
    failed_ = stuck_;
    return stuck_ ? 0 : length;
  }

  const sp<test::CommandSender> hal_ = new test::CommandSender;
  const std::shared_ptr<ControllerActivityWatcher> watcher_ =
      ndk::SharedRefBase::make<ControllerActivityWatcher>(hal_);
  const sp<CccClient> client_ = new CccClient;
  const std::vector<sp<IBinder>> binders_ = {
      BinderOf<vendor::bt_channel_avoidance::V1_0::IBTChannelAvoidance>(new BTChannelAvoidance),
      BinderOf<vendor::sar::V1_1::IBluetoothSar>(new BluetoothSar),
      BinderOf<vendor::ewp::V1_0::IBluetoothEwp>(new BluetoothEwp),
      BinderOf<ccc::V1_1::IBluetoothCcc>(new ccc::V1_1::implementation::BluetoothCcc),
      BinderOf<vendor::ext::V1_0::IBluetoothExt>(new BluetoothExt),
      BinderOf<V1_1::IBluetoothHci>(hal_.get()),
  };
  const android::base::unique_fd nowhere_{open("/dev/null", O_WRONLY | O_CLOEXEC)};
  std::shared_ptr<hci::HciFlowControl> flow_;
  bool outstanding_ = false;
  uint16_t opcode_ = 0;
  bool stuck_ = false;   // the line
  bool failed_ = false;  // the last command, and so do others
  int calls_ = 0;
  int switches_ = 0;
  bool dumps_ = false;
};

}  // namespace

std::vector<std::string> fuzz::Seeds() {
  std::vector<std::string> seeds;
  for (const char* file :
       {"flow_control.txt", "flow_watchers.txt", "invalid_events.txt", "quality_reports.txt",
        "debug_events.txt", "ccc.txt", "ewp.txt", "sar.txt", "residency.txt"}) {
    Append(&seeds, Packets(file));
  }
  Append(&seeds, Packets("activity_packets.txt", 1));
  Append(&seeds, Prefixed({2, kDumps}, Packets("debug_events.txt")));
  return seeds;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static auto* const service = new Service;
  fuzz::Input input(data, size);
  service->Begin();
  try {
    while (!input.empty()) {
      const uint8_t code = input.Byte(), length = input.Byte();
      if (code == 1) {
        const uint8_t called = input.Byte(), method = input.Byte();
        service->Call(called, method, input.Take(length * 4u));
      } else if (code == 2) {
        service->Take(static_cast<Step>(length));
      } else {
        const std::string rest = input.Take(length);
        std::vector<uint8_t> packet(rest.begin(), rest.end());
        if (code == 0) {
          service->Command(packet);
        } else {
          packet.insert(packet.begin(), {code, length});
          service->Handle(packet);
        }
      }
    }
  } catch (const fuzz::Fatal&) {
  }
  service->End();
  return 0;
}
