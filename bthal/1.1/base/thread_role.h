#pragma once

namespace android::hardware::bluetooth {

// The threads that others join while tearing Bluetooth down: such a thread must never wait for a
// tear-down on another thread.
enum class ThreadRole { kOther, kReader, kCoex };

inline thread_local ThreadRole g_thread_role = ThreadRole::kOther;

inline bool IsJoinedByTeardown() { return g_thread_role != ThreadRole::kOther; }

}  // namespace android::hardware::bluetooth
