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

void NoteRecord(const std::string& text) { Tap::Get().Step(text); }

}  // namespace

void NoteLogAndSteps() {
  bthal::log::SetWatcher(NoteLine);
  V1_1::zvkbtlinux::debug::Records().SetListener(NoteRecord);
}

}  // namespace android::hardware::bluetooth::tap
