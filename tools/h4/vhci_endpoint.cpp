#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "tools/base/failure.h"
#include "tools/h4/endpoint.h"

namespace bthalctl {
namespace {

using ::android::base::unique_fd;

constexpr char kDevice[] = "/dev/vhci";
constexpr uint8_t kOfTheDriver = 0xFF;  // the packet type of what is between the driver and us

// A Bluetooth device of this machine's kernel. The driver makes it on request, takes and gives one
// packet per call, and removes it when the descriptor is closed.
class VhciEndpoint : public Endpoint {
 public:
  VhciEndpoint() : ready_(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (access(kDevice, R_OK | W_OK) != 0) {
      throw Failure(WithErrno(std::string("cannot use ") + kDevice +
                              " (it needs root and the module hci_vhci)"));
    }
  }

  int fd() const override { return ready_.get(); }

  // Opened no earlier than this: the driver makes a device by itself after a second, and the
  // kernel resets it at once.
  unique_fd Accept() override {
    if (made_) throw Failure("the kernel has removed the device");
    unique_fd device(open(kDevice, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    constexpr uint8_t kMakePrimary[] = {kOfTheDriver, 0x00};
    if (!device.ok() || write(device.get(), kMakePrimary, sizeof kMakePrimary) < 0) {
      throw Failure(WithErrno(std::string("cannot make a Bluetooth device with ") + kDevice));
    }
    made_ = true;
    return device;
  }

  std::optional<std::string> OwnMessage(wire::ByteView read) override {
    if (read.size() < 4 || read[0] != kOfTheDriver) return std::nullopt;
    return "the kernel's device is hci" + std::to_string(read[2] | read[3] << 8);
  }

  size_t longest_packet() const override { return 1028; }
  std::string Name() const override { return kDevice; }

 private:
  const unique_fd ready_;  // readable for ever
  bool made_ = false;
};

}  // namespace

std::unique_ptr<Endpoint> MakeVhciEndpoint() { return std::make_unique<VhciEndpoint>(); }

}  // namespace bthalctl
