#pragma once

#include <android-base/thread_annotations.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "hci_event_watcher.h"
#include "hci_packet.h"

namespace android::hardware::bluetooth::hci {

// The opcode that a Command Complete, Command Status or Loopback Command event is about; 0 for any
// other. An event too short to hold it is reported as HostInvalidHciEvent.
uint16_t hci_event_extract_command_opcode(const hidl_vec<uint8_t>& event);

// Sends commands one at a time under the controller's credits, and routes every event to the
// watchers and, unless one of them keeps it, to the stack. One exists per enabling of Bluetooth,
// owned by the transport shim; who keeps it beyond a call holds shared_from_this(). After Halt it
// answers every call with a warning and 0. Any thread.
class HciFlowControl : public std::enable_shared_from_this<HciFlowControl> {
 public:
  // Hands itself to the transport as the receiver of events; the other packets go straight on.
  HciFlowControl(const PacketReceiver& event_cb, const PacketReceiver& acl_cb,
                 const PacketReceiver& sco_cb, const PacketReceiver& iso_cb);

  // Sends a packet without its type byte; a command waits for its turn. Returns what the transport
  // accepted, length for a command that waits, 0 when halted.
  size_t Send(uint8_t type, const uint8_t* data, size_t length) EXCLUDES(lock_);

  // Sends at once, without queue and credits.
  size_t SendNoAck(uint8_t type, const uint8_t* data, size_t length) EXCLUDES(lock_);

  // Entry of every event. Reader thread only.
  void OnHciEventReady(const hidl_vec<uint8_t>& event, PacketReceiver event_cb);

  // Offers the event to the watchers. Returns whether one of them keeps it.
  bool HciEventPreProcess(const hidl_vec<uint8_t>& event) EXCLUDES(lock_);
  // Takes finished commands off the queue, and sends the next one when the event grants credit.
  void HciEventPostProcess(const hidl_vec<uint8_t>& event) EXCLUDES(lock_);

  void RegisterEventWatcher(HciEventWatcher* watcher) EXCLUDES(lock_);
  // Once this returns, watcher is neither being called nor will be.
  void UnregisterEventWatcher(HciEventWatcher* watcher) EXCLUDES(lock_);

  // For good: tells the watchers, which ends every wait for an event.
  void Halt() EXCLUDES(lock_);

 private:
  struct HciCmdFrame {
    HciCmdFrame(const uint8_t* bytes, size_t length) : data(bytes, bytes + length) {}
    hidl_vec<uint8_t> data;  // opcode, parameter length, parameters
    bool sent = false;
  };

  // Logs that operation came too late. Returns whether it did.
  bool IsHalted(const char* operation) const;
  size_t Transmit(uint8_t type, const uint8_t* data, size_t length) REQUIRES(lock_);

  std::mutex lock_;
  std::deque<HciCmdFrame> command_queue_ GUARDED_BY(lock_);  // front: outstanding, or next
  std::vector<HciEventWatcher*> watchers_ GUARDED_BY(lock_);
  std::atomic<bool> halted_{true};
};

}  // namespace android::hardware::bluetooth::hci
