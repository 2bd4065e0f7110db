#define LOG_TAG "bthal.debug_central"

#include "evidence/crash_dump.h"

#include <android-base/stringprintf.h>
#include <fcntl.h>
#include <log/log.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>

#include "evidence/crash_file.h"
#include "evidence/debug_files.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {
namespace {

using ::android::base::StringPrintf;

constexpr char kStart[] = "start_crash_dump";

// YYYY-MM-DD_HH-MM-SS, local time.
std::string FileTimestamp() {
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  return StringPrintf("%d-%02d-%02d_%02d-%02d-%02d", local.tm_year + 1900, local.tm_mon + 1,
                      local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
}

// An existing file belongs to another failure in the same second, and is not overwritten.
constexpr int kNewFile = O_RDWR | O_CREAT | O_EXCL | O_SYNC;
constexpr int kDumpFile = O_WRONLY | O_CREAT | O_APPEND | O_SYNC;

// A dump that is streamed, and the operations that its lines name.
struct StreamedDump {
  const char* prefix;
  const char* kind;
  const char* open_operation;
  const char* write_operation;
};
constexpr StreamedDump kControllerDump = {kControllerDumpPrefix, "socdump",
                                          "open_firmware_dump_file", "handle_debug_info_event"};
constexpr StreamedDump kCoProcessorDump = {kChreDumpPrefix, "chredump", "open_ulk_chre_dump_file",
                                           "handle_bqr_chre_debug_data_dump"};

CrashFile FileOf(const StreamedDump& dump, const std::string& timestamp) {
  return {kCoreDumpDirectory + (dump.prefix + timestamp) + ".bin", kDumpFile, 0640, dump.kind,
          dump.open_operation};
}

std::string_view BytesOf(const hidl_vec<uint8_t>& event) {
  return {reinterpret_cast<const char*>(event.data()), event.size()};
}

// Writes the fragments front to back, each whole, and empties the queue.
void WriteFragments(CrashFile* file, std::deque<hidl_vec<uint8_t>>* fragments,
                    const char* operation) {
  ssize_t total = 0;
  while (!fragments->empty()) {
    const auto expected = static_cast<ssize_t>(fragments->front().size());
    const ssize_t n = file->Write(BytesOf(fragments->front()));
    if (n != expected) {
      ALOGE("%s: actual write (%zd bytes) is not the same with expected write (%zd bytes) size.",
            operation, n, expected);
    }
    fragments->pop_front();
    total += std::max<ssize_t>(n, 0);
  }
  ALOGI("%s: total written %zd bytes", operation, total);
  // Not reached: each fragment leaves the queue, written or not.
  if (!fragments->empty()) {
    ALOGW("%s: there are %zu segments not be saved", operation, fragments->size());
    fragments->clear();
  }
}

// Keeps an event, and with the last one writes all. Returns whether it did.
bool AddTo(const StreamedDump& dump, const std::string& timestamp, const hidl_vec<uint8_t>& event,
           bool last, std::deque<hidl_vec<uint8_t>>* fragments) {
  fragments->push_back(event);
  if (!last) return false;
  CrashFile file = FileOf(dump, timestamp);
  if (!file.ok()) return false;
  WriteFragments(&file, fragments, dump.write_operation);
  return true;
}

}  // namespace

void CrashDump::SetTransportDump(SectionWriter transport) {
  std::lock_guard<std::mutex> guard(lock_);
  transport_ = std::move(transport);
}

bool CrashDump::Started() const {
  std::lock_guard<std::mutex> guard(lock_);
  return !timestamp_.empty();
}

void CrashDump::Rearm() {
  std::lock_guard<std::mutex> guard(lock_);
  timestamp_.clear();
  controller_dump_failed_ = false;
  controller_.clear();
  co_processor_.clear();
}

void CrashDump::Start(const std::string& reason) {
  const std::string timestamp = FileTimestamp();
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (!timestamp_.empty()) {
      ALOGD("%s: coredump has already been generated, skipping reason: %s", kStart, reason.c_str());
      return;
    }
    timestamp_ = timestamp;
  }
  ALOGE("%s: reason: %s", kStart, reason.c_str());
  WriteCoreDump(reason, timestamp);
}

void CrashDump::WriteCoreDump(const std::string& reason, const std::string& timestamp) {
  const std::string core_path = kCoreDumpDirectory + (kCoreDumpPrefix + timestamp) + ".bin";
  ALOGW("%s: Starting to generate Bluetooth ssrdump files: %s", kStart, core_path.c_str());
  SectionWriter transport;
  {
    std::lock_guard<std::mutex> guard(lock_);
    transport = transport_;
  }
  {
    CrashFile core(core_path, kNewFile, 0644, "coredump", kStart);
    if (!core.ok()) return;
    fchmod(core.fd(), 0444);
    core.Write("DUMP REASON: " + reason + " - occurred at " + timestamp + "\n" + hal_log_());
    ALOGI("%s: Request to get Transport Layer Debug Dump", kStart);
    if (transport) core.Write(TextOf(transport));
  }
  CrashFile info(kDumpDirectory + (kCrashInfoPrefix + timestamp) + ".txt", kNewFile, 0644,
                 "crashinfo", kStart);
  if (!info.ok()) return;
  fchmod(info.fd(), 0444);
  uint32_t count = 0;
  {
    std::lock_guard<std::mutex> guard(lock_);
    count = ++count_;
  }
  info.Write(StringPrintf("crash_reason: %s\ncrash_count: %u\ntimestamp: %s\n", reason.c_str(),
                          count, timestamp.c_str()));
}

void CrashDump::AppendToControllerDump(const hidl_vec<uint8_t>& event) {
  std::lock_guard<std::mutex> guard(lock_);
  CrashFile file = FileOf(kControllerDump, timestamp_);
  if (!file.ok()) return;
  file.SetQuiet(controller_dump_failed_);
  file.Write(BytesOf(event));
  controller_dump_failed_ |= file.failed();
}

bool CrashDump::AddToControllerDump(const hidl_vec<uint8_t>& event, bool last) {
  std::lock_guard<std::mutex> guard(lock_);
  return AddTo(kControllerDump, timestamp_, event, last, &controller_);
}

bool CrashDump::AddToCoProcessorDump(const hidl_vec<uint8_t>& event, bool last) {
  std::lock_guard<std::mutex> guard(lock_);
  return AddTo(kCoProcessorDump, timestamp_, event, last, &co_processor_);
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
