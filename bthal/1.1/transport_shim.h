// The one place that knows which transport carries HCI: everything above calls these functions, and
// they forward to the open transport (to the serial one while none is open). Any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/uart_baud_rate.h"
#include "evidence/bqr_error_code.h"
#include "hci/packet.h"
#include "hci_flow_control.h"
#include "transport/transport.h"
#include "transport/transport_state.h"

namespace android::hardware::bluetooth::hci::shim {

// The shim's calls to its owner, on any thread.
struct Owner {
  std::function<void()> wake_up = [] {};    // before each transmission
  std::function<void()> sent = [] {};       // after each
  std::function<void()> shut_down = [] {};  // the transport is lost
};
// Before anything is opened.
void SetOwner(Owner owner);

// Selects the transport, power-cycles the controller, opens the port and starts reading. The
// functions receive the controller's packets on the reader thread. Returns the flow control, which
// is halted by Deinitialize(), or null after undoing what had been switched on.
std::shared_ptr<HciFlowControl> InitializeHciHandle(const PacketReceiver& event_cb,
                                                    const PacketReceiver& acl_cb,
                                                    const PacketReceiver& sco_cb,
                                                    const PacketReceiver& iso_cb);

// Stops the reader, halts and drops the flow control, closes the port, powers off. A second
// caller waits for the first one, but returns at once on the reader or the coexistence thread,
// which the first one may be joining.
void Deinitialize();

// Connects and disconnects the packet receivers; called for the flow control.
void InitializeCallback(const PacketReceiver& event_cb, const PacketReceiver& acl_cb,
                        const PacketReceiver& sco_cb, const PacketReceiver& iso_cb);
void DeinitializeCallback();

// Writes one packet. flag: it is a flow-controlled command. Returns the bytes accepted.
size_t Send(uint8_t type, const uint8_t* data, size_t length, bool flag);

void BaudrateChange(UartBaudRate rate);
uint32_t RequiredBaudRate();

bool LpmSetup();
void LpmTeardown();
bool LpmSuspend();
bool LpmWakeUp();
bool IsLpmRunning();

uint32_t GetUserialType();
bool IsUserialAutoInit();
bool SupportBaudRateChange();
// The port is open.
bool IsUserialReady();
// The port is open and the flow control exists.
bool IsInitialized();
// All of it at once, for a tool that asks.
TransportState CurrentState();

// Appends the transport's own debug files to fd.
bool GetTlDebugDump(int fd, const std::string& first, const std::string& second);

// A fatal error of the stream: shuts the controller down. On the co-processor path the error is
// reported, which ends the process. On the UART it is not: the port is closed, and the flow control
// stays until the next Deinitialize().
void CatchException(BqrErrorCode code, const std::string& reason);

}  // namespace android::hardware::bluetooth::hci::shim
