#include "evidence/bring_up_steps.h"

#include <cstring>

#include "base/clock.h"

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {
namespace {

constexpr char kRunning[] = "running";

}  // namespace

BringUpSteps& BringUpSteps::Get() {
  static auto* steps = new BringUpSteps;
  return *steps;
}

void BringUpSteps::BeginBringUp(const char* cause) {
  std::lock_guard<std::mutex> guard(lock_);
  steps_.clear();
  of_bring_up_ = 0;
  Add("mark", cause, "");
}

void BringUpSteps::BeginAttachment(const char* cause) {
  std::lock_guard<std::mutex> guard(lock_);
  steps_.resize(of_bring_up_);
  Add("mark", cause, "");
}

void BringUpSteps::EndBringUp(const char* text) {
  std::lock_guard<std::mutex> guard(lock_);
  Add("mark", text, "");
  of_bring_up_ = steps_.size();
}

void BringUpSteps::Begin(const char* name, const std::string& detail) {
  std::lock_guard<std::mutex> guard(lock_);
  EndAs("done", "");
  Add(kRunning, name, detail);
}

void BringUpSteps::End(const std::string& detail) {
  std::lock_guard<std::mutex> guard(lock_);
  EndAs("done", detail);
}

void BringUpSteps::Fail() {
  std::lock_guard<std::mutex> guard(lock_);
  EndAs("failed", "");
}

void BringUpSteps::Mark(const char* text) {
  std::lock_guard<std::mutex> guard(lock_);
  Add("mark", text, "");
}

void BringUpSteps::Add(const char* result, const char* name, const std::string& detail) {
  if (steps_.size() >= kMost) return;
  steps_.push_back(
      {result, name, detail, ReadClockNs(CLOCK_REALTIME), ReadClockNs(CLOCK_MONOTONIC), 0});
}

void BringUpSteps::EndAs(const char* result, const std::string& detail) {
  for (auto step = steps_.rbegin(); step != steps_.rend(); ++step) {
    if (std::strcmp(step->result, kRunning) != 0) continue;
    step->result = result;
    step->took_ns = ReadClockNs(CLOCK_MONOTONIC) - step->monotonic_ns;
    if (step->detail.empty()) step->detail = detail;
    return;
  }
}

std::string BringUpSteps::Text() const {
  std::lock_guard<std::mutex> guard(lock_);
  std::string text;
  size_t number = 0;
  for (const Step& step : steps_) {
    text += "step." + std::to_string(++number) + "=" + std::to_string(step.begin_ns) + " " +
            std::to_string(step.took_ns) + " " + step.result + " " + step.name;
    if (!step.detail.empty()) text += ": " + step.detail;
    text += "\n";
  }
  return text;
}

std::string AfterFailures(const char* done, int failures) {
  if (failures == 0) return done;
  return std::string(done) + " after " + std::to_string(failures) + " failed attempts";
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug
