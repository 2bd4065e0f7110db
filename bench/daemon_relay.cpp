#include "daemon_relay.h"

#include <atomic>
#include <stdexcept>

namespace bench {
namespace {

using android::sp;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::bluetooth::V1_0::Status;
using android::hardware::bluetooth::V1_1::IBluetoothHci;
using android::hardware::bluetooth::V1_1::IBluetoothHciCallbacks;

class Callbacks : public IBluetoothHciCallbacks {
 public:
  explicit Callbacks(Sink* sink) : sink_(sink) {}
  Return<void> initializationComplete(Status status) override {
    ready_ = status == Status::SUCCESS;
    return Void();
  }
  Return<void> hciEventReceived(const hidl_vec<uint8_t>& event) override {
    sink_->OnEvent(event.data(), event.size());
    return Void();
  }
  Return<void> aclDataReceived(const hidl_vec<uint8_t>& data) override {
    sink_->OnAcl(data.size());
    return Void();
  }
  Return<void> scoDataReceived(const hidl_vec<uint8_t>& /*data*/) override { return Void(); }
  Return<void> isoDataReceived(const hidl_vec<uint8_t>& /*data*/) override { return Void(); }
  bool ready() const { return ready_; }

 private:
  Sink* const sink_;
  std::atomic<bool> ready_{false};
};

}  // namespace

DaemonRelay::DaemonRelay(const Daemon& daemon, Sink* sink)
    : pid_(daemon.pid()), hal_(IBluetoothHci::getService("default")) {
  if (hal_ == nullptr) throw std::runtime_error("the daemon is not found");
  const sp<Callbacks> callbacks = new Callbacks(sink);
  const Return<void> initialized = hal_->initialize_1_1(callbacks);
  if (!initialized.isOk()) throw std::runtime_error("initialize: " + initialized.description());
  if (!callbacks->ready()) throw std::runtime_error("the controller does not come up");
}

void DaemonRelay::SendCommand() {
  const hidl_vec<uint8_t> command(std::begin(kCommand), std::end(kCommand));
  if (!hal_->sendHciCommand(command).isOk()) throw std::runtime_error("the daemon is gone");
}

void DaemonRelay::SendAcl(const Bytes& data) {
  if (!hal_->sendAclData(data).isOk()) throw std::runtime_error("the daemon is gone");
}

}  // namespace bench
