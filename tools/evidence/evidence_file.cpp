#include "tools/evidence/evidence_file.h"

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <sstream>

#include "tools/base/failure.h"
#include "tools/log/log_line.h"

namespace bthalctl {
namespace {

// What follows label on the next line of text. Throws Failure when another line stands there.
std::string Labelled(std::istringstream& text, const std::string& label) {
  std::string line;
  if (!std::getline(text, line) || line.compare(0, label.size(), label) != 0) {
    throw Failure("there is no \"" + label + "\" line where it belongs");
  }
  return line.substr(label.size());
}

// The line of text that begins with label, without it. Throws Failure when there is none.
std::string Find(const std::string& text, const std::string& label) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(0, label.size(), label) == 0) return line.substr(label.size());
  }
  throw Failure("there is no \"" + label + "\" line");
}

// "bthal::log::(anonymous namespace)::Abort(char const*)" is "Abort".
std::string ShortName(const std::string& function) {
  std::string name = function.substr(0, function.find("[abi:"));
  // Without the arguments: the parentheses that close last.
  if (const size_t close = name.rfind(')'); close != std::string::npos && close > 0) {
    int depth = 0;
    for (size_t i = close + 1; i-- > 0;) {
      if (name[i] == ')') ++depth;
      if (name[i] == '(' && --depth == 0) {
        if (i > 0) name.erase(i);
        break;
      }
    }
  }
  // Without namespaces: what stands behind the last "::" outside brackets.
  int depth = 0;
  for (size_t i = name.size(); i-- > 1;) {
    if (name[i] == ')' || name[i] == '>') ++depth;
    if (name[i] == '(' || name[i] == '<') --depth;
    if (depth == 0 && name[i] == ':' && name[i - 1] == ':') return name.substr(i + 1);
  }
  return name;
}

struct Frame {
  std::string object;    // without its folders
  std::string function;  // may be empty
};

std::string WithoutFolders(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// "#06 pc 0000560ad72bfa95  OBJECT (FUNCTION) SOURCE:LINE".
Frame ParseFrame(const std::string& line) {
  const size_t address = line.find("pc ");
  const size_t object = line.find("  ", address == std::string::npos ? 0 : address);
  if (object == std::string::npos) return {};
  const size_t open = line.find(" (", object + 2);
  Frame frame;
  frame.object = WithoutFolders(line.substr(object + 2, open - object - 2));
  if (open == std::string::npos) return frame;
  int depth = 0;
  size_t end = open + 1;
  for (; end < line.size(); ++end) {
    if (line[end] == '(') ++depth;
    if (line[end] == ')' && --depth == 0) break;
  }
  frame.function = line.substr(open + 2, end - open - 2);
  return frame;
}

// The way from a fatal log line to the signal, which is the same each time.
bool IsAbortMachinery(const std::string& function) {
  for (const char* begin : {"__pthread_kill", "pthread_kill", "raise", "gsignal", "abort",
                            "__android_log_", "android::base::LogMessage", "bthal::log::"}) {
    if (function.rfind(begin, 0) == 0) return true;
  }
  return false;
}

}  // namespace

std::optional<SystemTime> ParseTimestamp(const std::string& text) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, end = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2d_%2d-%2d-%2d%n", &year, &month, &day, &hour, &minute,
                  &second, &end) != 6 ||
      static_cast<size_t>(end) != text.size()) {
    return std::nullopt;
  }
  return LocalTime(year, month, day, hour, minute, second);
}

CrashInfo ParseCrashInfo(const std::string& text) {
  std::istringstream lines(text);
  CrashInfo info;
  info.reason = Labelled(lines, "crash_reason: ");
  const std::string count = Labelled(lines, "crash_count: ");
  if (!android::base::ParseUint(count, &info.count)) {
    throw Failure("\"" + Printable(count) + "\" is no crash count");
  }
  const std::string timestamp = Labelled(lines, "timestamp: ");
  const auto time = ParseTimestamp(timestamp);
  if (!time) throw Failure("\"" + Printable(timestamp) + "\" is no timestamp");
  info.time = *time;
  return info;
}

Tombstone ParseTombstone(const std::string& text) {
  Tombstone tombstone;
  const std::string date = Find(text, "Timestamp: ");
  tm time = {};
  const char* const rest = strptime(date.c_str(), "%Y-%m-%d %H:%M:%S%z", &time);
  if (rest == nullptr || *rest != '\0') {
    throw Failure("\"" + Printable(date) + "\" is no time");
  }
  const long offset = time.tm_gmtoff;
  tombstone.time = std::chrono::system_clock::from_time_t(timegm(&time) - offset);

  char thread[64] = {};
  const std::string process = "pid: " + Find(text, "pid: ");
  if (std::sscanf(process.c_str(), "pid: %d, tid: %d, name: %63[^\n]", &tombstone.pid,
                  &tombstone.tid, thread) < 2) {
    throw Failure("\"" + Printable(process) + "\" names no process");
  }
  tombstone.thread = thread;

  const std::string signal = Find(text, "signal ");
  const size_t open = signal.find('('), close = signal.find(')');
  if (open == std::string::npos || close == std::string::npos || close < open) {
    throw Failure("\"" + Printable(signal) + "\" names no signal");
  }
  tombstone.signal = signal.substr(open + 1, close - open - 1);

  constexpr char kMessage[] = "\nAbort message: '";
  if (size_t begin = text.find(kMessage); begin != std::string::npos) {
    begin += sizeof kMessage - 1;
    tombstone.message = text.substr(begin, text.find("'\n", begin) - begin);
  }

  const size_t backtrace = text.find("\nbacktrace:\n");
  if (backtrace == std::string::npos) throw Failure("there is no backtrace");
  // The program's own first frame; where none is there, the first that is no machinery.
  const std::string command = Find(text, "Cmdline: ");
  const std::string program = WithoutFolders(command.substr(0, command.find(' ')));
  std::string other;
  std::istringstream frames(text.substr(backtrace));
  for (std::string line; std::getline(frames, line);) {
    const size_t number = line.find('#');
    if (number == std::string::npos) continue;
    tombstone.frames.push_back(line.substr(number));
    const Frame frame = ParseFrame(line.substr(number));
    if (IsAbortMachinery(frame.function)) continue;
    const std::string name = frame.function.empty() ? frame.object : ShortName(frame.function);
    if (other.empty()) other = name;
    if (tombstone.function.empty() && frame.object == program) tombstone.function = name;
  }
  if (tombstone.function.empty()) tombstone.function = other;
  return tombstone;
}

std::string ReadEvidence(const std::string& path, size_t limit) {
  // O_NONBLOCK: what stands there under a name of ours may be a FIFO.
  const android::base::unique_fd file(
      open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.ok()) throw Failure(WithErrno("cannot be read"));
  struct stat status = {};
  if (fstat(file.get(), &status) != 0) throw Failure(WithErrno("cannot be read"));
  if (!S_ISREG(status.st_mode)) throw Failure("is no regular file");
  if (static_cast<uint64_t>(status.st_size) > limit) {
    throw Failure("has " + std::to_string(status.st_size) + " bytes, too many for what it is");
  }
  std::string text;
  if (!android::base::ReadFdToString(file, &text)) throw Failure(WithErrno("cannot be read"));
  return text;
}

std::string Printable(const std::string& text) {
  std::string printable;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
    // The control characters of ASCII, and those of 8 bits as UTF-8 has them.
    const bool wide_control = byte == 0xC2 && next >= 0x80 && next < 0xA0;
    printable += byte < 0x20 || byte == 0x7F || wide_control ? '?' : text[i];
    if (wide_control) ++i;
  }
  return printable;
}

}  // namespace bthalctl
