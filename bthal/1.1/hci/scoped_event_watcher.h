#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "hci_flow_control.h"

namespace android::hardware::bluetooth::hci {

// A watcher that is registered for as long as it exists and passes each event to a function, which
// returns whether the event is kept from the stack.
class ScopedEventWatcher final : public HciEventWatcher {
 public:
  using Handler = std::function<bool(const hidl_vec<uint8_t>& event)>;

  ScopedEventWatcher(const char* name, HciFlowControl* flow, uint16_t event_code, uint16_t opcode,
                     Handler handler)
      : HciEventWatcher(name, event_code, opcode),
        flow_(flow->shared_from_this()),
        handler_(std::move(handler)) {
    flow_->RegisterEventWatcher(this);
  }
  ~ScopedEventWatcher() override { flow_->UnregisterEventWatcher(this); }

  bool OnEventReceive(const hidl_vec<uint8_t>& event) override { return handler_(event); }

 private:
  const std::shared_ptr<HciFlowControl> flow_;
  const Handler handler_;
};

}  // namespace android::hardware::bluetooth::hci
