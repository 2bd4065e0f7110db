// Fast message queues: only the layout that generated code asserts; no interface carries one.
#pragma once

#include <hidl/HidlSupport.h>

namespace android::hardware {

enum MQFlavor : uint32_t {
  kSynchronizedReadWrite = 0x01,
  kUnsynchronizedWrite = 0x02,
};

struct GrantorDescriptor {
  uint32_t flags __attribute__((aligned(4)));
  uint32_t fdIndex __attribute__((aligned(4)));
  uint32_t offset __attribute__((aligned(4)));
  uint64_t extent __attribute__((aligned(8)));
};

template <typename T, MQFlavor flavor>
struct MQDescriptor {
  hidl_vec<GrantorDescriptor> mGrantors;
  details::hidl_pointer<native_handle_t> mHandle;
  uint32_t mQuantum = 0;
  uint32_t mFlags = 0;
};

}  // namespace android::hardware
