// For builds with ThreadSanitizer only. Debian's libutils is not instrumented: the sanitizer does
// not see that the counters of RefBase order an object's destruction after other threads' last use
// of it. These stand before the library's own functions and tell it.
#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>
#include <utils/RefBase.h>

namespace {

template <typename Function>
Function Original(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// What this thread did before is seen by whoever comes here after it.
void Order(void* counters) {
  __tsan_release(counters);
  __tsan_acquire(counters);
}

}  // namespace

namespace android {

void RefBase::decStrong(const void* id) const {
  static const auto original =
      Original<void (*)(const RefBase*, const void*)>("_ZNK7android7RefBase9decStrongEPKv");
  Order(getWeakRefs());
  original(this, id);
}

void RefBase::weakref_type::decWeak(const void* id) {
  static const auto original = Original<void (*)(weakref_type*, const void*)>(
      "_ZN7android7RefBase12weakref_type7decWeakEPKv");
  Order(this);
  original(this, id);
}

bool RefBase::weakref_type::attemptIncStrong(const void* id) {
  static const auto original = Original<bool (*)(weakref_type*, const void*)>(
      "_ZN7android7RefBase12weakref_type16attemptIncStrongEPKv");
  const bool taken = original(this, id);
  __tsan_acquire(this);
  return taken;
}

}  // namespace android
