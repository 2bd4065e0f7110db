#include "tools/powerstats/provider.h"

#include <vector>

namespace powerstats {
namespace {

using aidl::android::hardware::power::stats::StateResidency;

// The states that the Bluetooth controller reports.
std::string StateName(const std::string& entity, int32_t id) {
  static const char* const kStates[] = {"idle", "active", "transmitting", "receiving"};
  if (entity == "Bluetooth" && id >= 0 && id < 4) return kStates[id];
  return "state " + std::to_string(id);
}

std::string Line(const std::string& entity, const StateResidency& state) {
  return entity + " " + StateName(entity, state.id) + ": " +
         std::to_string(state.totalTimeInStateMs) + " ms, entered " +
         std::to_string(state.totalStateEntryCount) + " times, last at " +
         std::to_string(state.lastEntryTimestampMs) + " ms\n";
}

}  // namespace

Provider::Provider(std::function<void(const std::string&)> tell)
    : tell_(std::move(tell)), death_(AIBinder_DeathRecipient_new([](void* cookie) {
        static_cast<Provider*>(cookie)->DropDead();
      })) {}

ndk::ScopedAStatus Provider::registerCallback(const std::string& name,
                                              const std::shared_ptr<Callback>& callback) {
  if (name.empty() || callback == nullptr) {
    return ndk::ScopedAStatus::fromExceptionCode(EX_ILLEGAL_ARGUMENT);
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  entities_[name] = callback;
  tell_("registered " + name);
  AIBinder_linkToDeath(callback->asBinder().get(), death_.get(), this);
  return ndk::ScopedAStatus::ok();
}

ndk::ScopedAStatus Provider::unregisterCallback(const std::shared_ptr<Callback>& callback) {
  if (callback == nullptr) return ndk::ScopedAStatus::fromExceptionCode(EX_ILLEGAL_ARGUMENT);
  const std::lock_guard<std::mutex> lock(mutex_);
  for (auto entity = entities_.begin(); entity != entities_.end(); ++entity) {
    if (entity->second->asBinder() != callback->asBinder()) continue;
    tell_("unregistered " + entity->first);
    AIBinder_unlinkToDeath(callback->asBinder().get(), death_.get(), this);
    entities_.erase(entity);
    return ndk::ScopedAStatus::ok();
  }
  return ndk::ScopedAStatus::fromExceptionCode(EX_ILLEGAL_ARGUMENT);
}

void Provider::DropDead() {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (auto entity = entities_.begin(); entity != entities_.end();) {
    if (AIBinder_isAlive(entity->second->asBinder().get())) {
      ++entity;
    } else {
      tell_("died " + entity->first);
      entity = entities_.erase(entity);
    }
  }
}

std::string Provider::Read() {
  std::map<std::string, std::shared_ptr<Callback>> entities;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    entities = entities_;
  }
  if (entities.empty()) return "nobody has registered\n";
  std::string text;
  for (const auto& [name, callback] : entities) {
    std::vector<StateResidency> states;
    const ndk::ScopedAStatus status = callback->getStateResidency(&states);
    if (!status.isOk()) text += name + ": no reading: " + status.getDescription() + "\n";
    for (const StateResidency& state : states) text += Line(name, state);
  }
  return text;
}

}  // namespace powerstats
