#pragma once

#include <cstdint>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// What a record is about. Values below 40 are scopes: the even value is recorded when the scope is
// entered, the next odd one when it is left. From 40 up, a value stands for a single moment.
enum class AnchorType : uint8_t {
  kInitialize = 0,
  kPerformInit = 2,
  kSendHciCommand = 4,
  kSendAclData = 6,
  kSendScoData = 8,
  kSendIsoData = 10,
  kHciEventReceived = 12,
  kAclDataReceived = 14,
  kScoDataReceived = 16,
  kIsoDataReceived = 18,
  kUserialOpen = 20,
  kUserialClose = 22,
  kPowerControl = 24,
  kReset = 26,
  kBaudrateChange = 28,
  kFirmwareDownload = 30,
  kReadLocalName = 32,

  kUnlinkSkipped = 40,
  kThreadPerformInit = 41,
  kThreadPerformReinit = 42,
  kClose = 43,
  kPerformClose = 44,
  kBigHammer = 45,
  kActivityWatcherFailed = 46,
  kControllerReady = 47,
  kCompletionUndelivered = 48,
  kProtocolInitialize = 50,
  kTtyOpened = 51,
  kUserialReady = 53,
  kAutoInit = 55,
  kPowerState = 56,
  kBaudrateFailed = 57,
  kLocalNameFailed = 58,
  kFastDownload = 59,
  kDownloadFailed = 60,
  kFirmwareFile = 61,
  kDownloadDone = 62,
  kChipId = 63,
  kCommandFailed = 64,
  kLpmTimerFailed = 65,
  kWakelockSkipped = 66,
  kWakelockAcquire = 67,
  kWakelockRelease = 68,
  kLpmDeassert = 69,
  kLpmWakeUp = 70,
  kLpmAssert = 71,
  kLpmTimeout = 72,
  kSleepModeFailed = 73,
  kLpmEnabling = 74,
  kLpmDisabling = 75,
  kLpmDisabled = 76,
  kShutdown = 77,
  kH4Send = 78,
  kH4Receive = 79,
  kBqrError = 82,
  kHardwareError = 83,
  kCoexOpenTried = 84,
  kCoexOpened = 85,
  kCoexSocket0Closed = 86,
  kCoexSocket1Closed = 87,
  kCoexSocketEvent = 88,
  kCoexThreadDone = 89,
  kCoexThreadStuck = 90,
  kCommandInjected = 91,
  kEwp = 92,
  kQvrError = 93,
};

// The value under which a scope's end is recorded.
inline AnchorType ExitOf(AnchorType entry) {
  return static_cast<AnchorType>(static_cast<uint8_t>(entry) + 1);
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug

namespace android::hardware::bluetooth {
namespace evidence = V1_1::zvkbtlinux::debug;
using evidence::AnchorType;
}  // namespace android::hardware::bluetooth
