#include "bthal/child_case.h"

#include <execinfo.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <thread>

#include "support/temp_dir.h"

namespace test {
namespace {

constexpr char kChildFlag[] = "--child";
constexpr char kChildVariable[] = "BTHAL_TEST_CHILD";

std::string* root_folder;

// The platform's own constructors come later.
__attribute__((constructor(101))) void SetRootFolder() {
  if (getenv(kChildVariable) != nullptr) {
    root_folder = new std::string(getenv("BTHAL_ROOT"));
    return;
  }
  static TempDir* folder;
  folder = new TempDir;
  root_folder = new std::string(folder->path());
  setenv("BTHAL_ROOT", root_folder->c_str(), 1);
  WriteConfiguration(*root_folder);
  atexit([] { delete folder; });
}

std::map<std::string, ChildCase::Body>& Cases() {
  static auto* cases = new std::map<std::string, ChildCase::Body>;
  return *cases;
}

void PrintBacktrace(int signal) {
  void* frames[64];
  backtrace_symbols_fd(frames, backtrace(frames, 64), STDERR_FILENO);
  ::signal(signal, SIG_DFL);
  raise(signal);
}

ChildRun Finish(ChildProcess& child) {
  ChildRun run;
  run.result = child.Wait(kDeadline).value_or(ChildResult{});
  run.output = child.Output();
  return run;
}

int RunCase(const std::string& name, const Arguments& arguments) {
  const rlimit no_core{};
  setrlimit(RLIMIT_CORE, &no_core);
  signal(SIGABRT, PrintBacktrace);
  return Cases().at(name)(arguments);
}

}  // namespace

ChildCase::ChildCase(const char* name, Body body) { Cases()[name] = body; }

const std::string& RootFolder() { return *root_folder; }

void WriteConfiguration(const std::string& root, const std::string& more_lines) {
  WriteFile(root + "/vendor/etc/bluetooth/bt_vendor.conf",
            std::string("UartPort=") + kUartPort + "\n" + more_lines);
}

std::unique_ptr<ChildProcess> StartChild(const std::string& name, const std::string& root,
                                         const Arguments& arguments) {
  std::vector<std::string> command = {"/proc/self/exe", kChildFlag, name};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return std::make_unique<ChildProcess>(
      command, std::map<std::string, std::string>{
                   {kChildVariable, "1"}, {"BTHAL_ROOT", root}, {"BTHAL_LOG", "debug"}});
}

ChildRun RunChild(const std::string& name, const std::string& root, const Arguments& arguments) {
  return Finish(*StartChild(name, root, arguments));
}

void RunSideBySide(size_t count, const std::function<std::unique_ptr<ChildProcess>(size_t)>& start,
                   const std::function<void(size_t, const ChildRun&)>& check) {
  constexpr size_t kAtOnce = 5;
  for (size_t first = 0; first < count; first += kAtOnce) {
    const size_t end = std::min(first + kAtOnce, count);
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (size_t i = first; i < end; ++i) children.push_back(start(i));
    for (size_t i = first; i < end; ++i) check(i, Finish(*children[i - first]));
  }
}

void ExpectNothingLeft(const char* what, int rounds, const std::function<void()>& body) {
  const int threads = CountThreads(getpid()), descriptors = CountDescriptors(getpid());
  rounds = Count(what, rounds);
  for (int i = 0; i < rounds; ++i) {
    ASSERT_NO_FATAL_FAILURE(body());
    ASSERT_TRUE(WaitFor([&] { return CountThreads(getpid()) <= threads; }));
  }
  EXPECT_TRUE(WaitFor([&] { return CountDescriptors(getpid()) <= descriptors; }));
}

}  // namespace test

#ifdef __SANITIZE_THREAD__
// The children die on purpose, and tell where from inside their signal handler.
extern "C" const char* __tsan_default_options() { return "report_signal_unsafe=0"; }
#endif

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  if (argc >= 3 && strcmp(argv[1], test::kChildFlag) == 0) {
    return test::RunCase(argv[2], test::Arguments(argv + 3, argv + argc));
  }
  // A sanitizer starts a thread of its own with the first one: before any test counts threads.
  // A joined thread may be counted for a moment longer.
  pid_t joined = 0;
  std::thread([&] { joined = gettid(); }).join();
  test::WaitFor([&] { return tgkill(getpid(), joined, 0) != 0; });
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
