// Messages on a socket. One message is one datagram of a SOCK_SEQPACKET socket: a header, the
// object references, the parcel's bytes; descriptors travel beside it.
//
// A call is answered by a reply with its serial, unless it is oneway. Calls that run ahead get no
// reply: their receiver runs them in the order of their sending and counts them. It tells how many
// it has run, and how many bytes their parcels had, after each that asks for it. One that fails is
// told at once.
#pragma once

#include <android-base/unique_fd.h>
#include <hwbinder/Parcel.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace bthal::rpc {

// Both ends are built from the same sources: another version is a malformed message.
constexpr uint32_t kWireVersion = 0x62740002;

constexpr size_t kMaxMessageBytes = 192 * 1024;  // below the socket's default send buffer
constexpr size_t kMaxDescriptors = 16;
constexpr size_t kMaxReferences = 64;

// A refusal is the one message of a service that does not take the connection.
enum class MessageType : uint32_t {
  kCall = 1,
  kReply = 2,
  kRelease = 3,
  kRefusal = 4,
  kProgress = 5,     // of calls that run ahead
  kAheadFailed = 6,  // one of them
};

// Flags of a call, beside IBinder::FLAG_ONEWAY.
constexpr uint32_t kRunsAhead = 0x100;
constexpr uint32_t kAsksForProgress = 0x200;

struct MessageHeader {
  uint32_t version = kWireVersion;
  MessageType type = MessageType::kCall;
  uint32_t object = 0;  // call, release: id of the receiver's object
  uint32_t code = 0;    // call, failure: the method; release: how many references
  uint32_t flags = 0;   // call
  int32_t status = 0;   // reply, failure; refusal: errno
  uint64_t serial = 0;  // pairs a reply with its call; progress: how many calls have run
  uint64_t chain = 0;   // call: which chain of nested calls it belongs to, 0 for oneway;
                        // progress: how many bytes the calls had that have run
  uint32_t references = 0;
  uint32_t descriptors = 0;
  uint32_t bytes = 0;
  uint32_t unused = 0;
};

// An object in a parcel, as its sender sees it.
struct ObjectReference {
  enum class Owner : uint32_t { kSender = 1, kReceiver = 2 };
  Owner owner;
  uint32_t id;  // among the owner's objects on this connection
};

// A message that waits to be sent: a copy of its bytes, duplicates of its descriptors.
class QueuedMessage {
 public:
  QueuedMessage(const MessageHeader& header, const std::vector<ObjectReference>& references,
                const android::hardware::Parcel& parcel);

  size_t size() const { return bytes_.size(); }
  // 0, or errno: EAGAIN when the socket is full.
  int Send(int socket) const;

 private:
  std::vector<uint8_t> bytes_;
  std::vector<android::base::unique_fd> descriptors_;
};

// Sends without copying; never blocks. 0, or errno: EAGAIN when the socket is full.
int SendMessage(int socket, const MessageHeader& header,
                const std::vector<ObjectReference>& references,
                const android::hardware::Parcel& parcel);

// A message as received, its parts checked against each other; data lies in the buffer given.
struct ReceivedMessage {
  MessageHeader header;
  std::vector<ObjectReference> references;
  const uint8_t* data = nullptr;
  std::vector<android::base::unique_fd> descriptors;
};

// kDescriptorsLost: more descriptors came with the message than one may bring, or than this process
// can open.
enum class ReceiveResult { kMessage, kNothingYet, kEnd, kMalformed, kDescriptorsLost, kFailed };

// Takes one message without blocking. buffer has kMaxMessageBytes.
ReceiveResult ReceiveMessage(int socket, uint8_t* buffer, ReceivedMessage* message);

}  // namespace bthal::rpc
