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
  if (!open_line_.empty()) std::puts("");
}

void StepPrinter::EraseOpenLine() {
  if (!open_line_.empty()) std::fputs("\r\x1b[K", stdout);
}

void StepPrinter::Show(const Progress& progress) {
  const std::string at = Paint(Colour::kGrey, Seconds(progress.at)) + "  ";
  switch (progress.kind) {
    case Kind::kBegin:
      if (!live_) return;
      open_line_ = at + Padded(progress.name) + "         …   " + progress.detail;
      std::fputs(open_line_.c_str(), stdout);
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
      EraseOpenLine();
      open_line_.clear();
      std::printf("%s%s %s%s\n", at.c_str(), name.c_str(), Seconds(progress.took).c_str(),
                  found.c_str());
      break;
    }
    case Kind::kMark:
    case Kind::kTrouble: {
      EraseOpenLine();
      const bool warning = progress.name.compare(0, 2, "W ") == 0;
      const Colour colour = progress.kind == Kind::kMark ? Colour::kBold
                            : warning                    ? Colour::kYellow
                                                         : Colour::kRed;
      const std::string meaning = progress.detail.empty() ? "" : "  (" + progress.detail + ")";
      std::printf("%s%s%s\n", at.c_str(), Paint(colour, progress.name).c_str(), meaning.c_str());
      std::fputs(open_line_.c_str(), stdout);
      break;
    }
  }
  std::fflush(stdout);
}

}  // namespace bthalctl
