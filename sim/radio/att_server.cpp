#include "sim/radio/att_server.h"

#include <algorithm>
#include <map>

namespace zvk {
namespace {

constexpr size_t kDefaultMtu = 23;
constexpr size_t kServerMtu = 247;  // fills one ACL packet of 251 bytes
constexpr size_t kLongestValue = 512;
constexpr size_t kMostPrepared = 64;  // writes
constexpr auto kTickPeriod = std::chrono::seconds(1);

// Opcodes; an answer's is the request's plus one.
constexpr uint8_t kErrorResponse = 0x01;
constexpr uint8_t kExchangeMtu = 0x02;
constexpr uint8_t kFindInformation = 0x04;
constexpr uint8_t kFindByTypeValue = 0x06;
constexpr uint8_t kReadByType = 0x08;
constexpr uint8_t kRead = 0x0A;
constexpr uint8_t kReadBlob = 0x0C;
constexpr uint8_t kReadByGroupType = 0x10;
constexpr uint8_t kWrite = 0x12;
constexpr uint8_t kPrepareWrite = 0x16;
constexpr uint8_t kExecuteWrite = 0x18;
constexpr uint8_t kNotification = 0x1B;
constexpr uint8_t kConfirmation = 0x1E;
constexpr uint8_t kCommandFlag = 0x40;
constexpr uint8_t kWriteCommand = 0x52;

// Error codes.
constexpr uint8_t kInvalidHandle = 0x01;
constexpr uint8_t kReadNotPermitted = 0x02;
constexpr uint8_t kWriteNotPermitted = 0x03;
constexpr uint8_t kInvalidPdu = 0x04;
constexpr uint8_t kRequestNotSupported = 0x06;
constexpr uint8_t kInvalidOffset = 0x07;
constexpr uint8_t kPrepareQueueFull = 0x09;
constexpr uint8_t kAttributeNotFound = 0x0A;
constexpr uint8_t kInvalidLength = 0x0D;
constexpr uint8_t kUnsupportedGroupType = 0x10;

constexpr uint8_t kNotifyBit = 0x01;

bool Same(ByteView a, ByteView b) { return std::equal(a.begin(), a.end(), b.begin(), b.end()); }

const Bytes kPrimaryService = {0x00, 0x28};
const Bytes kSecondaryService = {0x01, 0x28};

}  // namespace

AttServer::AttServer(EventLoop& loop, Send send)
    : loop_(loop), send_(std::move(send)), attributes_(MakeGattDatabase()), mtu_(kDefaultMtu) {}

void AttServer::OnPdu(ByteView pdu) {
  if (pdu.empty() || pdu[0] == kConfirmation) return;
  static constexpr struct {
    uint8_t opcode;
    size_t least;  // bytes of the request
    size_t most;
    bool range;  // of handles: the first two fields
    void (AttServer::*answer)(ByteView pdu);
  } kRequests[] = {
      {kExchangeMtu, 3, 3, false, &AttServer::ExchangeMtu},
      {kFindInformation, 5, 5, true, &AttServer::FindInformation},
      {kFindByTypeValue, 7, SIZE_MAX, true, &AttServer::FindByTypeValue},
      {kReadByType, 7, 21, true, &AttServer::ReadByType},
      {kRead, 3, 3, false, &AttServer::Read},
      {kReadBlob, 5, 5, false, &AttServer::ReadBlob},
      {kReadByGroupType, 7, 21, true, &AttServer::ReadByGroupType},
      {kWrite, 3, SIZE_MAX, false, &AttServer::Write},
      {kPrepareWrite, 5, SIZE_MAX, false, &AttServer::PrepareWrite},
      {kExecuteWrite, 2, 2, false, &AttServer::ExecuteWrite},
  };
  if (pdu[0] == kWriteCommand) return WriteCommand(pdu);
  for (const auto& request : kRequests) {
    if (request.opcode != pdu[0]) continue;
    if (pdu.size() < request.least || pdu.size() > request.most) {
      return Error(pdu[0], 0, kInvalidPdu);
    }
    if (request.range && (pdu.U16(1) == 0 || pdu.U16(1) > pdu.U16(3))) {
      return Error(pdu[0], pdu.U16(1), kInvalidHandle);
    }
    return (this->*request.answer)(pdu);
  }
  // Unknown requests are answered, unknown commands are not. Answers have odd opcodes.
  if ((pdu[0] & kCommandFlag) == 0 && (pdu[0] & 1) == 0) Error(pdu[0], 0, kRequestNotSupported);
}

void AttServer::Error(uint8_t request, uint16_t handle, uint8_t code) {
  send_(Writer{kErrorResponse, request}.U16(handle).U8(code));
}

// The attributes of a request's range of handles; with a type, those of that type.
std::vector<const Attribute*> AttServer::InRange(ByteView pdu, std::optional<ByteView> type) const {
  std::vector<const Attribute*> found;
  for (const Attribute& attribute : attributes_) {
    if (attribute.handle < pdu.U16(1) || attribute.handle > pdu.U16(3)) continue;
    if (!type || Same(attribute.type, *type)) found.push_back(&attribute);
  }
  return found;
}

Attribute* AttServer::Find(uint16_t handle) {
  for (Attribute& attribute : attributes_) {
    if (attribute.handle == handle) return &attribute;
  }
  return nullptr;
}

void AttServer::ExchangeMtu(ByteView pdu) {
  send_(Writer{kExchangeMtu + 1}.U16(kServerMtu));
  mtu_ = std::clamp<size_t>(pdu.U16(1), kDefaultMtu, kServerMtu);
}

void AttServer::FindInformation(ByteView pdu) {
  Writer list;
  size_t type_size = 0;
  for (const Attribute* attribute : InRange(pdu, std::nullopt)) {
    if (type_size == 0) type_size = attribute->type.size();
    if (attribute->type.size() != type_size) break;  // one format in an answer
    if (2 + list.bytes().size() + 2 + type_size > mtu_) break;
    list.U16(attribute->handle).Append(attribute->type);
  }
  if (type_size == 0) return Error(pdu[0], pdu.U16(1), kAttributeNotFound);
  send_(Writer{kFindInformation + 1}.U8(type_size == 2 ? 1 : 2).Append(list));
}

void AttServer::FindByTypeValue(ByteView pdu) {
  Writer list;
  for (const Attribute* attribute : InRange(pdu, pdu.Sub(5, 2))) {
    if (!Same(attribute->value, pdu.From(7))) continue;
    if (1 + list.bytes().size() + 4 > mtu_) break;
    list.U16(attribute->handle).U16(std::max(attribute->handle, attribute->group_end));
  }
  if (list.bytes().empty()) return Error(pdu[0], pdu.U16(1), kAttributeNotFound);
  send_(Writer{kFindByTypeValue + 1}.Append(list));
}

void AttServer::ReadByType(ByteView pdu) {
  const ByteView type = pdu.From(5);
  if (type.size() != 2 && type.size() != 16) return Error(pdu[0], pdu.U16(1), kInvalidPdu);
  Writer list;
  size_t entry = 0;  // bytes of handle and value: the same in all of an answer
  for (const Attribute* attribute : InRange(pdu, type)) {
    if (!attribute->readable) return Error(pdu[0], attribute->handle, kReadNotPermitted);
    const ByteView value = ByteView(attribute->value).Sub(0, std::min<size_t>(mtu_ - 4, 253));
    if (entry == 0) entry = 2 + value.size();
    if (2 + value.size() != entry || 2 + list.bytes().size() + entry > mtu_) break;
    list.U16(attribute->handle).Append(value);
  }
  if (entry == 0) return Error(pdu[0], pdu.U16(1), kAttributeNotFound);
  send_(Writer{kReadByType + 1}.U8(static_cast<unsigned>(entry)).Append(list));
}

void AttServer::ReadByGroupType(ByteView pdu) {
  const ByteView type = pdu.From(5);
  if (!Same(type, kPrimaryService) && !Same(type, kSecondaryService)) {
    return Error(pdu[0], pdu.U16(1), kUnsupportedGroupType);
  }
  Writer list;
  size_t entry = 0;
  for (const Attribute* attribute : InRange(pdu, type)) {
    if (entry == 0) entry = 4 + attribute->value.size();
    if (4 + attribute->value.size() != entry || 2 + list.bytes().size() + entry > mtu_) break;
    list.U16(attribute->handle).U16(attribute->group_end).Append(attribute->value);
  }
  if (entry == 0) return Error(pdu[0], pdu.U16(1), kAttributeNotFound);
  send_(Writer{kReadByGroupType + 1}.U8(static_cast<unsigned>(entry)).Append(list));
}

void AttServer::Read(ByteView pdu) {
  const Attribute* attribute = Find(pdu.U16(1));
  if (attribute == nullptr) return Error(pdu[0], pdu.U16(1), kInvalidHandle);
  if (!attribute->readable) return Error(pdu[0], attribute->handle, kReadNotPermitted);
  send_(Writer{kRead + 1}.Append(ByteView(attribute->value).Sub(0, mtu_ - 1)));
}

void AttServer::ReadBlob(ByteView pdu) {
  const Attribute* attribute = Find(pdu.U16(1));
  const size_t offset = pdu.U16(3);
  if (attribute == nullptr) return Error(pdu[0], pdu.U16(1), kInvalidHandle);
  if (!attribute->readable) return Error(pdu[0], attribute->handle, kReadNotPermitted);
  if (offset > attribute->value.size()) return Error(pdu[0], attribute->handle, kInvalidOffset);
  send_(Writer{kReadBlob + 1}.Append(ByteView(attribute->value).Sub(offset, mtu_ - 1)));
}

uint8_t AttServer::Refusal(uint16_t handle, size_t size) {
  const Attribute* attribute = Find(handle);
  if (attribute == nullptr) return kInvalidHandle;
  if (!attribute->writable) return kWriteNotPermitted;
  const bool right_size = handle == kValueConfigHandle ? size == 2 : size <= kLongestValue;
  return right_size ? uint8_t{0} : kInvalidLength;
}

uint8_t AttServer::Store(uint16_t handle, ByteView value) {
  const uint8_t refusal = Refusal(handle, value.size());
  if (refusal == 0) Find(handle)->value = value.Copy();
  return refusal;
}

void AttServer::AfterStore(uint16_t handle) {
  const bool notify = (Find(kValueConfigHandle)->value[0] & kNotifyBit) != 0;
  loop_.Cancel(&tick_);
  if (!notify) return;
  tick_ = loop_.After(kTickPeriod, [this] { Tick(); });
  if (handle == kValueHandle) Notify();
}

void AttServer::Write(ByteView pdu) {
  const uint16_t handle = pdu.U16(1);
  const uint8_t error = Store(handle, pdu.From(3));
  if (error != 0) return Error(pdu[0], handle, error);
  send_(Writer{kWrite + 1});
  AfterStore(handle);
}

void AttServer::WriteCommand(ByteView pdu) {
  const uint16_t handle = pdu.U16(1);
  if (pdu.size() >= 3 && Store(handle, pdu.From(3)) == 0) AfterStore(handle);
}

void AttServer::PrepareWrite(ByteView pdu) {
  const uint16_t handle = pdu.U16(1);
  const Attribute* attribute = Find(handle);
  if (attribute == nullptr) return Error(pdu[0], handle, kInvalidHandle);
  if (!attribute->writable) return Error(pdu[0], handle, kWriteNotPermitted);
  if (prepared_.size() == kMostPrepared) return Error(pdu[0], handle, kPrepareQueueFull);
  prepared_.push_back({handle, pdu.U16(3), pdu.From(5).Copy()});
  send_(Writer{kPrepareWrite + 1}.Append(pdu.From(1)));
}

// Each part is put at its offset and ends the value; nothing is stored when one is refused.
void AttServer::ExecuteWrite(ByteView pdu) {
  constexpr uint8_t kCancel = 0;
  const std::vector<PreparedWrite> parts = std::move(prepared_);
  prepared_.clear();
  if (pdu[1] == kCancel) return send_(Writer{kExecuteWrite + 1});
  std::map<uint16_t, Bytes> values;
  for (const PreparedWrite& part : parts) {
    Bytes& value = values.try_emplace(part.handle, Find(part.handle)->value).first->second;
    if (part.offset > value.size()) return Error(pdu[0], part.handle, kInvalidOffset);
    value.resize(part.offset);
    value.insert(value.end(), part.part.begin(), part.part.end());
  }
  for (const auto& [handle, value] : values) {
    const uint8_t refusal = Refusal(handle, value.size());
    if (refusal != 0) return Error(pdu[0], handle, refusal);
  }
  for (const auto& [handle, value] : values) Store(handle, value);
  send_(Writer{kExecuteWrite + 1});
  for (const auto& [handle, value] : values) AfterStore(handle);
}

void AttServer::Notify() {
  const ByteView value(Find(kValueHandle)->value);
  send_(Writer{kNotification}.U16(kValueHandle).Append(value.Sub(0, mtu_ - 3)));
}

void AttServer::Tick() {
  tick_ = loop_.After(kTickPeriod, [this] { Tick(); });
  Notify();
}

}  // namespace zvk
