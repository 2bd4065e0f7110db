#define LOG_TAG "bthal.log"

#include "system/log.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <log/log.h>
#include <log_watch/log_watch.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>

namespace bthal::log {
namespace {

// How long a line waits for the reader of standard error.
constexpr int kReaderTimeMs = 1000;

char abort_message[1024];
std::atomic<Watcher> watcher{nullptr};

char Letter(int priority) {
  constexpr char kLetters[] = "??VDIWEF";
  return priority > 0 && priority < 8 ? kLetters[priority] : '?';
}

// "2026-11-21 03:45:19.123 pid tid P tag: ", in local time.
std::string Prefix(int priority, const char* tag) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char date[32];
  strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
  char text[96];
  snprintf(text, sizeof text, "%s.%03ld %5d %5d %c ", date, now.tv_nsec / 1000000, getpid(),
           gettid(), Letter(priority));
  return std::string(text) + (tag == nullptr ? "" : tag) + ": ";
}

// Of a line for systemd's journal, which knows time and process itself: "<level>tag: ".
std::string JournalPrefix(int priority, const char* tag) {
  constexpr char kLevels[] = "66776432";
  const char level = priority > 0 && priority < 8 ? kLevels[priority] : '6';
  return std::string("<") + level + ">" + (tag == nullptr ? "" : tag) + ": ";
}

// A text of several lines becomes several lines of the log.
std::string Lines(const std::string& prefix, std::string_view message) {
  while (!message.empty() && message.back() == '\n') message.remove_suffix(1);
  std::string text;
  do {
    const size_t end = std::min(message.find('\n'), message.size());
    text.append(prefix).append(message.substr(0, end)).append("\n");
    message.remove_prefix(std::min(end + 1, message.size()));
  } while (!message.empty());
  return text;
}

// Whether status is that of the stream that systemd has connected to its journal.
bool IsJournal(const struct stat& status) {
  const char* const variable = getenv("JOURNAL_STREAM");
  return variable != nullptr &&
         variable == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

// Never destroyed: lines come until the process has gone.
class Log {
 public:
  static Log& Get() {
    static auto* const log = new Log;
    return *log;
  }

  void Write(int priority, const char* tag, std::string_view message) {
    const std::string text = Lines(Prefix(priority, tag), message);
    const std::lock_guard<std::mutex> lock(mutex_);
    WriteToStandardError(is_journal_ ? Lines(JournalPrefix(priority, tag), message) : text);
    if (path_.empty() || (!IsThere() && !Reopen())) return;
    if (size_ + text.size() > kMaxFileBytes) StartNewFile();
    android::base::WriteFully(file_, text.data(), text.size());
    size_ += text.size();
  }

  bool Open(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    path_ = path;
    return Reopen();
  }

 private:
  Log() {
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) != 0) return;
    waits_for_reader_ = S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode);
    is_journal_ = IsJournal(status);
  }

  // A reader that takes nothing is waited for once; then it gets what there is room for.
  void WriteToStandardError(std::string_view text) REQUIRES(mutex_) {
    while (!text.empty()) {
      pollfd room{STDERR_FILENO, POLLOUT, 0};
      if (waits_for_reader_ &&
          TEMP_FAILURE_RETRY(poll(&room, 1, reader_is_stuck_ ? 0 : kReaderTimeMs)) == 0) {
        reader_is_stuck_ = true;
        return;
      }
      // As much as never blocks where there is room.
      const std::string_view piece = text.substr(0, PIPE_BUF);
      if (!android::base::WriteFully(STDERR_FILENO, piece.data(), piece.size())) return;
      text.remove_prefix(piece.size());
    }
    reader_is_stuck_ = false;
  }

  // Whether the file is open and has a name.
  bool IsThere() REQUIRES(mutex_) {
    struct stat status {};
    return file_.get() >= 0 && fstat(file_.get(), &status) == 0 && status.st_nlink > 0;
  }

  bool Reopen() REQUIRES(mutex_) {
    file_.reset(open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0640));
    struct stat status {};
    if (file_.get() < 0 || fstat(file_.get(), &status) != 0) return false;
    size_ = static_cast<size_t>(status.st_size);
    return true;
  }

  void StartNewFile() REQUIRES(mutex_) {
    rename(path_.c_str(), (path_ + ".1").c_str());
    Reopen();
  }

  std::mutex mutex_;
  bool waits_for_reader_ = false;  // standard error is a pipe or a socket
  bool is_journal_ = false;        // and systemd's journal reads it
  bool reader_is_stuck_ GUARDED_BY(mutex_) = false;
  android::base::unique_fd file_ GUARDED_BY(mutex_);
  std::string path_ GUARDED_BY(mutex_);
  size_t size_ GUARDED_BY(mutex_) = 0;
};

void Write(const __android_logger_data* data, const char* message) {
  const int saved = errno;
  Log::Get().Write(data->priority, data->tag, message);
  if (const Watcher watch = watcher.load(std::memory_order_acquire)) {
    watch(data->priority, data->tag, message);
  }
  errno = saved;
}

void Abort(const char* message) {
  snprintf(abort_message, sizeof abort_message, "%s", message == nullptr ? "" : message);
  abort();
}

// A level by its name or its first letter; -1 when it is none.
int Priority(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  const char* const names[] = {"verbose", "debug", "info", "warning", "error"};
  for (int i = 0; i < 5; ++i) {
    if (name == names[i] || name == std::string(1, names[i][0])) return ANDROID_LOG_VERBOSE + i;
  }
  return -1;
}

// All lines of ALOGx() and LOG() come here, whatever library they are in. The level is that of the
// environment variable BTHAL_LOG, else info. Lines below it are neither formatted nor written.
// No property is asked: this runs before a program can name its root folder.
__attribute__((constructor(200))) void Install() {
  // LOG() makes its lock for the first line that it writes: now, as long as there is one thread.
  // ThreadSanitizer, which does not see into the library, would call it a race later.
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
  LOG(ERROR);
  __android_log_set_logger(Write);
  __android_log_set_aborter(Abort);
  __android_log_set_minimum_priority(ANDROID_LOG_INFO);
  const char* variable = getenv("BTHAL_LOG");
  const std::string level = variable != nullptr ? variable : "info";
  const int priority = Priority(level);
  if (priority < 0) {
    LOG(WARNING) << "not a log level: \"" << level
                 << "\"; there are verbose, debug, info, warning and error";
    return;
  }
  __android_log_set_minimum_priority(priority);
}

}  // namespace

void SetWatcher(Watcher watch) { watcher.store(watch, std::memory_order_release); }

bool OpenFile(const std::string& path) { return Log::Get().Open(path); }

const char* AbortMessage() { return abort_message; }

}  // namespace bthal::log
