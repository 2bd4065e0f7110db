#pragma once

#include "evidence/crash_dump.h"
#include "evidence/debug_report.h"
#include "evidence/fatal_reporter.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

// Debug report, crash files and fatal errors of the process. Higher layers supply sections of the
// report, the transport's dump and the way to the stack.
struct Evidence {
  // The process's one, built on first use, never destroyed.
  static Evidence& Get();

  // In this order: each uses the one before.
  DebugReport report;
  CrashDump crash_dump{[this] { return report.HalLog(); }};
  FatalReporter fatal{[this](const std::string& reason) { crash_dump.Start(reason); }};
};

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
