#define LOG_TAG "bthal.hci_h4"

#include "h4_protocol.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <log/log.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "../debug_central.h"
#include "../transport_shim.h"

namespace android::hardware::bluetooth::hci {
namespace {

using ::android::base::StringPrintf;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::AnchorType;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::BqrErrorCode;
using ::android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;

constexpr std::chrono::seconds kHangUpPause{5};

// Moves a gather list past what was written of it.
void Advance(iovec** list, int* count, size_t written) {
  while (written > 0 && written >= (*list)->iov_len) {
    written -= (*list)->iov_len;
    ++*list;
    --*count;
  }
  if (written == 0) return;
  (*list)->iov_base = static_cast<uint8_t*>((*list)->iov_base) + written;
  (*list)->iov_len -= written;
}

}  // namespace

H4Protocol::H4Protocol(int fd, PacketReceiver event_cb, PacketReceiver acl_cb,
                       PacketReceiver sco_cb, PacketReceiver iso_cb)
    : uart_fd_(fd),
      closing_event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      event_cb_(std::move(event_cb)),
      acl_cb_(std::move(acl_cb)),
      sco_cb_(std::move(sco_cb)),
      iso_cb_(std::move(iso_cb)),
      hci_packetizer_([this] { OnPacketReady(); }),
      read_buffer_(new uint8_t[kReadSize]) {}

void H4Protocol::Close() {
  closed_.store(true, std::memory_order_relaxed);
  const uint64_t one = 1;
  TEMP_FAILURE_RETRY(write(closing_event_.get(), &one, sizeof one));
  std::lock_guard<std::mutex> guard(fd_lock_);
  uart_fd_ = -1;
}

bool H4Protocol::WaitForRoom() {
  pollfd fds[] = {{uart_fd_, POLLOUT, 0}, {closing_event_.get(), POLLIN, 0}};
  while (poll(fds, 2, -1) < 0 && errno == EINTR) {
  }
  return fds[1].revents == 0;
}

size_t H4Protocol::Send(uint8_t type, const uint8_t* data, size_t length) {
  const size_t total = length + 1;
  if (total < length) return 0;
  iovec parts[] = {{&type, 1}, {const_cast<uint8_t*>(data), length}};
  iovec* list = parts;
  int count = length == 0 ? 1 : 2;
  size_t written = 0;

  std::lock_guard<std::mutex> guard(fd_lock_);
  for (;;) {
    const ssize_t n = writev(uart_fd_, list, count);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) {
        if (WaitForRoom()) continue;
        errno = ECANCELED;
      }
      const char* error = strerror(errno);
      ALOGE("%s error writing to UART (%s)", __func__, error);
      DebugCentral::Get().UpdateRecord(
          AnchorType::kH4Send, StringPrintf("%s: error writing to UART (%s)", __func__, error));
      return written;
    }
    if (n == 0) {
      ALOGE("%s zero bytes written - something went wrong...", __func__);
      DebugCentral::Get().UpdateRecord(
          AnchorType::kH4Send,
          StringPrintf("%s: zero bytes written - something went wrong...", __func__));
      return written;
    }
    written += static_cast<size_t>(n);
    if (written == total) return total;
    const std::string text = StringPrintf(
        "%s: %d/%d bytes written - retrying remaining %d bytes", __func__,
        static_cast<int>(written), static_cast<int>(total), static_cast<int>(total - written));
    ALOGW("%s", text.c_str());
    DebugCentral::Get().UpdateRecord(AnchorType::kH4Send, text);
    Advance(&list, &count, static_cast<size_t>(n));
  }
}

void H4Protocol::Pause(std::chrono::milliseconds duration) {
  pollfd closing = {closing_event_.get(), POLLIN, 0};
  TEMP_FAILURE_RETRY(poll(&closing, 1, static_cast<int>(duration.count())));
}

void H4Protocol::OnDataReady(int fd) {
  const ssize_t n = TEMP_FAILURE_RETRY(read(fd, read_buffer_.get(), kReadSize));
  if (n > 0) {
    OnBytes(read_buffer_.get(), static_cast<size_t>(n));
    return;
  }
  if (n == 0) {
    LOG(ERROR) << __func__ << ": Unexpected EOF reading the packet type!";
    DebugCentral::Get().UpdateRecord(
        AnchorType::kH4Receive,
        StringPrintf("%s: Unexpected EOF reading the packet type!", __func__));
    Pause(kHangUpPause);
    return;
  }
  if (errno == EAGAIN) return;
  const std::string error = strerror(errno);
  if (shim::IsInitialized()) {
    LOG(FATAL) << __func__ << ": Read packet type error: " << error;
  }
  LOG(ERROR) << __func__ << ": read failed (" << error << "), not ready to read!";
  DebugCentral::Get().UpdateRecord(
      AnchorType::kH4Receive,
      StringPrintf("%s: read failed (%s), not reay to read!", __func__, error.c_str()));
  Pause(kHangUpPause);
}

void H4Protocol::OnBytes(const uint8_t* data, size_t length) {
  while (length > 0 && !closed_.load(std::memory_order_relaxed)) {
    if (hci_packet_type_ == HCI_PACKET_TYPE_UNKNOWN) {
      if (*data < HCI_PACKET_TYPE_ACL_DATA || *data > HCI_PACKET_TYPE_ISO_DATA) {
        OnUnimplementedType(data, length);
        return;
      }
      hci_packet_type_ = static_cast<HciPacketType>(*data);
      ++data;
      --length;
    } else {
      const size_t taken = hci_packetizer_.OnDataReady(hci_packet_type_, data, length);
      data += taken;
      length -= taken;
    }
  }
}

// Where in the stream the next packet begins is not known any more: the port is closed, the rest
// is dropped, and the type stays unknown.
void H4Protocol::OnUnimplementedType(const uint8_t* data, size_t length) {
  ALOGE("%s: Unimplemented Packet Type: %d detected!", "OnDataReady", *data);
  const auto at = [&](size_t i) { return i < length ? data[i] : uint8_t{0}; };
  shim::CatchException(
      BqrErrorCode::HostUnimplementedPacketType,
      StringPrintf("Host Received Unimplemented Packet Type: %d, bytes_read: %zd, packet: %02x, "
                   "%02x, %02x, %02x, %02x, %02x",
                   *data, static_cast<ssize_t>(length), at(0), at(1), at(2), at(3), at(4), at(5)));
}

void H4Protocol::OnPacketReady() {
  const HciPacketType type = hci_packet_type_;
  const hidl_vec<uint8_t>& packet = hci_packetizer_.GetPacket();
  switch (type) {
    case HCI_PACKET_TYPE_ACL_DATA:
      acl_cb_(packet);
      break;
    case HCI_PACKET_TYPE_SCO_DATA:
      sco_cb_(packet);
      break;
    case HCI_PACKET_TYPE_EVENT:
      event_cb_(packet);
      break;
    case HCI_PACKET_TYPE_ISO_DATA:
      iso_cb_(packet);
      break;
    default:
      LOG(FATAL) << __func__ << ": Unimplemented packet type " << static_cast<int>(type);
  }
  hci_packet_type_ = HCI_PACKET_TYPE_UNKNOWN;
}

}  // namespace android::hardware::bluetooth::hci
