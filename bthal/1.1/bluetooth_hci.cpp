#define LOG_TAG "bthal.zvkbtlinux"

#include "bluetooth_hci.h"

#include <android-base/properties.h>
#include <log/log.h>
#include <unistd.h>

#include <thread>
#include <utility>

#include "base/free_memory.h"
#include "base/own_thread.h"
#include "base/thread_role.h"
#include "bluetooth_address.h"
#include "btzvk_protocol.h"
#include "conf.h"
#include "debug_central.h"
#include "evidence/bring_up_steps.h"
#include "stack/attached_stack.h"
#include "tap/capture.h"
#include "tap/notes.h"
#include "transport_shim.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux {
namespace {

using ::android::hardware::bluetooth::V1_0::Status;
using debug::BringUpSteps;
using debug::DebugAnchor;
using debug::DebugCentral;

// Answers "capture": starts it, or writes one line that tells why not.
void StartCapture(int fd, const hidl_vec<hidl_string>& options) {
  tap::CaptureRequest request;
  const std::vector<std::string> words(options.begin() + 1, options.end());
  const std::string trouble = tap::ParseCaptureRequest(words, &request)
                                  ? tap::StartCapture(fd, std::move(request))
                                  : tap::kCaptureHelp;
  if (!trouble.empty()) debug::WriteToReader(fd, trouble + "\n");
}

}  // namespace

void BluetoothDeathRecipient::serviceDied(uint64_t /*cookie*/,
                                          const wp<::android::hidl::base::V1_0::IBase>& who) {
  ALOGE("BluetoothDeathRecipient::serviceDied - Bluetooth service died");
  const sp<::android::hidl::base::V1_0::IBase> stack = who.promote();
  if (!AttachedStack::Get().IsAttached(stack)) return;
  has_died_ = true;
  hci::AbandonProvisioning();
  hal_->OnStackDied(stack);
}

BluetoothHci::BluetoothHci() {
  tap::NoteLogAndSteps();
  if (const std::string setting = base::GetProperty(tap::kCaptureProperty, ""); !setting.empty()) {
    tap::StartCaptureOnDisk(setting);
  }
  hci::shim::SetOwner({[] { BtZvkProtocol::GetInstacne()->LpmWakeUp(); },
                       [] { BtZvkProtocol::GetInstacne()->LpmSent(); },
                       [] { BtZvkProtocol::GetInstacne()->Shutdown(); }});
  death_recipient_ = new BluetoothDeathRecipient(this);
  activity_watcher_ = ::ndk::SharedRefBase::make<activitywatcher::ControllerActivityWatcher>(this);
  ALOGI("%s", "BluetoothHci");
  activity_watcher_->initialize();
  if (conf::Config::GetInstance()->IsAcceleratedBtOnSupported()) {
    RunOnOwnThread("thread_perform_init",
                   [self = sp<BluetoothHci>(this),
                    turn = Lifecycle::Turn(lifecycle_, Lifecycle::State::kComingUp)]() mutable {
                     self->thread_perform_init(std::move(turn));
                   });
  }
}

Return<void> BluetoothHci::initialize(const sp<V1_0::IBluetoothHciCallbacks>& cb) {
  initialize_impl(cb, nullptr);
  return Void();
}

Return<void> BluetoothHci::initialize_1_1(const sp<V1_1::IBluetoothHciCallbacks>& cb) {
  initialize_impl(cb, cb);
  return Void();
}

void BluetoothHci::initialize_impl(const sp<V1_0::IBluetoothHciCallbacks>& cb,
                                   const sp<V1_1::IBluetoothHciCallbacks>& cb_1_1) {
  ALOGI("%s", __func__);
  const DebugAnchor anchor(AnchorType::kInitialize, __func__, DebugCentral::Get());
  if (cb == nullptr) {
    ALOGE("cb == nullptr! -> Unable to call initializationComplete(ERR)");
    return;
  }
  Lifecycle::Initialization initialization(lifecycle_);
  if (!AttachedStack::Get().Attach(cb, cb_1_1)) {
    ALOGE("%s: already initialized, don't allow multiple initialize the HAL", __func__);
    if (!cb->initializationComplete(Status::INITIALIZATION_ERROR).isOk()) {
      ALOGE("%s: VendorInterface -> Unable to call initializationComplete(ERR)", __func__);
    }
  } else if (Lifecycle::Turn turn(lifecycle_, Lifecycle::State::kComingUp); turn) {
    attach(cb, std::move(turn));
  } else {
    ALOGE("%s: called from inside a callback while Bluetooth goes on or off, refused", __func__);
    AttachedStack::Get().DetachIf(cb);
    (void)cb->initializationComplete(Status::INITIALIZATION_ERROR).isOk();
  }
  if (initialization.End() && AttachedStack::Get().g_cb() != nullptr) close();
}

void BluetoothHci::attach(const sp<V1_0::IBluetoothHciCallbacks>& cb, Lifecycle::Turn turn) {
  constexpr char kOperation[] = "initialize_impl";
  if (conf::Config::GetInstance()->IsAcceleratedBtOnSupported() && hci::shim::IsUserialReady()) {
    BringUpSteps::Get().BeginAttachment("a stack attaches");
    if (!BtZvkProtocol::GetInstacne()->AcceleratedReset()) {
      ALOGE("%s: Accelerated Init failed", kOperation);
      evidence::Report(BqrErrorCode::HostAccelatedBtInitFailed, "Accelerated Init failed");
    }
  } else {
    BringUpSteps::Get().BeginBringUp("a stack attaches");
    perform_init(turn);
  }
  link_to_death(cb);
  hci::ApplyProvisionBDAddress(lifecycle_.hci_handle().get(),
                               [this] { return death_recipient_->has_died(); });
  if (!cb->initializationComplete(Status::SUCCESS).isOk()) {
    ALOGE("VendorInterface -> Unable to call initializationComplete(ERR)");
    evidence::RecordFormat(AnchorType::kCompletionUndelivered,
                           "%s: Unable to call initializationComplete(ERR)", kOperation);
  }
  setup_signal_handler();
  RunOnOwnThread("startTavioHalExtensions",
                 [self = sp<BluetoothHci>(this), attachment = CurrentAttachment()] {
                   self->startTavioHalExtensions(attachment);
                 });
  ALOGI("BluetoothHci::initialize() completed");
}

void BluetoothHci::link_to_death(const sp<V1_0::IBluetoothHciCallbacks>& cb) {
  death_recipient_->ClearHasDied();
  const Return<bool> linked = cb->linkToDeath(death_recipient_, 0);
  if (!linked.isOk() || !static_cast<bool>(linked)) {
    std::thread([recipient = death_recipient_, cb] { recipient->serviceDied(0, cb); }).detach();
  }
  std::function<void(sp<BluetoothDeathRecipient>&)> unlink =
      [cb](sp<BluetoothDeathRecipient>& recipient) {
        if (recipient->has_died()) {
          ALOGI("Skipping unlink call, service died.");
          evidence::RecordFormat(AnchorType::kUnlinkSkipped,
                                 "%s: Skipping unlink call, service died", "operator()");
        } else {
          (void)cb->unlinkToDeath(recipient).isOk();
        }
      };
  // The old one goes after the lock: with it may go the last reference to a stack.
  std::lock_guard<std::mutex> guard(link_lock_);
  unlink_cb_.swap(unlink);
}

void BluetoothHci::unlink_from_death() {
  std::function<void(sp<BluetoothDeathRecipient>&)> unlink;
  {
    std::lock_guard<std::mutex> guard(link_lock_);
    unlink = unlink_cb_;
  }
  unlink(death_recipient_);
}

Return<void> BluetoothHci::close() {
  if (lifecycle_.DeferClose()) return Void();
  Lifecycle::Turn turn(lifecycle_, Lifecycle::State::kGoingDown);
  if (!turn) return Void();
  const AttachedStack::Callbacks1_0 stack = AttachedStack::Get().g_cb();
  close_impl(stack, std::move(turn));
  // Packets may run ahead of their answers: when close returns, the stack has taken all of them. It
  // may call close while it does, so the turn must have ended.
  if (stack != nullptr) (void)stack->ping().isOk();
  return Void();
}

void BluetoothHci::close_impl(const sp<::android::hidl::base::V1_0::IBase>& stack,
                              Lifecycle::Turn turn) {
  turn.Become(Lifecycle::State::kGoingDown);
  evidence::Record(AnchorType::kClose, "close");
  ALOGI("BluetoothHci::close()");
  unlink_from_death();
  stopTavioHalExtensions();
  // A stack that closes from inside a callback has the reader thread wait here, which could not
  // read the answer to a reset: then the controller is switched off.
  if (conf::Config::GetInstance()->IsAcceleratedBtOnSupported() && hci::shim::IsUserialReady() &&
      g_thread_role != ThreadRole::kReader) {
    if (!BtZvkProtocol::GetInstacne()->AcceleratedReset()) {
      ALOGE("Accelerated shutdown failed");
      evidence::Report(BqrErrorCode::HostAccelatedBtShutdownFailed, "Accelerated shutdown failed");
    }
  } else {
    perform_close(turn);
  }
  AttachedStack::Get().DetachIf(stack);
  ReturnFreeMemory();
  ALOGI("BluetoothHci::close() Done");
}

Return<void> BluetoothHci::debug(const hidl_handle& fd, const hidl_vec<hidl_string>& options) {
  const native_handle_t* handle = fd.getNativeHandle();
  if (handle == nullptr || handle->numFds < 1) return Void();
  if (!options.empty() && options[0] == "capture") {
    StartCapture(handle->data[0], options);
    return Void();
  }
  if (options.size() == 1 && options[0] == "state") {
    debug::WriteToReader(handle->data[0],
                         hci::shim::CurrentState().Text() + BringUpSteps::Get().Text());
  } else {
    ALOGI("%s: Dump debug log", __func__);
    DebugCentral::Get().Dump(handle->data[0]);
  }
  fsync(handle->data[0]);
  return Void();
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux
