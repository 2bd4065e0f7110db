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

using android::base::unique_fd;
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
  const ssize_t sent = TEMP_FAILURE_RETRY(sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT));
  return sent < 0 ? errno : 0;
}

iovec Part(const void* data, size_t size) { return {const_cast<void*>(data), size}; }

size_t ReferenceBytes(const std::vector<ObjectReference>& references) {
  return references.size() * sizeof(ObjectReference);
}

// The descriptors that came with a message.
std::vector<unique_fd> TakeDescriptors(msghdr* message) {
  std::vector<unique_fd> descriptors;
  for (cmsghdr* part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    for (size_t at = 0; at < part->cmsg_len - CMSG_LEN(0); at += sizeof(int)) {
      int descriptor;
      memcpy(&descriptor, CMSG_DATA(part) + at, sizeof descriptor);
      descriptors.emplace_back(descriptor);
    }
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
    descriptors_.emplace_back(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  }
}

int QueuedMessage::Send(int socket) const {
  iovec part = Part(bytes_.data(), bytes_.size());
  std::vector<int> descriptors;
  for (const unique_fd& descriptor : descriptors_) descriptors.push_back(descriptor.get());
  return SendParts(socket, &part, 1, descriptors);
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
    // The kernel reports a reset once, before the messages that the peer had sent until then.
  } while (size < 0 && (errno == EINTR || errno == ECONNRESET));
  if (size < 0) return errno == EAGAIN ? ReceiveResult::kNothingYet : ReceiveResult::kFailed;
  message->descriptors = TakeDescriptors(&incoming);
  // A message without bytes cannot be told from the end of the connection, and is taken for it.
  if (size == 0 && message->descriptors.empty()) return ReceiveResult::kEnd;
  if ((incoming.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) == 0 &&
      Split(buffer, static_cast<size_t>(size), message)) {
    return ReceiveResult::kMessage;
  }
  message->descriptors.clear();
  return (incoming.msg_flags & MSG_CTRUNC) != 0 ? ReceiveResult::kDescriptorsLost
                                                : ReceiveResult::kMalformed;
}

}  // namespace bthal::rpc
