#include "daemon.h"

#include <filesystem>
#include <stdexcept>

#include "tests/support/wait.h"

namespace bench {
namespace {

std::string Sockets(const HandsetRoot& root) { return root.path() + "/run/bthal/"; }

// Without the sockets of the one before, which was killed.
test::ChildProcess Start(const HandsetRoot& root, const std::vector<std::string>& command) {
  std::filesystem::remove_all(Sockets(root));
  return {command, {{"BTHAL_ROOT", root.path()}}};
}

}  // namespace

std::string Daemon::Program() {
  return test::ProgramDir() + "/android.hardware.bluetooth@1.1-service.zvkbtlinux";
}

Daemon::Daemon(const HandsetRoot& root, Scheduling scheduling,
               const std::vector<std::string>& command)
    : process_(Start(root, WithRights(scheduling, command))) {
  const std::string name = Sockets(root) + "android.hardware.bluetooth@1.1::IBluetoothHci:default";
  if (!test::WaitFor([&] { return std::filesystem::exists(name); }, std::chrono::seconds(5))) {
    throw std::runtime_error("the daemon does not register\n" + process_.Output());
  }
}

}  // namespace bench
