#pragma once

#include <android-base/unique_fd.h>

#include <deque>
#include <functional>
#include <ostream>
#include <vector>

#include "tools/link/hci_link.h"

namespace bthalctl {

// A link without a controller: keeps what is sent, gives what the test put in. on_send may answer.
class FakeLink : public HciLink {
 public:
  FakeLink();

  void Send(const Packet& packet) override;
  std::optional<Packet> Take() override;
  int fd() const override { return readable_.get(); }

  void Arrive(Packet packet);
  std::function<void(const Packet&)> on_send;
  std::vector<Packet> sent;

 private:
  std::deque<Packet> arrived_;
  const ::android::base::unique_fd readable_;
};

}  // namespace bthalctl

namespace wire {

inline bool operator==(const Packet& a, const Packet& b) {
  return a.type == b.type && a.bytes == b.bytes;
}
inline void PrintTo(const Packet& packet, std::ostream* out) {
  *out << bthalctl::TypeName(packet.type) << " " << Hex(packet.bytes);
}

}  // namespace wire
