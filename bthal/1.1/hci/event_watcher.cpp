#include "hci/event_watcher.h"

#include "hci/packet.h"

namespace android::hardware::bluetooth::hci {

void HciEventWatcher::LogAnswer(const hidl_vec<uint8_t>& event, base::LogSeverity success,
                                const std::string& prefix) const {
  const bool succeeded = !IsRefusal(event) && CommandCompleteStatus(event) == 0;
  const base::LogSeverity severity = succeeded ? success : base::WARNING;
  if (!base::ShouldLog(severity, name_.c_str())) return;
  base::LogMessage(__FILE__, __LINE__, severity, name_.c_str(), -1).stream()
      << "OnEventReceive: " << prefix << (succeeded ? "Recv Success VSE <" : "Recv Failure VSE <")
      << toString(event) << ">";
}

}  // namespace android::hardware::bluetooth::hci
