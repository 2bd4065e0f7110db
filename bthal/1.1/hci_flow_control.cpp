#define LOG_TAG "bthal.flowcontrol"

#include "hci_flow_control.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>

#include <algorithm>
#include <utility>

#include "evidence/report.h"
#include "tap/tap.h"

namespace android::hardware::bluetooth::hci {
namespace {

// Where an event that completes a command carries its opcode and how many credits it grants.
struct CompletionFormat {
  uint8_t event_code;
  uint8_t opcode_offset;
  uint8_t credits_offset;  // 0: always one credit
};
constexpr CompletionFormat kCompletions[] = {
    {kEventCommandComplete, 3, 2},
    {kEventCommandStatus, 4, 3},
    {kEventLoopbackCommand, 2, 0},
};

const CompletionFormat* FindCompletion(const hidl_vec<uint8_t>& event) {
  for (const CompletionFormat& format : kCompletions) {
    if (ByteAt(event, 0) == format.event_code) return &format;
  }
  return nullptr;
}

std::string EventText(uint16_t code, uint16_t opcode) {
  return base::StringPrintf(": HCI Event %#hx Opcode %#x", code, opcode);
}

unsigned CreditsOf(const hidl_vec<uint8_t>& event) {
  const CompletionFormat* format = FindCompletion(event);
  if (format == nullptr) return 0;
  return format->credits_offset == 0 ? 1 : ByteAt(event, format->credits_offset);
}

}  // namespace

uint16_t hci_event_extract_command_opcode(const hidl_vec<uint8_t>& event) {
  const CompletionFormat* format = FindCompletion(event);
  if (format == nullptr) return 0;
  if (event.size() < format->opcode_offset + 2u) {
    evidence::Report(BqrErrorCode::HostInvalidHciEvent, "Invalid HCI event: " + toString(event));
    return 0;
  }
  return Le16At(event, format->opcode_offset);
}

std::shared_ptr<HciFlowControl> HciFlowControl::Create(PacketReceivers receivers,
                                                       Downlink downlink) {
  return std::shared_ptr<HciFlowControl>(
      new HciFlowControl(std::move(receivers), std::move(downlink)));
}

void HciFlowControl::NoteWaiting() const {
  tap::Tap::Get().State("commands_waiting", std::to_string(command_queue_.size() -
                                                           (command_queue_.front().sent ? 1 : 0)));
}

void HciFlowControl::Connect(const Connector& connect) {
  PacketReceivers receivers = receivers_;
  receivers.event = [weak = weak_from_this()](const hidl_vec<uint8_t>& event) {
    // Kept through the call: the stack's callback may end in a close.
    const std::shared_ptr<HciFlowControl> flow = weak.lock();
    if (flow == nullptr) return;
    if (flow->connected_.load(std::memory_order_acquire)) {
      flow->OnHciEventReady(event, flow->receivers_.event);
    } else {
      flow->IsHalted("OnHciEventReady");
    }
  };
  connect(receivers);
  halted_.store(false, std::memory_order_release);
  connected_.store(true, std::memory_order_release);
}

bool HciFlowControl::IsHalted(const char* operation) const {
  if (!halted_.load(std::memory_order_acquire)) return false;
  LOG(WARNING) << operation << ": called after being halted!";
  return true;
}

size_t HciFlowControl::Transmit(uint8_t type, const uint8_t* data, size_t length, bool flag) {
  downlink_.wake_up();
  const size_t sent = downlink_.send(type, data, length, flag);
  downlink_.sent();
  send_failed_.store(sent < length, std::memory_order_relaxed);
  return sent;
}

size_t HciFlowControl::Send(uint8_t type, const uint8_t* data, size_t length) {
  if (type != HCI_PACKET_TYPE_COMMAND) {
    std::lock_guard<std::mutex> guard(data_lock_);
    return IsHalted(__func__) ? 0 : Transmit(type, data, length, false);
  }
  std::lock_guard<std::mutex> guard(lock_);
  if (IsHalted(__func__)) return 0;
  if (!command_queue_.empty() && send_failed_.load(std::memory_order_relaxed)) {
    LOG(ERROR) << __func__ << ": the transport takes nothing, command dropped";
    return 0;
  }
  if (command_queue_.size() > kMaxWaiting) {
    LOG(ERROR) << __func__ << ": " << kMaxWaiting << " commands wait already, command dropped";
    return 0;
  }
  command_queue_.emplace_back(data, length);
  HciCmdFrame& frame = command_queue_.back();
  if (command_queue_.size() >= 2) {
    NoteWaiting();
    LOG(DEBUG) << __func__ << ": HCI CMD Frame <" << toString(frame.data) << "> enqueued";
    return length;
  }
  LOG(VERBOSE) << __func__ << ": HCI Command <" << toString(frame.data) << "> sending...";
  frame.sent = true;
  return Transmit(type, data, length, true);
}

size_t HciFlowControl::SendNoAck(uint8_t type, const uint8_t* data, size_t length) {
  std::lock_guard<std::mutex> guard(lock_);
  if (IsHalted(__func__)) return 0;
  return Transmit(type, data, length, false);
}

void HciFlowControl::OnHciEventReady(const hidl_vec<uint8_t>& event,
                                     const PacketReceiver& event_cb) {
  if (!LengthIsRight(HCI_PACKET_TYPE_EVENT, event.data(), event.size())) {
    evidence::Report(BqrErrorCode::HostInvalidHciEvent,
                     "Invalid / un-reassembled HCI event: " + toString(event));
    return;
  }
  if (HciEventPreProcess(event)) {
    LOG(DEBUG) << __func__ << ": HCI Event <" << toString(event) << "> handled";
  } else {
    event_cb(event);
  }
  HciEventPostProcess(event);
}

bool HciFlowControl::HciEventPreProcess(const hidl_vec<uint8_t>& event) {
  const uint16_t opcode = hci_event_extract_command_opcode(event);
  const uint8_t code = ByteAt(event, 0);
  const bool has_opcode = code == kEventCommandComplete || code == kEventCommandStatus;
  bool handled = false;

  std::lock_guard<std::mutex> guard(lock_);
  if (IsHalted(__func__)) return false;
  for (HciEventWatcher* watcher : watchers_) {
    if (watcher->event_code() != code) continue;
    if (has_opcode && watcher->opcode() != 0 && watcher->opcode() != opcode) continue;
    const bool kept = watcher->OnEventReceive(event);
    handled = handled || kept;
    LOG(INFO) << __func__ << EventText(code, opcode) << " Length " << event.size()
              << (kept ? " handled by " : " unhandled by ") << watcher->name();
  }
  LOG(VERBOSE) << __func__ << EventText(code, opcode) << (handled ? " handled" : " unhandled")
               << " <" << toString(event) << ">";
  return handled;
}

void HciFlowControl::HciEventPostProcess(const hidl_vec<uint8_t>& event) {
  const uint16_t opcode = hci_event_extract_command_opcode(event);
  const unsigned credits = CreditsOf(event);
  LOG(VERBOSE) << __func__ << EventText(ByteAt(event, 0), opcode) << " credits " << credits << " <"
               << toString(event) << ">";

  std::lock_guard<std::mutex> guard(lock_);
  if (IsHalted(__func__)) return;
  if (command_queue_.empty()) return;
  const HciCmdFrame& front = command_queue_.front();
  if (front.sent) {
    if (Le16At(front.data, 0) != opcode) {
      if (opcode != 0) {
        LOG(WARNING) << __func__ << ": HCI CMD Frame and Event not matched <"
                     << toString(front.data) << "> <" << toString(event) << ">";
      }
      return;
    }
    LOG(VERBOSE) << __func__ << ": HCI CMD Frame <" << toString(front.data) << "> finished";
    command_queue_.pop_front();
  }
  if (command_queue_.empty() || credits == 0) return;
  HciCmdFrame& next = command_queue_.front();
  LOG(DEBUG) << __func__ << ": HCI CMD Frame <" << toString(next.data) << "> dequeued";
  next.sent = true;
  NoteWaiting();
  Transmit(HCI_PACKET_TYPE_COMMAND, next.data.data(), next.data.size(), true);
}

void HciFlowControl::RegisterEventWatcher(HciEventWatcher* watcher) {
  std::lock_guard<std::mutex> guard(lock_);
  if (IsHalted(__func__)) {
    watcher->OnHalt();
    return;
  }
  if (std::find(watchers_.begin(), watchers_.end(), watcher) == watchers_.end()) {
    watchers_.push_back(watcher);
  }
}

void HciFlowControl::UnregisterEventWatcher(HciEventWatcher* watcher) {
  std::lock_guard<std::mutex> guard(lock_);
  if (IsHalted(__func__)) return;
  watchers_.erase(std::remove(watchers_.begin(), watchers_.end(), watcher), watchers_.end());
}

void HciFlowControl::Halt() {
  std::lock_guard<std::mutex> data(data_lock_);
  std::lock_guard<std::mutex> guard(lock_);
  if (IsHalted(__func__)) return;
  halted_.store(true, std::memory_order_release);
  for (HciEventWatcher* watcher : watchers_) watcher->OnHalt();
  watchers_.clear();
}

}  // namespace android::hardware::bluetooth::hci
