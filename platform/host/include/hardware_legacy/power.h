// Wake locks: while one is held, the machine does not suspend.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

enum { PARTIAL_WAKE_LOCK = 1 };

// Both return 0, or a negative errno. On a machine whose kernel has no wake locks they succeed, and
// log the lock with its count. The locks of a daemon that died are released by the next one on its
// root folder.
int acquire_wake_lock(int lock, const char* id);
int release_wake_lock(const char* id);

#ifdef __cplusplus
}
#endif
