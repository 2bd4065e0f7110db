// The configuration, its overlay and the property files: four parts, one behind the other.
#include <android-base/properties.h>

#include <algorithm>
#include <numeric>

#include "conf.h"
#include "system/property_store.h"
#include "target.h"

using android::hardware::bluetooth::conf::Config;

namespace {

constexpr char kPersistentFile[] = "/data/property/persistent.prop";

}  // namespace

// In the place of SetProperty() (the linker's --wrap): it would replace the file of this process's
// properties for each that a configuration sets.
bool SetProperty(const std::string& key, const std::string& value) __asm__(
    "__wrap__ZN7android4base11SetPropertyERKNSt7__cxx1112basic_stringIcSt11char_"
    "traitsIcESaIcEEES8_");
bool SetProperty(const std::string& key, const std::string& value) {
  fuzz::Require(key.rfind("persist.bluetooth.", 0) == 0 && value.size() < 256, "one of those");
  return true;
}

std::vector<std::string> fuzz::Seeds() {
  std::vector<std::string> seeds = Texts("config.txt", 0);
  Append(&seeds, Prefixed({kSeparator}, Texts("config.txt", 1)));
  Append(&seeds, Prefixed({kSeparator, kSeparator}, Texts("config.txt", 2)));
  Append(&seeds, Prefixed({kSeparator, kSeparator, kSeparator},
                          {"# kept\npersist.a=1\n\n b = 2 \nno equals\n=\npersist.a=3\n"}));
  return seeds;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool is_debug_build = [] {
    fuzz::Put("/vendor/build.prop", "ro.build.type=eng\n");
    return android::base::GetProperty("ro.build.type", "") == "eng";
  }();
  fuzz::Require(is_debug_build, "some values are taken in one only");
  fuzz::Log(size);
  fuzz::Input input(data, size);
  for (const char* path : {"/vendor/etc/bluetooth/bt_vendor.conf",
                           "/vendor/etc/bluetooth/bt_vendor_overlay.conf", "/vendor/build.prop"}) {
    fuzz::Put(path, input.Until(fuzz::kSeparator));
  }
  const Config config;
  const std::string& port = config.uart_port();
  fuzz::Require(port.empty() || config.userial_type() == 1, "only a UART has a port");
  fuzz::Require(port.find_first_of("=\n\r\t") == std::string::npos, "a value ends before these");
  fuzz::Require(port.size() < 256, "a line has 255 characters at most");

  // What is set, the next start has. Replacing a file takes longer than all the rest: for some
  // inputs.
  const bool is_set = std::accumulate(data, data + size, 0) % 64 == 0;
  (is_set ? fuzz::PutOnDisk : fuzz::Put)(kPersistentFile, input.Rest());
  bthal::PropertyStore store;
  const std::string name = "persist.set";
  const std::string other = store.Value("persist.a");
  if (is_set && store.Set(name, port.substr(0, 40))) {
    const bthal::PropertyStore next;
    fuzz::Require(next.Value(name) == store.Value(name), "what is set is there after a start");
    fuzz::Require(next.Value("persist.a") == other, "other properties stay");
  }
  return 0;
}
