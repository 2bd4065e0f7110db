#include <cstdio>

#include "tools/commands/commands.h"
#include "tools/commands/completion_tree.h"
#include "tools/commands/extcap.h"
#include "tools/hci/heard_peers.h"

namespace bthalctl {
namespace {

struct CompletionOptions : CommandValues {
  const CLI::App* app = nullptr;
  std::string shell;
  bool roots = false;
  bool peers = false;
};

void Completion(const Options& /*options*/, const CompletionOptions& completion) {
  if (completion.roots) {
    for (const std::string& root : FindRoots()) std::puts(root.empty() ? "/" : root.c_str());
    return;
  }
  if (completion.peers) {
    for (const std::string& peer : HeardPeers()) std::puts(peer.c_str());
    return;
  }
  const CompletionCommand program = ReadCompletionTree(*completion.app);
  const std::string script = completion.shell == "bash"  ? BashCompletion(program)
                             : completion.shell == "zsh" ? ZshCompletion(program)
                                                         : FishCompletion(program);
  std::fputs(script.c_str(), stdout);
}

}  // namespace

void AddCompletion(CLI::App& app, const Options& options) {
  auto [command, completion] = AddCommand(app, options, Completion, "completion",
                                          "write the script that completes words in a shell");
  completion.app = &app;
  CLI::Option* const shell =
      command.add_option("SHELL", completion.shell, "the shell that reads the script")
          ->check(CLI::IsMember({"bash", "zsh", "fish"}));
  CLI::Option* const roots = command.add_flag("--roots", completion.roots,
                                              "instead, list the root folders of running services");
  shell->excludes(roots);
  shell->excludes(command.add_flag("--peers", completion.peers,
                                   "instead, list what the last \"scan\" has heard"));
  command.require_option(1);
  command.footer(
      "The Debian package has installed the scripts. Without it:\n"
      "  source <(bthalctl completion bash)\n"
      "  bthalctl completion zsh >~/.zfunc/_bthalctl    a folder of fpath\n"
      "  bthalctl completion fish >~/.config/fish/completions/bthalctl.fish");
}

}  // namespace bthalctl
