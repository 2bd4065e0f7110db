#pragma once

#include <android-base/unique_fd.h>

#include <deque>
#include <string>

#include "support/child_process.h"
#include "system/handset.h"
#include "tools/base/failure.h"
#include "tools/link/hci_link.h"
#include "tools/wire/h4_framer.h"

namespace test {

// A host stack on the H4 port that "bthalctl serve-h4" offers: the test's own way to a handset's
// controller. Throws bthalctl::Failure as every link does.
class H4Link : public bthalctl::HciLink {
 public:
  enum class Writes { kPackets, kSingleBytes };

  // Brings Bluetooth up and connects. Throws std::runtime_error when that fails.
  explicit H4Link(const Handset& handset, Writes writes = Writes::kPackets);

  void Send(const bthalctl::Packet& packet) override;
  std::optional<bthalctl::Packet> Take() override;
  int fd() const override { return socket_.get(); }

 private:
  const Writes writes_;
  ChildProcess server_;
  ::android::base::unique_fd socket_;
  std::deque<bthalctl::Packet> arrived_;
  wire::H4Framer framer_{
      wire::H4Framer::From::kController,
      [this](wire::PacketType type, wire::ByteView packet) {
        arrived_.push_back({type, packet.Copy()});
      },
      [](uint8_t bad) { throw bthalctl::Failure("no packet type: " + std::to_string(bad)); }};
};

}  // namespace test
