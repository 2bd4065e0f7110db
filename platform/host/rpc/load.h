// What calls cost while they wait to be served, and how much of it there may be.
#pragma once

#include <cstddef>

#include "rpc/wire.h"

namespace bthal::rpc {

// Clients of a process at the same time.
constexpr int kMaxPeers = 32;

// Calls that were read and are not done, with the bytes and descriptors that they keep.
struct Load {
  size_t calls = 0;
  size_t bytes = 0;
  size_t descriptors = 0;

  constexpr bool Reaches(const Load& bound) const {
    return calls >= bound.calls || bytes >= bound.bytes || descriptors >= bound.descriptors;
  }
  constexpr bool Exceeds(const Load& bound) const {
    return calls > bound.calls || bytes > bound.bytes || descriptors > bound.descriptors;
  }
  constexpr Load operator*(size_t factor) const {
    return {calls * factor, bytes * factor, descriptors * factor};
  }
  constexpr Load operator/(size_t divisor) const {
    return {calls / divisor, bytes / divisor, descriptors / divisor};
  }
  void operator+=(const Load& other) {
    calls += other.calls;
    bytes += other.bytes;
    descriptors += other.descriptors;
  }
  void operator-=(const Load& other) {
    calls -= other.calls;
    bytes -= other.bytes;
    descriptors -= other.descriptors;
  }
};

// With so many calls of a peer waiting, nothing more is read from it until half of them are done,
// unless a thread waits for a reply from it. With kGiveUpFactor times as many, its connection ends.
constexpr Load kMaxWaiting{1024, 4 << 20, 32};
constexpr size_t kGiveUpFactor = 4;
// With so many calls of all peers waiting, kShare takes the place of kMaxWaiting for each peer. A
// peer that has none waiting is still served. All peers together come to little more than twice
// these calls and bytes, and to fewer descriptors than the 1024 that a process has by default.
constexpr Load kMaxWaitingOfAll{4096, 16 << 20, 128};
constexpr Load kShare = kMaxWaitingOfAll / kMaxPeers;
static_assert(kMaxWaitingOfAll.descriptors + kMaxPeers * (kShare.descriptors + kMaxDescriptors) <
              1024);

}  // namespace bthal::rpc
