#define LOG_TAG "bthal.debug_central"

#include "evidence/fatal_reporter.h"

#include <log/log.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <system_error>

#include "evidence/record.h"
#include "stack_trace_helper.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {
namespace {

constexpr std::chrono::seconds kStackAnswer{1};

}  // namespace

FatalReporter::~FatalReporter() {
  std::thread messenger;
  {
    std::lock_guard<std::mutex> guard(lock_);
    ended_ = true;
    messenger.swap(messenger_);
  }
  changed_.notify_all();
  if (messenger.joinable()) messenger.join();
}

bool FatalReporter::StartMessenger() {
  if (messenger_.joinable()) return true;
  try {
    messenger_ = std::thread([this] { RunMessenger(); });
  } catch (const std::system_error& error) {
    ALOGE("%s: no thread to tell the stack of a fatal error: %s", __func__, error.what());
  }
  return messenger_.joinable();
}

void FatalReporter::RunMessenger() {
  std::unique_lock<std::mutex> guard(lock_);
  base::ScopedLockAssertion assumed(lock_);
  for (;;) {
    while (!event_ && !ended_) changed_.wait(guard);
    if (ended_) return;
    const hidl_vec<uint8_t> event = *std::exchange(event_, std::nullopt);
    const EventSink sink = sink_;
    guard.unlock();
    sink(event);
    guard.lock();
    ++told_;
    changed_.notify_all();
  }
}

void FatalReporter::SetEventSink(EventSink sink) {
  std::lock_guard<std::mutex> guard(lock_);
  sink_ = std::move(sink);
  StartMessenger();
}

void FatalReporter::Claim() {
  pid_t nobody = 0;
  if (reporter_.compare_exchange_strong(nobody, gettid()) || nobody == gettid()) return;
  for (;;) pause();
}

void FatalReporter::TellStack(const hidl_vec<uint8_t>& event) {
  const auto deadline = std::chrono::steady_clock::now() + kStackAnswer;
  std::unique_lock<std::mutex> guard(lock_);
  base::ScopedLockAssertion assumed(lock_);
  if (!StartMessenger()) return;
  event_ = event;
  const int told = told_;
  changed_.notify_all();
  while (told_ == told && changed_.wait_until(guard, deadline) != std::cv_status::timeout) {
  }
}

void FatalReporter::Report(BqrErrorCode code, const std::string& why) {
  Claim();
  Record(AnchorType::kBqrError, why);
  const std::string& message = MessageOf(code);
  ALOGE("ReportBqrError: root inflamed event with reason: %s (%d)", message.c_str(),
        static_cast<int>(code));
  TellStack({0xFF, 0x04, 0x58, 0x05, 0x00, static_cast<uint8_t>(code)});
  if (code == BqrErrorCode::FirmwareMiscellaneousMajorFault ||
      code == BqrErrorCode::SocBigHammerFault) {
    kill(getpid(), SIGKILL);
  } else {
    write_files_(message);
    LogFatal(code, why);
  }
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
