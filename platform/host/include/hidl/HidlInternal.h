// What the value types and the generated code share: type tags, pointers of one size on every
// machine, fatal errors.
#pragma once

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>

namespace android::hardware::details {

// What a generated class is: the interface, the stub, the proxy, the passthrough wrapper.
struct i_tag {};
struct bnhw_tag {};
struct bphw_tag {};
struct bs_tag {};

// Logs message and aborts.
[[noreturn]] void logAlwaysFatal(const char* message);

// Whether the build is one for developers: never, here.
bool debuggable();

template <typename T>
std::string toHexString(T value) {
  using Unsigned = std::make_unsigned_t<T>;
  char text[24];
  snprintf(text, sizeof text, "0x%" PRIx64, static_cast<uint64_t>(static_cast<Unsigned>(value)));
  return text;
}

// A pointer that takes 8 bytes on every machine, so that layouts agree.
template <typename T>
class hidl_pointer {
 public:
  hidl_pointer() : bits_(0) {}
  hidl_pointer(T* pointer) : bits_(0) { pointer_ = pointer; }  // NOLINT: converts both ways
  operator T*() const { return pointer_; }                     // NOLINT
  T* operator->() const { return pointer_; }

 private:
  union {
    T* pointer_;
    uint64_t bits_;
  };
};

// Opens the value types to the parcel code, which patches the pointers in a received buffer.
struct ParcelAccess;

// The base that generated proxies, stubs and wrappers name; calls are not instrumented here.
class HidlInstrumentor {
 public:
  HidlInstrumentor(const std::string& /*package*/, const std::string& /*interface*/) {}
  void configureInstrumentation(bool /*log*/ = true) {}
  bool isInstrumentationEnabled() const { return false; }
};

}  // namespace android::hardware::details
