#include "tools/link/transfer.h"

#include <algorithm>
#include <cstdio>

#include "tools/base/failure.h"
#include "tools/hci/packet.h"

namespace bthalctl {
namespace {

constexpr std::chrono::seconds kSilence{10};

// A whole SDU in an ISO packet without time stamp: sequence number and length come first
// (Bluetooth Core 5.3, Vol 4, Part E, 5.4.5).
constexpr size_t kIsoDataHeader = 4;

struct StreamState {
  StreamState(const Stream& from, const TransferOptions& options, uint64_t seed)
      : stream(from),
        out(options.pattern, seed, options.size, Room(from)),
        back(options.pattern, seed, options.size, Room(from)),
        credits(from.buffers) {
    result.type = from.type;
  }
  static size_t Room(const Stream& stream) {
    return stream.type == PacketType::kIso ? stream.max_payload - kIsoDataHeader
                                           : stream.max_payload;
  }
  bool MaySend() const {
    return (stream.counted ? credits
                           : stream.buffers - static_cast<unsigned>(sent - result.packets)) > 0;
  }

  Stream stream;
  PayloadSource out;
  PayloadSource back;
  unsigned credits;
  uint64_t sent = 0;  // packets
  StreamResult result;
};

Packet Build(const StreamState& state, const Bytes& payload) {
  switch (state.stream.type) {
    case PacketType::kIso: {
      Writer data;
      data.U16(state.sent & 0xFFFF)
          .U16(static_cast<unsigned>(payload.size()) & 0x0FFF)
          .Append(payload);
      return DataPacket(PacketType::kIso, state.stream.handle, 0b10, data.Done());
    }
    default:
      return DataPacket(state.stream.type, state.stream.handle, 0, payload);
  }
}

void Compare(StreamState& state, const Packet& packet) {
  const std::string what =
      std::string(TypeName(packet.type)) + " packet " + std::to_string(state.result.packets + 1);
  if (state.result.packets == state.sent) throw Failure(what + " came back but was never sent");
  Reader in(packet.bytes);
  in.Skip(wire::LayoutOf(static_cast<uint8_t>(packet.type))->header);
  if (packet.type == PacketType::kIso) in.Skip(kIsoDataHeader);
  const Bytes expected = state.back.Next();
  const Bytes got = in.Rest();
  if (got != expected) {
    const size_t same = static_cast<size_t>(
        std::mismatch(got.begin(), got.end(), expected.begin(), expected.end()).first -
        got.begin());
    throw Failure(what + " did not come back as it was sent: lost, altered or out of order (" +
                  std::to_string(expected.size()) + " bytes sent, " + std::to_string(got.size()) +
                  " came, different from byte " + std::to_string(same) + " on)");
  }
  ++state.result.packets;
  state.result.bytes += got.size();
}

void OnPacket(std::vector<StreamState>& states, const Packet& packet) {
  if (packet.type != PacketType::kEvent) {
    for (StreamState& state : states) {
      if (state.stream.type == packet.type && state.stream.handle == HandleOf(packet)) {
        return Compare(state, packet);
      }
    }
    return;  // of another connection
  }
  Reader in(packet.bytes);
  const uint8_t code = in.U8();
  in.Skip(1);
  if (code == event::kNumberOfCompletedPackets) {
    for (unsigned left = in.U8(); left > 0 && in.ok(); --left) {
      const uint16_t handle = in.U16() & 0x0FFF;
      const uint16_t count = in.U16();
      for (StreamState& state : states) {
        if (state.stream.counted && state.stream.handle == handle) {
          state.credits = std::min(state.credits + count, state.stream.buffers);
        }
      }
    }
  } else if (code == event::kDisconnectionComplete && in.U8() == 0) {
    const uint16_t handle = in.U16() & 0x0FFF;
    for (const StreamState& state : states) {
      if (state.stream.handle == handle) throw Failure("the connection was lost");
    }
  } else if (code == event::kDataBufferOverflow) {
    throw Failure("the controller's buffers overflowed");
  }
}

}  // namespace

Bytes PayloadSource::Next() {
  constexpr uint8_t kControlBytes[] = {0x0A, 0x0D, 0x11, 0x13, 0xFF};
  const size_t size =
      size_ != 0 ? std::min(size_, max_size_) : 1 + static_cast<size_t>(random_() % max_size_);
  Bytes payload(size);
  for (size_t i = 0; i < size;) {
    uint64_t word = random_();
    for (size_t k = 0; k < 8 && i < size; ++k, ++i, word >>= 8) {
      switch (pattern_) {
        case Pattern::kRandom:
          payload[i] = static_cast<uint8_t>(word);
          break;
        case Pattern::kControl:
          payload[i] = kControlBytes[(word & 0xFF) % 5];
          break;
        case Pattern::kCounter:
          payload[i] = counter_++;
          break;
      }
    }
  }
  return payload;
}

TransferResult Transfer(Exchange& exchange, const std::vector<Stream>& streams,
                        const TransferOptions& options,
                        const std::function<void(uint64_t bytes)>& progress) {
  std::vector<StreamState> states;
  for (size_t i = 0; i < streams.size(); ++i)
    states.emplace_back(streams[i], options, options.seed + i);
  const TimePoint start = Clock::now();
  uint64_t sent = 0;
  uint64_t back = 0;
  while (sent < options.bytes || back < sent) {
    bool busy = false;
    for (StreamState& state : states) {
      if (sent >= options.bytes || !state.MaySend()) continue;
      const Bytes payload = state.out.Next();
      exchange.link().Send(Build(state, payload));
      ++state.sent;
      if (state.stream.counted) --state.credits;
      sent += payload.size();
      busy = true;
    }
    // While there is something to send, take only what is there already.
    std::optional<Packet> packet = exchange.Next(busy ? TimePoint() : Clock::now() + kSilence);
    if (!packet && !busy) {
      throw Failure(std::to_string(sent - back) + " bytes are lost: nothing came back for " +
                    std::to_string(kSilence.count()) + " s");
    }
    if (packet) OnPacket(states, *packet);
    back = 0;
    for (const StreamState& state : states) back += state.result.bytes;
    progress(back);
  }
  TransferResult result;
  result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  for (const StreamState& state : states) result.streams.push_back(state.result);
  return result;
}

}  // namespace bthalctl
