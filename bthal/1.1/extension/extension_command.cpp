#include "extension/extension_command.h"

#include <android-base/logging.h>

#include <string>
#include <utility>

namespace android::hardware::bluetooth {
namespace {

void LogSwitch(const std::string& log_tag, const char* operation) {
  if (!base::ShouldLog(base::DEBUG, log_tag.c_str())) return;
  base::LogMessage(__FILE__, __LINE__, base::DEBUG, log_tag.c_str(), -1).stream() << operation;
}

}  // namespace

void CurrentFlowControl::Set(hci::HciFlowControl* flow) {
  Ref kept = flow->shared_from_this();
  std::lock_guard<std::mutex> guard(lock_);
  flow_.swap(kept);
}

CurrentFlowControl::Ref CurrentFlowControl::Clear() {
  std::lock_guard<std::mutex> guard(lock_);
  return std::exchange(flow_, nullptr);
}

CurrentFlowControl::Ref CurrentFlowControl::Get() const {
  std::lock_guard<std::mutex> guard(lock_);
  return flow_;
}

void ExtensionCommand::Start(hci::HciFlowControl* flow) {
  LogSwitch(name(), "OnBluetoothEnabled");
  Enable(flow);
}

void ExtensionCommand::Stop() {
  LogSwitch(name(), "OnBluetoothDisabled");
  Disable();
}

void ExtensionCommand::Enable(hci::HciFlowControl* flow) {
  flow_.Set(flow);
  flow->RegisterEventWatcher(this);
}

void ExtensionCommand::Disable() {
  const CurrentFlowControl::Ref flow = flow_.Clear();
  if (flow != nullptr) flow->UnregisterEventWatcher(this);
}

void ExtensionCommand::SendCommand(hci::HciFlowControl& flow, const std::vector<uint8_t>& command) {
  ++pending_;
  // A command that was never sent is never answered: left open, it would cost the stack an answer.
  if (flow.Send(hci::HCI_PACKET_TYPE_COMMAND, command.data(), command.size()) == 0) TakePending();
}

bool ExtensionCommand::TakePending() {
  uint32_t open = pending_;
  while (open != 0 && !pending_.compare_exchange_weak(open, open - 1)) {
  }
  return open != 0;
}

bool ExtensionCommand::OnEventReceive(const hidl_vec<uint8_t>& event) {
  LogAnswer(event, base::INFO, "(" + std::to_string(pending()) + ") ");
  return TakePending();
}

}  // namespace android::hardware::bluetooth
