// A second reader of the log, inside the process that writes it. On a handset: a logger of its own
// (__android_log_set_logger) that calls the watcher, then the platform's.
#pragma once

namespace bthal::log {

// Called on the logging thread for each line that is logged, behind the log itself. Must not log.
using Watcher = void (*)(int priority, const char* tag, const char* message);
void SetWatcher(Watcher watcher);

}  // namespace bthal::log
