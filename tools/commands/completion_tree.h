// The command line as a shell's completion sees it: read from the declared options, never written
// by hand.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace bthalctl {

// What can stand in the place of a value.
struct CompletionValue {
  enum Kind { kAny, kWords, kFile, kFolder, kRootFolder, kPeer };

  Kind kind = kAny;
  std::string name;  // as --help calls it
  std::vector<std::string> words;
};

struct CompletionOption {
  std::vector<std::string> names;  // with their dashes
  std::string what;
  bool takes_value = false;
  bool takes_many = false;  // values up to the next option
  CompletionValue value;
};

struct CompletionCommand {
  std::vector<std::string> path;  // {"ewp", "on"}; empty for the program itself
  std::string what;
  std::vector<CompletionOption> options;
  std::vector<CompletionValue> positionals;  // the last one repeats
  std::vector<CompletionCommand> commands;
};

CompletionCommand ReadCompletionTree(const CLI::App& app);

// A script for the shell, which is bash, zsh or fish.
std::string BashCompletion(const CompletionCommand& program);
std::string ZshCompletion(const CompletionCommand& program);
std::string FishCompletion(const CompletionCommand& program);

}  // namespace bthalctl
