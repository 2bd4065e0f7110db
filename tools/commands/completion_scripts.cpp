#include <android-base/strings.h>

#include <cstdio>

#include "tools/commands/completion_tree.h"

namespace bthalctl {
namespace {

using ::android::base::Join;
using ::android::base::StringReplace;

std::string Quoted(const std::string& text) {
  return "'" + StringReplace(text, "'", "'\\''", true) + "'";
}

// The first line: more would not fit into a menu.
std::string FirstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

std::vector<std::string> NamesOf(const std::vector<CompletionCommand>& commands) {
  std::vector<std::string> names;
  names.reserve(commands.size());
  for (const CompletionCommand& command : commands) names.push_back(command.path.back());
  return names;
}

// Calls write(command) for the program and everything below it.
template <typename Write>
void ForEach(const CompletionCommand& command, const Write& write) {
  write(command);
  for (const CompletionCommand& below : command.commands) ForEach(below, write);
}

// "ewp on:--interval|ewp on:-i"
std::string BashPattern(const CompletionCommand& command, const CompletionOption& option) {
  std::vector<std::string> patterns;
  for (const std::string& name : option.names)
    patterns.push_back(Quoted(Join(command.path, ' ') + ":" + name));
  return Join(patterns, " | ");
}

std::string BashValue(const CompletionValue& value) {
  switch (value.kind) {
    case CompletionValue::kWords:
      return "words=" + Quoted(Join(value.words, ' '));
    case CompletionValue::kFile:
      return "kind=file";
    case CompletionValue::kFolder:
      return "kind=directory";
    case CompletionValue::kRootFolder:
      return "kind=directory lines=$(\"$1\" completion --roots 2>/dev/null)";
    case CompletionValue::kPeer:
      return "lines=$(\"$1\" ${root:+--root \"$root\"} completion --peers 2>/dev/null)";
    case CompletionValue::kAny:
      break;
  }
  return ":";
}

constexpr char kBashHead[] = R"(# Completion of bthalctl for bash.
_bthalctl() {
  local cur=$2 command='' option='' takes='' words='' kind='' lines='' line='' root=${BTHAL_ROOT-} word='' count=0 i
  COMPREPLY=()
  # The command, the option whose value is being written, and the number of other words.
  for ((i = 1; i < COMP_CWORD; ++i)); do
    word=${COMP_WORDS[i]}
    if [[ $word == = ]]; then continue; fi
    if [[ $takes == one ]]; then
      if [[ $option == --root ]]; then root=$word; fi
      takes=''
      continue
    fi
    if [[ $word == -* ]]; then
      option=$word takes=''
      case $command:$word in
)";

constexpr char kBashMiddle[] = R"(      esac
      continue
    fi
    if [[ $takes == many ]]; then continue; fi
    case $command/$word in
)";

constexpr char kBashValues[] = R"(      *) ((++count)) ;;
    esac
  done
  if [[ $cur == = ]]; then cur=''; fi
  if [[ $takes == one || ($takes == many && $cur != -*) ]]; then
    case $command:$option in
)";

constexpr char kBashWords[] = R"(    esac
  elif [[ $cur == -* ]]; then
    case $command in
)";

constexpr char kBashPositionals[] = R"(    esac
  else
    case $command:$count in
)";

constexpr char kBashTail[] = R"(    esac
  fi
  mapfile -t COMPREPLY < <({
    compgen -W "$words" -- "$cur"
    if [[ $kind ]]; then compgen -A "$kind" -- "$cur"; fi
    # Not by compgen, which would expand what stands in them; cur is as it is typed.
    cur=${cur#[\"\']} cur=${cur//\\/}
    while IFS= read -r line; do
      if [[ $line && $line == "$cur"* ]]; then printf '%s\n' "$line"; fi
    done <<<"$lines"
  } | sort -u)
  if [[ $kind || $lines ]]; then compopt -o filenames 2>/dev/null; fi
}
complete -F _bthalctl bthalctl
)";

// Within a specification of _arguments.
std::string ZshText(const std::string& text) {
  std::string escaped;
  for (const char c : FirstLine(text)) {
    if (c == '[' || c == ']' || c == ':' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

std::string ZshValue(const CompletionValue& value) {
  const std::string message = ":" + ZshText(value.name) + ":";
  switch (value.kind) {
    case CompletionValue::kWords:
      return message + "(" + Join(value.words, ' ') + ")";
    case CompletionValue::kFile:
      return message + "_files";
    case CompletionValue::kFolder:
      return message + "_files -/";
    case CompletionValue::kRootFolder:
      return message + "_bthalctl_roots";
    case CompletionValue::kPeer:
      return message + "_bthalctl_peers";
    case CompletionValue::kAny:
      break;
  }
  return message + " ";
}

std::string ZshFunction(const CompletionCommand& command) {
  return Join(std::vector<std::string>{"_bthalctl", Join(command.path, '_')},
              command.path.empty() ? "" : "_");
}

std::string ZshArguments(const CompletionCommand& command) {
  std::string text = "  _arguments -C -S";
  for (const CompletionOption& option : command.options) {
    const std::string all = "(" + Join(option.names, ' ') + ")";
    std::string rest = "[" + ZshText(option.what) + "]";
    if (option.takes_many) rest += ":*-*";
    if (option.takes_value) rest += ZshValue(option.value);
    for (const std::string& name : option.names) {
      std::string argument = all;
      argument.append(name).append(rest);
      text += " \\\n    " + Quoted(argument);
    }
  }
  for (size_t i = 0; i < command.positionals.size(); ++i) {
    const bool last = i + 1 == command.positionals.size();
    text += " \\\n    " +
            Quoted((last ? "*" : std::to_string(i + 1)) + ZshValue(command.positionals[i]));
  }
  if (!command.commands.empty()) text += " \\\n    '1: :->command' '*:: :->rest'";
  return text + "\n";
}

// True where the words so far lead to this command and to none below it.
std::string FishCondition(const CompletionCommand& command) {
  std::vector<std::string> parts;
  for (const std::string& word : command.path)
    parts.push_back("__fish_seen_subcommand_from " + word);
  if (!command.commands.empty()) {
    parts.push_back("not __fish_seen_subcommand_from " + Join(NamesOf(command.commands), ' '));
  }
  return " -n " + Quoted(Join(parts, "; and "));
}

std::string FishValue(const CompletionValue& value) {
  switch (value.kind) {
    case CompletionValue::kWords:
      return " -f -a " + Quoted(Join(value.words, ' '));
    case CompletionValue::kFile:
      return " -F";
    case CompletionValue::kFolder:
      return " -f -a '(__fish_complete_directories)'";
    case CompletionValue::kRootFolder:
      return " -f -a '(bthalctl completion --roots 2>/dev/null; __fish_complete_directories)'";
    case CompletionValue::kPeer:
      return " -f -a '(bthalctl completion --peers 2>/dev/null)'";
    case CompletionValue::kAny:
      break;
  }
  return " -f";
}

std::string FishOption(const CompletionOption& option) {
  std::string text;
  for (const std::string& name : option.names) {
    text += name[1] == '-' ? " -l " + name.substr(2) : " -s " + name.substr(1);
  }
  if (option.takes_value) text += " -r" + FishValue(option.value);
  return text + " -d " + Quoted(FirstLine(option.what));
}

}  // namespace

std::string BashCompletion(const CompletionCommand& program) {
  std::string taking, commands, values, words, positionals;
  ForEach(program, [&](const CompletionCommand& command) {
    const std::string path = Join(command.path, ' ');
    std::vector<std::string> options;
    for (const CompletionOption& option : command.options) {
      options.insert(options.end(), option.names.begin(), option.names.end());
      if (!option.takes_value) continue;
      const std::string pattern = BashPattern(command, option);
      taking += "        " + pattern + ") takes=" + (option.takes_many ? "many" : "one") + " ;;\n";
      if (option.value.kind == CompletionValue::kAny) continue;
      values += "      " + pattern + ") " + BashValue(option.value) + " ;;\n";
    }
    words += "      " + Quoted(path) + ") words=" + Quoted(Join(options, ' ')) + " ;;\n";
    if (!command.commands.empty()) {
      positionals += "      " + Quoted(path) +
                     ":*) words=" + Quoted(Join(NamesOf(command.commands), ' ')) + " ;;\n";
    }
    for (size_t i = 0; i < command.positionals.size(); ++i) {
      const bool last = i + 1 == command.positionals.size();
      positionals += "      " + Quoted(path) + ":" + (last ? "*" : std::to_string(i)) + ") " +
                     BashValue(command.positionals[i]) + " ;;\n";
    }
    for (const CompletionCommand& below : command.commands) {
      commands += "      " + Quoted(path + "/" + below.path.back()) +
                  ") command=" + Quoted(Join(below.path, ' ')) + " ;;\n";
    }
  });
  return kBashHead + taking + kBashMiddle + commands + kBashValues + values + kBashWords + words +
         kBashPositionals + positionals + kBashTail;
}

std::string ZshCompletion(const CompletionCommand& program) {
  std::string text =
      "#compdef bthalctl\n# Completion of bthalctl for zsh.\n\n"
      "_bthalctl_roots() {\n"
      "  local -a roots\n"
      "  roots=(${(f)\"$(bthalctl completion --roots 2>/dev/null)\"})\n"
      "  compadd -f -- $roots\n"
      "  _files -/\n"
      "}\n\n"
      "_bthalctl_peers() {\n"
      "  local -a peers\n"
      "  peers=(${(f)\"$(bthalctl completion --peers 2>/dev/null)\"})\n"
      "  compadd -- $peers\n"
      "}\n";
  ForEach(program, [&](const CompletionCommand& command) {
    text += "\n" + ZshFunction(command) + "() {\n";
    if (!command.commands.empty()) {
      text += "  local curcontext=$curcontext state state_descr line\n  typeset -A opt_args\n";
      text += "  local -a commands=(\n";
      for (const CompletionCommand& below : command.commands)
        text += "    " + Quoted(below.path.back() + ":" + FirstLine(below.what)) + "\n";
      text += "  )\n";
    }
    text += ZshArguments(command);
    if (!command.commands.empty()) {
      text += "  case $state in\n    command) _describe -t commands command commands ;;\n";
      text += "    rest)\n      case $words[1] in\n";
      for (const CompletionCommand& below : command.commands)
        text += "        " + below.path.back() + ") " + ZshFunction(below) + " ;;\n";
      text += "      esac ;;\n  esac\n";
    }
    text += "}\n";
  });
  return text + "\n_bthalctl \"$@\"\n";
}

std::string FishCompletion(const CompletionCommand& program) {
  std::string text = "# Completion of bthalctl for fish.\ncomplete -c bthalctl -f\n";
  ForEach(program, [&](const CompletionCommand& command) {
    const std::string head = "complete -c bthalctl" + FishCondition(command);
    for (const CompletionCommand& below : command.commands) {
      text += head + " -f -a " + below.path.back() + " -d " + Quoted(FirstLine(below.what)) + "\n";
    }
    for (const CompletionOption& option : command.options) text += head + FishOption(option) + "\n";
    for (const CompletionValue& value : command.positionals) {
      if (value.kind != CompletionValue::kAny) text += head + FishValue(value) + "\n";
    }
  });
  return text;
}

}  // namespace bthalctl
