#include "sim/handset/time_sync.h"

namespace zvk {
namespace {

constexpr size_t kRecordBytes = 20;  // what a reader asks for

}  // namespace

void TimeSync::Record(uint64_t microseconds) {
  std::string record = std::to_string(microseconds);
  record.resize(kRecordBytes, ' ');
  pty_.Write(ByteView(record));
}

}  // namespace zvk
