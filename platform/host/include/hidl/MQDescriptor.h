// Fast message queues: no interface carries one. Generated code asserts the size.
#pragma once

#include <hidl/HidlSupport.h>

namespace android::hardware {

enum MQFlavor : uint32_t { kSynchronizedReadWrite = 1 };

template <typename T, MQFlavor flavor>
struct MQDescriptor {
  uint64_t unused[4];
};

}  // namespace android::hardware
