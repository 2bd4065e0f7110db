#define LOG_TAG "bthal.activitywatcher"

#include "controller_activity_watcher.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android/binder_manager.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <chrono>
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
      std::lock_guard<std::mutex> registration(registration_lock_);
      {
        std::lock_guard<std::mutex> guard(lock_);
        provider_ = found;
      }
      if (bluetooth_on_.exchange(false)) {
        Start();
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

bool ControllerActivityWatcher::startWatcher() {
  std::lock_guard<std::mutex> registration(registration_lock_);
  return Start();
}

bool ControllerActivityWatcher::Start() {
  constexpr char kOperation[] = "startWatcher";
  if (!enabled_) {
    LOG(WARNING) << kOperation << ": ActivityWatcher not enabled";
    return false;
  }
  if (bluetooth_on_.exchange(true)) return true;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (boot_time_offset_ms_ == 0) boot_time_offset_ms_ = BootTimeMs();
  }
  const std::shared_ptr<Provider> provider = this->provider();
  if (provider == nullptr) {
    LOG(INFO) << kOperation << ": PowerStats service not ready";
    return false;
  }
  LOG(INFO) << kOperation << ": Registering to PowerStats service";
  if (!provider->registerCallback(kEntityName, ref<ControllerActivityWatcher>()).isOk()) {
    LOG(ERROR) << kOperation << ": Failed to register";
    return false;
  }
  return true;
}

bool ControllerActivityWatcher::stopWatcher() {
  std::lock_guard<std::mutex> registration(registration_lock_);
  if (!enabled_) {
    LOG(WARNING) << __func__ << ": ActivityWatcher not enabled";
    return false;
  }
  if (!bluetooth_on_.exchange(false)) return true;
  {
    std::lock_guard<std::mutex> guard(lock_);
    for (size_t id = 0; id < base_.size(); ++id) base_[id] = Sum(base_[id], live_[id]);
    query_pending_ = false;
    live_ = NoStates();
    boot_time_offset_ms_ = 0;
  }
  const std::shared_ptr<Provider> provider = this->provider();
  if (provider == nullptr) {
    LOG(INFO) << __func__ << ": PowerStats service not ready";
    return false;
  }
  LOG(INFO) << __func__ << ": Unregistering to PowerStats service";
  if (!provider->unregisterCallback(ref<ControllerActivityWatcher>()).isOk()) {
    LOG(ERROR) << __func__ << ": Failed to unregister";
    return false;
  }
  return true;
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

void ControllerActivityWatcher::updateIdleStat(const StateResidency& residency) {
  Add(__func__, 0, residency);
}
void ControllerActivityWatcher::updateActiveStat(const StateResidency& residency) {
  Add(__func__, 1, residency);
}
void ControllerActivityWatcher::updateTxStat(const StateResidency& residency) {
  Add(__func__, 2, residency);
}
void ControllerActivityWatcher::updateRxStat(const StateResidency& residency) {
  Add(__func__, 3, residency);
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
  size_t block = kBlocksOffset;
  for (const auto update :
       {&ControllerActivityWatcher::updateIdleStat, &ControllerActivityWatcher::updateActiveStat,
        &ControllerActivityWatcher::updateTxStat, &ControllerActivityWatcher::updateRxStat}) {
    (watcher->*update)(BlockAt(event, block, offset));
    block += kBlockSize;
  }
  const bool asked_for = pending->exchange(false);
  LOG(INFO) << __func__ << ": " << (asked_for ? "Filtered" : "Unfilterd") << " <" << toString(event)
            << ">";
  return asked_for;
}

}  // namespace android::hardware::bluetooth::activitywatcher
