#include "tools/link/residency_reader.h"

#include <aidl/android/vendor/powerstats/BnTavioStateResidencyProvider.h>
#include <android/binder_manager.h>
#include <android/binder_process.h>

#include "tools/base/failure.h"
#include "tools/base/mailbox.h"
#include "tools/base/wait.h"

namespace bthalctl {

using ::aidl::android::vendor::powerstats::BnTavioStateResidencyProvider;
using ::aidl::android::vendor::powerstats::ITavioStateResidencyCallback;

namespace {

constexpr char kService[] = "power.stats-vendor";
constexpr char kEntity[] = "Bluetooth";

using Callback = std::shared_ptr<ITavioStateResidencyCallback>;

}  // namespace

// Called on a thread of the NDK pool.
class ResidencyProvider : public BnTavioStateResidencyProvider {
 public:
  ndk::ScopedAStatus registerCallback(const std::string& entity,
                                      const Callback& callback) override {
    if (entity == kEntity && callback != nullptr) registrations.Put(callback);
    return ndk::ScopedAStatus::ok();
  }
  ndk::ScopedAStatus unregisterCallback(const Callback&) override {
    registrations.Put(nullptr);
    return ndk::ScopedAStatus::ok();
  }

  Mailbox<Callback> registrations;  // null: Bluetooth has gone
  Callback bluetooth;               // the latest; the user's thread only
};

ResidencyReader::ResidencyReader() : provider_(ndk::SharedRefBase::make<ResidencyProvider>()) {
  if (ndk::SpAIBinder(AServiceManager_checkService(kService)).get() != nullptr) {
    throw Failure(
        ExitCode::kBusy,
        "another process is the power-statistics provider: it alone is told the residency");
  }
  ABinderProcess_setThreadPoolMaxThreadCount(1);
  ABinderProcess_startThreadPool();
  if (AServiceManager_addService(provider_->asBinder().get(), kService) != EX_NONE) {
    throw Failure("cannot become the power-statistics provider");
  }
}

void ResidencyReader::WaitForBluetooth(std::chrono::milliseconds timeout) {
  const TimePoint deadline = Clock::now() + timeout;
  do {
    while (auto registration = provider_->registrations.Take()) {
      provider_->bluetooth = *registration;
    }
    if (provider_->bluetooth != nullptr) return;
  } while (WaitReadable(provider_->registrations.fd(), deadline));
  throw Failure("Bluetooth did not register for power statistics: is it up? (bthalctl up)");
}

std::vector<StateResidency> ResidencyReader::Read() {
  while (auto registration = provider_->registrations.Take()) provider_->bluetooth = *registration;
  if (provider_->bluetooth == nullptr) throw Failure("Bluetooth went off");
  std::vector<StateResidency> states;
  const ndk::ScopedAStatus status = provider_->bluetooth->getStateResidency(&states);
  if (!status.isOk()) throw Failure(ExitCode::kNoService, "the service died during the call");
  return states;
}

}  // namespace bthalctl
