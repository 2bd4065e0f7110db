// Bring-up, recovery and shutdown of BluetoothHci.
#define LOG_TAG "bthal.zvkbtlinux"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <log/log.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "bluetooth_Activity.h"
#include "bluetooth_ewp.h"
#include "bluetooth_hci.h"
#include "btzvk_protocol.h"
#include "conf.h"
#include "debug_central.h"
#include "extensions.h"
#include "stack_link.h"
#include "transport_shim.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux {
namespace {

using activity::BtActivitiesLogger;
using ::android::base::StringPrintf;
using ::android::hardware::bluetooth::V1_0::Status;
using debug::AnchorFormatter;
using debug::AnchorType;
using debug::AnchorValues;
using debug::BqrErrorCode;
using debug::DebugAnchor;
using debug::DebugCentral;
using ::hardware::nuvexa::bluetooth::ewp::V1_0::implementation::BluetoothEwp;

// Kinds of packets, as PrintEwpLogging() takes them.
constexpr int kEwpAcl = 1;
constexpr int kEwpIso = 2;

constexpr int kCoexAttempts = 10;
constexpr std::chrono::milliseconds kCoexRetryPause{100};

std::string EventText(const AnchorValues& v) {
  return StringPrintf("cb->hciEventReceived: %u bytes", v[0]);
}
std::string AclText(const AnchorValues& v) {
  return StringPrintf("cb->aclDataReceived: %u bytes", v[0]);
}
std::string ScoText(const AnchorValues& v) {
  return StringPrintf("cb->scoDataReceived: %u bytes", v[0]);
}
std::string IsoText(const AnchorValues& v) {
  return StringPrintf("cb->isoDataReceived: %u bytes", v[0]);
}

AnchorValues SizeOf(const hidl_vec<uint8_t>& packet) {
  return {static_cast<uint32_t>(packet.size())};
}

// The four functions that the transport calls for the controller's packets, on the reader thread.

void OnEvent(const hidl_vec<uint8_t>& event) {
  const StackLink::Callbacks1_0 cb = StackLink::Get().g_cb();
  if (cb == nullptr) {
    ALOGW("hciEvent: g_cb == nullptr");
    return;
  }
  const DebugAnchor anchor(AnchorType::kHciEventReceived, EventText, SizeOf(event),
                           DebugCentral::Get());
  BtActivitiesLogger::GetInstacne()->LogActivities(hci::HCI_PACKET_TYPE_EVENT, event);
  if (!cb->hciEventReceived(event).isOk()) ALOGW("Unable to callback hciEvent to Stack");
}

void OnAclData(const hidl_vec<uint8_t>& data) {
  const StackLink::Callbacks1_0 cb = StackLink::Get().g_cb();
  if (cb == nullptr) {
    ALOGW("aclData: g_cb == nullptr");
    return;
  }
  const DebugAnchor anchor(AnchorType::kAclDataReceived, AclText, SizeOf(data),
                           DebugCentral::Get());
  BtActivitiesLogger::GetInstacne()->LogActivities(hci::HCI_PACKET_TYPE_ACL_DATA, data);
  BluetoothEwp::PrintEwpLogging(kEwpAcl, data);
  if (!cb->aclDataReceived(data).isOk()) ALOGW("Unable to callback aclData to Stack");
}

void OnScoData(const hidl_vec<uint8_t>& data) {
  const StackLink::Callbacks1_0 cb = StackLink::Get().g_cb();
  if (cb == nullptr) {
    ALOGW("scoData: g_cb == nullptr");
    return;
  }
  const DebugAnchor anchor(AnchorType::kScoDataReceived, ScoText, SizeOf(data),
                           DebugCentral::Get());
  if (!cb->scoDataReceived(data).isOk()) ALOGW("Unable to callback scoData to Stack");
}

void OnIsoData(const hidl_vec<uint8_t>& data) {
  if (StackLink::Get().g_cb() == nullptr) {
    ALOGW("isoData: g_cb == nullptr");
    return;
  }
  const DebugAnchor anchor(AnchorType::kIsoDataReceived, IsoText, SizeOf(data),
                           DebugCentral::Get());
  BluetoothEwp::PrintEwpLogging(kEwpIso, data);
  // Null for a stack that attached through 1.0, which knows no ISO data.
  const StackLink::Callbacks1_1 cb = StackLink::Get().g_cb_1_1();
  if (cb == nullptr || !cb->isoDataReceived(data).isOk()) {
    ALOGW("Unable to callback isoData to Stack");
  }
}

// Takes the events that the diagnostics make themselves.
void notify_cb(const hidl_vec<uint8_t>& event) {
  const StackLink::Callbacks1_0 cb = StackLink::Get().g_cb();
  if (cb == nullptr) {
    ALOGW("%s: g_cb == nullptr", __func__);
    return;
  }
  if (!cb->hciEventReceived(event).isOk()) {
    ALOGW("Unable to callback bqr root inflamed event to Stack");
  }
}

// What a failed bring-up leaves to do: tells the stack, or, without one, ends the process.
// undelivered: the record when the stack cannot be told; null for none.
void ReportFailedInit(const char* kill_line, const char* undelivered) {
  const StackLink::Callbacks1_0 cb = StackLink::Get().g_cb();
  if (cb == nullptr) {
    ALOGE("%s", kill_line);
    kill(getpid(), SIGKILL);
    return;
  }
  if (cb->initializationComplete(Status::INITIALIZATION_ERROR).isOk()) return;
  ALOGE("VendorInterface -> Unable to call initializationComplete(ERR)");
  if (undelivered != nullptr) {
    DebugCentral::Get().UpdateRecord(AnchorType::kCompletionUndelivered, undelivered);
  }
}

}  // namespace

void BluetoothHci::BeginWork() {
  std::lock_guard<std::mutex> guard(mutex_);
  ++workers_;
}

void BluetoothHci::EndWork() {
  std::lock_guard<std::mutex> guard(mutex_);
  --workers_;
  worker_ended_.notify_all();
}

void BluetoothHci::StartWorker(void (BluetoothHci::*work)()) {
  std::thread([self = sp<BluetoothHci>(this), work] {
    ((*self).*work)();
    self->EndWork();
  }).detach();
}

// The work begins before the stack is detached, so that the next one waits for its end.
void BluetoothHci::OnStackDied(const sp<::android::hidl::base::V1_0::IBase>& who) {
  BeginWork();
  if (StackLink::Get().DetachIf(who)) {
    if (conf::Config::GetInstance()->IsAcceleratedBtOnSupported()) {
      StartWorker(&BluetoothHci::thread_perform_reinit);
      return;
    }
    close_impl(who);
  }
  EndWork();
}

void BluetoothHci::perform_init() {
  ALOGI("%s", __func__);
  const DebugAnchor anchor(AnchorType::kPerformInit, __func__, DebugCentral::Get());
  if (hci_handle() != nullptr) {
    ALOGE("%s: hci_handle != nullptr! -> Double attempt to initialize the HAL", __func__);
    ReportFailedInit("perform_init: Calling kill due to error", nullptr);
    return;
  }
  DebugCentral::Get().SetEventSink(notify_cb);
  if (!open_coex_dev()) {
    ALOGE("Failed to open coex device");
    DebugCentral::Get().ReportBqrError(BqrErrorCode::HostCoexDeviceOpenError,
                                       "Can't open coex device");
  }
  hci::HciFlowControl* handle =
      hci::shim::InitializeHciHandle(OnEvent, OnAclData, OnScoData, OnIsoData);
  set_hci_handle(handle);
  if (handle == nullptr) {
    ReportFailedInit("InitializeHciHandle failed, calling kill", nullptr);
    StackLink::Get().Detach();
    return;
  }
  DebugCentral::Get().StartMonitor(handle);
  if (BtZvkProtocol::GetInstacne()->Initialize(handle)) {
    const std::string text = StringPrintf("%s: BTZVK controller is ready", __func__);
    ALOGI("%s", text.c_str());
    DebugCentral::Get().UpdateRecord(AnchorType::kControllerReady, text);
    return;
  }
  ALOGE("Initialize() failed");
  DebugCentral::Get().StopMonitor();
  hci::shim::Deinitialize();
  set_hci_handle(nullptr);
  ReportFailedInit("Calling kill due to an error",
                   "perform_init: Unable to call initializationComplete(ERR)");
  StackLink::Get().Detach();
  coex_device_.DeviceClose();
}

bool BluetoothHci::open_coex_dev() {
  const int delay = conf::Config::GetInstance()->big_hammer_reg_on_delay_ms();
  bool opened = false;
  int failures = 0;
  while (!opened && failures < kCoexAttempts) {
    opened = coex_device_.DeviceOpen([this] { resetBtCallback(); }, delay);
    if (opened) break;
    ++failures;
    std::this_thread::sleep_for(kCoexRetryPause);
  }
  ALOGI("%s: return ret (%d), count:%d", __func__, opened ? 1 : 0, failures);
  DebugCentral::Get().UpdateRecord(AnchorType::kCoexOpenTried,
                                   StringPrintf("%s, open the coex device (%s), count:%d", __func__,
                                                opened ? "Success" : "Failed", failures));
  return opened;
}

void BluetoothHci::close_hci() {
  ALOGI("%s", "closeHci");
  BtZvkProtocol::GetInstacne()->Shutdown();
  DebugCentral::Get().StopMonitor();
  hci::shim::Deinitialize();
  ALOGI("%s: hci_handle_ = nullptr", "closeHci");
  set_hci_handle(nullptr);
}

void BluetoothHci::perform_close() {
  DebugCentral::Get().UpdateRecord(AnchorType::kPerformClose, __func__);
  ALOGI("%s", __func__);
  close_hci();
  coex_device_.DeviceClose();
}

void BluetoothHci::thread_perform_init() {
  DebugCentral::Get().UpdateRecord(AnchorType::kThreadPerformInit, __func__);
  ALOGI("%s", __func__);
  std::lock_guard<std::mutex> guard(mutex_);
  close_gate_.Enter();  // a close() now would reset the controller in the middle of its bring-up
  perform_init();
  close_gate_.Leave();
}

void BluetoothHci::thread_perform_reinit() {
  DebugCentral::Get().UpdateRecord(AnchorType::kThreadPerformReinit, __func__);
  ALOGI("%s", __func__);
  std::lock_guard<std::mutex> guard(mutex_);
  // A close() that the stack asked for before it died may still be under way, or come late.
  close_gate_.Enter();
  stopTavioHalExtensions();
  perform_close();
  perform_init();
  close_gate_.Leave();
}

void BluetoothHci::resetBtCallback() {
  ALOGE("%s called", __func__);
  DebugCentral::Get().UpdateRecord(AnchorType::kBigHammer,
                                   StringPrintf("%s Big Hammer Occurred", __func__));
  close_hci();
}

uint64_t BluetoothHci::CurrentAttachment() {
  std::lock_guard<std::mutex> guard(extensions_lock_);
  return attachment_;
}

void BluetoothHci::startTavioHalExtensions(uint64_t attachment) {
  std::lock_guard<std::mutex> guard(extensions_lock_);
  if (attachment != attachment_) return;
  ALOGI("%s: Enable Bluetooth HAL Extensions", __func__);
  const std::shared_ptr<hci::HciFlowControl> handle = hci_handle();
  if (handle == nullptr) {
    ALOGW("%s: Bluetooth is not up, nothing to enable", __func__);
    return;
  }
  EnableExtensions(handle.get());
  handle->RegisterEventWatcher(activity_watcher_.get());
  if (!activity_watcher_->startWatcher()) {
    ALOGW("ActivityWatcher registering failure");
    DebugCentral::Get().UpdateRecord(
        AnchorType::kActivityWatcherFailed,
        StringPrintf("%s: ActivityWatcher registering failure", __func__));
  }
}

void BluetoothHci::stopTavioHalExtensions() {
  std::lock_guard<std::mutex> guard(extensions_lock_);
  ++attachment_;
  ALOGI("%s: Disable Bluetooth HAL Extensions", __func__);
  DisableExtensions();
  if (!activity_watcher_->stopWatcher()) ALOGW("ActivityWatcher unregistering failure");
  const std::shared_ptr<hci::HciFlowControl> handle = hci_handle();
  if (handle != nullptr) handle->UnregisterEventWatcher(activity_watcher_.get());
}

// What the handler of a signal and the thread that acts on it share.
namespace {
int g_signal_event = -1;  // written once, before the handler is installed
}

void BluetoothHci::signal_handler(int signum) {
  const int saved_errno = errno;
  const uint64_t value = static_cast<uint64_t>(signum);
  TEMP_FAILURE_RETRY(write(g_signal_event, &value, sizeof value));
  errno = saved_errno;
}

void BluetoothHci::setup_signal_handler() {
  ALOGI("%s:", __func__);
  if (g_signal_event < 0) {
    g_signal_event = eventfd(0, EFD_CLOEXEC);
    std::thread([self = sp<BluetoothHci>(this)] {
      pthread_setname_np(pthread_self(), "bthal_signal");
      for (;;) {
        uint64_t value = 0;
        if (TEMP_FAILURE_RETRY(read(g_signal_event, &value, sizeof value)) < 0) return;
        self->HandleTermination(SIGTERM);
      }
    }).detach();
  }
  struct sigaction action {};
  action.sa_handler = signal_handler;
  sigemptyset(&action.sa_mask);
  ALOGI("%s: sigaction(SIGTERM)", __func__);
  sigaction(SIGTERM, &action, nullptr);
}

void BluetoothHci::HandleTermination(int signum) {
  ALOGW("%s: Caught Signal! signum: %d", "signal_handler", signum);
  BtZvkProtocol::GetInstacne()->Shutdown();
  hci::shim::Deinitialize();
  set_hci_handle(nullptr);
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux
