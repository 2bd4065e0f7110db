// System properties of this process, in place of those of libbase, which neither lie in files nor
// are safe to use on several threads.
#include <android-base/properties.h>

#include "system/property_store.h"

namespace {

// Made at first use, never destroyed.
bthal::PropertyStore& Store() {
  static auto* const store = new bthal::PropertyStore;
  return *store;
}

}  // namespace

namespace android::base {

// The other functions of <android-base/properties.h>, in the library, come down to these two.
std::string GetProperty(const std::string& key, const std::string& default_value) {
  std::string value = Store().Value(key);
  return value.empty() ? default_value : value;
}

bool SetProperty(const std::string& key, const std::string& value) {
  return Store().Set(key, value);
}

}  // namespace android::base
