#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>

#include "h4/hci_packetizer.h"
#include "hci/packet.h"
#include "transport/transport.h"

namespace android::hardware::bluetooth::hci {

// H4 framing on a UART: writes packets behind their type byte, and cuts the incoming stream into
// packets, each handed to the receiver of its type on the reader thread. Made by the serial
// transport for each open port; the port stays the hardware control's, which closes it after
// Close(). After a fatal stream error the port is closed and nothing is delivered any more. A line
// that has taken nothing for 2 s is stuck: nothing is sent on it any more.
class H4Protocol {
 public:
  H4Protocol(int fd, PacketReceiver event_cb, PacketReceiver acl_cb, PacketReceiver sco_cb,
             PacketReceiver iso_cb, TransportUpcalls upcalls = {});
  H4Protocol(const H4Protocol&) = delete;
  H4Protocol& operator=(const H4Protocol&) = delete;

  // Writes one packet, waiting for room until the port is closed or the line is stuck. Returns the
  // bytes written, type byte included; fewer than length + 1 after an error. Any thread, one packet
  // at a time.
  size_t Send(uint8_t type, const uint8_t* data, size_t length) EXCLUDES(fd_lock_);

  // Reads what the port has. Reader thread only.
  void OnDataReady(int fd);

  // Cuts bytes of the stream into packets. Reader thread only.
  void OnBytes(const uint8_t* data, size_t length);

  // Ends a waiting Send() and a pause of the reader, and forgets the descriptor. Any thread.
  void Close() EXCLUDES(fd_lock_);

 private:
  static constexpr size_t kReadSize = 65536;

  void OnPacketReady();
  void OnUnimplementedType(const uint8_t* data, size_t length);
  // Keeps the reader from spinning on a port that hung up.
  void Pause(std::chrono::milliseconds duration);
  // Returns 0, or the error that ends the wait: ECANCELED, ETIMEDOUT.
  int WaitForRoom(std::chrono::steady_clock::time_point deadline) REQUIRES(fd_lock_);

  std::mutex fd_lock_;
  int uart_fd_ GUARDED_BY(fd_lock_);  // -1 once closed
  // After a packet that was cut short nothing more may be sent: the controller would take it for
  // the missing rest.
  bool stuck_ GUARDED_BY(fd_lock_) = false;
  // Set with it: after a close from inside a receiver nothing more is delivered.
  std::atomic<bool> closed_{false};
  const base::unique_fd closing_event_;            // readable for good once closing
  const std::array<PacketReceiver, 6> receivers_;  // by packet type
  const TransportUpcalls upcalls_;
  HciPacketType hci_packet_type_ = HCI_PACKET_TYPE_UNKNOWN;  // of the packet being received
  HciPacketizer hci_packetizer_;
  const std::unique_ptr<uint8_t[]> read_buffer_;
};

}  // namespace android::hardware::bluetooth::hci
