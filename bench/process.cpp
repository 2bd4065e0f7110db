#include "process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace bench {

Process::Process(std::vector<std::string> command) {
  std::vector<char*> argv;
  argv.reserve(command.size() + 1);
  for (std::string& argument : command) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork");
  if (pid_ == 0) {
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDERR_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
  }
}

Process::~Process() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

double Process::CpuSeconds() const {
  double nanoseconds = 0;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid_) + "/task")) {
    double run = 0;
    std::ifstream(task.path() / "schedstat") >> run;
    nanoseconds += run;
  }
  return nanoseconds * 1e-9;
}

}  // namespace bench
