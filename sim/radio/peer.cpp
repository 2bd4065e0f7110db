#include "sim/radio/peer.h"

#include "sim/radio/att_server.h"
#include "sim/radio/l2cap.h"

namespace zvk {
namespace {

constexpr uint16_t kAttChannel = 4;
constexpr uint16_t kSignallingChannel = 5;
constexpr uint16_t kSecurityChannel = 6;

// Returns every fragment as it is.
class LoopPeer : public Peer {
 public:
  explicit LoopPeer(PeerPort port) : port_(std::move(port)) {}
  void OnFragment(bool first, ByteView fragment) override { port_.send(first, fragment); }

 private:
  const PeerPort port_;
};

// An ATT server; pairing and L2CAP channels of its own it refuses.
class AttPeer : public Peer {
 public:
  AttPeer(EventLoop& loop, PeerPort port)
      : port_(std::move(port)),
        l2cap_([this](uint16_t channel, ByteView payload) { OnFrame(channel, payload); },
               port_.send),
        att_(loop, [this](ByteView pdu) { Send(kAttChannel, pdu); }) {}

  void OnFragment(bool first, ByteView fragment) override { l2cap_.OnFragment(first, fragment); }

 private:
  void Send(uint16_t channel, ByteView payload) {
    l2cap_.Send(channel, payload, port_.fragment_bytes());
  }

  void OnFrame(uint16_t channel, ByteView payload) {
    if (channel == kAttChannel) {
      att_.OnPdu(payload);
    } else if (channel == kSignallingChannel) {
      OnSignal(payload);
    } else if (channel == kSecurityChannel) {
      OnSecurity(payload);
    }
  }

  // Any request is answered with Command Reject, "not understood".
  void OnSignal(ByteView payload) {
    constexpr uint8_t kCommandReject = 0x01;
    constexpr uint8_t kLastEvenRequest = 0x14;
    constexpr uint8_t kCreditConnectionRequest = 0x17;
    constexpr uint8_t kReconfigureRequest = 0x19;
    const uint8_t code = payload[0];
    const bool request = (code % 2 == 0 && code <= kLastEvenRequest) ||
                         code == kCreditConnectionRequest || code == kReconfigureRequest;
    if (payload.size() < 4 || !request) return;
    Send(kSignallingChannel, Writer{kCommandReject, payload[1]}.U16(2).U16(0));
  }

  void OnSecurity(ByteView payload) {
    constexpr uint8_t kPairingRequest = 0x01;
    constexpr uint8_t kPairingFailed = 0x05;
    constexpr uint8_t kNotSupported = 0x05;
    if (payload[0] == kPairingRequest)
      Send(kSecurityChannel, Writer{kPairingFailed, kNotSupported});
  }

  const PeerPort port_;
  L2cap l2cap_;
  AttServer att_;
};

}  // namespace

std::unique_ptr<Peer> MakePeer(PeerKind kind, EventLoop& loop, PeerPort port) {
  if (kind == PeerKind::kLoop) return std::make_unique<LoopPeer>(std::move(port));
  return std::make_unique<AttPeer>(loop, std::move(port));
}

}  // namespace zvk
