#pragma once

#include <android-base/logging.h>
#include <hidl/HidlSupport.h>

#include <cstdint>
#include <string>

namespace android::hardware::bluetooth::hci {

// Observes the controller's events of one code and, for Command Complete and Command Status, of
// one opcode. Registered with HciFlowControl, which does not own it: the owner unregisters it
// before it dies. A watcher that registers itself is final and does it last.
class HciEventWatcher {
 public:
  // opcode 0: any.
  HciEventWatcher(const char* name, uint16_t event_code, uint16_t opcode)
      : name_(name), event_code_(static_cast<uint8_t>(event_code)), opcode_(opcode) {}
  virtual ~HciEventWatcher() = default;
  HciEventWatcher(const HciEventWatcher&) = delete;
  HciEventWatcher& operator=(const HciEventWatcher&) = delete;

  // Takes a matching event, event code first. Returns true to keep it from the stack. Runs on the
  // reader thread under the flow-control lock: it must not call HciFlowControl. The bytes live
  // until it returns.
  virtual bool OnEventReceive(const hidl_vec<uint8_t>& event) = 0;

  // The flow control was halted: no event will come any more. Runs under the flow-control lock.
  virtual void OnHalt() {}

  const std::string& name() const { return name_; }
  uint8_t event_code() const { return event_code_; }
  uint16_t opcode() const { return opcode_; }

 protected:
  // Logs an answer, with the watcher's name as the tag: at the severity success, or as a warning
  // when its status is an error. prefix stands before the result.
  void LogAnswer(const hidl_vec<uint8_t>& event, base::LogSeverity success,
                 const std::string& prefix = "") const;

 private:
  const std::string name_;
  const uint8_t event_code_;
  const uint16_t opcode_;
};

}  // namespace android::hardware::bluetooth::hci
