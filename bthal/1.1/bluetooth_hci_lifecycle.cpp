// Bring-up, recovery and shutdown of BluetoothHci.
#define LOG_TAG "bthal.zvkbtlinux"

#include <android-base/unique_fd.h>
#include <log/log.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <thread>

#include "base/free_memory.h"
#include "base/own_thread.h"
#include "bluetooth_hci.h"
#include "btzvk_protocol.h"
#include "conf.h"
#include "debug_central.h"
#include "evidence/bring_up_steps.h"
#include "extensions.h"
#include "stack/attached_stack.h"
#include "tap/tap.h"
#include "transport_shim.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux {
namespace {

using ::android::hardware::bluetooth::V1_0::Status;
using debug::BringUpSteps;
using debug::DebugAnchor;
using debug::DebugCentral;

constexpr int kCoexAttempts = 10;
constexpr std::chrono::milliseconds kCoexRetryPause{100};

// What a failed bring-up leaves to do: tells the stack, or, without one, ends the process.
// undelivered: the record when the stack cannot be told; null for none.
void ReportFailedInit(const char* kill_line, const char* undelivered) {
  const AttachedStack::Callbacks1_0 cb = AttachedStack::Get().g_cb();
  if (cb == nullptr) {
    ALOGE("%s", kill_line);
    kill(getpid(), SIGKILL);
    return;
  }
  if (cb->initializationComplete(Status::INITIALIZATION_ERROR).isOk()) return;
  ALOGE("VendorInterface -> Unable to call initializationComplete(ERR)");
  if (undelivered != nullptr) {
    evidence::Record(AnchorType::kCompletionUndelivered, undelivered);
  }
}

}  // namespace

// The turn begins before the stack is detached: the next one waits for its end.
void BluetoothHci::OnStackDied(const sp<::android::hidl::base::V1_0::IBase>& who) {
  Lifecycle::Turn turn(lifecycle_, Lifecycle::State::kDead);
  if (!AttachedStack::Get().DetachIf(who)) return;
  if (conf::Config::GetInstance()->IsAcceleratedBtOnSupported()) {
    RunOnOwnThread("thread_perform_reinit",
                   [self = sp<BluetoothHci>(this), turn = std::move(turn)]() mutable {
                     self->thread_perform_reinit(std::move(turn));
                   });
  } else {
    close_impl(who, std::move(turn));
  }
}

void BluetoothHci::perform_init(Lifecycle::Turn& turn) {
  turn.Become(Lifecycle::State::kComingUp);
  ALOGI("%s", __func__);
  const DebugAnchor anchor(AnchorType::kPerformInit, __func__, DebugCentral::Get());
  if (lifecycle_.hci_handle() != nullptr) {
    ALOGE("%s: hci_handle != nullptr! -> Double attempt to initialize the HAL", __func__);
    ReportFailedInit("perform_init: Calling kill due to error", nullptr);
    return;
  }
  const tap::BringUpRecording recording;
  DebugCentral::Get().SetEventSink(notify_cb);
  if (!open_coex_dev()) {
    ALOGE("Failed to open coex device");
    evidence::Report(BqrErrorCode::HostCoexDeviceOpenError, "Can't open coex device");
  }
  const std::shared_ptr<hci::HciFlowControl> handle =
      hci::shim::InitializeHciHandle(OnEvent, OnAclData, OnScoData, OnIsoData);
  lifecycle_.set_hci_handle(handle);
  if (handle == nullptr) {
    ReportFailedInit("InitializeHciHandle failed, calling kill", nullptr);
    AttachedStack::Get().Detach();
    return;
  }
  DebugCentral::Get().StartMonitor(handle.get());
  if (BtZvkProtocol::GetInstacne()->Initialize(handle.get())) {
    BTHAL_LOG_AND_RECORD(ALOGI, AnchorType::kControllerReady, "%s: BTZVK controller is ready",
                         __func__);
    BringUpSteps::Get().EndBringUp("the controller is ready");
    return;
  }
  ALOGE("Initialize() failed");
  DebugCentral::Get().StopMonitor();
  hci::shim::Deinitialize();
  lifecycle_.set_hci_handle(nullptr);
  ReportFailedInit("Calling kill due to an error",
                   "perform_init: Unable to call initializationComplete(ERR)");
  AttachedStack::Get().Detach();
  coex_device_.DeviceClose();
}

bool BluetoothHci::open_coex_dev() {
  const int delay = conf::Config::GetInstance()->big_hammer_reg_on_delay_ms();
  bool opened = false;
  int failures = 0;
  BringUpSteps::Get().Begin("coexistence device");
  while (!opened && failures < kCoexAttempts) {
    opened = coex_device_.DeviceOpen([this] { resetBtCallback(); }, delay);
    if (opened) break;
    ++failures;
    std::this_thread::sleep_for(kCoexRetryPause);
  }
  ALOGI("%s: return ret (%d), count:%d", __func__, opened ? 1 : 0, failures);
  if (opened) BringUpSteps::Get().End(evidence::AfterFailures("opened", failures));
  evidence::RecordFormat(AnchorType::kCoexOpenTried, "%s, open the coex device (%s), count:%d",
                         __func__, opened ? "Success" : "Failed", failures);
  return opened;
}

void BluetoothHci::close_hci() {
  ALOGI("%s", "closeHci");
  BtZvkProtocol::GetInstacne()->Shutdown();
  DebugCentral::Get().StopMonitor();
  hci::shim::Deinitialize();
  ALOGI("%s: hci_handle_ = nullptr", "closeHci");
  lifecycle_.set_hci_handle(nullptr);
}

void BluetoothHci::perform_close(Lifecycle::Turn& turn) {
  turn.Become(Lifecycle::State::kGoingDown);
  evidence::Record(AnchorType::kPerformClose, __func__);
  ALOGI("%s", __func__);
  close_hci();
  coex_device_.DeviceClose();
}

void BluetoothHci::thread_perform_init(Lifecycle::Turn turn) {
  evidence::Record(AnchorType::kThreadPerformInit, __func__);
  ALOGI("%s", __func__);
  BringUpSteps::Get().BeginBringUp("the service brings the controller up ahead of any stack");
  perform_init(turn);
}

void BluetoothHci::thread_perform_reinit(Lifecycle::Turn turn) {
  evidence::Record(AnchorType::kThreadPerformReinit, __func__);
  ALOGI("%s", __func__);
  BringUpSteps::Get().BeginBringUp(
      "the stack has died: the service brings the controller up again");
  stopTavioHalExtensions();
  perform_close(turn);
  ReturnFreeMemory();
  perform_init(turn);
}

void BluetoothHci::resetBtCallback() {
  ALOGE("%s called", __func__);
  evidence::RecordFormat(AnchorType::kBigHammer, "%s Big Hammer Occurred", __func__);
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
  const std::shared_ptr<hci::HciFlowControl> handle = lifecycle_.hci_handle();
  if (handle == nullptr) {
    ALOGW("%s: Bluetooth is not up, nothing to enable", __func__);
    return;
  }
  EnableExtensions(handle.get());
  handle->RegisterEventWatcher(activity_watcher_.get());
  if (!activity_watcher_->startWatcher()) {
    ALOGW("ActivityWatcher registering failure");
    evidence::RecordFormat(AnchorType::kActivityWatcherFailed,
                           "%s: ActivityWatcher registering failure", __func__);
  }
}

void BluetoothHci::stopTavioHalExtensions() {
  std::lock_guard<std::mutex> guard(extensions_lock_);
  ++attachment_;
  ALOGI("%s: Disable Bluetooth HAL Extensions", __func__);
  DisableExtensions();
  if (!activity_watcher_->stopWatcher()) ALOGW("ActivityWatcher unregistering failure");
  const std::shared_ptr<hci::HciFlowControl> handle = lifecycle_.hci_handle();
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

bool BluetoothHci::StartSignalThread() {
  base::unique_fd event(eventfd(0, EFD_CLOEXEC));
  if (!event.ok()) {
    ALOGE("%s: SIGTERM is not handled: %s", __func__, strerror(errno));
    return false;
  }
  try {
    std::thread([self = sp<BluetoothHci>(this), event = event.get()] {
      pthread_setname_np(pthread_self(), "bthal_signal");
      for (;;) {
        uint64_t value = 0;
        if (TEMP_FAILURE_RETRY(read(event, &value, sizeof value)) < 0) continue;
        self->HandleTermination(SIGTERM);
      }
    }).detach();
  } catch (const std::system_error& error) {
    ALOGE("%s: SIGTERM is not handled: %s", __func__, error.what());
    return false;
  }
  g_signal_event = event.release();
  return true;
}

void BluetoothHci::setup_signal_handler() {
  ALOGI("%s:", __func__);
  if (g_signal_event < 0 && !StartSignalThread()) return;
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
  lifecycle_.set_hci_handle(nullptr);
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux
