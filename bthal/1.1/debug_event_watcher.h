#pragma once

#include <functional>
#include <memory>

#include "hci_flow_control.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux {

// A watcher that is registered for as long as it exists and passes each event to a function.
class DebugEventWatcher final : public hci::HciEventWatcher {
 public:
  using Handler = std::function<bool(const hidl_vec<uint8_t>&)>;

  DebugEventWatcher(const char* name, hci::HciFlowControl* flow, uint16_t event_code,
                    uint16_t opcode, Handler handler)
      : HciEventWatcher(name, event_code, opcode),
        flow_(flow->shared_from_this()),
        handler_(std::move(handler)) {
    flow_->RegisterEventWatcher(this);
  }
  ~DebugEventWatcher() override { flow_->UnregisterEventWatcher(this); }

  bool OnEventReceive(const hidl_vec<uint8_t>& event) override { return handler_(event); }

 private:
  const std::shared_ptr<hci::HciFlowControl> flow_;
  const Handler handler_;
};

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux
