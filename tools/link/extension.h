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

// Most calls of the extensions return nothing: what became of one stands in the service's log only.
// Made before the call, asked after it. Where several clients call at once, an answer may be
// another's.
class CallOutcome {
 public:
  // tag: of the extension's log lines.
  explicit CallOutcome(const std::string& tag);

  // Waits for the controller's answer. Throws Failure when Bluetooth is off, when the controller
  // refused or did not answer. False: there is no log file here, so nobody knows.
  bool Accepted();

  // What a log line says of a call: nothing; else empty for an accepted one and the reason for any
  // other.
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

// Tells the user what was done, or a script as JSON; accepted is null there when nobody knows.
void TellOutcome(const std::string& done, bool confirmed, bool as_json, nlohmann::json details);

}  // namespace bthalctl
