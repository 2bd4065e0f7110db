#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "base/uart_baud_rate.h"
#include "evidence/bqr_error_code.h"
#include "hci/packet.h"

namespace android::hardware::bluetooth::hci {

// Userial types: how the controller is reached. With 0 the kernel's driver initialises the
// controller itself.
inline constexpr uint32_t kUserialAutoInit = 0;
inline constexpr uint32_t kUserialTty = 1;
inline constexpr uint32_t kUserialCoProcessor = 2;
inline constexpr uint32_t kUserialClosed = 3;

struct TransportSettings {
  uint32_t userial_type = kUserialTty;
  std::string uart_port;  // path of the tty; for kUserialTty only
};

// A transport's calls to its owner, on any thread.
struct TransportUpcalls {
  // The stream of packets cannot go on: the controller is to be shut down.
  std::function<void(BqrErrorCode code, const std::string& reason)> lost;
  // Whether the owner has opened the transport completely.
  std::function<bool()> initialized;
};

// A connection to the controller: its power, its port, its packets and its low-power mode. The
// owner calls Open, Connect, Start, and later Stop, Disconnect, Close, one at a time; the other
// calls come from any thread, also while the transport is closed.
class Transport {
 public:
  virtual ~Transport() = default;

  // Power-cycles the controller and opens the port. Returns whether it is open; on failure
  // everything is switched off again.
  virtual bool Open(const TransportSettings& settings) = 0;
  // Connects the receivers of the controller's packets. They run on the reader thread.
  virtual void Connect(const PacketReceivers& receivers) = 0;
  // Starts reading, where Connect() has not done so. Returns whether packets will arrive.
  virtual bool Start() = 0;

  // Ends every wait for the port, and the reader. On the reader thread itself the reader ends after
  // the running call.
  virtual void Stop() = 0;
  virtual void Disconnect() = 0;
  // Closes the port and switches the controller off.
  virtual void Close() = 0;

  // Acts on a fatal error of the stream. Returns whether the owner must close the transport.
  virtual bool Abandon(BqrErrorCode code, const std::string& reason) = 0;

  // Writes one packet. flag: it is a flow-controlled command. Returns the bytes accepted, fewer
  // than length after an error. Never waits longer than 2 s without progress.
  virtual size_t Send(uint8_t type, const uint8_t* data, size_t length, bool flag) = 0;

  virtual bool IsReady() const = 0;  // the port is open
  virtual void BaudrateChange(UartBaudRate rate) = 0;
  virtual uint32_t RequiredBaudRate() const = 0;

  virtual bool LpmSetup() = 0;
  virtual void LpmTeardown() = 0;
  virtual bool LpmSuspend() = 0;
  virtual bool LpmWakeUp() = 0;
  virtual bool IsLpmRunning() = 0;

  // Appends the transport's own debug files to fd. Returns whether it could.
  virtual bool DebugDump(int fd, const std::string& first, const std::string& second) = 0;
};

}  // namespace android::hardware::bluetooth::hci
