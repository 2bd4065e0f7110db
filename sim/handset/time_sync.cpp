#include "sim/handset/time_sync.h"

#include "sim/base/log.h"

namespace zvk {
namespace {

constexpr size_t kRecordBytes = 20;  // size of a read
constexpr size_t kMostRecords = 128;

}  // namespace

void TimeSync::Record(uint64_t microseconds) {
  if (pty_.Unread() >= kMostRecords * kRecordBytes) {
    Log("nobody reads the times of the time-sync line; one is lost");
    return;
  }
  std::string record = std::to_string(microseconds);
  record.resize(kRecordBytes, ' ');
  pty_.Write(ByteView(record));
}

}  // namespace zvk
