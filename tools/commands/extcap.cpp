#include "tools/commands/extcap.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <root_folder/root_folder.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "tools/base/failure.h"
#include "tools/capture/capture_file.h"
#include "tools/commands/capture_words.h"
#include "tools/link/attachment.h"

namespace bthalctl {
namespace {

// An interface's name: this, then its root folder.
constexpr char kInterface[] = "bthal:";

bool HasService(const std::string& root) {
  return access((root + "/run/bthal/android.hardware.bluetooth@1.1::IBluetoothHci:default").c_str(),
                F_OK) == 0;
}

}  // namespace

std::set<std::string> FindRoots() {
  std::set<std::string> roots = {root_folder::Path()};
  std::error_code ignored;
  for (const auto& process : std::filesystem::directory_iterator("/proc", ignored)) {
    std::string environment;
    if (!::android::base::ReadFileToString(process.path() / "environ", &environment)) continue;
    for (const std::string& variable : ::android::base::Split(environment, std::string(1, '\0'))) {
      if (variable.rfind("BTHAL_ROOT=", 0) == 0) roots.insert(variable.substr(11));
    }
  }
  roots.insert("");
  for (auto root = roots.begin(); root != roots.end();) {
    root = HasService(*root) ? std::next(root) : roots.erase(root);
  }
  return roots;
}

namespace {

void ListInterfaces() {
  std::puts("extcap {version=1.0}{display=Bluetooth service}");
  for (const std::string& root : FindRoots()) {
    const std::string shown = root.empty() ? "/" : root;
    std::printf("interface {value=%s%s}{display=Bluetooth of %s}\n", kInterface, shown.c_str(),
                shown.c_str());
  }
}

void ListOptions() {
  const struct {
    const char* call;
    const char* display;
    const char* rest;
  } options[] = {
      {"--bring-up", "Begin with the controller's last bring-up", "{type=boolflag}{default=true}"},
      {"--no-advertising", "No advertising reports", "{type=boolflag}"},
      {"--no-data", "Zeros in the place of what data packets carry", "{type=boolflag}"},
      {"--types", "Only these types", "{type=string}{tooltip=of cmd,acl,sco,evt,iso}"},
      {"--opcodes", "Of commands and their answers only", "{type=string}{tooltip=0x0c03,0xfc18}"},
      {"--events", "Of events only", "{type=string}{tooltip=codes, for instance 0x3e}"},
      {"--no-events", "No events with these codes", "{type=string}{tooltip=0x13}"},
      {"--handles", "Only data of these connections", "{type=string}{tooltip=0x0040}"},
  };
  int number = 0;
  for (const auto& option : options) {
    std::printf("arg {number=%d}{call=%s}{display=%s}%s{group=Packets}\n", number++, option.call,
                option.display, option.rest);
  }
}

// Wireshark ends it by a signal, or by closing the FIFO.
void WriteTo(const std::string& fifo, const CaptureWords& words) {
  CatchStopSignals();
  const auto source = OpenCapture(FindService(std::chrono::seconds(2)), "pcapng", words);
  CaptureFile file(fifo, {});
  ForEachRecord(source, kNever, [&](const CaptureRecord& record) { return file.TryWrite(record); });
}

// The root folder is read once, at the start of a program.
void StartInRootOf(const std::string& interface, char** argv) {
  if (interface.rfind(kInterface, 0) != 0) throw Failure("there is no interface " + interface);
  std::string root = interface.substr(std::strlen(kInterface));
  if (root == "/") root.clear();
  if (root == root_folder::Path()) return;
  setenv("BTHAL_ROOT", root.c_str(), 1);
  execv(std::filesystem::read_symlink("/proc/self/exe").c_str(), argv);
  throw Failure(WithErrno("cannot start in " + root));
}

}  // namespace

bool IsExtcapCall(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--extcap-", 9) == 0) return true;
  }
  return false;
}

int RunExtcap(int argc, char** argv) {
  CLI::App app("Captures for Wireshark.", "bthalctl");
  bool interfaces = false, dlts = false, config = false, capture = false;
  std::string interface, fifo, ignored;
  CaptureWords words;
  app.add_flag("--extcap-interfaces", interfaces);
  app.add_flag("--extcap-dlts", dlts);
  app.add_flag("--extcap-config", config);
  app.add_flag("--capture", capture);
  app.add_option("--extcap-interface", interface);
  app.add_option("--fifo", fifo);
  app.add_option("--extcap-version", ignored);
  app.add_option("--extcap-capture-filter", ignored);
  AddCaptureWords(app, words);
  try {
    app.parse(argc, argv);
    if (interfaces) {
      ListInterfaces();
    } else if (dlts) {
      std::puts("dlt {number=201}{name=BLUETOOTH_HCI_H4_WITH_PHDR}{display=Bluetooth HCI}");
    } else if (config) {
      ListOptions();
    } else if (capture && !fifo.empty()) {
      StartInRootOf(interface, argv);
      WriteTo(fifo, words);
    }
  } catch (const CLI::Error& error) {
    return app.exit(error);
  } catch (const Interrupted&) {
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bthalctl: %s\n", error.what());
    return 1;
  }
  return 0;
}

}  // namespace bthalctl
