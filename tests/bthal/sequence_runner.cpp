#include "bthal/sequence_runner.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "debug_central.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace test {
namespace {

using android::hardware::bluetooth::V1_1::zvkbtlinux::debug::AnchorType;
using android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;
namespace hci = android::hardware::bluetooth::hci;

// "word rest": the word, and the rest without it.
std::string TakeWord(std::string* text) {
  const size_t end = std::min(text->find(' '), text->size());
  const std::string word = text->substr(0, end);
  *text = text->substr(std::min(end + 1, text->size()));
  return word;
}

std::string HalLog() {
  return Written([](int fd) { DebugCentral::Get().dump_hal_log(fd); });
}

}  // namespace

SequenceRunner::SequenceRunner(const std::string& tag) : tag_(tag) {
  if (!rig_.Open()) throw std::runtime_error("the transport does not open");
  DefineCommonSteps();
}

void SequenceRunner::DefineCommonSteps() {
  Define("event", [this](const std::string& hex) { rig_.DeliverEvent(ParseHex(hex)); });
  Define("command", [this](const std::string& hex) {
    const Bytes command = ParseHex(hex);
    flow().Send(hci::HCI_PACKET_TYPE_COMMAND, command.data(), command.size());
  });
  Define("queued", [this](const std::string&) {
    EXPECT_TRUE(WaitFor([this] {
      for (const std::string& line : log_.Take("bthal.flowcontrol")) {
        if (line.find("> enqueued") != std::string::npos) return true;
      }
      return false;
    }));
  });
  Define("wire", [this](const std::string& hex) { ExpectWire(ParseHex(hex)); });
  Define("stack", [this](const std::string& events) { ExpectStack(events); });
  Define("log", [this](const std::string& arguments) { ExpectLog(arguments); });
}

void SequenceRunner::DefineSwitch(void (*on)(hci::HciFlowControl*), void (*off)()) {
  Define("on", [this, on](const std::string&) { on(&flow()); });
  Define("off", [off](const std::string&) { off(); });
}

void SequenceRunner::DefineRecord(uint8_t kind) {
  Define("record", [kind](const std::string& text) {
    // The table of last appearances has one entry a kind, so the next one takes the text's place.
    const std::string shown = "\nTimestamp of " + text + ": ";
    EXPECT_NE(HalLog().find(shown), std::string::npos) << text;
    DebugCentral::Get().UpdateRecord(static_cast<AnchorType>(kind), "another of the kind");
    EXPECT_EQ(HalLog().find(shown), std::string::npos) << "of another kind: " << text;
  });
}

void SequenceRunner::RunFile(const std::string& file) {
  for (const Vector& sequence : LoadVectors(file)) {
    SCOPED_TRACE(sequence.name);
    SkipLog();
    Run(sequence.fields.at(0));
    if (testing::Test::HasFailure()) return;
    EXPECT_EQ(LinesLeft(), std::vector<std::string>{});
  }
}

void SequenceRunner::Run(const std::string& steps) {
  for (const std::string& step : SplitTrimmed(steps, ';')) {
    SCOPED_TRACE(step);
    std::string arguments = step;
    steps_.at(TakeWord(&arguments))(arguments);
    if (testing::Test::HasFailure()) return;  // what follows would only wait for its deadline
  }
}

void SequenceRunner::ExpectWire(const Bytes& expected) {
  Bytes written = rig_.pty().TakeWritten();
  WaitFor([&] {
    if (written.size() < expected.size()) written = Concat(written, rig_.pty().TakeWritten());
    return written.size() >= expected.size();
  });
  EXPECT_EQ(ToHex(written), ToHex(expected));
}

void SequenceRunner::ExpectStack(const std::string& events) {
  std::vector<std::string> expected, received;
  for (const std::string& event : SplitTrimmed(events, ',')) {
    expected.push_back(ToHex(ParseHex(event)));
  }
  for (const UartRig::Packet& packet : rig_.TakeReceived()) received.push_back(ToHex(packet.bytes));
  EXPECT_EQ(received, expected);
}

void SequenceRunner::ExpectLog(const std::string& arguments) {
  if (arguments == "ANY") {
    SkipLog();
    return;
  }
  // "L N x text" is N times the line.
  std::string rest = arguments;
  const std::string level = TakeWord(&rest);
  int count = 1;
  const size_t times = rest.find(" x ");
  if (times < 4 && isdigit(rest[0]) != 0) {
    count = std::stoi(rest);
    rest = rest.substr(times + 3);
  }
  for (int i = 0; i < count; ++i) ExpectLine(level + " " + rest);
}

void SequenceRunner::ExpectLine(const std::string& pattern) {
  WaitFor([this] {
    FetchLog();
    return !lines_.empty();
  });
  if (lines_.empty()) {
    ADD_FAILURE() << "no line";
    return;
  }
  EXPECT_TRUE(Matches(lines_.front(), pattern)) << lines_.front() << "\nis not\n" << pattern;
  lines_.pop_front();
}

void SequenceRunner::FetchLog() {
  for (const std::string& line : log_.Take(tag_)) lines_.push_back(line);
}

std::vector<std::string> SequenceRunner::LinesLeft() {
  FetchLog();
  std::vector<std::string> left(lines_.begin(), lines_.end());
  lines_.clear();
  return left;
}

}  // namespace test
