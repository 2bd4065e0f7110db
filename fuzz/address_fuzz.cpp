// The device-tree file of the address: a command with it, or a fatal error.
#include <algorithm>

#include "bluetooth_address.h"
#include "target.h"

using namespace android::hardware::bluetooth::hci;
using android::hardware::hidl_vec;

std::vector<std::string> fuzz::Seeds() { return Texts("device_address.txt", 0); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Log(size);
  const std::string text(data, data + size);
  fuzz::Put("/proc/device-tree/chosen/config/bt_addr", text);
  std::string sent;
  const auto nothing = [](const hidl_vec<uint8_t>&) {};
  // The line takes nothing, which ends the wait for an answer.
  const auto flow =
      HciFlowControl::Create({nothing, nothing, nothing, nothing},
                             {[&](uint8_t, const uint8_t* bytes, size_t length, bool) -> size_t {
                                sent.assign(bytes, bytes + length);
                                return 0;
                              },
                              [] {}});
  flow->Connect([](const auto&) {});
  const int fatal_errors = fuzz::FatalErrors();
  try {
    fuzz::Require(!ApplyProvisionBDAddress(flow.get(), [] { return false; }), "no answer came");
  } catch (const fuzz::Fatal&) {
  }
  const bool refused = fuzz::FatalErrors() > fatal_errors;
  fuzz::Require(refused ? sent.empty() : sent.size() == 9, "a command, or a fatal error");
  const auto digits = std::count_if(text.begin(), text.end(), [](char c) { return isxdigit(c); });
  fuzz::Require(refused || digits >= 6, "an address has six digits at least");
  flow->Halt();
  return 0;
}
