#pragma once

#include <android-base/thread_annotations.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "hci/event_watcher.h"
#include "hci/packet.h"

namespace android::hardware::bluetooth::hci {

// The opcode that a Command Complete, Command Status or Loopback Command event is about; 0 for any
// other. An event too short to hold it is reported as HostInvalidHciEvent.
uint16_t hci_event_extract_command_opcode(const hidl_vec<uint8_t>& event);

// How the flow control reaches the controller.
struct Downlink {
  // Writes one packet; flag: it is a flow-controlled command. Returns the bytes that were accepted,
  // fewer than length after an error.
  std::function<size_t(uint8_t type, const uint8_t* data, size_t length, bool flag)> send;
  std::function<void()> wake_up;       // before each send
  std::function<void()> sent = [] {};  // after each
};

// Sends commands one at a time under the controller's credits, and routes every event to the
// watchers and, unless one of them keeps it, to the stack. One exists per enabling of Bluetooth,
// owned by the transport shim; code that keeps it beyond a call holds shared_from_this(). It is
// halted, and answers every call with a warning and 0, until Connect() and after Halt(). Any
// thread.
class HciFlowControl : public std::enable_shared_from_this<HciFlowControl> {
 public:
  // Connects receivers with the transport.
  using Connector = std::function<void(const PacketReceivers&)>;

  // The receivers are the stack's.
  static std::shared_ptr<HciFlowControl> Create(PacketReceivers receivers, Downlink downlink);

  // Hands itself to the transport as the receiver of events; the other packets go straight on. An
  // event that arrives before this returns is dropped with a warning.
  void Connect(const Connector& connect);

  // Commands that may wait.
  static constexpr size_t kMaxWaiting = 4096;

  // Sends a packet without its type byte; a command waits for its turn. Returns what the transport
  // accepted, length for a command that waits, 0 when halted or when too many commands wait.
  size_t Send(uint8_t type, const uint8_t* data, size_t length) EXCLUDES(data_lock_)
      EXCLUDES(lock_);

  // Sends at once, without queue and credits.
  size_t SendNoAck(uint8_t type, const uint8_t* data, size_t length) EXCLUDES(lock_);

  // Entry of every event. Reader thread only.
  void OnHciEventReady(const hidl_vec<uint8_t>& event, const PacketReceiver& event_cb);

  // Offers the event to the watchers. Returns whether one of them keeps it.
  bool HciEventPreProcess(const hidl_vec<uint8_t>& event) EXCLUDES(lock_);
  // Takes finished commands off the queue, and sends the next one when the event grants credit.
  void HciEventPostProcess(const hidl_vec<uint8_t>& event) EXCLUDES(lock_);

  void RegisterEventWatcher(HciEventWatcher* watcher) EXCLUDES(lock_);
  // Once this returns, watcher is neither being called nor will be.
  void UnregisterEventWatcher(HciEventWatcher* watcher) EXCLUDES(lock_);

  // For good: tells the watchers, which ends every wait for an event. Once it returns, nothing is
  // being sent, nor will be.
  void Halt() EXCLUDES(data_lock_) EXCLUDES(lock_);

 private:
  HciFlowControl(PacketReceivers receivers, Downlink downlink)
      : receivers_(std::move(receivers)), downlink_(std::move(downlink)) {}

  struct HciCmdFrame {
    HciCmdFrame(const uint8_t* bytes, size_t length) : data(bytes, bytes + length) {}
    hidl_vec<uint8_t> data;  // opcode, parameter length, parameters
    bool sent = false;
  };

  // Logs that operation came too late. Returns whether it did.
  bool IsHalted(const char* operation) const;
  void NoteWaiting() const REQUIRES(lock_);
  // Under one of the locks.
  size_t Transmit(uint8_t type, const uint8_t* data, size_t length, bool flag);

  const PacketReceivers receivers_;
  const Downlink downlink_;
  // Held while a data packet is sent. Not the other one: the controller may take no data before its
  // own is read, and the reader needs that for each event.
  std::mutex data_lock_ ACQUIRED_BEFORE(lock_);
  std::mutex lock_;  // what may be called under it: docs/threads.md
  std::deque<HciCmdFrame> command_queue_ GUARDED_BY(lock_);  // front: outstanding, or next
  // The last send was cut short: the line takes nothing, and a command that waits behind another
  // one would not go out.
  std::atomic<bool> send_failed_{false};
  std::vector<HciEventWatcher*> watchers_ GUARDED_BY(lock_);
  std::atomic<bool> connected_{false};
  std::atomic<bool> halted_{true};
};

}  // namespace android::hardware::bluetooth::hci
