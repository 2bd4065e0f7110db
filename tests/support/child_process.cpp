#include "support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "support/temp_dir.h"
#include "support/wait.h"

extern char** environ;

namespace test {
namespace {

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

int InStatus(pid_t pid, const std::string& name) {
  const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
  return std::stoi(status.substr(status.find("\n" + name + ":") + name.size() + 2));
}

int CountEntries(const std::string& folder) {
  std::error_code error;
  int count = 0;
  for (std::filesystem::directory_iterator i(folder, error), end; !error && i != end;
       i.increment(error))
    ++count;
  return count;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command,
                           const std::map<std::string, std::string>& environment) {
  std::vector<std::string> arguments = command;
  std::vector<std::string> variables;
  for (const auto& [name, value] : environment) variables.push_back(name + "=" + value);
  for (char** v = environ; *v != nullptr; ++v) {
    const std::string variable = *v;
    if (environment.count(variable.substr(0, variable.find('='))) == 0) {
      variables.push_back(variable);
    }
  }
  const std::vector<char*> argv = Pointers(arguments);
  const std::vector<char*> envp = Pointers(variables);

  output_.reset(memfd_create("output", MFD_CLOEXEC));
  pid_ = fork();
  if (!output_.ok() || pid_ < 0) throw std::runtime_error("cannot start " + command.front());
  if (pid_ == 0) {
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, STDIN_FILENO);
    fcntl(output_.get(), F_SETFL, O_APPEND);
    dup2(output_.get(), STDOUT_FILENO);
    dup2(output_.get(), STDERR_FILENO);
    execvpe(argv[0], argv.data(), envp.data());
    _exit(127);
  }
}

ChildProcess::~ChildProcess() {
  if (result_) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void ChildProcess::Signal(int signal) {
  if (!result_) kill(pid_, signal);
}

std::optional<ChildResult> ChildProcess::Wait(std::chrono::milliseconds deadline) {
  WaitFor(
      [this] {
        int status = 0;
        if (result_ || waitpid(pid_, &status, WNOHANG) != pid_) return result_.has_value();
        result_.emplace();
        if (WIFEXITED(status)) result_->exit_code = WEXITSTATUS(status);
        if (WIFSIGNALED(status)) result_->signal = WTERMSIG(status);
        return true;
      },
      deadline);
  return result_;
}

std::string ChildProcess::Output() const {
  return ReadFile("/proc/self/fd/" + std::to_string(output_.get()));
}

bool ChildProcess::WaitForOutput(const std::string& text, std::chrono::milliseconds deadline) {
  return WaitFor([&] { return Output().find(text) != std::string::npos; }, deadline);
}

std::string ProgramDir() {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "bin";
}

ChildResult Run(const std::vector<std::string>& command, std::string* output,
                const std::map<std::string, std::string>& environment,
                std::chrono::milliseconds deadline) {
  ChildProcess child(command, environment);
  const std::optional<ChildResult> result = child.Wait(deadline);
  *output = child.Output();
  if (!result) *output += "\n[still running at the deadline]";
  return result.value_or(ChildResult{});
}

size_t CountOf(const std::string& text, const std::string& all) {
  size_t count = 0;
  for (size_t at = 0; (at = all.find(text, at)) != std::string::npos; at += text.size()) ++count;
  return count;
}

int CountThreads(pid_t pid) { return InStatus(pid, "Threads"); }
int CountDescriptors(pid_t pid) { return CountEntries("/proc/" + std::to_string(pid) + "/fd"); }
int ResidentKilobytes(pid_t pid) { return InStatus(pid, "VmRSS"); }

}  // namespace test
