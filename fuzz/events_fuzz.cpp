// Events through the flow control, with everybody who watches them, while a stack and clients of
// the extensions call. An input is a row of events as they come; those of two codes are calls
// instead: 00 LENGTH COMMAND is a command of the stack, 01 LENGTH CALL ARGUMENTS a call of a
// client.
#include <android-base/unique_fd.h>
#include <fcntl.h>
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
#include "root_folder/root_folder.h"
#include "support/vectors.h"
#include "target.h"

namespace {

using namespace android::hardware::bluetooth;
using activitywatcher::ControllerActivityWatcher;
using activitywatcher::StateResidency;
using android::sp;
using android::hardware::hidl_vec;
using android::hardware::Return;
using V1_1::zvkbtlinux::activity::BtActivitiesLogger;
using V1_1::zvkbtlinux::debug::DebugCentral;
namespace vendor = ::hardware::nuvexa::bluetooth;
namespace ccc = vendor::ccc;
using vendor::bt_channel_avoidance::V1_0::implementation::BTChannelAvoidance;
using vendor::ewp::V1_0::implementation::BluetoothEwp;
using vendor::sar::V1_1::implementation::BluetoothSar;

using Address = android::hardware::hidl_array<uint8_t, 6>;

class CccClient : public ccc::V1_1::IBluetoothCccCallback {
  Return<void> lmpEventReceived(const ccc::V1_0::Timestamp&, const Address&, ccc::V1_0::Direction,
                                ccc::V1_0::LmpEventId, uint16_t) override {
    return {};
  }
  Return<void> lmpEventReceived_1_1(const ccc::V1_1::Timestamp&, const Address&,
                                    ccc::V1_0::Direction, ccc::V1_0::LmpEventId,
                                    uint16_t) override {
    return {};
  }
};

struct Services {
  const sp<test::CommandSender> hal = new test::CommandSender;
  const std::shared_ptr<ControllerActivityWatcher> watcher =
      ndk::SharedRefBase::make<ControllerActivityWatcher>(hal);
  const sp<BTChannelAvoidance> channels = new BTChannelAvoidance;
  const sp<BluetoothSar> caps = new BluetoothSar;
  const sp<BluetoothEwp> ewp = new BluetoothEwp;
  const sp<ccc::V1_1::implementation::BluetoothCcc> ccc =
      new ccc::V1_1::implementation::BluetoothCcc;
  const sp<CccClient> client = new CccClient;
};

Services& TheServices() {
  static auto* const services = [] {
    fuzz::LogEverything();
    fuzz::Put("/proc/bluetooth/timesync", "");
    return new Services;
  }();
  return *services;
}

constexpr uint16_t kExtensionOpcodes[] = {0x0C3F, 0xFE69, 0xFE20, 0xFD63, 0xFD59};

std::string DumpFolder() { return root_folder::Resolve("/data/vendor/ssrdump"); }

// The service while Bluetooth is on: for all inputs, as going on and off starts threads.
class Service {
 public:
  Service() {
    flow_->Connect([](const auto&) {});
    EnableExtensions(flow_.get());
    flow_->RegisterEventWatcher(services_.watcher.get());
    services_.hal->Use(flow_);
    services_.watcher->startWatcher();
  }
  void Begin() { DebugCentral::Get().StartMonitor(flow_.get()); }
  // Leaves nothing of this input for the next one.
  void End() {
    for (const Address& address : addresses_) services_.ccc->unregisterLmpEvents(address);
    addresses_.clear();
    while (outstanding_) Answer(opcode_);
    for (; calls_ > 0; --calls_) {
      for (const uint16_t opcode : kExtensionOpcodes) Answer(opcode);
    }
    Handle({0x0E, 14, 0x01, 0x53, 0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x01});
    DebugCentral::Get().StopMonitor();
    if (std::exchange(dumps_, false)) std::filesystem::remove_all(DumpFolder());
  }

  void Handle(const hidl_vec<uint8_t>& event) {
    if (outstanding_ && hci::hci_event_extract_command_opcode(event) == opcode_)
      outstanding_ = false;
    told_ = false;
    flow_->OnHciEventReady(event, [&](const hidl_vec<uint8_t>& told) {
      fuzz::Require(!told_ && told == event, "an event reaches the stack once, as it came");
      told_ = true;
      BtActivitiesLogger::GetInstacne()->LogActivities(hci::HCI_PACKET_TYPE_EVENT, told);
    });
  }

  void Command(const hidl_vec<uint8_t>& packet) {
    if (!hci::LengthIsRight(hci::HCI_PACKET_TYPE_COMMAND, packet.data(), packet.size())) return;
    BtActivitiesLogger::GetInstacne()->LogActivities(hci::HCI_PACKET_TYPE_COMMAND, packet);
    DebugCentral::Get().IsControllerDebugDumpOpcode(packet);
    flow_->Send(hci::HCI_PACKET_TYPE_COMMAND, packet.data(), packet.size());
  }

  void Call(fuzz::Input input) {
    const uint8_t call = input.Byte();
    const auto cap = [&] { return static_cast<int8_t>(input.Byte()); };
    Address address;
    for (size_t i = 0; i < address.size(); ++i) address[i] = call < 8 ? input.Byte() : uint8_t{0};
    std::vector<ccc::V1_0::LmpEventId> ids;
    ++calls_;
    switch (call) {
      case 0:
      case 1:
        addresses_.push_back(address);
        while (!input.empty()) ids.push_back(ccc::V1_0::LmpEventId{input.Byte()});
        if (call == 0) services_.ccc->registerForLmpEvents(services_.client, address, ids);
        if (call == 1) services_.ccc->registerForLmpEvents_1_1(services_.client, address, ids);
        break;
      case 2:
        services_.ccc->unregisterLmpEvents(address);
        break;
      case 8:
        services_.caps->setBluetoothTechBasedTxPowerCap(cap(), cap(), cap());
        break;
      case 9:
        services_.channels->setBluetoothChannelStatus({});
        break;
      case 10:
        services_.ewp->EnableEwp(input.Byte());
        break;
      case 11:
        services_.ewp->DisableEwp();
        break;
      case 12: {
        std::vector<StateResidency> states;
        services_.watcher->getStateResidency(&states);
        fuzz::Require(states.size() == 4, "there are four states");
        break;
      }
      case 13: {
        const std::string data = input.Rest();
        const hidl_vec<uint8_t> packet = std::vector<uint8_t>(data.begin(), data.end());
        BtActivitiesLogger::GetInstacne()->LogActivities(hci::HCI_PACKET_TYPE_ACL_DATA, packet);
        BluetoothEwp::PrintEwpLogging(BluetoothEwp::kAclData, packet);
        BluetoothEwp::PrintEwpLogging(BluetoothEwp::kIsoData, packet);
        break;
      }
      case 14: {
        const android::base::unique_fd fd(open("/dev/null", O_WRONLY | O_CLOEXEC));
        BtActivitiesLogger::GetInstacne()->DumpBtActivitiesStatistics(fd.get());
        break;
      }
      case 15:  // a dump takes a thousand times as long as an event: not without this
        dumps_ = true;
        std::filesystem::create_directories(DumpFolder() + "/coredump");
        break;
      default:
        break;
    }
  }

 private:
  void Answer(uint16_t opcode) {
    Handle({0x0E, 0x04, 0x01, static_cast<uint8_t>(opcode), static_cast<uint8_t>(opcode >> 8), 0});
  }

  size_t Write(const uint8_t* packet, size_t length) {
    fuzz::Require(!outstanding_, "one command is under way at a time");
    outstanding_ = true;
    opcode_ = static_cast<uint16_t>(length < 2 ? 0 : packet[0] | packet[1] << 8);
    return length;
  }

  Services& services_ = TheServices();
  const std::shared_ptr<hci::HciFlowControl> flow_ =
      hci::HciFlowControl::Create({}, {[this](uint8_t, const uint8_t* packet, size_t length, bool) {
                                         return Write(packet, length);
                                       },
                                       [] {}});
  bool outstanding_ = false;
  uint16_t opcode_ = 0;
  bool told_ = false;
  int calls_ = 0;
  bool dumps_ = false;
  std::vector<Address> addresses_;
};

}  // namespace

std::vector<std::string> fuzz::Seeds() {
  std::vector<std::string> seeds;
  for (const char* file :
       {"flow_control.txt", "flow_watchers.txt", "invalid_events.txt", "quality_reports.txt",
        "debug_events.txt", "ccc.txt", "ewp.txt", "sar.txt", "residency.txt"}) {
    Append(&seeds, Packets(file));
  }
  const std::vector<std::string> events = seeds;
  Append(&seeds, Prefixed("\x01\x01\x0F", Packets("debug_events.txt")));
  Append(&seeds, Packets("activity_packets.txt", 1));
  // Behind a call of each client.
  std::string calls;
  for (int call : {0, 1, 2, 8, 9, 10, 12, 13, 14}) {
    calls += {1, 11, static_cast<char>(call), 6, 5, 4, 3, 2, 1, 0, 1, 1, 0};
  }
  Append(&seeds, Prefixed(calls, events));
  Append(&seeds, {std::string("\0\x03\x03\x0C\x00\x04\x0E\x04\x01\x03\x0C\x00", 12), calls});
  return seeds;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static auto* const service = new Service;
  fuzz::Input input(data, size);
  service->Begin();
  try {
    while (!input.empty()) {
      const uint8_t code = input.Byte(), length = input.Byte();
      const std::string rest = input.Take(length);
      std::vector<uint8_t> packet(rest.begin(), rest.end());
      if (code == 0) {
        service->Command(packet);
      } else if (code == 1) {
        service->Call({packet.data(), packet.size()});
      } else {
        packet.insert(packet.begin(), {code, length});
        service->Handle(packet);
      }
    }
  } catch (const fuzz::Fatal&) {
  }
  service->End();
  return 0;
}
