// Numbers of HCI (Core 5.3, 4.E.7 and 1.F): the opcodes, events and errors that the code names.
#pragma once

#include <cstdint>

namespace wire::opcode {

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

}  // namespace wire::opcode

namespace wire::event {

constexpr uint8_t kInquiryComplete = 0x01;
constexpr uint8_t kConnectionComplete = 0x03;
constexpr uint8_t kDisconnectionComplete = 0x05;
constexpr uint8_t kEncryptionChange = 0x08;
constexpr uint8_t kRemoteVersion = 0x0C;
constexpr uint8_t kCommandComplete = 0x0E;
constexpr uint8_t kCommandStatus = 0x0F;
constexpr uint8_t kHardwareError = 0x10;
constexpr uint8_t kNumberOfCompletedPackets = 0x13;
constexpr uint8_t kLoopbackCommand = 0x19;
constexpr uint8_t kDataBufferOverflow = 0x1A;
constexpr uint8_t kLeMeta = 0x3E;
constexpr uint8_t kVendor = 0xFF;

}  // namespace wire::event

// First parameter of a vendor event.
namespace wire::vendor_event {

constexpr uint8_t kDebugInfo = 0x57;
constexpr uint8_t kQualityReport = 0x58;
constexpr uint8_t kLinkLayer = 0xD0;

}  // namespace wire::vendor_event

// Second parameter of a quality report.
namespace wire::quality_report {

constexpr uint8_t kRootInflammation = 5;
constexpr uint8_t kSocDump = 19;
constexpr uint8_t kChreDump = 20;
constexpr uint8_t kVendorTrace = 32;

}  // namespace wire::quality_report

namespace wire::le_event {

constexpr uint8_t kConnectionComplete = 0x01;
constexpr uint8_t kAdvertisingReport = 0x02;
constexpr uint8_t kConnectionUpdate = 0x03;
constexpr uint8_t kRemoteFeatures = 0x04;
constexpr uint8_t kDataLengthChange = 0x07;
constexpr uint8_t kEnhancedConnectionComplete = 0x0A;
constexpr uint8_t kPhyUpdate = 0x0C;
constexpr uint8_t kExtendedAdvertisingReport = 0x0D;
constexpr uint8_t kAdvertisingSetTerminated = 0x12;
constexpr uint8_t kChannelSelection = 0x14;

}  // namespace wire::le_event

namespace wire::status {

constexpr uint8_t kSuccess = 0x00;
constexpr uint8_t kUnknownCommand = 0x01;
constexpr uint8_t kUnknownConnection = 0x02;
constexpr uint8_t kPageTimeout = 0x04;
constexpr uint8_t kPinOrKeyMissing = 0x06;
constexpr uint8_t kMemoryExceeded = 0x07;
constexpr uint8_t kConnectionExists = 0x0B;
constexpr uint8_t kDisallowed = 0x0C;
constexpr uint8_t kInvalidParameters = 0x12;
constexpr uint8_t kTerminatedByHost = 0x16;
constexpr uint8_t kUnspecified = 0x1F;
constexpr uint8_t kUnknownAdvertisingIdentifier = 0x42;

}  // namespace wire::status
