// The kernel's HCI user channel in place of the UART: the link step puts these functions in the way
// of the system's, which have no Bluetooth to offer here.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bthal/child_case.h"
#include "btzvk_protocol.h"
#include "support/temp_dir.h"
#include "support/vectors.h"
#include "transport_shim.h"

namespace {
int channel[2] = {-1, -1};  // the service's end, the kernel's end
}

extern "C" {
int __real_socket(int domain, int type, int protocol);
int __real_bind(int fd, const sockaddr* address, socklen_t length);

int __wrap_socket(int domain, int type, int protocol) {
  if (domain != AF_BLUETOOTH) return __real_socket(domain, type, protocol);
  printf("socket type %d, protocol %d, close on exec %d\n", type & 0xF, protocol,
         (type & SOCK_CLOEXEC) != 0);
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, channel) != 0) return -1;
  return channel[0];
}

int __wrap_bind(int fd, const sockaddr* address, socklen_t length) {
  if (channel[0] < 0 || fd != channel[0]) return __real_bind(fd, address, length);
  const auto* bytes = reinterpret_cast<const uint8_t*>(address);
  printf("bind %s\n", test::ToHex(test::Bytes(bytes, bytes + length)).c_str());
  return 0;
}
}

namespace {

namespace shim = android::hardware::bluetooth::hci::shim;
using android::hardware::hidl_vec;
using android::hardware::bluetooth::BtZvkProtocol;
using testing::HasSubstr;

std::string NextFromHost() {
  uint8_t packet[64];
  const ssize_t size = recv(channel[1], packet, sizeof packet, MSG_DONTWAIT);
  return size <= 0 ? "nothing" : test::ToHex(test::Bytes(packet, packet + size));
}

CHILD_CASE(UserChannel) {
  const auto ignore = [](const hidl_vec<uint8_t>&) {};
  const auto flow = shim::InitializeHciHandle(ignore, ignore, ignore, ignore);
  if (flow == nullptr) return 1;
  printf("type %u\n", shim::GetUserialType());
  printf("initialized %d\n", BtZvkProtocol::GetInstacne()->Initialize(flow.get()));
  printf("bring-up wrote %s\n", NextFromHost().c_str());
  const test::Bytes reset = test::ParseHex("03 0C 00");
  flow->Send(1, reset.data(), reset.size());
  printf("a stack wrote %s\n", NextFromHost().c_str());
  shim::Deinitialize();
  return 0;
}

TEST(UserChannel, Initialize_LeavesTheControllerToTheKernel) {
  test::TempDir root;
  test::WriteConfiguration(root.path(), "UserialType=0\n");
  const test::ChildRun run = test::RunChild("UserChannel", root.path());
  EXPECT_EQ(run.result.exit_code, 0) << run.output;
  // SOCK_RAW, the HCI protocol; then the address family 31, device 0, channel 1, 16 bits each.
  EXPECT_THAT(run.output, HasSubstr("socket type 3, protocol 1, close on exec 1\n"));
  EXPECT_THAT(run.output, HasSubstr("bind 1F 00 00 00 01 00\n"));
  EXPECT_THAT(run.output, HasSubstr("type 0\ninitialized 1\nbring-up wrote nothing\n"
                                    "a stack wrote 01 03 0C 00\n"));
  EXPECT_THAT(run.output, HasSubstr("Initialize: Do no-op for USERIAL ( 0 )\n"));
}

}  // namespace
