#define LOG_TAG "bthal.hci_h4"

#include "h4/h4_protocol.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <log/log.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "evidence/report.h"

namespace android::hardware::bluetooth::hci {
namespace {

using ::android::base::StringPrintf;
using std::chrono::steady_clock;

constexpr std::chrono::seconds kHangUpPause{5};
constexpr std::chrono::seconds kStuckTimeout{2};

bool IsFromController(uint8_t type) {
  return type >= HCI_PACKET_TYPE_ACL_DATA && type <= HCI_PACKET_TYPE_ISO_DATA;
}

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
                       PacketReceiver sco_cb, PacketReceiver iso_cb, TransportUpcalls upcalls)
    : uart_fd_(fd),
      closing_event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      receivers_{
          nullptr,          nullptr, std::move(acl_cb), std::move(sco_cb), std::move(event_cb),
          std::move(iso_cb)},
      upcalls_(std::move(upcalls)),
      hci_packetizer_([this] { OnPacketReady(); }),
      read_buffer_(new uint8_t[kReadSize]) {}

void H4Protocol::Close() {
  closed_.store(true, std::memory_order_relaxed);
  const uint64_t one = 1;
  TEMP_FAILURE_RETRY(write(closing_event_.get(), &one, sizeof one));
  std::lock_guard<std::mutex> guard(fd_lock_);
  uart_fd_ = -1;
}

int H4Protocol::WaitForRoom(steady_clock::time_point deadline) {
  pollfd fds[] = {{uart_fd_, POLLOUT, 0}, {closing_event_.get(), POLLIN, 0}};
  int ready = -1;
  do {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
    ready = poll(fds, 2, std::max(0, static_cast<int>(left.count())));
  } while (ready < 0 && errno == EINTR);
  if (ready == 0) return ETIMEDOUT;
  return fds[1].revents == 0 ? 0 : ECANCELED;
}

size_t H4Protocol::Send(uint8_t type, const uint8_t* data, size_t length) {
  const size_t total = length + 1;
  if (total < length) return 0;
  iovec parts[] = {{&type, 1}, {const_cast<uint8_t*>(data), length}};
  iovec* list = parts;
  int count = length == 0 ? 1 : 2;
  size_t written = 0;
  steady_clock::time_point stuck_at{};  // unless something is written before; epoch: not full

  std::lock_guard<std::mutex> guard(fd_lock_);
  for (;;) {
    const ssize_t n = stuck_ ? -1 : writev(uart_fd_, list, count);
    if (n < 0) {
      int code = stuck_ ? ETIMEDOUT : errno;
      if (code == EINTR) continue;
      if (code == EAGAIN) {
        if (stuck_at == steady_clock::time_point{}) stuck_at = steady_clock::now() + kStuckTimeout;
        code = WaitForRoom(stuck_at);
        if (code == 0) continue;
      }
      stuck_ = stuck_ || code == ETIMEDOUT || written > 0;
      const char* error = strerror(code);
      ALOGE("%s error writing to UART (%s)", __func__, error);
      evidence::RecordFormat(AnchorType::kH4Send, "%s: error writing to UART (%s)", __func__,
                             error);
      return written;
    }
    if (n == 0) {
      ALOGE("%s zero bytes written - something went wrong...", __func__);
      evidence::RecordFormat(AnchorType::kH4Send,
                             "%s: zero bytes written - something went wrong...", __func__);
      return written;
    }
    stuck_at = {};
    written += static_cast<size_t>(n);
    if (written == total) return total;
    BTHAL_LOG_AND_RECORD(ALOGW, AnchorType::kH4Send,
                         "%s: %zu/%zu bytes written - retrying remaining %zu bytes", __func__,
                         written, total, total - written);
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
    BTHAL_LOG_AND_RECORD(ALOGE, AnchorType::kH4Receive,
                         "%s: Unexpected EOF reading the packet type!", __func__);
    Pause(kHangUpPause);
    return;
  }
  if (errno == EAGAIN) return;
  const std::string error = strerror(errno);
  if (upcalls_.initialized && upcalls_.initialized()) {
    LOG(FATAL) << __func__ << ": Read packet type error: " << error;
  }
  LOG(ERROR) << __func__ << ": read failed (" << error << "), not ready to read!";
  evidence::RecordFormat(AnchorType::kH4Receive, "%s: read failed (%s), not reay to read!",
                         __func__, error.c_str());
  Pause(kHangUpPause);
}

void H4Protocol::OnBytes(const uint8_t* data, size_t length) {
  while (length > 0 && !closed_.load(std::memory_order_relaxed)) {
    if (hci_packet_type_ == HCI_PACKET_TYPE_UNKNOWN) {
      if (!IsFromController(*data)) {
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

// The start of the next packet in the stream is not known any more: the port is closed, the rest of
// the bytes is dropped, and the type stays unknown.
void H4Protocol::OnUnimplementedType(const uint8_t* data, size_t length) {
  ALOGE("%s: Unimplemented Packet Type: %d detected!", "OnDataReady", *data);
  const auto at = [&](size_t i) { return i < length ? data[i] : uint8_t{0}; };
  if (!upcalls_.lost) return;
  upcalls_.lost(
      BqrErrorCode::HostUnimplementedPacketType,
      StringPrintf("Host Received Unimplemented Packet Type: %d, bytes_read: %zd, packet: %02x, "
                   "%02x, %02x, %02x, %02x, %02x",
                   *data, static_cast<ssize_t>(length), at(0), at(1), at(2), at(3), at(4), at(5)));
}

void H4Protocol::OnPacketReady() {
  // Not reached: OnBytes() takes no other type.
  if (!IsFromController(hci_packet_type_)) {
    LOG(FATAL) << __func__ << ": Unimplemented packet type " << int{hci_packet_type_};
  }
  receivers_[hci_packet_type_](hci_packetizer_.GetPacket());
  hci_packet_type_ = HCI_PACKET_TYPE_UNKNOWN;
}

}  // namespace android::hardware::bluetooth::hci
