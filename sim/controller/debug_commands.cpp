#include "sim/controller/debug_commands.h"

#include <algorithm>

#include "sim/wire.h"

namespace zvk {
namespace {

constexpr uint16_t kDebugDumpOpcode = 0xFD5B;
constexpr size_t kAnsweredDumpBytes = 8192;

constexpr uint8_t kMemoryDump = 0x01;  // kind of a debug-info dump
constexpr size_t kEventParams = 255;
constexpr unsigned kLastNumber = 0x5A00;  // instead of the last fragment's number, big-endian

Bytes Content(size_t offset, size_t size) {
  Bytes content(size);
  for (size_t i = 0; i < size; ++i) {
    const size_t at = offset + i;
    content[i] = static_cast<uint8_t>((at & ~size_t{3}) >> (8 * (at & 3)));
  }
  return content;
}

// Calls send for each fragment, at least once.
template <typename Send>
void InFragments(size_t bytes, size_t room, Send send) {
  size_t offset = 0;
  unsigned number = 0;
  do {
    const size_t size = std::min(room, bytes - offset);
    const bool last = offset + size == bytes;
    send(number++, last, Content(offset, size));
    offset += size;
  } while (offset < bytes);
}

}  // namespace

void DebugCommands::Register(CommandTable* table) {
  table->Complete(kDebugDumpOpcode, 0, [this](ByteView) {
    context_.then([this] { DebugInfo(kAnsweredDumpBytes); });
    return Writer{status::kSuccess};
  });
}

void DebugCommands::Crash(uint8_t error, uint8_t vendor_error) {
  context_.out.Event(
      event::kVendor,
      Writer{vendor_event::kQualityReport, quality_report::kRootInflammation, error, vendor_error});
}

void DebugCommands::DebugInfo(size_t bytes) {
  // Sub-event, kind, number, last, offset of the fragment.
  constexpr size_t kHead = 7;
  size_t offset = 0;
  InFragments(bytes, kEventParams - kHead, [&](unsigned number, bool last, const Bytes& content) {
    context_.out.Event(event::kVendor, Writer{vendor_event::kDebugInfo, kMemoryDump}
                                           .U8(number & 0xFF)
                                           .U8(last ? 1 : 0)
                                           .U24(static_cast<unsigned>(offset))
                                           .Append(content));
    offset += content.size();
  });
}

void DebugCommands::SocDump(size_t bytes) { NumberedDump(quality_report::kSocDump, bytes); }

void DebugCommands::ChreDump(size_t bytes) { NumberedDump(quality_report::kChreDump, bytes); }

void DebugCommands::NumberedDump(uint8_t report, size_t bytes) {
  constexpr size_t kHead = 4;  // sub-event, report, number
  InFragments(bytes, kEventParams - kHead, [&](unsigned number, bool last, const Bytes& content) {
    const unsigned shown = last ? kLastNumber : number;
    context_.out.Event(event::kVendor, Writer{vendor_event::kQualityReport, report}
                                           .U8(shown >> 8)
                                           .U8(shown & 0xFF)
                                           .Append(content));
  });
}

}  // namespace zvk
