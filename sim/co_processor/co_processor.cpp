#include "sim/co_processor/co_processor.h"

#include <bt_messages_generated.h>

#include "sim/base/log.h"
#include "sim/controller/chip.h"

namespace zvk {
namespace {

constexpr char kServerName[] = "chre_bt";
constexpr int32_t kServerNumber = 0x0B7;

constexpr int32_t kPacketMessage = 8;
constexpr int32_t kControlMessage = 36;

// First byte of a control request.
enum Control : uint8_t { kPower = 0, kLowPower = 1, kSpeed = 2, kDump = 3 };

constexpr uint32_t kFastest = 6144000;

// Error numbers of the messaging library.
constexpr uint32_t kNone = 0;
constexpr uint32_t kNotFound = 7;
constexpr uint32_t kNotSupported = 8;
constexpr uint32_t kBadValue = 9;
constexpr uint32_t kNotReady = 12;
constexpr uint32_t kContainerFull = 17;

Bytes EventTable(int kind, ByteView packet) {
  flatbuffers::FlatBufferBuilder builder;
  builder.Finish(
      chre::bt::CreateEvent(builder, kind, builder.CreateVector(packet.data(), packet.size())));
  return {builder.GetBufferPointer(), builder.GetBufferPointer() + builder.GetSize()};
}

int KindOf(PacketType type) {
  switch (type) {
    case PacketType::kAcl:
      return 9;
    case PacketType::kSco:
      return 10;
    case PacketType::kIso:
      return 11;
    default:
      return 8;
  }
}

}  // namespace

// A decoded request, kept until it is carried out.
struct CoProcessor::Request {
  CoRequest what;
  uint32_t answer_kind;
  uint32_t serial;
  uint32_t error;  // why it cannot be carried out, or kNone
  Bytes payload;
};

CoProcessor::CoProcessor(EventLoop& loop, const std::string& socket, const std::string& line,
                         Board board)
    : loop_(loop),
      board_(std::move(board)),
      line_(
          loop, line, [this](PacketType type, ByteView packet) { SendEvent(KindOf(type), packet); },
          [this] { socket_.Hold(false); }),
      socket_(loop, socket, [this](const CoMessage& message) { OnMessage(message); }),
      speed_(kBootSpeed) {}

CoProcessor::State CoProcessor::state() const {
  State state{socket_.connected(), socket_.connections(), powered_, low_power_, line_speed(), {}};
  for (const auto& [request, count] : requests_) state.requests[CoRequestName(request)] = count;
  return state;
}

void CoProcessor::Leave(EventLoop::Duration time) {
  socket_.Close();
  line_.Close();
  powered_ = low_power_ = false;
  loop_.Cancel(&back_);
  if (time == EventLoop::Duration::zero()) return;
  back_ = loop_.After(time, [this] {
    back_ = EventLoop::kNoTimer;
    socket_.Open();
  });
}

void CoProcessor::SendTable(uint32_t type, ByteView table) {
  socket_.Send({CoMessage::kMessage, 0, type, table, {}});
}

void CoProcessor::SendEvent(int kind, ByteView packet) {
  SendTable(kPacketMessage, EventTable(kind, packet));
}

void CoProcessor::SendTruncatedEvent() {
  const Bytes table = EventTable(KindOf(PacketType::kEvent), Bytes(32, 0xFF));
  SendTable(kPacketMessage, ByteView(table).Sub(0, table.size() / 2));
}

void CoProcessor::OnMessage(const CoMessage& message) {
  board_.before_request();
  Request request{CoRequest::kFind, CoMessage::kFound, message.serial, kNone,
                  message.payload.Copy()};
  if (message.kind != CoMessage::kFind) {
    request.answer_kind =
        message.kind == CoMessage::kSend ? CoMessage::kCompleted : CoMessage::kResponse;
    flatbuffers::Verifier verifier(message.table.data(), message.table.size());
    const bool sound = verifier.VerifyBuffer<chre::bt::Request>(nullptr);
    const auto* table =
        sound ? flatbuffers::GetRoot<chre::bt::Request>(message.table.data()) : nullptr;
    const int32_t type = sound ? table->message_type() : 0;
    request.what =
        type == kPacketMessage ? CoRequest::kPacket
        : type == kControlMessage && message.payload[0] <= kDump
            ? static_cast<CoRequest>(static_cast<int>(CoRequest::kPower) + message.payload[0])
            : CoRequest::kUnknown;
    if (!sound || (type == kControlMessage && message.payload.empty())) {
      request.error = kBadValue;
    } else if (table->server_id() != kServerNumber) {
      request.error = kNotFound;
    } else if (request.what == CoRequest::kUnknown) {
      request.error = kNotSupported;
    }
  }
  ++requests_[request.what];
  const CommandFault fault = board_.on_request(request.what);
  if (fault.no_answer || !socket_.connected()) return;
  if (fault.late == ScenarioTime::zero()) {
    Run(request, fault);
    return;
  }
  loop_.After(fault.late, [this, request, fault, connections = socket_.connections()] {
    if (socket_.connected() && connections == socket_.connections()) Run(request, fault);
  });
}

void CoProcessor::Run(const Request& request, const CommandFault& fault) {
  Bytes answer;
  uint32_t error = request.error;
  if (fault.change.status) {
    error = *fault.change.status;
  } else if (error == kNone) {
    error = Execute(request, &answer);
  }
  if (error != kNone) {
    Log("co-processor: %s request refused: error %u", CoRequestName(request.what).c_str(), error);
  }
  if (!fault.change.lost) socket_.Send({request.answer_kind, request.serial, error, {}, answer});
}

uint32_t CoProcessor::Execute(const Request& request, Bytes* answer) {
  const ByteView payload(request.payload);
  switch (request.what) {
    case CoRequest::kFind:
      if (payload.Text() != kServerName) return kNotFound;
      *answer = Writer().U32(kServerNumber).bytes();
      return kNone;
    case CoRequest::kPacket:
      return Forward(payload);
    case CoRequest::kPower:
      return Power(payload.From(1));
    case CoRequest::kLowPower:
      return LowPower(payload.From(1));
    case CoRequest::kSpeed:
      return Speed(payload.From(1));
    case CoRequest::kDump:
      if (payload.size() != 1) return kBadValue;
      board_.dump();
      return kNone;
    default:
      return kNotSupported;
  }
}

uint32_t CoProcessor::Power(ByteView arguments) {
  if (arguments.size() != 1 || arguments[0] > 1) return kBadValue;
  const bool on = arguments[0] == 0;
  board_.note(on ? "co-processor on" : "co-processor off");
  powered_ = on;
  low_power_ = false;
  speed_ = kBootSpeed;
  line_.Close();
  return !on || line_.Open() ? kNone : kNotReady;
}

uint32_t CoProcessor::LowPower(ByteView arguments) {
  if (arguments.size() != 2) return kBadValue;
  const bool on = arguments[0] == 0 && arguments[1] == 24;
  if (!on && (arguments[0] != 1 || arguments[1] != 0)) return kBadValue;
  if (!powered_) return kNotReady;
  low_power_ = on;
  return kNone;
}

uint32_t CoProcessor::Speed(ByteView arguments) {
  const uint32_t speed = arguments.U32(0);
  const bool known = speed == kFastest || speed == 4000000 || speed == 3000000 || speed == 115200;
  if (arguments.size() != 5 || !known || arguments[4] != (speed == kFastest ? 2 : 1)) {
    return kBadValue;
  }
  if (!powered_) return kNotReady;
  board_.note("co-processor at " + std::to_string(speed) + " baud");
  speed_ = speed;
  line_.Restart();
  return kNone;
}

uint32_t CoProcessor::Forward(ByteView payload) {
  const PacketLayout* layout = LayoutOf(payload[1]);
  const auto type = static_cast<PacketType>(payload[1]);
  const ByteView packet = payload.From(2);
  if (payload[0] > 1 || layout == nullptr || type == PacketType::kEvent ||
      packet.size() < layout->header ||
      packet.size() - layout->header !=
          (packet.Little(layout->length_offset, layout->length_width) & layout->length_mask)) {
    return kBadValue;
  }
  if (!powered_) return kNotReady;
  if (!line_.Send(type, packet)) return kContainerFull;
  if (line_.full()) socket_.Hold(true);
  return kNone;
}

}  // namespace zvk
