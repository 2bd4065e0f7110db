// The opcodes and event codes that commands use themselves (Bluetooth Core 5.3, Vol 4, Part E, 7).
#pragma once

#include <cstdint>

namespace bthalctl {

namespace opcode {
constexpr uint16_t kDisconnect = 0x0406;
constexpr uint16_t kSetEventMask = 0x0C01;
constexpr uint16_t kReset = 0x0C03;
constexpr uint16_t kReadLocalName = 0x0C14;
constexpr uint16_t kWriteSyncFlowControl = 0x0C2F;
constexpr uint16_t kReadLocalVersion = 0x1001;
constexpr uint16_t kReadLocalFeatures = 0x1003;
constexpr uint16_t kReadBufferSize = 0x1005;
constexpr uint16_t kReadBdAddr = 0x1009;
constexpr uint16_t kWriteLoopbackMode = 0x1802;
constexpr uint16_t kLeSetEventMask = 0x2001;
constexpr uint16_t kLeReadBufferSize = 0x2002;
constexpr uint16_t kLeReadLocalFeatures = 0x2003;
constexpr uint16_t kLeSetScanParameters = 0x200B;
constexpr uint16_t kLeSetScanEnable = 0x200C;
constexpr uint16_t kLeCreateConnection = 0x200D;
constexpr uint16_t kLeCreateConnectionCancel = 0x200E;
constexpr uint16_t kLeReadBufferSizeV2 = 0x2060;
}  // namespace opcode

namespace event {
constexpr uint8_t kConnectionComplete = 0x03;
constexpr uint8_t kDisconnectionComplete = 0x05;
constexpr uint8_t kCommandComplete = 0x0E;
constexpr uint8_t kCommandStatus = 0x0F;
constexpr uint8_t kNumberOfCompletedPackets = 0x13;
constexpr uint8_t kLoopbackCommand = 0x19;
constexpr uint8_t kLeMeta = 0x3E;
constexpr uint8_t kVendor = 0xFF;
}  // namespace event

namespace le {
constexpr uint8_t kConnectionComplete = 0x01;
constexpr uint8_t kAdvertisingReport = 0x02;
constexpr uint8_t kEnhancedConnectionComplete = 0x0A;
constexpr uint8_t kExtendedAdvertisingReport = 0x0D;
}  // namespace le

}  // namespace bthalctl
