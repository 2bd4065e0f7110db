#include "sim/controller/data_flow.h"

#include "sim/base/log.h"
#include "sim/controller/buffers.h"
#include "sim/wire.h"

namespace zvk {
namespace {

constexpr size_t kMostWaiting = 1000;  // packets kept for a host without credits

unsigned Room(DataFlow::Buffer buffer) {
  switch (buffer) {
    case DataFlow::Buffer::kAcl:
      return kAclBuffers;
    case DataFlow::Buffer::kLeAcl:
      return kLeAclBuffers;
    case DataFlow::Buffer::kIso:
      return kIsoBuffers;
  }
  return 0;
}

}  // namespace

bool DataFlow::Take(Buffer buffer, uint16_t handle) {
  constexpr uint8_t kAclLink = 0x01;
  constexpr uint8_t kIsoLink = 0x02;
  if (used_[buffer] >= Room(buffer)) {
    Log("the host sent more packets than there are buffers");
    out_.Event(event::kDataBufferOverflow, Writer{buffer == Buffer::kIso ? kIsoLink : kAclLink});
    return false;
  }
  ++used_[buffer];
  ++completed_[handle];
  return true;
}

void DataFlow::Complete() {
  if (completed_.empty()) return;
  Writer params;
  params.U8(static_cast<unsigned>(completed_.size()));
  for (const auto& [handle, count] : completed_) params.U16(handle).U16(count);
  completed_.clear();
  used_.clear();
  out_.Event(event::kNumberOfCompletedPackets, params);
}

void DataFlow::SendAcl(ByteView packet) {
  if (!host_flow_control_) {
    out_.Data(PacketType::kAcl, packet);
  } else if (host_credits_ > 0 && waiting_.empty()) {
    --host_credits_;
    out_.Data(PacketType::kAcl, packet);
  } else if (waiting_.size() < kMostWaiting) {
    waiting_.push_back(packet.Copy());
  } else {
    Log("ACL data for a host that grants no credits is dropped");
  }
}

void DataFlow::SetHostFlowControl(bool on) {
  host_flow_control_ = on;
  if (!on) HostCompleted(0);
}

void DataFlow::HostCompleted(uint16_t packets) {
  host_credits_ += packets;
  while (!waiting_.empty() && (host_credits_ > 0 || !host_flow_control_)) {
    if (host_flow_control_) --host_credits_;
    out_.Data(PacketType::kAcl, waiting_.front());
    waiting_.pop_front();
  }
}

void DataFlow::Reset() {
  used_.clear();
  completed_.clear();
  waiting_.clear();
  host_flow_control_ = false;
  host_credits_ = 0;
}

}  // namespace zvk
