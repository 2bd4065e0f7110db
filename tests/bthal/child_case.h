// Cases that run in a process of their own: this program once more, with a root folder of its own.
// For what ends the process, and for what is read once a process.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/wait.h"

namespace test {

using Arguments = std::vector<std::string>;

class ChildCase {
 public:
  using Body = int (*)(const Arguments& arguments);
  ChildCase(const char* name, Body body);
};

struct ChildRun {
  ChildResult result;
  std::string output;  // stdout, the log, and the functions of an abort's backtrace
};

// Starts the case; the caller waits for its end. root must outlive it.
std::unique_ptr<ChildProcess> StartChild(const std::string& name, const std::string& root,
                                         const Arguments& arguments = {});
ChildRun RunChild(const std::string& name, const std::string& root,
                  const Arguments& arguments = {});

// Runs count cases, a few at a time: start begins the one of an index, check sees it when it has
// ended.
void RunSideBySide(size_t count, const std::function<std::unique_ptr<ChildProcess>(size_t)>& start,
                   const std::function<void(size_t, const ChildRun&)>& check);

// Runs body as often as Count(what, rounds) says. Expects that no thread of a round, and no
// descriptor of all, outlives it.
void ExpectNothingLeft(const char* what, int rounds, const std::function<void()>& body);

// The root folder of this process, which is BTHAL_ROOT from before the first static object on.
const std::string& RootFolder();

// The configuration of a root folder whose UART is at kUartPort.
inline constexpr char kUartPort[] = "/dev/ttyBT7";
void WriteConfiguration(const std::string& root, const std::string& more_lines = "");

}  // namespace test

#define CHILD_CASE(name)                                         \
  static int Child##name(const test::Arguments& arguments);      \
  static const test::ChildCase kChild##name(#name, Child##name); \
  static int Child##name([[maybe_unused]] const test::Arguments& arguments)
