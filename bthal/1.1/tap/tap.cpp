#include "tap/tap.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "base/clock.h"
#include "hci/packet.h"

namespace android::hardware::bluetooth::tap {
namespace {

constexpr size_t kTakenAtOnce = 64 << 10;
constexpr size_t kLongestNote = 1000;

// Whether a packet belongs to a bring-up: commands, their answers and what the firmware tells.
bool IsOfBringUp(uint8_t type, const uint8_t* data, size_t size) {
  if (type == hci::HCI_PACKET_TYPE_COMMAND) return true;
  return type == hci::HCI_PACKET_TYPE_EVENT && size > 0 &&
         (data[0] == hci::kEventCommandComplete || data[0] == hci::kEventCommandStatus ||
          data[0] == hci::kEventVendorSpecific);
}

std::string StateText(std::string_view name, std::string_view value) {
  return std::string("state ").append(name).append("=").append(value);
}

}  // namespace

Tap& Tap::Get() {
  static auto* tap = new Tap;
  return *tap;
}

void Tap::Keep(uint8_t type, bool from_controller, const uint8_t* data, size_t size) {
  if (type == kNote || type > hci::HCI_PACKET_TYPE_ISO_DATA) return;
  std::lock_guard<std::mutex> guard(lock_);
  EntryHeader header;
  header.type = type;
  header.from_controller = from_controller;
  header.size = static_cast<uint32_t>(size);
  Store(header, data, IsOfBringUp(type, data, size));
  ++packets_;
}

void Tap::Note(char level, std::string_view text) {
  if (!is_on()) return;
  std::lock_guard<std::mutex> guard(lock_);
  KeepNote(level, text);
}

void Tap::Step(std::string_view text) {
  if (!is_on()) return;
  std::lock_guard<std::mutex> guard(lock_);
  if (in_bring_up_) KeepNote('I', text);
}

void Tap::State(std::string_view name, std::string_view value) {
  std::lock_guard<std::mutex> guard(lock_);
  states_.insert_or_assign(std::string(name), std::string(value));
  if (is_on()) KeepNote('I', StateText(name, value));
}

void Tap::KeepNote(char level, std::string_view text) {
  text = text.substr(0, kLongestNote);
  EntryHeader header;
  header.type = kNote;
  header.level = level;
  header.size = static_cast<uint32_t>(text.size());
  Store(header, reinterpret_cast<const uint8_t*>(text.data()), true);
}

// The times are read under the lock, so that they rise from entry to entry.
void Tap::Store(EntryHeader& header, const uint8_t* data, bool keep) {
  header.packets_before = packets_;
  header.monotonic_ns = ReadClockNs(CLOCK_MONOTONIC);
  header.wall_ns = ReadClockNs(CLOCK_REALTIME);
  if (in_bring_up_ && keep) {
    if (bring_up_.size() + sizeof header + header.size <= kBringUpLimit) {
      AppendEntry(header, data, &bring_up_);
    } else if (header.type != kNote) {
      ++left_out_;
    }
  }
  if (ring_ == nullptr) return;
  ring_->Add(header, data);
  for (TapReader* reader : readers_) {
    if (!reader->armed_) continue;
    reader->armed_ = false;
    const uint64_t one = 1;
    TEMP_FAILURE_RETRY(write(reader->wake_fd(), &one, sizeof one));
  }
}

void Tap::Switch() {
  on_.store(in_bring_up_ || !readers_.empty(), std::memory_order_relaxed);
  if (readers_.empty()) ring_.reset();
}

void Tap::BeginBringUp() {
  // Memory for all of it at once; the system gives only what is used.
  Entries entries;
  entries.reserve(kBringUpLimit);
  std::lock_guard<std::mutex> guard(lock_);
  bring_up_.swap(entries);
  left_out_ = 0;
  in_bring_up_ = true;
  Switch();
}

void Tap::EndBringUp() {
  Entries entries;
  uint64_t left_out = 0;
  {
    std::lock_guard<std::mutex> guard(lock_);
    bring_up_.swap(entries);
    in_bring_up_ = false;
    left_out = left_out_;
    Switch();
  }
  if (left_out > 0) {
    const std::string text = std::to_string(left_out) + " more packets of the bring-up: not kept";
    EntryHeader header;
    header.type = kNote;
    header.level = 'W';
    header.monotonic_ns = ReadClockNs(CLOCK_MONOTONIC);
    header.wall_ns = ReadClockNs(CLOCK_REALTIME);
    header.size = static_cast<uint32_t>(text.size());
    AppendEntry(header, reinterpret_cast<const uint8_t*>(text.data()), &entries);
  }
  auto last = std::make_shared<const Entries>(entries);  // as long as it has to be
  std::lock_guard<std::mutex> guard(lock_);
  last_bring_up_.swap(last);
}

std::unique_ptr<TapReader> Tap::Open(bool with_bring_up) {
  auto ring = std::make_unique<EntryRing>(kRingSize);
  std::lock_guard<std::mutex> guard(lock_);
  if (readers_.size() >= kMaxReaders) return nullptr;
  if (ring_ == nullptr) ring_ = std::move(ring);
  std::shared_ptr<const Entries> bring_up;
  if (with_bring_up) {
    bring_up = in_bring_up_ ? std::make_shared<const Entries>(bring_up_) : last_bring_up_;
  }
  auto reader = std::make_unique<TapReader>(*this, std::move(bring_up), ring_->end(), packets_);
  readers_.push_back(reader.get());
  Switch();
  KeepNote('I', "a capture begins");
  for (const auto& [name, value] : states_) KeepNote('I', StateText(name, value));
  return reader;
}

TapReader::TapReader(Tap& tap, std::shared_ptr<const Entries> bring_up, uint64_t position,
                     uint64_t packets)
    : tap_(tap),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      bring_up_(std::move(bring_up)),
      position_(position),
      packets_(packets) {}

TapReader::~TapReader() {
  std::lock_guard<std::mutex> guard(tap_.lock_);
  auto& readers = tap_.readers_;
  readers.erase(std::remove(readers.begin(), readers.end(), this), readers.end());
  tap_.Switch();
}

bool TapReader::Take(Entries* entries, uint64_t* lost) {
  *lost = 0;
  entries->clear();
  if (bring_up_ != nullptr) {
    *entries = *bring_up_;
    bring_up_.reset();
    if (!entries->empty()) return true;
  }
  entries->reserve(2 * kTakenAtOnce);  // not while the lock is held
  std::lock_guard<std::mutex> guard(tap_.lock_);
  tap_.ring_->Copy(&position_, kTakenAtOnce, entries);
  if (entries->empty()) return false;
  size_t at = 0;
  EntryHeader first;
  NextEntry(*entries, &at, &first);
  *lost = first.packets_before - packets_;
  packets_ = tap_.ring_->PacketsBefore(position_, tap_.packets_);
  return true;
}

bool TapReader::Arm() {
  uint64_t ignored = 0;
  TEMP_FAILURE_RETRY(read(wake_.get(), &ignored, sizeof ignored));
  std::lock_guard<std::mutex> guard(tap_.lock_);
  if (position_ < tap_.ring_->end()) return true;
  armed_ = true;
  return false;
}

}  // namespace android::hardware::bluetooth::tap
