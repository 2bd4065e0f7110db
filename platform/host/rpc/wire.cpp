#include "rpc/wire.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace bthal::rpc {
namespace {

using android::hardware::Parcel;

constexpr size_t kControlBytes = CMSG_SPACE(kMaxDescriptors * sizeof(int));

int SendParts(int socket, iovec* parts, size_t count, const std::vector<int>& descriptors) {
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = count;
  alignas(cmsghdr) char control[kControlBytes];
  if (!descriptors.empty()) {
    const size_t size = descriptors.size() * sizeof(int);
    memset(control, 0, sizeof control);
    message.msg_control = control;
    message.msg_controllen = CMSG_SPACE(size);
    cmsghdr* rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(size);
    memcpy(CMSG_DATA(rights), descriptors.data(), size);
  }
  ssize_t sent;
  do {
    sent = sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  return sent < 0 ? errno : 0;
}

iovec Part(const void* data, size_t size) { return {const_cast<void*>(data), size}; }

size_t ReferenceBytes(const std::vector<ObjectReference>& references) {
  return references.size() * sizeof(ObjectReference);
}

// The descriptors that came with a message.
std::vector<int> TakeDescriptors(msghdr* message) {
  std::vector<int> descriptors;
  for (cmsghdr* part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    const size_t before = descriptors.size();
    descriptors.resize(before + count);
    memcpy(descriptors.data() + before, CMSG_DATA(part), count * sizeof(int));
  }
  return descriptors;
}

// Splits size bytes in buffer into the message's parts.
bool Split(const uint8_t* buffer, size_t size, ReceivedMessage* message) {
  MessageHeader& header = message->header;
  if (size < sizeof header) return false;
  memcpy(&header, buffer, sizeof header);
  if (header.version != kWireVersion || header.references > kMaxReferences ||
      header.descriptors != message->descriptors.size()) {
    return false;
  }
  message->references.resize(header.references);
  const size_t references = ReferenceBytes(message->references);
  if (size - sizeof header < references || size - sizeof header - references != header.bytes) {
    return false;
  }
  if (references != 0) memcpy(message->references.data(), buffer + sizeof header, references);
  message->data = buffer + sizeof header + references;
  return true;
}

}  // namespace

QueuedMessage::QueuedMessage(const MessageHeader& header,
                             const std::vector<ObjectReference>& references, const Parcel& parcel)
    : bytes_(sizeof header + ReferenceBytes(references) + parcel.byteCount()) {
  uint8_t* to = bytes_.data();
  const auto append = [&to](const void* data, size_t size) {
    if (size != 0) memcpy(to, data, size);
    to += size;
  };
  append(&header, sizeof header);
  append(references.data(), ReferenceBytes(references));
  append(parcel.bytes(), parcel.byteCount());
  for (const int descriptor : parcel.descriptors()) {
    descriptors_.push_back(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  }
}

QueuedMessage::~QueuedMessage() {
  for (const int descriptor : descriptors_) close(descriptor);
}

int QueuedMessage::Send(int socket) const {
  iovec part = Part(bytes_.data(), bytes_.size());
  return SendParts(socket, &part, 1, descriptors_);
}

int SendMessage(int socket, const MessageHeader& header,
                const std::vector<ObjectReference>& references, const Parcel& parcel) {
  iovec parts[] = {Part(&header, sizeof header),
                   Part(references.data(), ReferenceBytes(references)),
                   Part(parcel.bytes(), parcel.byteCount())};
  return SendParts(socket, parts, 3, parcel.descriptors());
}

ReceiveResult ReceiveMessage(int socket, uint8_t* buffer, ReceivedMessage* message) {
  iovec part = Part(buffer, kMaxMessageBytes);
  alignas(cmsghdr) char control[kControlBytes];
  msghdr incoming{};
  incoming.msg_iov = &part;
  incoming.msg_iovlen = 1;
  incoming.msg_control = control;
  incoming.msg_controllen = sizeof control;
  ssize_t size;
  do {
    size = recvmsg(socket, &incoming, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    // A reset is told once, before what the peer had sent until then.
  } while (size < 0 && (errno == EINTR || errno == ECONNRESET));
  if (size < 0) return errno == EAGAIN ? ReceiveResult::kNothingYet : ReceiveResult::kEnd;
  message->descriptors = TakeDescriptors(&incoming);
  // A message without bytes reads like the end of the connection, which it then is.
  if (size == 0 && message->descriptors.empty()) return ReceiveResult::kEnd;
  if ((incoming.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) == 0 &&
      Split(buffer, static_cast<size_t>(size), message)) {
    return ReceiveResult::kMessage;
  }
  for (const int descriptor : message->descriptors) close(descriptor);
  message->descriptors.clear();
  return ReceiveResult::kMalformed;
}

}  // namespace bthal::rpc
