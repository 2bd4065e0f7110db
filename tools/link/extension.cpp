#include "tools/link/extension.h"

#include <root_folder/root_folder.h>
#include <unistd.h>

#include <cstdio>

#include "tools/base/wait.h"
#include "tools/hci/names.h"

namespace bthalctl {
namespace {

// Longer than a command waits for its answer in the service.
constexpr std::chrono::seconds kExtensionAnswerTime{3};

// The status in "… VSE <[6]{14, 4, 1, 105, 254, 18}>", a Command Complete event.
std::optional<uint8_t> StatusIn(const std::string& text) {
  const size_t event = text.find("VSE <[");
  if (event == std::string::npos) return std::nullopt;
  unsigned status = 0;
  if (std::sscanf(text.c_str() + event, "VSE <[%*u]{%*u, %*u, %*u, %*u, %*u, %u", &status) != 1 ||
      status > 0xFF) {
    return std::nullopt;
  }
  return static_cast<uint8_t>(status);
}

}  // namespace

CallOutcome::CallOutcome(const std::string& tag)
    : path_(root_folder::Resolve("/run/bthal/log")), tag_(tag), log_(path_, false) {
  CatchStopSignals();
}

std::optional<std::string> CallOutcome::Verdict(const LogLine& line, const std::string& tag) {
  if (line.tag != tag) return std::nullopt;
  if (line.text.find("Recv Success") != std::string::npos) return "";
  if (line.text.find("Recv Failure") != std::string::npos) {
    const auto status = StatusIn(line.text);
    return "the controller refused" + (status ? ": " + StatusText(*status) : "");
  }
  if (const size_t result = line.text.find(" Result 0x"); result != std::string::npos) {
    // Logged in place of an answer, when there was none.
    return line.text.compare(result, std::string::npos, " Result 0x00") == 0
               ? ""
               : "the controller did not answer with Command Complete within 2 s";
  }
  // Each extension's line for a call while Bluetooth is off.
  if (line.text.find(": Unable to ") != std::string::npos ||
      line.text.find(": unable to ") != std::string::npos) {
    return "Bluetooth is off: nothing was sent (bthalctl up)";
  }
  return std::nullopt;
}

bool CallOutcome::Accepted() {
  if (access(path_.c_str(), R_OK) != 0) return false;
  std::optional<std::string> verdict;
  const TimePoint deadline = Clock::now() + kExtensionAnswerTime;
  do {
    log_.Drain([&](const std::string& text) {
      const std::optional<LogLine> line = ParseLogLine(text);
      if (!verdict && line) verdict = Verdict(*line, tag_);
    });
  } while (!verdict && WaitReadable(log_.fd(), deadline));
  if (!verdict) throw Failure("the controller did not answer within 3 s");
  if (!verdict->empty()) throw Failure(*verdict);
  return true;
}

void TellOutcome(const std::string& done, bool confirmed, bool as_json, nlohmann::json details) {
  if (as_json) {
    details["accepted"] = confirmed ? nlohmann::json(true) : nlohmann::json(nullptr);
    std::puts(details.dump().c_str());
  } else {
    std::printf(
        "%s; %s\n", done.c_str(),
        confirmed ? "the controller accepted it" : "its outcome is unknown, for there is no log");
  }
}

}  // namespace bthalctl
