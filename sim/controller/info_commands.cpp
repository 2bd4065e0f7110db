#include "sim/controller/info_commands.h"

#include "sim/controller/buffers.h"
#include "sim/controller/supported_commands.h"

namespace zvk {
namespace {

// Dual mode: EDR, extended inquiry response, LE and BR/EDR at a time, simple pairing, extended
// features (Bluetooth Core 5.3, Vol 2, Part C, 3.3).
constexpr uint8_t kFeatures[8] = {0xBF, 0xFE, 0x0F, 0xFE, 0xDB, 0xFF, 0x5B, 0x87};
constexpr uint8_t kMaxFeaturePage = 2;

constexpr uint8_t kCvsd = 0x02;
constexpr uint8_t kMsbc = 0x05;
constexpr uint8_t kOverSco = 0x02;  // bit 1 of a codec's transports: BR/EDR SCO and eSCO

}  // namespace

void InfoCommands::Register(CommandTable* table) {
  table->Complete(0x1001, 0, [this](ByteView) {
    const uint16_t revision = context_.chip.patched ? 1 : 0;
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
  table->Complete(0x1003, 0, [](ByteView) {
    return Writer{status::kSuccess}.Append({kFeatures, sizeof(kFeatures)});
  });
  table->Complete(0x1004, 1, [](ByteView p) {
    if (p[0] > kMaxFeaturePage) return Writer{status::kInvalidParameters};
    Writer answer = Writer{status::kSuccess}.U8(p[0]).U8(kMaxFeaturePage);
    if (p[0] == 0) return answer.Append({kFeatures, sizeof(kFeatures)});
    return answer.Zeros(sizeof(kFeatures));
  });
  table->Complete(0x1005, 0, [](ByteView) {
    return Writer{status::kSuccess}.U16(kAclBytes).U8(kScoBytes).U16(kAclBuffers).U16(kScoBuffers);
  });
  table->Complete(0x1009, 0, [this](ByteView) {
    const Address address = context_.chip.provisioned.value_or(context_.chip.address);
    return Writer{status::kSuccess}.Append({address.data(), address.size()});
  });
  // No vendor's codecs (Bluetooth Core 5.3, 4.E.7.4.8). Version 2 tells the transports besides.
  table->Complete(
      0x100B, 0, [](ByteView) { return Writer{status::kSuccess}.U8(2).U8(kCvsd).U8(kMsbc).U8(0); });
  table->Complete(0x100D, 0, [](ByteView) {
    return Writer{status::kSuccess}.U8(2).U8(kCvsd).U8(kOverSco).U8(kMsbc).U8(kOverSco).U8(0);
  });
}

}  // namespace zvk
