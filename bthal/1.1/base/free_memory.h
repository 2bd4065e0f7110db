#pragma once

namespace android::hardware::bluetooth {

// Gives the memory that is free back to the system. A burst of packets leaves megabytes of it in
// the allocator, which would keep them for good.
void ReturnFreeMemory();

}  // namespace android::hardware::bluetooth
