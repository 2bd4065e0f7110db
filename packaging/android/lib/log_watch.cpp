// The second reader of the log on a handset: a logger in front of the platform's.
#include <android/log.h>
#include <log_watch/log_watch.h>

#include <atomic>

namespace bthal::log {
namespace {

std::atomic<Watcher> watcher;

void Log(const __android_log_message* message) {
  __android_log_logd_logger(message);
  const Watcher watch = watcher.load(std::memory_order_acquire);
  if (watch != nullptr) watch(message->priority, message->tag, message->message);
}

}  // namespace

void SetWatcher(Watcher watch) {
  watcher.store(watch, std::memory_order_release);
  __android_log_set_logger(Log);
}

}  // namespace bthal::log
