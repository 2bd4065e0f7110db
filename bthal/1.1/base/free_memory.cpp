#include "base/free_memory.h"

#include <malloc.h>

namespace android::hardware::bluetooth {

void ReturnFreeMemory() {
#if defined(__BIONIC__)
  mallopt(M_PURGE, 0);
#elif defined(__GLIBC__)
  malloc_trim(0);
#endif
}

}  // namespace android::hardware::bluetooth
