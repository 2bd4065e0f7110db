// zvksim: a simulated handset. See docs/simulator.md.

#include <android-base/unique_fd.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "sim/base/event_loop.h"
#include "sim/base/log.h"
#include "sim/firmware/image.h"
#include "sim/handset/handset.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

constexpr char kExamples[] =
    "Examples:\n"
    "  zvksim --root /tmp/handset\n"
    "  zvksim --root /tmp/handset --chip B5 --trace /tmp/hci.txt\n"
    "  zvksim --root /tmp/handset --replay radio.pcapng\n"
    "  zvksim ctl /tmp/handset on 0x0C03 nth 1 no-answer\n"
    "  zvksim make-firmware --output ZVK_B5.hcd --chip 0xB5 --size 500000\n"
    "Exit codes: 0 done, 1 failed, 2 wrong usage.";

struct FirmwareOptions {
  std::string output;
  zvk::ImageOptions image;
  unsigned chip_id = 0;
  bool no_launch = false;
};

int MakeFirmwareFile(const FirmwareOptions& options) {
  zvk::ImageOptions image = options.image;
  image.chip_id = static_cast<uint8_t>(options.chip_id);
  image.launch = !options.no_launch;
  const zvk::Bytes content = zvk::MakeFirmware(image);
  std::ofstream out(options.output, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(content.data()),
            static_cast<std::streamsize>(content.size()));
  if (!out.flush()) throw std::runtime_error("cannot write " + options.output);
  return 0;
}

// Ends the loop on SIGINT and SIGTERM. Blocks them, so it comes before everything else.
class StopSignals {
 public:
  explicit StopSignals(zvk::EventLoop& loop) : loop_(loop) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    fd_.reset(signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
    loop_.Watch(fd_.get(), EPOLLIN, [this](uint32_t) { loop_.Stop(); });
  }
  ~StopSignals() { loop_.Unwatch(fd_.get()); }

 private:
  zvk::EventLoop& loop_;
  android::base::unique_fd fd_;
};

struct ControlOptions {
  std::string root;
  std::vector<std::string> words;
};

int Control(const ControlOptions& options) {
  std::string text;
  for (const std::string& word : options.words) text += (text.empty() ? "" : " ") + word;
  const std::string refused = zvk::SendControl(options.root, text);
  if (!refused.empty()) zvk::Log("%s", refused.c_str());
  return refused.empty() ? 0 : kFailed;
}

int RunHandset(const zvk::HandsetOptions& options) {
  zvk::EventLoop loop;
  StopSignals signals(loop);
  zvk::Handset handset(loop, options);
  std::printf("ready %s\n", handset.root().c_str());
  std::fflush(stdout);
  loop.Run();
  return handset.Finish() ? 0 : kFailed;
}

std::string ChipHelp() {
  std::string help = "kind of controller (default B5):";
  for (const zvk::ChipPreset& preset : zvk::ChipPresets()) {
    help += "\n" + preset.name + ": " + preset.what;
  }
  return help;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "A simulated handset: a Bluetooth controller behind a serial line, and the kernel "
      "files around it, in a folder.");
  app.footer(kExamples);
  zvk::HandsetOptions handset;
  std::string chip = "B5";
  app.add_option("--root", handset.root.path, "root folder; created if it does not exist");
  app.add_option("--chip", chip, ChipHelp());
  app.add_option("--vendor-version", handset.vendor_version,
                 "version in the vendor capabilities (default 0x0100); quality reports of 0x0101 "
                 "and later are longer");
  CLI::Option* const radio_option =
      app.add_option("--radio", handset.radio,
                     "unix:PATH or tcp:HOST:PORT: a controller emulator that speaks H4 and handles "
                     "standard commands and data instead of the built-in radio");
  std::string scenario;
  CLI::Option* const scenario_option =
      app.add_option("--scenario", scenario, "file of faults and other events, one step per line");
  app.add_option("--seed", handset.root.seed,
                 "seed of all random behaviour; the same seed repeats it");
  app.add_option("--chunk", handset.chunk, "most bytes that the serial line delivers in one write")
      ->check(CLI::PositiveNumber);
  app.add_flag("--pace", handset.pace, "move bytes at line speed");
  app.add_flag("--co-processor", handset.root.co_processor,
               "a low-power co-processor owns the serial line; the host talks to it");
  app.add_option("--firmware-size", handset.root.firmware_bytes,
                 "bytes of the firmware images made in a new root folder")
      ->check(CLI::Range(1, 64 * 1024 * 1024));
  CLI::Option* const replay = app.add_option("--replay", handset.replay.file,
                                             "capture (pcapng, btsnoop) whose controller is "
                                             "played: the host must send what it sent there; "
                                             "exit code 0 when all of the capture was played");
  replay->excludes(scenario_option)->excludes(radio_option);
  app.add_flag("--replay-timing", handset.replay.timing,
               "the controller's packets come no earlier than in the capture")
      ->needs(replay);
  app.add_option("--trace", handset.trace_file, "file for a trace with one line per packet");

  FirmwareOptions firmware;
  CLI::App* make = app.add_subcommand("make-firmware",
                                      "Write a firmware file that a simulated "
                                      "controller accepts.");
  make->add_option("--output", firmware.output, "file to write")->required();
  make->add_option("--size", firmware.image.size, "bytes of the image")
      ->check(CLI::Range(1, 64 * 1024 * 1024));
  make->add_option("--chip", firmware.chip_id, "chip id that it is for, 0 for any")
      ->check(CLI::Range(0, 255));
  make->add_option("--name", firmware.image.name, "local name of the controller that runs it");
  make->add_option("--seed", firmware.image.seed, "seed of the image's content");
  make->add_flag("--no-launch", firmware.no_launch, "leave out the Launch RAM record");
  make->add_flag("--bad-checksum", firmware.image.bad_checksum,
                 "write a wrong checksum, for a download that must fail");

  ControlOptions control;
  CLI::App* tell = app.add_subcommand(
      "ctl", "Have a running simulator carry out a step of a scenario, or an action at once.");
  tell->add_option("ROOT", control.root, "root folder that the simulator runs on")->required();
  tell->add_option("STEP", control.words, "as a line of a scenario file; without when: now")
      ->required();

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  try {
    if (make->parsed()) return MakeFirmwareFile(firmware);
    if (tell->parsed()) return Control(control);
    handset.chip = zvk::FindChip(chip);
    if (handset.chip == nullptr || handset.root.path.empty()) {
      zvk::Log(handset.chip == nullptr ? "unknown --chip; --help lists them"
                                       : "--root DIR is missing; see --help");
      return kUsage;
    }
    if (!scenario.empty())
      handset.scenario = zvk::ReadScenario(scenario, zvk::Handset::ActionTypes());
    return RunHandset(handset);
  } catch (const std::invalid_argument& error) {
    zvk::Log("%s", error.what());
    return kUsage;
  } catch (const std::exception& error) {
    zvk::Log("%s", error.what());
    return kFailed;
  }
}
