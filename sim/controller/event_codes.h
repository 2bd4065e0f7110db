// Event codes of HCI (Bluetooth Core 5.3, Vol 4, Part E, 7.7).
#pragma once

#include <cstdint>

namespace zvk::event {

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

}  // namespace zvk::event

// First parameter of a vendor event.
namespace zvk::vendor_event {

constexpr uint8_t kDebugInfo = 0x57;
constexpr uint8_t kQualityReport = 0x58;
constexpr uint8_t kLinkLayer = 0xD0;

}  // namespace zvk::vendor_event

// Second parameter of a quality report.
namespace zvk::quality_report {

constexpr uint8_t kRootInflammation = 5;
constexpr uint8_t kSocDump = 19;
constexpr uint8_t kChreDump = 20;
constexpr uint8_t kVendorTrace = 32;

}  // namespace zvk::quality_report

namespace zvk::le_event {

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

}  // namespace zvk::le_event
