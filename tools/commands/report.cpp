#include "tools/report/report.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/base/terminal.h"
#include "tools/commands/commands.h"
#include "tools/report/archive.h"

namespace bthalctl {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

struct ReportOptions : CommandValues {
  std::string output;
  std::string from;
  std::vector<std::string> compare;
  ReportRequest request;
  bool no_devices = false;
};

// What a bthalctl of its own reports of another root folder.
Json ReportOfFolder(const std::string& folder, const ReportOptions& options, bool devices) {
  std::vector<std::string> command = {
      fs::read_symlink("/proc/self/exe"), "--root", folder, "--wait", "0", "report", "--json"};
  if (options.request.with_addresses) command.push_back("--addresses");
  if (!devices) command.push_back("--files-only");
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw Failure(WithErrno("pipe"));
  ::android::base::unique_fd out(ends[0]), in(ends[1]);
  const pid_t child = fork();
  if (child < 0) throw Failure(WithErrno("fork"));
  if (child == 0) {
    dup2(in.get(), STDOUT_FILENO);
    std::vector<char*> argv;
    argv.reserve(command.size() + 1);
    for (std::string& word : command) argv.push_back(word.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  in.reset();
  std::string text;
  ::android::base::ReadFdToString(out, &text);
  int status = 0;
  TEMP_FAILURE_RETRY(waitpid(child, &status, 0));
  if (status != 0) throw Failure(folder + ": no report could be made of it");
  return Json::parse(text);
}

// Of a root folder, a report that was kept as JSON, or an archive of a handset's files.
Json ReportOf(const std::string& source, const ReportOptions& options) {
  std::error_code error;
  if (fs::is_directory(source, error)) {
    return ReportOfFolder(fs::absolute(source), options, true);
  }
  std::string text;
  if (!::android::base::ReadFileToString(source, &text)) throw Failure(WithErrno(source));
  if (::android::base::StartsWith(text, "{")) return ParseReport(text, source);
  const TemporaryDir folder;
  Json report = ReportOfFolder(UnpackHandsetFiles(source, folder.path), options, false);
  report["source"] = source;
  return report;
}

void WriteFile(const std::string& path, const std::string& content) {
  if (path == "-") {
    std::fwrite(content.data(), 1, content.size(), stdout);
    return;
  }
  if (!::android::base::WriteStringToFile(content, path)) {
    throw Failure(WithErrno("cannot write " + path));
  }
  std::printf("%s: %s\n", path.c_str(), HumanBytes(content.size()).c_str());
}

void Report(const Options& options, const ReportOptions& values) {
  if (values.json == !values.output.empty()) {
    throw Failure(ExitCode::kUsage, "report takes -o FILE, or --json");
  }
  if (!values.compare.empty()) {
    if (values.json) throw Failure(ExitCode::kUsage, "--compare makes a page: -o FILE");
    WriteFile(values.output, ComparisonPage(ReportOf(values.compare[0], values),
                                            ReportOf(values.compare[1], values)));
    return;
  }
  ReportRequest request = values.request;
  request.with_devices = !values.no_devices;
  const Json report =
      values.from.empty() ? MakeReport(options, request) : ReportOf(values.from, values);
  if (values.json) {
    std::puts(report.dump(2).c_str());
    return;
  }
  WriteFile(values.output, ReportPage(report));
  std::puts(report["verdict"]["text"].get<std::string>().c_str());
}

}  // namespace

void AddReport(CLI::App& app, const Options& options) {
  auto [command, report] = AddCommand(
      app, options, Report, "report",
      "one page to look at and to send: what happened, crashes, settings", "for a script");
  command.add_option("-o,--output", report.output, "page to write (HTML); - is standard output");
  command.add_option("--from", report.from,
                     "instead of --root: a folder, an archive of a handset's files, or the output "
                     "of --json");
  command.add_option("--compare", report.compare, "two of them, on one page")
      ->expected(2)
      ->type_name("A B");
  AddSeconds(command, "-t,--seconds", report.request.seconds, "record traffic for so many seconds",
             0, 3600);
  command.add_flag("--addresses", report.request.with_addresses,
                   "with the addresses of devices, which are left out otherwise");
  command.add_flag("--files-only", report.no_devices, "without this machine's ports and switches");
  command.footer(
      "Works with a running service and on the files that one has left. The page needs no "
      "network.\n"
      "Payload of data packets is never in it.\n"
      "Examples:\n"
      "  bthalctl report -o today.html\n"
      "  bthalctl report --from bugreport.zip -o bug.html\n"
      "  bthalctl report --compare good.json bad.zip -o both.html");
}

}  // namespace bthalctl
