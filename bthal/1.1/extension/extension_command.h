#pragma once

#include <android-base/thread_annotations.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "hci/event_watcher.h"
#include "hci_flow_control.h"

namespace android::hardware::bluetooth {

// The flow control that an extension may use at the moment. A caller of Get() may keep what it got
// beyond the end of Bluetooth: it then only logs and returns 0. Any thread; its lock is a leaf.
class CurrentFlowControl {
 public:
  using Ref = std::shared_ptr<hci::HciFlowControl>;  // null while Bluetooth is off

  void Set(hci::HciFlowControl* flow) EXCLUDES(lock_);
  // Returns what it was.
  Ref Clear() EXCLUDES(lock_);
  Ref Get() const EXCLUDES(lock_);

 private:
  mutable std::mutex lock_;
  Ref flow_ GUARDED_BY(lock_);
};

// The command of an extension: sends it and takes as many Command Completes of its opcode as were
// sent, over all enablings of Bluetooth; one more is the stack's own. The watcher's name is the
// service's log tag. Any thread sends; Start and Stop come one at a time.
class ExtensionCommand : public hci::HciEventWatcher {
 public:
  ExtensionCommand(const char* name, uint16_t opcode)
      : HciEventWatcher(name, hci::kEventCommandComplete, opcode) {}

  // Bluetooth is on, through flow, until Stop().
  virtual void Start(hci::HciFlowControl* flow);
  virtual void Stop();
  CurrentFlowControl::Ref flow() const { return flow_.Get(); }

  // Sent and not answered yet.
  uint32_t pending() const { return pending_; }
  // Hands the whole command to flow, which sends it when its turn comes.
  void SendCommand(hci::HciFlowControl& flow, const std::vector<uint8_t>& command);

  // Logs the answer; true while it was waited for.
  bool OnEventReceive(const hidl_vec<uint8_t>& event) override;

 protected:
  // What Start and Stop do, without their log lines.
  void Enable(hci::HciFlowControl* flow);
  void Disable();
  // Counts one answer as received. False when none is open.
  bool TakePending();

 private:
  CurrentFlowControl flow_;
  std::atomic<uint32_t> pending_{0};
};

}  // namespace android::hardware::bluetooth
