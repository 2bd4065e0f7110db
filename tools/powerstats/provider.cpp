#include "tools/powerstats/provider.h"

#include <android/binder_manager.h>
#include <android/binder_process.h>

namespace powerstats {

std::shared_ptr<Provider> Provider::Publish(std::function<void(const std::string& line)> tell) {
  constexpr char kName[] = "power.stats-vendor";
  if (ndk::SpAIBinder(AServiceManager_checkService(kName)).get() != nullptr) return nullptr;
  ABinderProcess_setThreadPoolMaxThreadCount(1);
  ABinderProcess_startThreadPool();
  auto provider = ndk::SharedRefBase::make<Provider>(std::move(tell));
  const bool added = AServiceManager_addService(provider->asBinder().get(), kName) == EX_NONE;
  return added ? provider : nullptr;
}

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

std::vector<Reading> Provider::Read() {
  std::map<std::string, std::shared_ptr<Callback>> entities;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    entities = entities_;
  }
  std::vector<Reading> readings;
  for (const auto& [name, callback] : entities) {
    Reading reading{name, {}, ""};
    const ndk::ScopedAStatus status = callback->getStateResidency(&reading.states);
    if (!status.isOk()) reading.mistake = status.getDescription();
    readings.push_back(std::move(reading));
  }
  return readings;
}

std::string StateName(const std::string& entity, int id) {
  static const char* const kStates[] = {"idle", "active", "transmit", "receive"};
  return entity == "Bluetooth" && id >= 0 && id < 4 ? kStates[id] : "state " + std::to_string(id);
}

}  // namespace powerstats
