#include <cstdio>

#include "tools/base/failure.h"
#include "tools/commands/commands.h"
#include "tools/h4/h4_server.h"

namespace bthalctl {
namespace {

struct ServeOptions : CommandValues {
  std::string pty;
  std::string unix_path;
  std::string tcp;
  bool vhci = false;
};

void Serve(const Options& options, const ServeOptions& serve) {
  const std::unique_ptr<Endpoint> endpoint = !serve.pty.empty() ? MakePtyEndpoint(serve.pty)
                                             : !serve.unix_path.empty()
                                                 ? MakeUnixEndpoint(serve.unix_path)
                                             : serve.vhci ? MakeVhciEndpoint()
                                                          : MakeTcpEndpoint(serve.tcp);
  const auto link = OpenLink(options);
  std::printf("ready %s\n", endpoint->Name().c_str());
  std::fflush(stdout);
  H4Server server(*link, *endpoint,
                  [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); });
  try {
    server.Run();
  } catch (const Interrupted&) {
    // The way to end it.
  }
}

}  // namespace

void AddServeH4(CLI::App& app, const Options& options) {
  auto [command, serve] = AddCommand(app, options, Serve, "serve-h4",
                                     "offer the service as an H4 port to any host stack");
  CLI::Option_group* const where = command.add_option_group("endpoint");
  where->add_option("--pty", serve.pty, "a pseudo-terminal, reached through this link")
      ->type_name("PATH");
  where->add_option("--unix", serve.unix_path, "a Unix socket at this path")->type_name("PATH");
  where->add_option("--tcp", serve.tcp, "HOST:PORT; port 0 picks a free one");
  where->add_flag("--vhci", serve.vhci, "a Bluetooth device of this machine's kernel (/dev/vhci)");
  where->require_option(1);
  command.footer(
      "Serves one host at a time. Prints \"ready ENDPOINT\" when a host may connect.\n"
      "With --vhci the kernel is the host: the device, such as hci0, is there until this ends.\n"
      "Examples:\n  bthalctl serve-h4 --pty /tmp/bt0\n  sudo bthalctl serve-h4 --vhci");
}

}  // namespace bthalctl
