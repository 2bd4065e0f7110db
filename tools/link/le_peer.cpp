#include "tools/link/le_peer.h"

#include <set>

#include "tools/base/failure.h"
#include "tools/hci/names.h"
#include "tools/hci/packet.h"

namespace bthalctl {
namespace {

constexpr std::chrono::seconds kFindTime{10};
constexpr std::chrono::seconds kPeerAnswerTime{10};
constexpr uint16_t kAttChannel = 4;
constexpr uint16_t kDeviceName = 0x2A00;
constexpr uint8_t kReadByTypeRequest = 0x08;
constexpr uint8_t kErrorResponse = 0x01;
constexpr uint8_t kRequestNotSupported = 0x06;
constexpr uint8_t kByUser = 0x13;
constexpr uint64_t kAllEvents = 0x3FFF'FFFF'FFFF'FFFF;
// Up to LE Extended Advertising Report, but the plain LE Connection Complete, not the enhanced one.
constexpr uint64_t kLeEventMask = 0x1DFF;

// ATT methods come in pairs, the request's code even, its response's odd; one with bit 6 is a
// command and has none (Core 5.3, 3.F.3.3). 0x1E confirms an indication.
bool IsAttRequest(uint8_t code) { return code % 2 == 0 && (code & 0x40) == 0 && code != 0x1E; }

}  // namespace

void ResetController(Exchange& exchange) {
  exchange.Demand(opcode::kReset);
  UnmaskEvents(exchange);
}

void UnmaskEvents(Exchange& exchange) {
  exchange.Demand(opcode::kSetEventMask, Writer().Little(kAllEvents, 8).Done());
  exchange.Demand(opcode::kLeSetEventMask, Writer().Little(kLeEventMask, 8).Done());
}

void Scan(Exchange& exchange, bool active, TimePoint deadline,
          const std::function<bool(const Advertisement&)>& heard) {
  constexpr unsigned kInterval = 0x60;  // 60 ms in units of 0.625 ms; the window is as long
  exchange.Demand(opcode::kLeSetScanParameters,
                  Writer().U8(active ? 1 : 0).U16(kInterval).U16(kInterval).U8(0).U8(0).Done());
  bool done = false;
  try {
    exchange.Demand(opcode::kLeSetScanEnable, {1, 0});
    while (!done) {
      const std::optional<Packet> packet = exchange.Next(deadline);
      if (!packet) break;
      for (const Advertisement& report : Advertisements(*packet)) done = heard(report) || done;
    }
  } catch (const Interrupted&) {
    ForgetStopSignal();
    exchange.Command(opcode::kLeSetScanEnable, {0, 0});
    throw;
  }
  exchange.Command(opcode::kLeSetScanEnable, {0, 0});
}

LePeer::LePeer(Exchange& exchange, const std::string& target) : exchange_(exchange) {
  const std::optional<Bytes> address = ParseAddress(target);
  // The name may come in a scan response, which does not say whether the peer is connectable.
  std::set<Bytes> connectable;
  std::set<Bytes> wanted;
  bool found = false;
  Scan(exchange, true, Clock::now() + kFindTime, [&](const Advertisement& report) {
    if (report.connectable) connectable.insert(report.address);
    if (address ? report.address == *address : report.name == target) wanted.insert(report.address);
    found = connectable.count(report.address) > 0 && wanted.count(report.address) > 0;
    if (found) advertisement_ = report;
    return found;
  });
  if (!found) {
    throw Failure("no connectable \"" + target + "\" was heard in " +
                  std::to_string(kFindTime.count()) + " s");
  }
  Writer parameters;
  parameters.U16(0x60).U16(0x60).U8(0);  // scan interval, window; no filter
  parameters.U8(advertisement_.random ? 1 : 0).Append(advertisement_.address).U8(0);
  parameters.U16(6).U16(12).U16(0).U16(400).U16(0).U16(0);  // 7.5 to 15 ms, supervision 4 s
  exchange.Demand(opcode::kLeCreateConnection, parameters.Done());
  const std::optional<Packet> done = exchange.NextEvent(
      event::kLeMeta, Clock::now() + kPeerAnswerTime, le_event::kConnectionComplete);
  if (!done) {
    exchange.Command(opcode::kLeCreateConnectionCancel);
    throw Failure("\"" + target + "\" does not answer");
  }
  Reader in(done->bytes);
  in.Skip(3);
  const uint8_t status = in.U8();
  handle_ = in.U16() & 0x0FFF;
  if (status != 0 || !in.ok()) {
    throw Failure("cannot connect to \"" + target + "\": " + StatusText(status));
  }
}

LePeer::~LePeer() {
  try {
    const CommandAnswer answer =
        exchange_.Command(opcode::kDisconnect, Writer().U16(handle_).U8(kByUser).Done());
    if (answer.status == 0) {
      exchange_.NextEvent(event::kDisconnectionComplete, Clock::now() + kPeerAnswerTime);
    }
  } catch (const Failure&) {
    // The link is gone, and with it the connection.
  } catch (const Interrupted&) {
  }
}

void LePeer::SendAtt(const Bytes& message) {
  Writer frame;
  frame.U16(static_cast<unsigned>(message.size())).U16(kAttChannel).Append(message);
  exchange_.link().Send(DataPacket(PacketType::kAcl, handle_, 0, frame.Done()));
}

Bytes LePeer::AttRequest(const Bytes& request) {
  SendAtt(request);
  const TimePoint deadline = Clock::now() + kPeerAnswerTime;
  Bytes frame_in;
  while (const std::optional<Packet> packet = exchange_.Next(deadline)) {
    if (packet->type != PacketType::kAcl || HandleOf(*packet) != handle_) continue;
    Reader in(packet->bytes);
    const bool first = ((in.U16() >> 12) & 3) != 1;
    in.Skip(2);
    if (first) frame_in.clear();
    const Bytes part = in.Rest();
    frame_in.insert(frame_in.end(), part.begin(), part.end());
    Reader frame_reader(frame_in);
    const size_t size = frame_reader.U16();
    const uint16_t channel = frame_reader.U16();
    if (frame_in.size() < 4 || frame_reader.left() < size || channel != kAttChannel) continue;
    Bytes message = frame_reader.Rest();
    const uint8_t code = Reader(message).U8();
    const bool refused = code == kErrorResponse && message.size() > 1 && message[1] == request[0];
    if (refused || code == request[0] + 1) return message;
    if (IsAttRequest(code)) SendAtt({kErrorResponse, code, 0, 0, kRequestNotSupported});
  }
  throw Failure("the peer did not answer an ATT request");
}

std::string LePeer::ReadDeviceName() {
  Writer request;
  request.U8(kReadByTypeRequest).U16(0x0001).U16(0xFFFF).U16(kDeviceName);
  const Bytes answer = AttRequest(request.Done());
  Reader in(answer);
  if (in.U8() == kErrorResponse) throw Failure("the peer has no device name");
  const uint8_t entry = in.U8();
  in.Skip(2);
  if (entry < 2) throw Failure("the peer's ATT answer makes no sense");
  const Bytes name = in.Take(entry - 2u);
  return std::string(name.begin(), name.end());
}

}  // namespace bthalctl
