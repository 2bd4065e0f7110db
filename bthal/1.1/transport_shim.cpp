#define LOG_TAG "bthal.shim"

#include "transport_shim.h"

#include <android-base/properties.h>
#include <log/log.h>

#include <atomic>

#include "async_fd_watcher.h"
#include "btzvk_protocol.h"
#include "chre/qvr_helper.h"
#include "conf.h"
#include "debug_central.h"
#include "h4/h4_protocol.h"
#include "h4/hw_control.h"
#include "teardown_gate.h"

namespace android::hardware::bluetooth::hci::shim {
namespace {

using ::android::hardware::bluetooth::hwcontrol::BtHwControl;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::BqrErrorCode;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;

constexpr uint16_t kOpcodeSetExtendedScanEnable = 0x2042;

// What is open now. The pointers are copied out under the lock and used without it.
struct Transport {
  TeardownGate gate;  // opening and closing, one at a time
  std::atomic<uint32_t> userial_type{kUserialClosed};
  std::mutex lock;
  std::shared_ptr<HciFlowControl> flow_control GUARDED_BY(lock);
  std::shared_ptr<H4Protocol> h4 GUARDED_BY(lock);
  async::AsyncFdWatcher watcher;

  std::shared_ptr<H4Protocol> GetH4() {
    std::lock_guard<std::mutex> guard(lock);
    return h4;
  }
};

Transport& State() {
  static auto* transport = new Transport;
  return *transport;
}

// In this order, nobody reads or writes the port's number once it may belong to another file.
void ClosePort() {
  if (const std::shared_ptr<H4Protocol> h4 = State().GetH4()) h4->Close();
  if (BtHwControl::Get().UartFd() >= 0) {
    State().watcher.StopWatchingFileDescriptor(BtHwControl::Get().UartFd());
  }
  BtHwControl::Get().UserialClose();
}

bool OpenUart(uint32_t userial_type) {
  BtHwControl& hw = BtHwControl::Get();
  hw.PowerControl(false);
  if (!hw.PowerControl(true)) return false;
  if (!hw.UserialOpen(userial_type)) {
    hw.PowerControl(false);
    return false;
  }
  return true;
}

// The co-processor's own power goes through the same cycle first.
bool OpenCoProcessor() {
  BtHwControl& hw = BtHwControl::Get();
  QvrHelper& qvr = QvrHelper::Get();
  if (!qvr.PrepareQvrTransport()) return false;
  hw.PowerControl(false);
  qvr.PowerControl(false);
  if (!qvr.PowerControl(true) || !hw.PowerControl(true)) {
    qvr.Deinitialize();
    return false;
  }
  if (!qvr.UserialOpen(true)) {
    hw.PowerControl(false);
    qvr.PowerControl(false);
    qvr.Deinitialize();
    return false;
  }
  return true;
}

bool OnCoProcessor() { return GetUserialType() == kUserialCoProcessor; }

uint32_t SelectUserialType() {
  if (base::GetBoolProperty("persist.bluetooth.ulk.path.enabled", false)) {
    return kUserialCoProcessor;
  }
  return static_cast<uint32_t>(conf::Config::GetInstance()->userial_type());
}

HciFlowControl* Open(const PacketReceiver& event_cb, const PacketReceiver& acl_cb,
                     const PacketReceiver& sco_cb, const PacketReceiver& iso_cb) {
  Transport& state = State();
  const uint32_t type = SelectUserialType();
  state.userial_type = type;
  if (!(type == kUserialCoProcessor ? OpenCoProcessor() : OpenUart(type))) return nullptr;

  const auto flow = std::make_shared<HciFlowControl>(event_cb, acl_cb, sco_cb, iso_cb);
  {
    std::lock_guard<std::mutex> guard(state.lock);
    state.flow_control = flow;
  }
  // The reader holds the protocol object itself: it may be stopped from inside its own call.
  if (const std::shared_ptr<H4Protocol> h4 = state.GetH4()) {
    state.watcher.WatchFdForNonBlockingReads(BtHwControl::Get().UartFd(),
                                             [h4](int fd) { h4->OnDataReady(fd); });
  }
  return flow.get();
}

}  // namespace

HciFlowControl* InitializeHciHandle(const PacketReceiver& event_cb, const PacketReceiver& acl_cb,
                                    const PacketReceiver& sco_cb, const PacketReceiver& iso_cb) {
  if (!State().gate.Enter()) return nullptr;
  HciFlowControl* flow = Open(event_cb, acl_cb, sco_cb, iso_cb);
  State().gate.Leave();
  return flow;
}

void Deinitialize() {
  ALOGI("%s", __func__);
  Transport& state = State();
  if (!state.gate.Enter()) return;
  if (const std::shared_ptr<H4Protocol> h4 = state.GetH4()) h4->Close();
  state.watcher.StopWatchingFileDescriptors();
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
  if (OnCoProcessor()) {
    QvrHelper::Get().UserialOpen(false);
    BtHwControl::Get().PowerControl(false);
    QvrHelper::Get().PowerControl(false);
    QvrHelper::Get().Deinitialize();
  } else {
    BtHwControl::Get().UserialClose();
    BtHwControl::Get().PowerControl(false);
  }
  state.userial_type = kUserialClosed;
  state.gate.Leave();
}

void InitializeCallback(const PacketReceiver& event_cb, const PacketReceiver& acl_cb,
                        const PacketReceiver& sco_cb, const PacketReceiver& iso_cb) {
  if (OnCoProcessor()) {
    QvrHelper::Get().InitializeCallback(event_cb, acl_cb, sco_cb, iso_cb);
    return;
  }
  auto h4 =
      std::make_shared<H4Protocol>(BtHwControl::Get().UartFd(), event_cb, acl_cb, sco_cb, iso_cb);
  std::lock_guard<std::mutex> guard(State().lock);
  State().h4 = std::move(h4);
}

void DeinitializeCallback() {
  if (OnCoProcessor()) {
    QvrHelper::Get().DeinitializeCallback();
    return;
  }
  std::shared_ptr<H4Protocol> h4;
  std::lock_guard<std::mutex> guard(State().lock);
  h4.swap(State().h4);
}

size_t Send(uint8_t type, const uint8_t* data, size_t length, bool flag) {
  if (type == HCI_PACKET_TYPE_COMMAND && length >= 2 &&
      (data[0] | data[1] << 8) == kOpcodeSetExtendedScanEnable) {
    ALOGI("%s: TX command 0x%2X", __func__, kOpcodeSetExtendedScanEnable);
  }
  if (OnCoProcessor()) return QvrHelper::Get().SendHciToQvr(type, data, length, flag);
  const std::shared_ptr<H4Protocol> h4 = State().GetH4();
  return h4 == nullptr ? 0 : h4->Send(type, data, length);
}

void BaudrateChange(UartBaudRate rate) {
  if (OnCoProcessor()) {
    QvrHelper::Get().BaudrateChange(rate);
  } else {
    BtHwControl::Get().BaudrateChange(rate);
  }
}

uint32_t RequiredBaudRate() { return OnCoProcessor() ? 6000000 : 4000000; }

bool LpmSetup() {
  return OnCoProcessor() ? QvrHelper::Get().LpmEnable(true) : BtHwControl::Get().LpmSetup();
}

void LpmTeardown() {
  if (OnCoProcessor()) {
    QvrHelper::Get().LpmEnable(false);
  } else {
    BtHwControl::Get().LpmTeardown();
  }
}

// The co-processor keeps the wake line itself.
bool LpmSuspend() { return OnCoProcessor() || BtHwControl::Get().LpmSuspend(); }
bool LpmWakeUp() { return OnCoProcessor() || BtHwControl::Get().LpmWakeUp(); }

bool IsLpmRunning() {
  return OnCoProcessor() ? QvrHelper::Get().IsLpmEnabled() : BtHwControl::Get().IsLpmRunning();
}

uint32_t GetUserialType() { return State().userial_type; }
bool IsUserialAutoInit() { return GetUserialType() == kUserialAutoInit; }
bool SupportBaudRateChange() { return GetUserialType() != kUserialAutoInit; }
bool IsUserialReady() {
  return OnCoProcessor() ? QvrHelper::Get().IsTransportOpen() : BtHwControl::Get().UartFd() >= 0;
}

bool IsInitialized() {
  std::lock_guard<std::mutex> guard(State().lock);
  return State().flow_control != nullptr && IsUserialReady();
}

bool GetTlDebugDump(int fd, const std::string& first, const std::string& second) {
  if (OnCoProcessor()) return QvrHelper::Get().GetChreDebugDump();
  BtHwControl::Get().GetFsDebugDump(fd, first);
  BtHwControl::Get().GetFsDebugDump(fd, second);
  return true;
}

void CatchException(BqrErrorCode code, const std::string& reason) {
  BtZvkProtocol::GetInstacne()->Shutdown();
  if (OnCoProcessor()) {
    DebugCentral::Get().ReportBqrError(code, reason);
    Deinitialize();
    return;
  }
  ClosePort();
  BtHwControl::Get().PowerControl(false);
}

}  // namespace android::hardware::bluetooth::hci::shim
