#define LOG_TAG "bthal.activitywatcher"

#include "controller_activity_watcher.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android/binder_manager.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <system_error>

#include "hci/packet.h"

namespace android::hardware::bluetooth::activitywatcher {
namespace {

using ::android::base::StringPrintf;
using hci::ByteAt;
using hci::Le16At;

constexpr uint16_t kOpcodeActivities = 0xFD59;
constexpr uint8_t kReadActivities = 0x01;
constexpr size_t kAnswerSize = 103;
constexpr size_t kSubCodeOffset = 6;
constexpr size_t kBlocksOffset = 7;
constexpr size_t kBlockSize = 24;

constexpr char kProviderName[] = "power.stats-vendor";
constexpr char kEntityName[] = "Bluetooth";
constexpr std::chrono::seconds kLookUpPeriod{1};
// How long the provider is waited for.
constexpr std::chrono::seconds kAnswerTime{2};

const char* OperationName(bool is_on) { return is_on ? "startWatcher" : "stopWatcher"; }

int64_t BootTimeMs() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

StateResidency Sum(StateResidency a, const StateResidency& b) {
  a.totalTimeInStateMs += b.totalTimeInStateMs;
  a.totalStateEntryCount += b.totalStateEntryCount;
  a.lastEntryTimestampMs = std::max(a.lastEntryTimestampMs, b.lastEntryTimestampMs);
  return a;
}

int32_t Signed32At(const hidl_vec<uint8_t>& event, size_t at) {
  return static_cast<int32_t>(Le16At(event, at) | uint32_t{Le16At(event, at + 2)} << 16);
}

int64_t Signed64At(const hidl_vec<uint8_t>& event, size_t at) {
  return static_cast<int64_t>(uint32_t(Signed32At(event, at)) |
                              uint64_t{uint32_t(Signed32At(event, at + 4))} << 32);
}

// One of the four blocks of an answer: entries, time in state, last entry.
StateResidency BlockAt(const hidl_vec<uint8_t>& event, size_t at, int64_t boot_time_offset_ms) {
  StateResidency state{};
  state.totalStateEntryCount = Signed32At(event, at);
  state.totalTimeInStateMs = Signed32At(event, at + 4);
  state.lastEntryTimestampMs = Signed64At(event, at + 8);
  if (state.lastEntryTimestampMs > 0) state.lastEntryTimestampMs += boot_time_offset_ms;
  return state;
}

// The beginning of a line about an answer.
std::string HeadText(const hidl_vec<uint8_t>& event) {
  return StringPrintf(": HCI EVT %#hx LEN %zu CMD OP %#x", static_cast<uint16_t>(ByteAt(event, 0)),
                      size_t{event.size()}, Le16At(event, 3));
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const StateResidency& state) {
  return out << "ActivityStat{" << state.id << " : totalTimeMs " << state.totalTimeInStateMs
             << " totalEntryCount " << state.totalStateEntryCount << " lastEntryMs "
             << state.lastEntryTimestampMs << "}";
}

ControllerActivityWatcher::ControllerActivityWatcher(const sp<V1_1::IBluetoothHci>& hci)
    : HciEventWatcher("ControllerActivityWatcher", hci::kEventCommandComplete, kOpcodeActivities),
      hci_(hci),
      death_recipient_(AIBinder_DeathRecipient_new(binderDiedCallback)) {}

ControllerActivityWatcher::~ControllerActivityWatcher() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    enabled_ = false;
    disabled_.notify_all();
  }
  JoinThread();
}

void ControllerActivityWatcher::JoinThread() {
  std::thread thread;
  {
    std::lock_guard<std::mutex> guard(thread_lock_);
    thread.swap(thread_);
  }
  if (thread.joinable()) thread.join();
}

ControllerActivityWatcher::States ControllerActivityWatcher::NoStates() {
  States states{};
  for (size_t id = 0; id < states.size(); ++id) states[id].id = static_cast<int32_t>(id);
  return states;
}

std::shared_ptr<ControllerActivityWatcher::Provider> ControllerActivityWatcher::provider() const {
  std::lock_guard<std::mutex> guard(lock_);
  return provider_;
}

int64_t ControllerActivityWatcher::boot_time_offset_ms() const {
  std::lock_guard<std::mutex> guard(lock_);
  return boot_time_offset_ms_;
}

bool ControllerActivityWatcher::initialize() {
  if (provider() != nullptr) {
    LOG(WARNING) << __func__ << ": Renewing PowerStats service";
  } else {
    LOG(DEBUG) << __func__ << ": Fetching PowerStats service";
  }
  std::lock_guard<std::mutex> guard(thread_lock_);
  try {
    thread_ = std::thread([this] { FindProvider(); });
  } catch (const std::system_error&) {
    LOG(ERROR) << "thread constructor failed";
    return false;
  }
  pthread_setname_np(thread_.native_handle(), "bthal_activity");
  return true;
}

void ControllerActivityWatcher::FindProvider() {
  constexpr char kOperation[] = "operator()";
  while (enabled_) {
    const ::ndk::SpAIBinder binder(AServiceManager_checkService(kProviderName));
    const std::shared_ptr<Provider> found = Provider::fromBinder(binder);
    if (found != nullptr &&
        AIBinder_linkToDeath(binder.get(), death_recipient_.get(), this) != STATUS_DEAD_OBJECT) {
      std::shared_ptr<Registration> registration;
      {
        std::lock_guard<std::mutex> guard(lock_);
        provider_ = found;
        if (bluetooth_on_) registration = Ask(true);
      }
      if (registration != nullptr) {
        Wait(registration);
      } else {
        LOG(DEBUG) << kOperation
                   << ": Wait for controller enabled before registering to PowerStats service";
      }
      return;
    }
    LOG(DEBUG) << kOperation << ": Waiting for PowerStats service ready...";
    const auto until = std::chrono::steady_clock::now() + kLookUpPeriod;
    std::unique_lock<std::mutex> guard(lock_);
    while (enabled_ && disabled_.wait_until(guard, until) != std::cv_status::timeout) {
    }
  }
  LOG(DEBUG) << kOperation << ": PowerStats service unavailable";
}

bool ControllerActivityWatcher::startWatcher() { return Follow(true); }
bool ControllerActivityWatcher::stopWatcher() { return Follow(false); }

bool ControllerActivityWatcher::Follow(bool is_on) {
  std::shared_ptr<Registration> registration;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (!enabled_) {
      LOG(WARNING) << OperationName(is_on) << ": ActivityWatcher not enabled";
      return false;
    }
    if (bluetooth_on_.exchange(is_on) == is_on) return true;
    if (is_on) {
      if (boot_time_offset_ms_ == 0) boot_time_offset_ms_ = BootTimeMs();
    } else {
      for (size_t id = 0; id < base_.size(); ++id) base_[id] = Sum(base_[id], live_[id]);
      query_pending_ = false;
      live_ = NoStates();
      boot_time_offset_ms_ = 0;
    }
    registration = Ask(is_on);
  }
  return Wait(registration);
}

std::shared_ptr<ControllerActivityWatcher::Registration> ControllerActivityWatcher::Ask(
    bool is_on) {
  if (provider_ == nullptr) {
    LOG(INFO) << OperationName(is_on) << ": PowerStats service not ready";
    return nullptr;
  }
  LOG(INFO) << OperationName(is_on)
            << (is_on ? ": Registering to PowerStats service"
                      : ": Unregistering to PowerStats service");
  const auto now = std::chrono::steady_clock::now();
  // A call behind one that is under way gets the deadline of that one: a provider that has been
  // silent for two seconds is not waited for again.
  std::shared_ptr<Registration> asked(
      new Registration{provider_, is_on, (is_calling_ ? call_began_ : now) + kAnswerTime, {}});
  if (next_ != nullptr) next_->done.set_value(false);
  next_ = asked;
  if (is_calling_) return asked;
  call_began_ = now;
  try {
    // The thread holds the watcher: a provider that does not answer keeps it.
    std::thread thread(&ControllerActivityWatcher::CallProvider, ref<ControllerActivityWatcher>());
    pthread_setname_np(thread.native_handle(), "bthal_provider");
    thread.detach();
    is_calling_ = true;
  } catch (const std::system_error&) {
    LOG(ERROR) << "thread constructor failed";
    next_ = nullptr;
    asked->done.set_value(false);
  }
  return asked;
}

bool ControllerActivityWatcher::Wait(const std::shared_ptr<Registration>& registration) {
  if (registration == nullptr) return false;
  std::future<bool> done = registration->done.get_future();
  if (done.wait_until(registration->deadline) == std::future_status::ready && done.get()) {
    return true;
  }
  registration->given_up = true;
  LOG(ERROR) << OperationName(registration->is_on)
             << (registration->is_on ? ": Failed to register" : ": Failed to unregister");
  return false;
}

void ControllerActivityWatcher::CallProvider() {
  const auto self = ref<ControllerActivityWatcher>();
  for (;;) {
    std::shared_ptr<Registration> call;
    {
      std::lock_guard<std::mutex> guard(lock_);
      if (next_ == nullptr) {
        is_calling_ = false;
        return;
      }
      call.swap(next_);
      if (IsInForce(*call)) {
        call->done.set_value(true);
        continue;
      }
      last_ = call;
      last_is_done_ = false;
      call_began_ = std::chrono::steady_clock::now();
    }
    const bool done = (call->is_on ? call->provider->registerCallback(kEntityName, self)
                                   : call->provider->unregisterCallback(self))
                          .isOk();
    if (call->given_up) {
      LOG(INFO) << OperationName(call->is_on) << ": Late call to PowerStats service "
                << (done ? "succeeded" : "failed");
    }
    call->done.set_value(done);
    std::lock_guard<std::mutex> guard(lock_);
    last_is_done_ = done;
  }
}

bool ControllerActivityWatcher::IsInForce(const Registration& registration) const {
  if (last_ == nullptr || last_->provider != registration.provider) return !registration.is_on;
  return last_is_done_ && last_->is_on == registration.is_on;
}

void ControllerActivityWatcher::binderDied() {
  LOG(WARNING) << __func__ << ": PowerStats service died";
  JoinThread();
  initialize();
}

void ControllerActivityWatcher::binderDiedCallback(void* cookie) {
  static_cast<ControllerActivityWatcher*>(cookie)->binderDied();
}

::ndk::ScopedAStatus ControllerActivityWatcher::getStateResidency(
    std::vector<StateResidency>* states) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    for (size_t id = 0; id < base_.size(); ++id) {
      states->push_back(Sum(base_[id], live_[id]));
      LOG(INFO) << __func__ << ": " << states->back();
    }
  }
  const bool on = bluetooth_on_;
  const bool querying = query_pending_;
  if (on && !querying) {
    send_hci_activities_vsc(hci_, &query_pending_);
  } else {
    LOG(WARNING) << __func__
                 << ": Not trigger the activities VSC (Bluetooth: " << (on ? "Enabled" : "Disabled")
                 << ", Previous: " << (querying ? "Querying" : "Finished") << ")";
  }
  LOG(VERBOSE) << __func__ << ": Done";
  return ::ndk::ScopedAStatus::ok();
}

bool ControllerActivityWatcher::OnEventReceive(const hidl_vec<uint8_t>& event) {
  if (!enabled_) return false;
  if (event.size() <= kSubCodeOffset) {
    LOG(WARNING) << __func__ << ": Ignore shorter HCI_Command_Complete LEN " << event.size();
    return false;
  }
  const uint8_t status = hci::CommandCompleteStatus(event);
  if (status != 0) {
    LOG(WARNING) << __func__ << HeadText(event)
                 << StringPrintf(" Status %#hx unsucceeded", static_cast<uint16_t>(status));
    return false;
  }
  return filter_hci_activities_vse(event, this, &query_pending_);
}

void ControllerActivityWatcher::Add(const char* operation, size_t id,
                                    const StateResidency& residency) {
  std::lock_guard<std::mutex> guard(lock_);
  live_[id] = Sum(live_[id], residency);
  LOG(VERBOSE) << operation << ": " << live_[id] << " boottime " << boot_time_offset_ms_;
}

void send_hci_activities_vsc(const sp<V1_1::IBluetoothHci>& hci, std::atomic<bool>* pending) {
  const hidl_vec<uint8_t> command = hci::BuildCommand(kOpcodeActivities, 1, &kReadActivities);
  *pending = true;
  const Return<void> sent = hci->sendHciCommand(command);
  if (sent.isOk()) {
    LOG(INFO) << __func__ << ": Sent VSC <" << toString(command) << ">";
  } else {
    LOG(ERROR) << __func__ << ": Failed to send VSC: " << sent.description();
    *pending = false;
  }
}

bool filter_hci_activities_vse(const hidl_vec<uint8_t>& event, ControllerActivityWatcher* watcher,
                               std::atomic<bool>* pending) {
  if (event.size() != kAnswerSize) {
    LOG(DEBUG) << __func__ << HeadText(event) << " parameters size unmatched";
    return false;
  }
  if (event[kSubCodeOffset] != kReadActivities) {
    LOG(WARNING) << __func__ << HeadText(event)
                 << StringPrintf(" Subcode %#hx unknown",
                                 static_cast<uint16_t>(event[kSubCodeOffset]));
    return false;
  }
  const int64_t offset = watcher->boot_time_offset_ms();
  const auto block = [&](size_t id) {
    return BlockAt(event, kBlocksOffset + id * kBlockSize, offset);
  };
  watcher->updateIdleStat(block(0));
  watcher->updateActiveStat(block(1));
  watcher->updateTxStat(block(2));
  watcher->updateRxStat(block(3));
  const bool asked_for = pending->exchange(false);
  LOG(INFO) << __func__ << ": " << (asked_for ? "Filtered" : "Unfilterd") << " <" << toString(event)
            << ">";
  return asked_for;
}

}  // namespace android::hardware::bluetooth::activitywatcher
