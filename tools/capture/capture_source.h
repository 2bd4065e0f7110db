// A capture that the service writes for us.
#pragma once

#include <android-base/unique_fd.h>

#include <functional>
#include <string>
#include <vector>

#include "tools/base/wait.h"
#include "tools/link/attachment.h"
#include "tools/wire/record_splitter.h"

namespace bthalctl {

using wire::CaptureRecord;

// What the service is asked for besides a format: see bthalctl capture --help.
struct CaptureWords {
  bool bring_up = false;
  bool no_advertising = false;
  bool no_data = false;
  std::vector<std::string> types, opcodes, events, no_events, handles;

  // As the service's debug call takes them.
  std::vector<std::string> Words() const;
};

// The end of a pipe to which service writes a capture until it is closed. Throws
// Failure(kNoService), also when the service has not begun within wait.
::android::base::unique_fd OpenCapture(const ::android::sp<Hci>& service, const std::string& format,
                                       const CaptureWords& words,
                                       std::chrono::milliseconds wait = kLongestBringUp);

// Calls take for each record, until it returns false, the deadline passes or a stop signal arrives;
// what has been written by then is taken, too. Throws Failure when the service ends the capture or
// refuses it. In a pause, pause is called now and then, if it is not null.
void ForEachRecord(const ::android::base::unique_fd& source, TimePoint deadline,
                   const std::function<bool(const CaptureRecord&)>& take,
                   const std::function<void()>& pause = nullptr);

}  // namespace bthalctl
