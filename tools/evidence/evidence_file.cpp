#include "tools/evidence/evidence_file.h"

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tools/base/failure.h"
#include "tools/log/log_line.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;

constexpr size_t kMaxBytes = 4 << 20;

// The rest of the first line that begins with label. Throws Failure when there is none.
std::string Field(const std::string& text, const std::string& label) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(label, 0) == 0) return line.substr(label.size());
  }
  throw Failure("there is no \"" + label + "\" line");
}

[[noreturn]] void Refuse(const std::string& text, const char* what) {
  throw Failure("\"" + Printable(text) + "\" is no " + what);
}

// "a::(anonymous namespace)::Abort(char const*)" is "Abort".
std::string ShortName(std::string function) {
  const std::string unnamed = "(anonymous namespace)::";
  for (size_t at; (at = function.find(unnamed)) != std::string::npos;) {
    function.erase(at, unnamed.size());
  }
  function.resize(std::min(function.size(), function.find_first_of("()")));
  const size_t colons = function.rfind("::");
  return colons == std::string::npos ? function : function.substr(colons + 2);
}

}  // namespace

std::optional<time_t> ParseTimestamp(const std::string& text) {
  return ParseLocalTime(text, "%Y-%m-%d_%H-%M-%S");
}

Json ParseCrashInfo(const std::string& text) {
  Json info = {{"reason", Field(text, "crash_reason: ")}};
  const std::string count = Field(text, "crash_count: ");
  uint32_t number = 0;
  if (!android::base::ParseUint(count, &number)) Refuse(count, "crash count");
  info["count"] = number;
  const std::string timestamp = Field(text, "timestamp: ");
  const std::optional<time_t> time = ParseTimestamp(timestamp);
  if (!time) Refuse(timestamp, "timestamp");
  info["time"] = *time;
  return info;
}

Json ParseTombstone(const std::string& text) {
  const std::string date = Field(text, "Timestamp: ");
  // The offset from UTC that follows is this machine's.
  const std::optional<time_t> time = ParseLocalTime(date.substr(0, 19), "%Y-%m-%d %H:%M:%S");
  if (!time) Refuse(date, "time");
  const std::string process = Field(text, "pid: ");
  int pid = 0, tid = 0;
  char thread[64] = {};
  if (std::sscanf(process.c_str(), "%d, tid: %d, name: %63[^\n]", &pid, &tid, thread) < 2) {
    Refuse(process, "process");
  }
  const std::string signal = Field(text, "signal ");
  char name[16] = {};
  if (std::sscanf(signal.c_str(), "%*d (%15[A-Z0-9])", name) != 1) Refuse(signal, "signal");
  Json tombstone = {{"time", *time},  {"pid", pid},    {"tid", tid},     {"thread", thread},
                    {"signal", name}, {"message", ""}, {"function", ""}, {"frames", Json::array()}};

  constexpr char kMessage[] = "\nAbort message: '";
  if (size_t begin = text.find(kMessage); begin != std::string::npos) {
    begin += sizeof kMessage - 1;
    tombstone["message"] = text.substr(begin, text.find("'\n", begin) - begin);
  }

  const std::string command = Field(text, "Cmdline: ");
  const std::string path = command.substr(0, command.find(' '));
  const std::string program = "/" + path.substr(path.rfind('/') + 1) + " (";
  const size_t backtrace = text.find("\nbacktrace:\n");
  if (backtrace == std::string::npos) throw Failure("there is no backtrace");
  std::istringstream frames(text.substr(backtrace));
  std::string function;
  for (std::string line; std::getline(frames, line);) {
    const size_t number = line.find('#');
    if (number == std::string::npos) continue;
    tombstone["frames"].push_back(line.substr(number));
    const size_t object = line.find(program);
    if (!function.empty() || object == std::string::npos) continue;
    const std::string frame = line.substr(object + program.size());
    if (frame.rfind("bthal::log::", 0) != 0) function = ShortName(frame);
  }
  tombstone["function"] = function;
  return tombstone;
}

std::string ReadEvidence(const std::string& path) {
  // O_NONBLOCK: what stands there under a name of ours may be a FIFO.
  const android::base::unique_fd file(
      open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.ok()) throw Failure(WithErrno("cannot be read"));
  struct stat status = {};
  if (fstat(file.get(), &status) != 0) throw Failure(WithErrno("cannot be read"));
  if (!S_ISREG(status.st_mode)) throw Failure("is no regular file");
  if (static_cast<uint64_t>(status.st_size) > kMaxBytes) {
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
