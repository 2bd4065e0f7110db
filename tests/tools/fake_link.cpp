#include "fake_link.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace bthalctl {

FakeLink::FakeLink() : readable_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void FakeLink::Send(const Packet& packet) {
  sent.push_back(packet);
  if (on_send) on_send(packet);
}

std::optional<Packet> FakeLink::Take() {
  if (arrived_.empty()) {
    uint64_t ignored = 0;
    [[maybe_unused]] const ssize_t drained = read(readable_.get(), &ignored, sizeof ignored);
    return std::nullopt;
  }
  Packet packet = std::move(arrived_.front());
  arrived_.pop_front();
  return packet;
}

void FakeLink::Arrive(Packet packet) {
  arrived_.push_back(std::move(packet));
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t ignored = write(readable_.get(), &one, sizeof one);
}

}  // namespace bthalctl
