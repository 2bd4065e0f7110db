#include "tap/notes.h"

#include <log/log.h>
#include <log_watch/log_watch.h>

#include <string>

#include "evidence/record.h"
#include "tap/tap.h"

namespace android::hardware::bluetooth::tap {
namespace {

void NoteLine(int priority, const char* tag, const char* message) {
  if (priority < ANDROID_LOG_WARN || !Tap::Get().is_on()) return;
  const char level = priority == ANDROID_LOG_WARN ? 'W' : priority == ANDROID_LOG_ERROR ? 'E' : 'F';
  Tap::Get().Note(level, std::string(tag == nullptr ? "" : tag) + ": " + message);
}

using V1_1::zvkbtlinux::debug::AnchorType;

// The records after which something is so.
struct StateRecord {
  AnchorType type;
  const char* name;
  const char* value;
};

constexpr StateRecord kStateRecords[] = {
    {AnchorType::kWakelockAcquire, "wake_lock", "held"},
    {AnchorType::kWakelockRelease, "wake_lock", "released"},
    {AnchorType::kLpmAssert, "controller", "awake"},
    {AnchorType::kLpmDeassert, "controller", "asleep"},
    {AnchorType::kLpmDisabled, "controller", "awake"},
    {AnchorType::kCoexOpened, "coexistence", "open"},
    {AnchorType::kCoexThreadDone, "coexistence", "closed"},
    {AnchorType::kUserialReady, "port", "open"},
    {AnchorType::kUserialClose, "port", "closed"},
};

void NoteRecord(AnchorType type, const std::string& text) {
  for (const StateRecord& record : kStateRecords) {
    if (record.type == type) Tap::Get().State(record.name, record.value);
  }
  Tap::Get().Step(text);
}

}  // namespace

void NoteLogAndSteps() {
  bthal::log::SetWatcher(NoteLine);
  V1_1::zvkbtlinux::debug::Records().SetListener(NoteRecord);
}

}  // namespace android::hardware::bluetooth::tap
