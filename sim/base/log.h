// Log lines on stderr, each with the prefix "zvksim: ".
#pragma once

namespace zvk {

void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace zvk
