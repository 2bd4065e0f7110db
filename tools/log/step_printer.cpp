#include "tools/log/step_printer.h"

#include <unistd.h>

#include <cstdio>

#include "tools/base/terminal.h"

namespace bthalctl {
namespace {

using Kind = Progress::Kind;

std::string Seconds(std::chrono::milliseconds time) {
  char text[32];
  std::snprintf(text, sizeof text, "%8.3f s", std::chrono::duration<double>(time).count());
  return text;
}

std::string Padded(const std::string& name) {
  char text[64];
  std::snprintf(text, sizeof text, "%-18s", name.c_str());
  return text;
}

}  // namespace

StepPrinter::StepPrinter() : live_(IsRichTerminal(STDOUT_FILENO)) {}

StepPrinter::~StepPrinter() {
  if (live_ && in_step_) std::puts("");
  for (const std::string& line : held_) std::fputs(line.c_str(), stdout);
}

void StepPrinter::Show(const Progress& progress) {
  const std::string at = Paint(Colour::kGrey, Seconds(progress.at)) + "  ";
  switch (progress.kind) {
    case Kind::kBegin:
      in_step_ = true;
      if (live_) {
        std::printf("%s%s         …   %s", at.c_str(), Padded(progress.name).c_str(),
                    progress.detail.c_str());
      }
      break;
    case Kind::kEnd:
    case Kind::kFailed: {
      const bool failed = progress.kind == Kind::kFailed;
      std::string name = Padded(progress.name);
      std::string found = progress.detail.empty() ? "" : "  " + progress.detail;
      if (failed) {
        name = Paint(Colour::kRed, name);
        found += "  " + Paint(Colour::kRed, "failed");
      }
      if (live_) std::fputs("\r\x1b[K", stdout);
      std::printf("%s%s %s%s\n", at.c_str(), name.c_str(), Seconds(progress.took).c_str(),
                  found.c_str());
      for (const std::string& line : held_) std::fputs(line.c_str(), stdout);
      held_.clear();
      in_step_ = false;
      break;
    }
    case Kind::kMark:
    case Kind::kTrouble: {
      const bool warning = progress.name.compare(0, 2, "W ") == 0;
      const Colour colour = progress.kind == Kind::kMark ? Colour::kBold
                            : warning                    ? Colour::kYellow
                                                         : Colour::kRed;
      const std::string meaning = progress.detail.empty() ? "" : "  (" + progress.detail + ")";
      held_.push_back(at + Paint(colour, progress.name) + meaning + "\n");
      if (in_step_) break;
      std::fputs(held_.back().c_str(), stdout);
      held_.clear();
      break;
    }
  }
  std::fflush(stdout);
}

}  // namespace bthalctl
