// Runs the sequences of tests/data: steps of clients, stack and controller around the service's
// flow control, and what must come out at each end.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>

#include "bthal/log_capture.h"
#include "bthal/uart_rig.h"
#include "support/vectors.h"

namespace test {

class SequenceRunner {
 public:
  using Step = std::function<void(const std::string& arguments)>;

  // tag: whose log lines are compared. The transport is open from here on.
  explicit SequenceRunner(const std::string& tag);

  // A step of the service under test, by its first word.
  void Define(const std::string& word, Step step) { steps_[word] = std::move(step); }
  // Defines "on" and "off".
  void DefineSwitch(void (*on)(android::hardware::bluetooth::hci::HciFlowControl*), void (*off)());
  // Defines "record": the newest record of a kind.
  void DefineRecord(uint8_t kind);
  // Runs all sequences of a file of tests/data, each to its end.
  void RunFile(const std::string& file);
  void Run(const std::string& steps);

  UartRig& rig() { return rig_; }
  android::hardware::bluetooth::hci::HciFlowControl& flow() { return *rig_.flow(); }
  LogCapture& log() { return log_; }
  // The lines that no step has compared yet; they do not come again.
  std::vector<std::string> LinesLeft();
  void SkipLog() { LinesLeft(); }

 private:
  void DefineCommonSteps();
  void ExpectWire(const Bytes& expected);
  void ExpectStack(const std::string& events);
  void ExpectLog(const std::string& arguments);
  void ExpectLine(const std::string& pattern);
  void FetchLog();

  const std::string tag_;
  LogCapture log_;
  UartRig rig_;
  std::map<std::string, Step> steps_;
  std::deque<std::string> lines_;  // logged, not compared yet
};

}  // namespace test
