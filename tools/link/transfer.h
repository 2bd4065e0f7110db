#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tools/link/exchange.h"

namespace bthalctl {

// The bytes of payloads.
enum class Pattern {
  kRandom,
  kControl,  // only 0A 0D 11 13 FF, which a terminal that is not raw would change
  kCounter,
};

// The payloads of one stream, in order; the same arguments give the same payloads.
class PayloadSource {
 public:
  // size 0: each payload has a size of its own, from 1 to max_size.
  PayloadSource(Pattern pattern, uint64_t seed, size_t size, size_t max_size)
      : pattern_(pattern), size_(size), max_size_(max_size), random_(seed) {}
  Bytes Next();

 private:
  const Pattern pattern_;
  const size_t size_;
  const size_t max_size_;
  std::mt19937_64 random_;
  uint8_t counter_ = 0;
};

// One stream of data packets that come back.
struct Stream {
  PacketType type = PacketType::kAcl;
  uint16_t handle = 0;
  size_t max_payload = 0;
  unsigned buffers = 1;  // of the controller
  bool counted = true;   // the controller reports completed packets
};

struct TransferOptions {
  uint64_t bytes = 1'000'000;  // of payload, over all streams
  size_t size = 0;             // of a payload; 0: mixed
  Pattern pattern = Pattern::kRandom;
  uint64_t seed = 1;
};

struct StreamResult {
  PacketType type = PacketType::kAcl;
  uint64_t packets = 0;
  uint64_t bytes = 0;
};

struct TransferResult {
  std::vector<StreamResult> streams;
  double seconds = 0;
};

// Sends data that the other end sends back, as fast as the controller has buffers for it, and
// compares every byte of what comes back, in order. Throws Failure at the first packet that is
// lost, altered or out of order.
TransferResult Transfer(Exchange& exchange, const std::vector<Stream>& streams,
                        const TransferOptions& options,
                        const std::function<void(uint64_t bytes)>& progress);

}  // namespace bthalctl
