#include <android-base/unique_fd.h>
#include <cutils/native_handle.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

#include "tools/base/failure.h"
#include "tools/commands/commands.h"
#include "tools/link/attachment.h"

namespace bthalctl {
namespace {

using ::android::base::unique_fd;
using ::android::hardware::hidl_handle;

void WriteAll(int from, int to, const std::string& name) {
  char buffer[65536];
  lseek(from, 0, SEEK_SET);
  for (ssize_t size; (size = read(from, buffer, sizeof buffer)) > 0;) {
    for (ssize_t done = 0; done < size;) {
      const ssize_t written = write(to, buffer + done, static_cast<size_t>(size - done));
      if (written < 0) throw Failure(WithErrno("cannot write " + name));
      done += written;
    }
  }
}

void Debug(const Options& options, const std::string& output) {
  const unique_fd target(
      output.empty() ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
                     : open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!target.ok()) throw Failure(WithErrno("cannot write " + output));
  const auto service = FindService(options.wait());
  // The service writes into memory, so that a slow reader of ours cannot hold it up.
  const unique_fd report(memfd_create("report", MFD_CLOEXEC));
  if (!report.ok()) throw Failure(WithErrno("memfd"));
  NATIVE_HANDLE_DECLARE_STORAGE(storage, 1, 0);
  native_handle_t* const handle = native_handle_init(storage, 1, 0);
  handle->data[0] = report.get();
  if (!service->debug(hidl_handle(handle), {}).isOk()) {
    throw Failure(ExitCode::kNoService, "the service died while it wrote the report");
  }
  WriteAll(report.get(), target.get(), output.empty() ? "the report" : output);
  if (!output.empty()) std::fprintf(stderr, "report written to %s\n", output.c_str());
}

}  // namespace

void AddDebug(CLI::App& app, const Options& options) {
  auto output = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand("debug", "take the service's debug report");
  command->add_option("-o,--output", *output, "file to write; without it, standard output");
  command->callback([&options, output] { Debug(options, *output); });
}

}  // namespace bthalctl
