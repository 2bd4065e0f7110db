#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "sim/base/event_loop.h"
#include "sim/radio/gatt_database.h"

namespace zvk {

// A small ATT server (Bluetooth Core 5.3, Vol 3, Part F): requests in, answers out. While the
// client has notifications on, the characteristic is notified once a second and after each write.
class AttServer {
 public:
  // pdu lives for the call.
  using Send = std::function<void(ByteView pdu)>;
  AttServer(EventLoop& loop, Send send);
  ~AttServer() { loop_.Cancel(&tick_); }

  void OnPdu(ByteView pdu);

 private:
  void ExchangeMtu(ByteView pdu);
  void FindInformation(ByteView pdu);
  void FindByTypeValue(ByteView pdu);
  void ReadByType(ByteView pdu);
  void ReadByGroupType(ByteView pdu);
  void Read(ByteView pdu);
  void ReadBlob(ByteView pdu);
  void Write(ByteView pdu);
  void WriteCommand(ByteView pdu);
  void PrepareWrite(ByteView pdu);
  void ExecuteWrite(ByteView pdu);

  struct PreparedWrite {
    uint16_t handle;
    uint16_t offset;
    Bytes part;
  };

  std::vector<const Attribute*> InRange(ByteView pdu, std::optional<ByteView> type) const;
  Attribute* Find(uint16_t handle);
  // What a write of value would be refused with: an ATT error code, or 0.
  uint8_t Refusal(uint16_t handle, size_t size);
  // 0 or an ATT error code.
  uint8_t Store(uint16_t handle, ByteView value);
  void AfterStore(uint16_t handle);
  void Error(uint8_t request, uint16_t handle, uint8_t code);
  void Notify();
  void Tick();

  EventLoop& loop_;
  const Send send_;
  std::vector<Attribute> attributes_;
  std::vector<PreparedWrite> prepared_;  // until the client executes or cancels them
  size_t mtu_;
  EventLoop::TimerId tick_ = EventLoop::kNoTimer;
};

}  // namespace zvk
