// Error codes of HCI (Bluetooth Core 5.3, Vol 1, Part F).
#pragma once

#include <cstdint>

namespace zvk::status {

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

}  // namespace zvk::status
