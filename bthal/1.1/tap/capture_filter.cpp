#include "tap/capture_filter.h"

#include <android-base/parseint.h>
#include <android-base/strings.h>

#include <algorithm>
#include <iterator>

#include "hci/packet.h"

namespace android::hardware::bluetooth::tap {
namespace {

constexpr uint8_t kEventLeMeta = 0x3E;
// Advertising reports: legacy, directed, extended, periodic (Core 5.3, 4.E.7.7.65).
constexpr uint8_t kAdvertisingReports[] = {0x02, 0x0B, 0x0D, 0x0F};

// In the order of the H4 type bytes, from 1 on.
constexpr const char* kTypeNames[] = {"cmd", "acl", "sco", "evt", "iso"};

bool ParseTypes(const std::string& list, std::set<unsigned>* types) {
  for (const std::string& word : base::Split(list, ",")) {
    const auto* const name = std::find(std::begin(kTypeNames), std::end(kTypeNames), word);
    if (name == std::end(kTypeNames)) return false;
    types->insert(static_cast<unsigned>(name - kTypeNames + 1));
  }
  return true;
}

bool ParseNumbers(const std::string& list, unsigned most, std::set<unsigned>* numbers) {
  for (const std::string& word : base::Split(list, ",")) {
    unsigned number = 0;
    if (!base::ParseUint(word, &number, most)) return false;
    numbers->insert(number);
  }
  return true;
}

bool Allows(const std::set<unsigned>& set, unsigned number) {
  return set.empty() || set.count(number) > 0;
}

unsigned WordAt(const uint8_t* data, size_t size, size_t at) {
  return at + 1 < size ? static_cast<unsigned>(data[at] | data[at + 1] << 8) : 0;
}

}  // namespace

bool CaptureFilter::Add(std::string_view word) {
  if (word == "no-advertising") return no_advertising_ = true;
  if (word == "no-data") return hides_data_ = true;
  const size_t sign = word.find('=');
  if (sign == std::string_view::npos) return false;
  const std::string_view name = word.substr(0, sign);
  const std::string list(word.substr(sign + 1));
  if (name == "types") return ParseTypes(list, &types_);
  if (name == "opcodes") return ParseNumbers(list, 0xFFFF, &opcodes_);
  if (name == "events") return ParseNumbers(list, 0xFF, &events_);
  if (name == "no-events") return ParseNumbers(list, 0xFF, &no_events_);
  if (name == "handles") return ParseNumbers(list, 0x0FFF, &handles_);
  return false;
}

bool CaptureFilter::PassesEvent(const uint8_t* data, size_t size) const {
  const uint8_t code = size > 0 ? data[0] : uint8_t{0};
  if (no_events_.count(code) > 0) return false;
  if (code == hci::kEventCommandComplete && !opcodes_.empty()) {
    return opcodes_.count(WordAt(data, size, 3)) > 0;
  }
  if (code == hci::kEventCommandStatus && !opcodes_.empty()) {
    return opcodes_.count(WordAt(data, size, 4)) > 0;
  }
  if (no_advertising_ && code == kEventLeMeta && size > 2 &&
      std::count(std::begin(kAdvertisingReports), std::end(kAdvertisingReports), data[2]) > 0) {
    return false;
  }
  return Allows(events_, code);
}

bool CaptureFilter::Passes(uint8_t type, const uint8_t* data, size_t size) const {
  if (!Allows(types_, type)) return false;
  switch (type) {
    case hci::HCI_PACKET_TYPE_COMMAND:
      return Allows(opcodes_, WordAt(data, size, 0));
    case hci::HCI_PACKET_TYPE_EVENT:
      return PassesEvent(data, size);
    default:
      return Allows(handles_, WordAt(data, size, 0) & 0x0FFF);
  }
}

void HidePayload(uint8_t type, std::vector<uint8_t>* packet) {
  if (type == hci::HCI_PACKET_TYPE_COMMAND || type == hci::HCI_PACKET_TYPE_EVENT) return;
  const size_t header = std::min<size_t>(hci::kHeaders[type].size, packet->size());
  std::fill(packet->begin() + static_cast<ptrdiff_t>(header), packet->end(), uint8_t{0});
}

}  // namespace android::hardware::bluetooth::tap
