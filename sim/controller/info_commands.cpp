#include "sim/controller/buffers.h"
#include "sim/controller/groups.h"

namespace zvk {
namespace {

// Dual mode: EDR, extended inquiry response, LE and BR/EDR at a time, simple pairing, extended
// features (Bluetooth Core 5.3, Vol 2, Part C, 3.3).
constexpr uint8_t kFeatures[8] = {0xBF, 0xFE, 0x0F, 0xFE, 0xDB, 0xFF, 0x5B, 0x87};
constexpr uint8_t kMaxFeaturePage = 2;

constexpr uint8_t kCvsd = 0x02;
constexpr uint8_t kMsbc = 0x05;
constexpr uint8_t kOverSco = 0x02;  // bit 1 of a codec's transports: BR/EDR SCO and eSCO

// Commands with consecutive opcodes whose bits among the supported commands are consecutive, too
// (Core 5.3, 4.E.6.27).
struct CommandBits {
  uint16_t first_opcode;
  uint8_t octet;  // of the first command
  uint8_t bit;
  uint8_t commands;
};

constexpr CommandBits kCommandBits[] = {
    {0x0401, 0, 0, 2},  {0x0406, 0, 5, 1},   {0x041D, 2, 7, 1},  {0x080E, 5, 3, 2},
    {0x0C01, 5, 6, 1},  {0x0C03, 5, 7, 1},   {0x0C05, 6, 0, 1},  {0x0C09, 6, 2, 2},
    {0x0C0D, 6, 5, 1},  {0x0C12, 6, 7, 15},  {0x0C23, 9, 0, 4},  {0x0C2D, 10, 2, 3},
    {0x0C31, 10, 5, 1}, {0x0C33, 10, 6, 1},  {0x0C35, 10, 7, 1}, {0x0C38, 11, 2, 3},
    {0x0C3F, 12, 1, 1}, {0x0C42, 12, 4, 8},  {0x1001, 14, 3, 1}, {0x1003, 14, 5, 3},
    {0x1009, 15, 1, 1}, {0x1405, 15, 5, 1},  {0x1801, 16, 0, 2}, {0x0C51, 17, 0, 2},
    {0x0C55, 17, 5, 2}, {0x0C58, 18, 0, 4},  {0x0C63, 22, 2, 1}, {0x0C6C, 24, 5, 2},
    {0x2001, 25, 0, 3}, {0x2005, 25, 4, 24}, {0x100B, 29, 5, 1}, {0x0C79, 32, 2, 2},
    {0x2020, 33, 4, 5}, {0x2027, 34, 3, 4},  {0x202D, 35, 1, 6}, {0x2035, 36, 1, 9},
    {0x2041, 37, 5, 3}, {0x204A, 38, 6, 5},  {0x2060, 41, 5, 1}, {0x100D, 45, 2, 1},
};
constexpr size_t kCommandBitOctets = 64;

// A bit for each command in table that has one.
Bytes SupportedCommands(const CommandTable& table) {
  Bytes octets(kCommandBitOctets);
  for (const CommandBits& run : kCommandBits) {
    for (unsigned i = 0; i < run.commands; ++i) {
      const unsigned bit = run.octet * 8u + run.bit + i;
      if (table.Find(static_cast<uint16_t>(run.first_opcode + i)) == nullptr) continue;
      octets[bit / 8] = static_cast<uint8_t>(octets[bit / 8] | (1u << (bit % 8)));
    }
  }
  return octets;
}

}  // namespace

void RegisterInfoCommands(Context& context, CommandTable* table) {
  const ChipState& chip = context.chip;
  table->Complete(0x1001, 0, [&chip](ByteView) {
    const uint16_t revision = chip.patched ? 1 : 0;
    return Writer{status::kSuccess}
        .U8(kCore53)
        .U16(revision)
        .U8(kCore53)
        .U16(kNoCompany)
        .U16(revision);
  });
  table->Complete(0x1002, 0, [table](ByteView) {
    return Writer{status::kSuccess}.Append(SupportedCommands(*table));
  });
  table->Complete(0x1003, Writer{status::kSuccess}.Append({kFeatures, sizeof(kFeatures)}));
  table->Complete(0x1004, 1, [](ByteView p) {
    if (p[0] > kMaxFeaturePage) return Writer{status::kInvalidParameters};
    Writer answer = Writer{status::kSuccess}.U8(p[0]).U8(kMaxFeaturePage);
    if (p[0] == 0) return answer.Append({kFeatures, sizeof(kFeatures)});
    return answer.Zeros(sizeof(kFeatures));
  });
  table->Complete(
      0x1005,
      Writer{status::kSuccess}.U16(kAclBytes).U8(kScoBytes).U16(kAclBuffers).U16(kScoBuffers));
  table->Complete(0x1009, 0, [&chip](ByteView) {
    const Address address = chip.CurrentAddress();
    return Writer{status::kSuccess}.Append(address);
  });
  // No vendor's codecs (Bluetooth Core 5.3, 4.E.7.4.8). Version 2 tells the transports besides.
  table->Complete(0x100B, Writer{status::kSuccess}.U8(2).U8(kCvsd).U8(kMsbc).U8(0));
  table->Complete(
      0x100D, Writer{status::kSuccess}.U8(2).U8(kCvsd).U8(kOverSco).U8(kMsbc).U8(kOverSco).U8(0));
}

}  // namespace zvk
