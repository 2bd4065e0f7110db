#include "tools/commands/completion_tree.h"

#include <android-base/strings.h>

#include <algorithm>
#include <cctype>

#include "tools/evidence/report_sections.h"
#include "tools/wire/code_rows.h"

namespace bthalctl {
namespace {

// As a user types them: "read_bd_addr".
std::vector<std::string> CommandNames() {
  std::vector<std::string> names;
  for (const wire::CodeRow& row : wire::CommandRows()) {
    std::string typed = row.name;
    for (char& c : typed) {
      c = std::isalnum(static_cast<unsigned char>(c)) != 0
              ? static_cast<char>(std::tolower(static_cast<unsigned char>(c)))
              : '_';
    }
    names.push_back(typed);
  }
  return names;
}

// "TEXT:{a,b}" and "ENUM:value in {a->1,b->2} OR {1,2}" have the words a and b.
std::vector<std::string> ChoicesIn(const std::string& type) {
  const size_t begin = type.find('{');
  const size_t end = type.find('}');
  if (begin == std::string::npos || end == std::string::npos) return {};
  std::vector<std::string> words =
      ::android::base::Split(type.substr(begin + 1, end - begin - 1), ",");
  for (std::string& word : words) word = word.substr(0, word.find("->"));
  return words;
}

CompletionValue ValueOf(const CLI::Option& option) {
  CompletionValue value;
  const std::string type = option.get_type_name();
  value.name = option.get_positional() ? option.get_name(true) : type.substr(0, type.find(':'));
  value.words = ChoicesIn(type);
  if (value.name == "OPCODE") value.words = CommandNames();
  if (value.name == "SECTION") {
    for (const SectionName& section : SectionNames()) value.words.emplace_back(section.name);
  }
  if (!value.words.empty()) {
    value.kind = CompletionValue::kWords;
  } else if (option.check_name("--root")) {
    value.kind = CompletionValue::kRootFolder;
  } else if (value.name == "PEER") {
    value.kind = CompletionValue::kPeer;
  } else if (value.name == "DIR") {
    value.kind = CompletionValue::kFolder;
  } else if (value.name == "FILE" || value.name == "PATH") {
    value.kind = CompletionValue::kFile;
  }
  return value;
}

void ReadOptions(const CLI::App& app, CompletionCommand& command) {
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_positional()) {
      command.positionals.push_back(ValueOf(*option));
      continue;
    }
    if (option == app.get_help_ptr() && !command.options.empty()) continue;  // a group's own
    CompletionOption entry;
    for (const std::string& name : option->get_snames()) entry.names.push_back("-" + name);
    for (const std::string& name : option->get_lnames()) entry.names.push_back("--" + name);
    entry.what = option->get_description();
    entry.takes_value = option->get_items_expected_max() > 0;
    entry.takes_many = option->get_items_expected_max() > 1;
    if (entry.takes_value) entry.value = ValueOf(*option);
    command.options.push_back(entry);
  }
}

void ReadInto(const CLI::App& app, CompletionCommand& command) {
  ReadOptions(app, command);
  for (const CLI::App* child : app.get_subcommands(nullptr)) {
    if (child->get_name().empty()) {  // a group of options
      ReadOptions(*child, command);
      continue;
    }
    CompletionCommand below;
    below.path = command.path;
    below.path.push_back(child->get_name());
    below.what = child->get_description();
    ReadInto(*child, below);
    command.commands.push_back(below);
  }
}

}  // namespace

CompletionCommand ReadCompletionTree(const CLI::App& app) {
  CompletionCommand program;
  ReadInto(app, program);
  return program;
}

}  // namespace bthalctl
