#define LOG_TAG "bthal.shim"

#include "transport_shim.h"

#include <android-base/properties.h>
#include <log/log.h>

#include <atomic>

#include "async_fd_watcher.h"
#include "btzvk_protocol.h"
#include "conf.h"
#include "h4/h4_protocol.h"
#include "h4/hw_control.h"
#include "teardown_gate.h"

namespace android::hardware::bluetooth::hci::shim {
namespace {

using ::android::hardware::bluetooth::hwcontrol::BtHwControl;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::BqrErrorCode;

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
  if (type == kUserialCoProcessor) {
    ALOGE("%s: the co-processor transport is not available in this build", __func__);
    return nullptr;
  }
  if (!OpenUart(type)) return nullptr;

  const auto flow = std::make_shared<HciFlowControl>(event_cb, acl_cb, sco_cb, iso_cb);
  {
    std::lock_guard<std::mutex> guard(state.lock);
    state.flow_control = flow;
  }
  // The reader holds the protocol object itself: it may be stopped from inside its own call.
  const std::shared_ptr<H4Protocol> h4 = state.GetH4();
  state.watcher.WatchFdForNonBlockingReads(BtHwControl::Get().UartFd(),
                                           [h4](int fd) { h4->OnDataReady(fd); });
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
  BtHwControl::Get().UserialClose();
  BtHwControl::Get().PowerControl(false);
  state.userial_type = kUserialClosed;
  state.gate.Leave();
}

void InitializeCallback(const PacketReceiver& event_cb, const PacketReceiver& acl_cb,
                        const PacketReceiver& sco_cb, const PacketReceiver& iso_cb) {
  auto h4 =
      std::make_shared<H4Protocol>(BtHwControl::Get().UartFd(), event_cb, acl_cb, sco_cb, iso_cb);
  std::lock_guard<std::mutex> guard(State().lock);
  State().h4 = std::move(h4);
}

void DeinitializeCallback() {
  std::shared_ptr<H4Protocol> h4;
  std::lock_guard<std::mutex> guard(State().lock);
  h4.swap(State().h4);
}

size_t Send(uint8_t type, const uint8_t* data, size_t length, bool /*flag*/) {
  if (type == HCI_PACKET_TYPE_COMMAND && length >= 2 &&
      (data[0] | data[1] << 8) == kOpcodeSetExtendedScanEnable) {
    ALOGI("%s: TX command 0x%2X", __func__, kOpcodeSetExtendedScanEnable);
  }
  const std::shared_ptr<H4Protocol> h4 = State().GetH4();
  return h4 == nullptr ? 0 : h4->Send(type, data, length);
}

void BaudrateChange(UartBaudRate rate) { BtHwControl::Get().BaudrateChange(rate); }

uint32_t RequiredBaudRate() { return GetUserialType() == kUserialCoProcessor ? 6000000 : 4000000; }

bool LpmSetup() { return BtHwControl::Get().LpmSetup(); }
void LpmTeardown() { BtHwControl::Get().LpmTeardown(); }
bool LpmSuspend() { return BtHwControl::Get().LpmSuspend(); }
bool LpmWakeUp() { return BtHwControl::Get().LpmWakeUp(); }
bool IsLpmRunning() { return BtHwControl::Get().IsLpmRunning(); }

uint32_t GetUserialType() { return State().userial_type; }
bool IsUserialAutoInit() { return GetUserialType() == kUserialAutoInit; }
bool SupportBaudRateChange() { return GetUserialType() != kUserialAutoInit; }
bool IsUserialReady() { return BtHwControl::Get().UartFd() >= 0; }

bool IsInitialized() {
  std::lock_guard<std::mutex> guard(State().lock);
  return State().flow_control != nullptr && IsUserialReady();
}

bool GetTlDebugDump(int fd, const std::string& first, const std::string& second) {
  BtHwControl::Get().GetFsDebugDump(fd, first);
  BtHwControl::Get().GetFsDebugDump(fd, second);
  return true;
}

void CatchException(BqrErrorCode /*code*/, const std::string& /*reason*/) {
  BtZvkProtocol::GetInstacne()->Shutdown();
  ClosePort();
  BtHwControl::Get().PowerControl(false);
}

}  // namespace android::hardware::bluetooth::hci::shim
