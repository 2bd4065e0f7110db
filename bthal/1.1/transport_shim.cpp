#define LOG_TAG "bthal.shim"

#include "transport_shim.h"

#include <android-base/properties.h>
#include <log/log.h>
#include <poll.h>

#include <atomic>
#include <mutex>

#include "base/teardown_gate.h"
#include "chre/qvr_helper.h"
#include "conf.h"
#include "h4/hw_control.h"
#include "tap/tap.h"
#include "transport/uart_transport.h"

namespace android::hardware::bluetooth::hci::shim {
namespace {

constexpr uint16_t kOpcodeSetExtendedScanEnable = 0x2042;

// Built on first use, never destroyed.
struct Shim {
  Shim() { QvrHelper::Get().SetLostHandler(CatchException); }

  UartTransport uart{{CatchException, IsInitialized}};
  std::atomic<Transport*> transport{&uart};
  std::atomic<uint32_t> userial_type{kUserialClosed};
  TeardownGate gate;  // opening and closing, one at a time
  Owner owner;        // written before anything is opened
  std::mutex lock;    // a leaf
  std::shared_ptr<HciFlowControl> flow_control GUARDED_BY(lock);
  TransportState told GUARDED_BY(lock);  // what CurrentState() cannot ask the transport for

  void Select(const TransportSettings& settings) {
    const uint32_t type = settings.userial_type;
    {
      std::lock_guard<std::mutex> guard(lock);
      told = {};
      told.uart_port = settings.uart_port;
      if (type == kUserialTty) told.line_baud = static_cast<uint32_t>(UartBaudRate::kRate115200);
    }
    userial_type = type;
    transport = type == kUserialCoProcessor ? static_cast<Transport*>(&QvrHelper::Get()) : &uart;
  }
};

Shim& State() {
  static auto* shim = new Shim;
  return *shim;
}

Transport& OpenTransport() { return *State().transport.load(std::memory_order_acquire); }

TransportSettings ReadSettings() {
  const auto* config = conf::Config::GetInstance();
  if (base::GetBoolProperty("persist.bluetooth.ulk.path.enabled", false)) {
    return {kUserialCoProcessor, ""};
  }
  return {static_cast<uint32_t>(config->userial_type()), config->uart_port()};
}

// receiver, with the tap before it.
PacketReceiver Tapped(HciPacketType type, PacketReceiver receiver) {
  if (!receiver) return receiver;
  return [type, receiver = std::move(receiver),
          &tap = tap::Tap::Get()](const hidl_vec<uint8_t>& packet) {
    tap.Packet(type, true, packet.data(), packet.size());
    receiver(packet);
  };
}

void ConnectTapped(const PacketReceivers& receivers) {
  OpenTransport().Connect({Tapped(HCI_PACKET_TYPE_EVENT, receivers.event),
                           Tapped(HCI_PACKET_TYPE_ACL_DATA, receivers.acl),
                           Tapped(HCI_PACKET_TYPE_SCO_DATA, receivers.sco),
                           Tapped(HCI_PACKET_TYPE_ISO_DATA, receivers.iso)});
}

// Behind the gate.
void CloseTransport(Shim& state) {
  Transport& transport = OpenTransport();
  transport.Stop();
  std::shared_ptr<HciFlowControl> flow;
  {
    std::lock_guard<std::mutex> guard(state.lock);
    flow.swap(state.flow_control);
  }
  if (flow != nullptr) {
    flow->Halt();
    DeinitializeCallback();
    flow.reset();
  }
  transport.Close();
  state.Select({kUserialClosed, ""});
}

}  // namespace

void SetOwner(Owner owner) { State().owner = std::move(owner); }

std::shared_ptr<HciFlowControl> InitializeHciHandle(const PacketReceiver& event_cb,
                                                    const PacketReceiver& acl_cb,
                                                    const PacketReceiver& sco_cb,
                                                    const PacketReceiver& iso_cb) {
  Shim& state = State();
  const TeardownGate::Passage passage(state.gate);
  if (!passage) return nullptr;
  const TransportSettings settings = ReadSettings();
  state.Select(settings);
  Transport& transport = OpenTransport();
  if (!transport.Open(settings)) return nullptr;

  std::shared_ptr<HciFlowControl> flow = HciFlowControl::Create(
      {event_cb, acl_cb, sco_cb, iso_cb}, {Send, state.owner.wake_up, state.owner.sent});
  {
    std::lock_guard<std::mutex> guard(state.lock);
    state.flow_control = flow;
  }
  flow->Connect(ConnectTapped);
  if (transport.Start()) return flow;
  ALOGE("%s: the port cannot be read, Bluetooth stays off", __func__);
  CloseTransport(state);
  return nullptr;
}

void Deinitialize() {
  ALOGI("%s", __func__);
  const TeardownGate::Passage passage(State().gate);
  if (passage) CloseTransport(State());
}

void InitializeCallback(const PacketReceiver& event_cb, const PacketReceiver& acl_cb,
                        const PacketReceiver& sco_cb, const PacketReceiver& iso_cb) {
  ConnectTapped({event_cb, acl_cb, sco_cb, iso_cb});
}

void DeinitializeCallback() { OpenTransport().Disconnect(); }

size_t Send(uint8_t type, const uint8_t* data, size_t length, bool flag) {
  if (type == HCI_PACKET_TYPE_COMMAND && length >= 2 &&
      (data[0] | data[1] << 8) == kOpcodeSetExtendedScanEnable) {
    ALOGI("%s: TX command 0x%2X", __func__, kOpcodeSetExtendedScanEnable);
  }
  tap::Tap::Get().Packet(type, false, data, length);
  return OpenTransport().Send(type, data, length, flag);
}

void BaudrateChange(UartBaudRate rate) {
  OpenTransport().BaudrateChange(rate);
  tap::Tap::Get().State("line_baud", std::to_string(static_cast<uint32_t>(rate)));
  std::lock_guard<std::mutex> guard(State().lock);
  State().told.line_baud = static_cast<uint32_t>(rate);
}
uint32_t RequiredBaudRate() { return OpenTransport().RequiredBaudRate(); }

bool LpmSetup() { return OpenTransport().LpmSetup(); }
void LpmTeardown() { OpenTransport().LpmTeardown(); }
bool LpmSuspend() { return OpenTransport().LpmSuspend(); }
bool LpmWakeUp() { return OpenTransport().LpmWakeUp(); }
bool IsLpmRunning() { return OpenTransport().IsLpmRunning(); }

uint32_t GetUserialType() { return State().userial_type; }
bool IsUserialAutoInit() { return GetUserialType() == kUserialAutoInit; }
bool SupportBaudRateChange() { return GetUserialType() != kUserialAutoInit; }
bool IsUserialReady() { return OpenTransport().IsReady(); }

bool IsInitialized() {
  std::lock_guard<std::mutex> guard(State().lock);
  return State().flow_control != nullptr && IsUserialReady();
}

TransportState CurrentState() {
  TransportState now;
  {
    std::lock_guard<std::mutex> guard(State().lock);
    now = State().told;
  }
  now.userial_type = GetUserialType();
  now.ready = IsUserialReady();
  pollfd port{hwcontrol::BtHwControl::Get().UartFd(), 0, 0};  // -1: poll() leaves it out
  if (poll(&port, 1, 0) > 0 && now.loss.empty()) now.loss = "the far end of the port is gone";
  now.low_power = IsLpmRunning();
  return now;
}

bool GetTlDebugDump(int fd, const std::string& first, const std::string& second) {
  return OpenTransport().DebugDump(fd, first, second);
}

void CatchException(BqrErrorCode code, const std::string& reason) {
  State().owner.shut_down();
  {
    std::lock_guard<std::mutex> guard(State().lock);
    State().told.loss = reason;
  }
  if (OpenTransport().Abandon(code, reason)) Deinitialize();
}

}  // namespace android::hardware::bluetooth::hci::shim
