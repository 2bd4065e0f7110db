// The tap on the line to the controller: every packet in both directions, for captures.
#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "tap/entry_ring.h"

namespace android::hardware::bluetooth::tap {

class TapReader;

// Sees each packet between flow control and transport, on the thread that has it. While nobody
// captures, that costs one branch; else one copy into a bounded ring. A reader that falls behind
// loses packets and is told how many; it holds nobody up. Besides, the last bring-up is always
// kept: its commands and their answers, no data. Any thread; the lock is a leaf.
class Tap {
 public:
  static constexpr size_t kRingSize = 1 << 20;
  static constexpr size_t kBringUpLimit = 2 << 20;  // bytes kept of a bring-up
  static constexpr size_t kMaxReaders = 4;

  // The process's tap, built on first use, never destroyed.
  static Tap& Get();
  Tap() = default;

  // One packet without its type byte.
  void Packet(uint8_t type, bool from_controller, const uint8_t* data, size_t size) {
    if (is_on()) Keep(type, from_controller, data, size);
  }
  // Whether anybody reads what it sees.
  bool is_on() const { return on_.load(std::memory_order_relaxed); }

  // A line of text between the packets; level: I, W, E or F.
  void Note(char level, std::string_view text);
  // A note that only a bring-up is worth.
  void Step(std::string_view text);
  // A note "state NAME=VALUE", which holds until the next one of that name. A capture begins with
  // what holds then.
  void State(std::string_view name, std::string_view value) EXCLUDES(lock_);

  // Between these, what passes is kept as the last bring-up, in place of the one before.
  void BeginBringUp() EXCLUDES(lock_);
  void EndBringUp() EXCLUDES(lock_);

  // Reads what passes from now on and, before it, the last bring-up, if asked for. Null when there
  // are as many readers as there may be.
  std::unique_ptr<TapReader> Open(bool with_bring_up) EXCLUDES(lock_);

 private:
  friend class TapReader;

  void Keep(uint8_t type, bool from_controller, const uint8_t* data, size_t size) EXCLUDES(lock_);
  void KeepNote(char level, std::string_view text) REQUIRES(lock_);
  void Store(EntryHeader& header, const uint8_t* data, bool keep) REQUIRES(lock_);
  void Switch() REQUIRES(lock_);

  std::atomic<bool> on_{false};
  std::mutex lock_;
  uint64_t packets_ GUARDED_BY(lock_) = 0;
  std::unique_ptr<EntryRing> ring_ GUARDED_BY(lock_);  // only while there are readers
  std::vector<TapReader*> readers_ GUARDED_BY(lock_);
  bool in_bring_up_ GUARDED_BY(lock_) = false;
  Entries bring_up_ GUARDED_BY(lock_);       // the one that is going on
  uint64_t left_out_ GUARDED_BY(lock_) = 0;  // packets of it that found no room
  std::map<std::string, std::string, std::less<>> states_ GUARDED_BY(lock_);
  std::shared_ptr<const Entries> last_bring_up_ GUARDED_BY(lock_);
};

// One reader's place in the tap. Used on one thread.
class TapReader {
 public:
  TapReader(Tap& tap, std::shared_ptr<const Entries> bring_up, uint64_t position, uint64_t packets);
  ~TapReader();
  TapReader(const TapReader&) = delete;
  TapReader& operator=(const TapReader&) = delete;

  // Puts the next entries in the place of what entries holds. Returns whether there are any. lost:
  // packets that are missing before them, because the ring went round.
  bool Take(Entries* entries, uint64_t* lost);
  // Asks for wake_fd() to become readable when there are entries to take. Returns whether there are
  // some already.
  bool Arm();
  int wake_fd() const { return wake_.get(); }

 private:
  friend class Tap;

  Tap& tap_;
  const base::unique_fd wake_;
  std::shared_ptr<const Entries> bring_up_;  // until it is taken
  uint64_t position_;                        // in the ring
  uint64_t packets_;                         // before that position
  bool armed_ = false;                       // under the tap's lock
};

// Keeps the bring-up that goes on while the object lives.
class BringUpRecording {
 public:
  BringUpRecording() { Tap::Get().BeginBringUp(); }
  ~BringUpRecording() { Tap::Get().EndBringUp(); }
  BringUpRecording(const BringUpRecording&) = delete;
  BringUpRecording& operator=(const BringUpRecording&) = delete;
};

}  // namespace android::hardware::bluetooth::tap
