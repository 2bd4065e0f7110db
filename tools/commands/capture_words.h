#pragma once

#include <CLI/CLI.hpp>

#include "tools/capture/capture_source.h"

namespace bthalctl {

// The options that say which packets a capture has.
void AddCaptureWords(CLI::App& command, CaptureWords& words);

}  // namespace bthalctl
