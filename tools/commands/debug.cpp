#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "tools/base/failure.h"
#include "tools/commands/commands.h"
#include "tools/evidence/report_sections.h"
#include "tools/link/attachment.h"

namespace bthalctl {
namespace {

using ::android::base::unique_fd;

struct DebugOptions : CommandValues {
  std::string output;
  std::vector<std::string> sections;  // empty: the whole report
  bool list = false;
};

void List(const std::vector<Section>& sections) {
  for (const SectionName& known : SectionNames()) {
    size_t lines = 0;
    for (const Section& section : sections) {
      if (section.name != known.name) continue;
      lines += static_cast<size_t>(std::count(section.text.begin(), section.text.end(), '\n'));
    }
    std::printf("%-10s %6zu lines  %s\n", known.name, lines, known.what);
  }
}

void Debug(const Options& options, const DebugOptions& debug) {
  const unique_fd target(
      debug.output.empty()
          ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
          : open(debug.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!target.ok()) throw Failure(WithErrno("cannot write " + debug.output));
  const std::string report = TakeReport(options, {}, kLongestBringUp);
  if (debug.list) return List(CutReport(report));

  const std::string text = debug.sections.empty() ? report : SectionsOf(report, debug.sections);
  if (!::android::base::WriteStringToFd(text, target)) {
    throw Failure(
        WithErrno("cannot write " + (debug.output.empty() ? "the report" : debug.output)));
  }
  if (!debug.output.empty()) std::fprintf(stderr, "report written to %s\n", debug.output.c_str());
}

}  // namespace

std::string TakeReport(const Options& options, const std::vector<std::string>& debug_options,
                       std::chrono::milliseconds wait) {
  const auto service = FindService(options.wait());
  // The service writes into memory, so that a slow reader of ours cannot hold it up.
  const unique_fd report(memfd_create("report", MFD_CLOEXEC));
  if (!report.ok()) throw Failure(WithErrno("memfd"));
  CallDebug(service, unique_fd(fcntl(report.get(), F_DUPFD_CLOEXEC, 0)), debug_options, wait);
  std::string text;
  lseek(report.get(), 0, SEEK_SET);
  if (!::android::base::ReadFdToString(report, &text)) throw Failure(WithErrno("report"));
  return text;
}

std::map<std::string, std::string> TakeState(const Options& options,
                                             std::chrono::milliseconds wait) {
  std::map<std::string, std::string> state;
  for (const std::string& line :
       ::android::base::Split(TakeReport(options, {"state"}, wait), "\n")) {
    if (const size_t sign = line.find('='); sign != std::string::npos) {
      state[line.substr(0, sign)] = line.substr(sign + 1);
    }
  }
  return state;
}

void AddDebug(CLI::App& app, const Options& options) {
  auto [command, debug] =
      AddCommand(app, options, Debug, "debug", "take the service's debug report");
  std::vector<std::string> names;
  std::string footer = "Sections:\n";
  for (const SectionName& section : SectionNames()) {
    names.emplace_back(section.name);
    footer +=
        "  " + names.back() + std::string(11 - names.back().size(), ' ') + section.what + "\n";
  }
  command.add_option("-o,--output", debug.output, "file to write; without it, standard output")
      ->type_name("FILE");
  CLI::Option* const sections =
      command.add_option("-s,--section", debug.sections, "only these sections, in their order")
          ->type_name("SECTION")
          ->check(CLI::IsMember(names).description(""));
  command.add_flag("-l,--list", debug.list, "list the sections and how long each is")
      ->excludes(sections);
  command.footer(footer +
                 "Examples:\n  bthalctl debug --section history\n"
                 "  bthalctl debug -s firmware kernel -o report.txt");
}

}  // namespace bthalctl
