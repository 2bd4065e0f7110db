#define LOG_TAG "bthal.flowcontrol"

#include "hci_flow_control.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>

#include <algorithm>

#include "btzvk_protocol.h"
#include "debug_central.h"
#include "transport_shim.h"

namespace android::hardware::bluetooth::hci {
namespace {

using ::android::base::StringPrintf;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::BqrErrorCode;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;

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
    DebugCentral::Get().ReportBqrError(BqrErrorCode::HostInvalidHciEvent,
                                       "Invalid HCI event: " + toString(event));
    return 0;
  }
  return Le16At(event, format->opcode_offset);
}

HciFlowControl::HciFlowControl(const PacketReceiver& event_cb, const PacketReceiver& acl_cb,
                               const PacketReceiver& sco_cb, const PacketReceiver& iso_cb) {
  shim::InitializeCallback(
      [this, event_cb](const hidl_vec<uint8_t>& event) { OnHciEventReady(event, event_cb); },
      acl_cb, sco_cb, iso_cb);
  halted_.store(false, std::memory_order_release);
}

bool HciFlowControl::IsHalted(const char* operation) const {
  if (!halted_.load(std::memory_order_acquire)) return false;
  LOG(WARNING) << operation << ": called after being halted!";
  return true;
}

size_t HciFlowControl::Transmit(uint8_t type, const uint8_t* data, size_t length) {
  BtZvkProtocol::GetInstacne()->LpmWakeUp();
  return shim::Send(type, data, length, type == HCI_PACKET_TYPE_COMMAND);
}

size_t HciFlowControl::Send(uint8_t type, const uint8_t* data, size_t length) {
  std::lock_guard<std::mutex> guard(lock_);
  if (IsHalted(__func__)) return 0;
  if (type == HCI_PACKET_TYPE_COMMAND) {
    command_queue_.emplace_back(data, length);
    HciCmdFrame& frame = command_queue_.back();
    if (command_queue_.size() >= 2) {
      LOG(DEBUG) << __func__ << ": HCI CMD Frame <" << toString(frame.data) << "> enqueued";
      return length;
    }
    LOG(VERBOSE) << __func__ << ": HCI Command <" << toString(frame.data) << "> sending...";
    frame.sent = true;
  }
  return Transmit(type, data, length);
}

size_t HciFlowControl::SendNoAck(uint8_t type, const uint8_t* data, size_t length) {
  std::lock_guard<std::mutex> guard(lock_);
  if (IsHalted(__func__)) return 0;
  BtZvkProtocol::GetInstacne()->LpmWakeUp();
  return shim::Send(type, data, length, false);
}

// event_cb by value: the stack's callback may end in the deletion of everything that led here.
// NOLINTNEXTLINE(performance-unnecessary-value-param): as said
void HciFlowControl::OnHciEventReady(const hidl_vec<uint8_t>& event, PacketReceiver event_cb) {
  const std::shared_ptr<HciFlowControl> self = shared_from_this();
  if (!LengthIsRight(HCI_PACKET_TYPE_EVENT, event.data(), event.size())) {
    DebugCentral::Get().ReportBqrError(BqrErrorCode::HostInvalidHciEvent,
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
    LOG(INFO) << __func__ << ": HCI Event " << StringPrintf("%#hx", code) << " Opcode "
              << StringPrintf("%#x", opcode) << " Length " << event.size()
              << (kept ? " handled by " : " unhandled by ") << watcher->name();
  }
  LOG(VERBOSE) << __func__ << ": HCI Event " << StringPrintf("%#hx", code) << " Opcode "
               << StringPrintf("%#x ", opcode) << (handled ? "handled" : "unhandled") << " <"
               << toString(event) << ">";
  return handled;
}

void HciFlowControl::HciEventPostProcess(const hidl_vec<uint8_t>& event) {
  const uint16_t opcode = hci_event_extract_command_opcode(event);
  const unsigned credits = CreditsOf(event);
  LOG(VERBOSE) << __func__ << ": HCI Event " << StringPrintf("%#hx", ByteAt(event, 0)) << " Opcode "
               << StringPrintf("%#x", opcode) << " credits " << credits << " <" << toString(event)
               << ">";

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
  Transmit(HCI_PACKET_TYPE_COMMAND, next.data.data(), next.data.size());
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
  std::lock_guard<std::mutex> guard(lock_);
  if (IsHalted(__func__)) return;
  halted_.store(true, std::memory_order_release);
  for (HciEventWatcher* watcher : watchers_) watcher->OnHalt();
  watchers_.clear();
}

}  // namespace android::hardware::bluetooth::hci
