// H4Protocol's framer on a mixed stream of 64 MiB, by chunk size, beside memcpy of the same bytes
// in the same chunks. ns_per_packet is the figure to compare.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "h4/h4_protocol.h"

namespace {

using namespace android::hardware::bluetooth::hci;  // NOLINT(build/namespaces)

constexpr size_t kStreamSize = 64 << 20;

struct Stream {
  std::vector<uint8_t> bytes;
  size_t packets = 0;
};

void Append(Stream* stream, std::mt19937* random, HciPacketType type, size_t payload) {
  std::vector<uint8_t>& bytes = stream->bytes;
  bytes.push_back(type);
  const HeaderFormat& format = kHeaders[type];
  std::vector<uint8_t> header(format.size, 0x42);
  header[format.length_offset] = static_cast<uint8_t>(payload);
  if (format.length_size == 2)
    header[format.length_offset + 1] = static_cast<uint8_t>(payload >> 8);
  bytes.insert(bytes.end(), header.begin(), header.end());
  for (size_t i = 0; i < payload; ++i) bytes.push_back(static_cast<uint8_t>((*random)()));
  ++stream->packets;
}

// What a busy controller sends: mostly short events, ACL data of all sizes, some SCO and ISO.
const Stream& MixedStream() {
  static const Stream stream = [] {
    Stream s;
    std::mt19937 random(20);
    s.bytes.reserve(kStreamSize + 2048);
    while (s.bytes.size() < kStreamSize) {
      switch (random() % 10) {
        case 0:
        case 1:
        case 2:
          Append(&s, &random, HCI_PACKET_TYPE_ACL_DATA, 1 + random() % 1021);
          break;
        case 3:
          Append(&s, &random, HCI_PACKET_TYPE_SCO_DATA, 60);
          break;
        case 4:
          Append(&s, &random, HCI_PACKET_TYPE_ISO_DATA, 1 + random() % 120);
          break;
        default:
          Append(&s, &random, HCI_PACKET_TYPE_EVENT, 1 + random() % 60);
      }
    }
    return s;
  }();
  return stream;
}

template <typename Consume>
void RunChunks(benchmark::State& state, const Consume& consume) {
  const Stream& stream = MixedStream();
  const auto chunk = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    for (size_t at = 0; at < stream.bytes.size(); at += chunk) {
      consume(stream.bytes.data() + at, std::min(chunk, stream.bytes.size() - at));
    }
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(stream.bytes.size()));
  state.counters["ns_per_packet"] = benchmark::Counter(
      static_cast<double>(stream.packets) * static_cast<double>(state.iterations()) * 1e-9,
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_Framer(benchmark::State& state) {
  size_t packets = 0;
  const PacketReceiver count = [&](const auto& packet) {
    benchmark::DoNotOptimize(packet.data());
    ++packets;
  };
  H4Protocol h4(-1, count, count, count, count);
  RunChunks(state, [&](const uint8_t* data, size_t size) { h4.OnBytes(data, size); });
  if (packets != MixedStream().packets * static_cast<size_t>(state.iterations()))
    state.SkipWithError("packets lost");
}

void BM_Memcpy(benchmark::State& state) {
  std::vector<uint8_t> target(65536);
  RunChunks(state, [&](const uint8_t* data, size_t size) {
    memcpy(target.data(), data, size);
    benchmark::ClobberMemory();
  });
}

#define CHUNKS ->Arg(1)->Arg(16)->Arg(256)->Arg(4096)->Arg(65536)->Unit(benchmark::kMillisecond)
BENCHMARK(BM_Framer) CHUNKS;
BENCHMARK(BM_Memcpy) CHUNKS;

}  // namespace
