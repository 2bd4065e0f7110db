#include "platform/raw_peer.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "platform/test_root.h"
#include "support/unix_socket.h"
#include "support/wait.h"

namespace test {
namespace {

constexpr uint32_t kVersion = 0x62740001;
constexpr size_t kHeaderBytes = 56;

template <typename T>
void Put(std::vector<uint8_t>* bytes, size_t at, T value) {
  memcpy(bytes->data() + at, &value, sizeof value);
}

}  // namespace

RawPeer::RawPeer(const std::string& name)  // of a link to the socket
    : socket_(ConnectUnix(RootFolder() + "/run/bthal/" + name, SOCK_SEQPACKET)) {}

bool RawPeer::Send(const std::vector<uint8_t>& message, int descriptor) {
  iovec part{const_cast<uint8_t*>(message.data()), message.size()};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  if (descriptor >= 0) {
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    cmsghdr* rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
  }
  return sendmsg(socket_.get(), &header, MSG_NOSIGNAL) == static_cast<ssize_t>(message.size());
}

std::vector<uint8_t> RawPeer::Receive() {
  std::vector<uint8_t> message(256 * 1024);
  pollfd ready{socket_.get(), POLLIN, 0};
  const auto deadline = std::chrono::milliseconds(kDeadline);
  if (poll(&ready, 1, static_cast<int>(deadline.count())) != 1) return {};
  const ssize_t size = recv(socket_.get(), message.data(), message.size(), 0);
  message.resize(size < 0 ? 0 : static_cast<size_t>(size));
  return message;
}

bool RawPeer::WaitForEnd() {
  while (!Receive().empty()) {
  }
  char byte;
  return recv(socket_.get(), &byte, 1, MSG_DONTWAIT) == 0 || errno == ECONNRESET;
}

std::vector<uint8_t> RawPeer::Message(uint32_t type, uint32_t object, uint32_t code,
                                      const std::vector<uint8_t>& body, uint64_t serial) {
  std::vector<uint8_t> message(kHeaderBytes);
  Put(&message, 0, kVersion);
  Put(&message, 4, type);
  Put(&message, 8, object);
  Put(&message, 12, code);
  Put(&message, 24, serial);
  Put(&message, 32, uint64_t{99});  // chain
  Put(&message, 48, static_cast<uint32_t>(body.size()));
  message.insert(message.end(), body.begin(), body.end());
  return message;
}

uint32_t RawPeer::Find(const std::string& name) {
  BodyWriter body;
  body.Text(name);
  Send(Message(1, 0, 1, body.bytes()));
  const std::vector<uint8_t> reply = Receive();
  uint32_t object = 0;  // behind the header: one reference, its owner and its id
  if (reply.size() >= kHeaderBytes + 8) memcpy(&object, reply.data() + kHeaderBytes + 4, 4);
  return object;
}

void BodyWriter::Align(size_t to) { bytes_.resize((bytes_.size() + to - 1) / to * to); }

BodyWriter& BodyWriter::Number(uint32_t value) {
  bytes_.resize(bytes_.size() + 4);
  Put(&bytes_, bytes_.size() - 4, value);
  return *this;
}

BodyWriter& BodyWriter::Text(const std::string& text) {
  Number(static_cast<uint32_t>(text.size() + 1));
  bytes_.insert(bytes_.end(), text.begin(), text.end());
  bytes_.push_back(0);
  Align(4);
  return *this;
}

uint32_t BodyWriter::Buffer(const std::vector<uint8_t>& data, uint32_t parent, uint32_t offset) {
  Align(8);
  Number(static_cast<uint32_t>(data.size())).Number(parent).Number(offset).Number(0);
  const auto handle = static_cast<uint32_t>(bytes_.size());
  bytes_.insert(bytes_.end(), data.begin(), data.end());
  Align(8);
  return handle;
}

std::vector<uint8_t> BodyWriter::Vector(size_t size) {
  std::vector<uint8_t> bytes(16);
  Put(&bytes, 8, static_cast<uint32_t>(size));
  return bytes;
}

}  // namespace test
