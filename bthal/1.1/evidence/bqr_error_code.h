#pragma once

#include <cstdint>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// Every fatal error: code, name (of the enumerator and of the function that aborts), message. The
// messages are an interface, odd spellings included. HostCoexDeviceOpenError has none.
#define BTHAL_BQR_ERRORS(X)                                                            \
  X(1, UartParsing, "UART Parsing error")                                              \
  X(2, UartIncompletePacket, "UART Incomplete Packet")                                 \
  X(3, FirmwareChecksum, "Patch Firmware checksum failure")                            \
  X(16, FirmwareHardFault, "Firmware Crash due to Hard Fault")                         \
  X(17, FirmwareMemManageFault, "Firmware Crash due to Mem manage Fault")              \
  X(18, FirmwareBusFault, "Firmware Crash due to Bus Fault")                           \
  X(19, FirmwareFirmwareUsageFault, "Firmware Crash due to Usage fault")               \
  X(20, FirmwareWatchdogTimeout, "Firmware Crash due to Watchdog timeout")             \
  X(21, FirmwareAssertionFailure, "Firmware Crash due to Assertion failure")           \
  X(22, FirmwareMiscellaneous, "Firmware Crash Miscallaneuous")                        \
  X(32, FirmwareMiscellaneousMajorFault, "Firmware Miscellaneous error - Major")       \
  X(33, FirmwareMiscellaneousCriticalFault, "Firmware Miscellaneous error - Critical") \
  X(127, SocBigHammerFault, "Soc Big Hammer Error")                                    \
  X(128, HostRxThreadStuck, "Host RX Thread Stuck")                                    \
  X(129, HostHciCommandTimeout, "Host HCI Command Timeout")                            \
  X(130, HostInvalidHciEvent, "Invalid / un-reassembled HCI event")                    \
  X(131, HostUnimplementedPacketType, "Host Received Unimplemented Packet Type")       \
  X(132, HosHcitH4TxError, "Host HCI H4 TX Error")                                     \
  X(144, HostOpenUserial, "Host Open Userial Error")                                   \
  X(145, HostPowerUpController, "Host Can't Power Up Controller")                      \
  X(146, HostChangeBaudrate, "Host Change Baudrate Error")                             \
  X(147, HostResetBeforeFw, "Host HCI Reset Error Before FW Download")                 \
  X(148, HostDownloadFw, "Host Firmware Download Error")                               \
  X(149, HostResetAfterFw, "Host HCI Reset Error After FW Download")                   \
  X(150, HostBdaddrFault, "Host Can't fetch the provisioning BDA")                     \
  X(151, HostCoexDeviceOpenError, nullptr)                                             \
  X(152, HostAccelatedBtInitFailed, "Host Accelerated Init Failed")                    \
  X(153, HostAccelatedBtShutdownFailed, "Host Accelerated ShutDown Failed")            \
  X(192, ChreQvrTransportPrepareError, "Qvr Transport Prepare Failed")                 \
  X(193, ChreQvrUnknownError, "Qvr Unknown Error")                                     \
  X(194, ChreQvrOperationFailed, "Qvr Operation Failed")                               \
  X(195, ChreQvrValueTooBigError, "Qvr Value Is Too Big Error")                        \
  X(196, ChreQvrSystemServiceError, "Qvr System Service Error")                        \
  X(197, ChreQvrBufferError, "Qvr Buffer Error")                                       \
  X(198, ChreQvrMemoryAllocationError, "Qvr Memoy Allocation Error")                   \
  X(199, ChreQvrNotFoundError, "Qvr Not Found Error")                                  \
  X(200, ChreQvrNotSupportedError, "Qvr Not Supported Error")                          \
  X(201, ChreQvrBadValueError, "Qvr Bad Value Error")                                  \
  X(202, ChreQvrOperationCanceledError, "Qvr Operation Was Canceled")                  \
  X(203, ChreQvrServiceNotAvailableError, "Qvr Service Not Available Error")           \
  X(204, ChreQvrNotReadyPerformOperationError, "Qvr Not Ready to Perform operation")   \
  X(205, ChreQvrAllocationError, "Qvr Allocation Error")                               \
  X(206, ChreQvrErrorIo, "Qvr IO Error")                                               \
  X(207, ChreQvrInvalidValueError, "Qvr Invalid Value Or Operation")                   \
  X(208, ChreQvrOperationTimedOutError, "Qvr Operation Timed Out")                     \
  X(209, ChreQvrContainerFullError, "Qvr Container Full Error")                        \
  X(210, ChreQvrValueTooSmallError, "Qvr Value Is Too Small Error")                    \
  X(211, ChreQvrItemAlreadyExistsError, "Qvr Item Already Exists Error")               \
  X(212, ChreQvrValueOutOfRangeError, "Qvr Value Out Of Range Error")                  \
  X(213, ChreQvrUnimplementedPacketTypeError, "Qvr Unimplemented Packet Type Error")   \
  X(214, ChreQvrHandleConnectionEventError, "Handle Qvr Connection Event Error")       \
  X(224, ChreArbitratorUnimplementedPacket,                                            \
    "Arbitrator Detected Unimaplemented Packet Type Error")                            \
  X(225, ChreArbitratorInvalidPacketSize, "Arbitrator Detected Invalid Packet Size")

// The vendor error code of a root inflammation report.
enum class BqrErrorCode : uint8_t {
#define BTHAL_ENUMERATOR(code, name, message) name = (code),
  BTHAL_BQR_ERRORS(BTHAL_ENUMERATOR)
#undef BTHAL_ENUMERATOR
};

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug

namespace android::hardware::bluetooth {
namespace evidence = V1_1::zvkbtlinux::debug;
using evidence::BqrErrorCode;
}  // namespace android::hardware::bluetooth
