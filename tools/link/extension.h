// What the commands of the vendor extensions share.
#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tools/base/failure.h"
#include "tools/base/log_follower.h"
#include "tools/link/attachment.h"
#include "tools/log/log_line.h"

namespace bthalctl {

// An extension of the root folder's service, which is waited for. Throws Failure(kNoService).
template <typename Interface>
::android::sp<Interface> FindExtension(std::chrono::milliseconds wait) {
  FindService(wait);  // published last: with it the extensions are there
  const ::android::sp<Interface> extension = Interface::tryGetService();
  if (extension == nullptr) {
    throw Failure(ExitCode::kNoService,
                  std::string("this service does not offer ") + Interface::descriptor);
  }
  return extension;
}

// Most calls of the extensions return nothing: only the service's log tells their outcome. Made
// before the call, asked after it. When several clients call at once, it may take the outcome of
// another's call for its own.
class CallOutcome {
 public:
  // tag: of the extension's log lines.
  explicit CallOutcome(const std::string& tag);

  // Waits for the controller's answer. Throws Failure when Bluetooth is off, when the controller
  // refused or did not answer. False: there is no log file, so the outcome is unknown.
  bool Accepted();

  // The outcome that a log line tells: empty if the call was accepted, else why it was not. Nothing
  // if the line tells none.
  static std::optional<std::string> Verdict(const LogLine& line, const std::string& tag);

 private:
  const std::string path_;
  const std::string tag_;
  LogFollower log_;
};

// Throws when the service died in the call.
template <typename Result>
void Demand(const Result& result) {
  if (!result.isOk()) throw Failure(ExitCode::kNoService, "the service died during the call");
}

// Prints what was done, or JSON with "accepted", which is null when the outcome is unknown.
void TellOutcome(const std::string& done, bool confirmed, bool as_json, nlohmann::json details);

}  // namespace bthalctl
