#include <fcntl.h>
#include <root_folder/root_folder.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <thread>

#include "tools/base/failure.h"
#include "tools/base/log_follower.h"
#include "tools/base/terminal.h"
#include "tools/commands/commands.h"
#include "tools/evidence/crash_list.h"
#include "tools/link/attachment.h"
#include "tools/link/holder.h"
#include "tools/link/holder_protocol.h"
#include "tools/log/bring_up_steps.h"
#include "tools/log/step_printer.h"

namespace bthalctl {
namespace {

using ::android::base::unique_fd;

struct UpOptions : CommandValues {
  bool detach = false;
  bool whole_log = false;
  bool lines = false;
  bool quiet = false;
};

// What the holder writes to a pipe when the bring-up has ended: an exit code, then a text.
void SendReport(int fd, ExitCode code, const std::string& text) {
  const std::string message = static_cast<char>(code) + text;
  [[maybe_unused]] const ssize_t ignored = write(fd, message.data(), message.size());
}

// Attaches, reports, serves clients to the end. Returns when asked to quit.
void Hold(const Options& options, unique_fd report) {
  try {
    // First the socket: of two holders that start at the same time, one fails here.
    const auto service = FindService(options.wait());
    auto holder = std::make_unique<Holder>(root_folder::Resolve(holder::kSocket));
    {
      Attachment attachment(service);
      CatchStopSignals();
      SendReport(report.get(), ExitCode::kDone, "");
      report.reset();
      holder->Run(attachment);
    }
    holder->Finish();
  } catch (const Failure& failure) {
    if (!report.ok()) throw;
    SendReport(report.get(), failure.code(), failure.what());
  }
}

// A log line as it is, without process and thread.
void ShowLine(const LogLine& line) {
  if (line.priority == 'I' && line.tag == "bthal.flowcontrol")
    return;  // there is one for every event
  const time_t seconds = std::chrono::system_clock::to_time_t(line.time);
  const auto rest = line.time - std::chrono::system_clock::from_time_t(seconds);
  tm local = {};
  localtime_r(&seconds, &local);
  char time[32];
  std::snprintf(
      time, sizeof time, "%02d:%02d:%02d.%03d  ", local.tm_hour, local.tm_min, local.tm_sec,
      static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(rest).count()));
  std::string text = line.tag + ": " + line.text;
  if (line.IsTrouble()) {
    text = Paint(line.priority == 'W' ? Colour::kYellow : Colour::kRed,
                 std::string(1, line.priority) + " " + text);
  }
  std::printf("%s%s\n", Paint(Colour::kGrey, time).c_str(), text.c_str());
  std::fflush(stdout);
}

// The extensions take calls a moment after the end of initialize: whether this line tells so.
bool TellsOfExtensions(const LogLine& line) {
  return line.tag == "bthal.activity" && line.text == "OnBluetoothEnabled";
}

// Empty when the holder died before it wrote a report.
std::string ReadReport(int fd) {
  std::string report;
  char buffer[1024];
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) {
    report.append(buffer, static_cast<size_t>(n));
    if (report.front() == 0) break;  // success: the holder lives on, its end of the pipe too
  }
  return report;
}

// Follows the service's log while bring-up runs; returns the holder's report.
std::string FollowBringUp(LogFollower& log, int report, const UpOptions& up) {
  BringUpSteps steps;
  StepPrinter printer;
  bool extensions = false;
  const auto show = [&](const std::string& text) {
    const std::optional<LogLine> line = ParseLogLine(text);
    if (!line) return;
    extensions = extensions || TellsOfExtensions(*line);
    if (up.quiet) return;
    if (up.lines) return ShowLine(*line);
    for (const Progress& progress : steps.Feed(*line)) printer.Show(progress);
  };
  for (bool done = false; !done;) {
    std::vector<pollfd> waits = {{report, POLLIN, 0}, {log.fd(), POLLIN, 0}};
    Wait(waits, kNever);
    done = waits[0].revents != 0;
    log.Drain(show);
  }
  std::string verdict = ReadReport(report);
  // So that "up" may be followed by a call of an extension at once.
  const TimePoint deadline = Clock::now() + std::chrono::seconds(1);
  while (!extensions && !verdict.empty() && verdict.front() == 0 &&
         WaitReadable(log.fd(), deadline)) {
    log.Drain(show);
  }
  return verdict;
}

// Whether another "up" holds Bluetooth; waits until it has brought it up.
bool IsUpAlready() {
  if (!AskHolder(holder::kStatus, std::chrono::seconds(30))) return false;
  std::puts("Bluetooth is up already");
  return true;
}

// Whether the holder that reports has brought Bluetooth up; false when another one did so at the
// same time. Throws Failure with the report's text when the bring-up failed.
bool Judge(const std::string& report, time_t started) {
  if (report.empty()) throw Failure("the holder of the attachment died");
  const auto code = static_cast<ExitCode>(report.front());
  if (code == ExitCode::kDone) return true;
  if (code == ExitCode::kBusy && IsUpAlready()) return false;
  // What the service has left behind since; the files' times are whole seconds.
  std::fputs(DescribeCrashes(CollectCrashes(), started - 1).c_str(), stdout);
  throw Failure(code, report.substr(1));
}

void BecomeDaemon() {
  setsid();
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(null, fd);
}

void Up(const Options& options, const UpOptions& up) {
  if (IsUpAlready()) return;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw Failure(WithErrno("pipe"));
  const unique_fd report(ends[0]);
  unique_fd reporter(ends[1]);
  LogFollower log(root_folder::Resolve("/run/bthal/log"), up.whole_log);
  const time_t started = std::time(nullptr);
  const TimePoint start = Clock::now();
  const auto up_line = [&] {
    char text[96];
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::snprintf(text, sizeof text, "Bluetooth is up after %.3f s", seconds);
    std::puts(Paint(Colour::kGreen, text).c_str());
    std::fflush(stdout);
  };

  if (up.detach) {
    // Before any thread of the runtime exists.
    const pid_t child = fork();
    if (child < 0) throw Failure(WithErrno("fork"));
    if (child == 0) {
      BecomeDaemon();
      try {
        Hold(options, std::move(reporter));
      } catch (const Failure& failure) {
        _exit(static_cast<int>(failure.code()));
      }
      _exit(0);
    }
    reporter.reset();
    if (Judge(FollowBringUp(log, report.get(), up), started)) up_line();
    return;
  }

  bool held = false;
  std::exception_ptr failure;
  std::exception_ptr holder_failure;
  std::thread holder([&] {
    try {
      Hold(options, std::move(reporter));
    } catch (...) {
      holder_failure = std::current_exception();
    }
  });
  try {
    held = Judge(FollowBringUp(log, report.get(), up), started);
    if (held) {
      up_line();
      std::puts("Ctrl-C, or bthalctl down in another terminal, takes it down");
      std::fflush(stdout);
    }
  } catch (...) {
    failure = std::current_exception();
  }
  holder.join();
  if (holder_failure != nullptr) std::rethrow_exception(holder_failure);
  if (failure != nullptr) std::rethrow_exception(failure);
  if (held) std::puts("Bluetooth is down");
}

void Down(const Options& /*options*/, const CommandValues& /*values*/) {
  CatchStopSignals();
  if (!AskHolder(holder::kQuit, std::chrono::seconds(30))) {
    throw Failure("nothing to take down: no \"bthalctl up\" holds Bluetooth here");
  }
  std::puts("Bluetooth is down");
}

}  // namespace

void AddUp(CLI::App& app, const Options& options) {
  auto [command, up] = AddCommand(app, options, Up, "up", "bring Bluetooth up and hold it");
  command.add_flag("--detach", up.detach, "hold it in the background; \"down\" ends it");
  command.add_flag("--whole-log", up.whole_log, "begin with what the log has already");
  command.add_flag("--lines", up.lines, "show the service's log lines instead of steps");
  command.add_flag("-q,--quiet", up.quiet, "do not show the steps of the bring-up");
  command.footer(
      "Shows each step of the bring-up from the service's log: when it began, how long it took,\n"
      "what it found; warnings and errors as they stand there. A service with accelerated\n"
      "Bluetooth-on brings the controller up when it starts, so that only a reset is left to do:\n"
      "--whole-log shows that bring-up, too. When the bring-up fails, the files that the service\n"
      "left are listed.\n"
      "Examples:\n  bthalctl up            until Ctrl-C\n  bthalctl up --detach");
}

void AddDown(CLI::App& app, const Options& options) {
  AddCommand(app, options, Down, "down", "take Bluetooth down that \"up\" holds");
}

}  // namespace bthalctl
