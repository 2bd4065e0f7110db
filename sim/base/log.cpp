#include "sim/base/log.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace zvk {

void Log(const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  // One call, so that lines of several processes on one terminal do not mix.
  std::fputs((std::string("zvksim: ") + text + "\n").c_str(), stderr);
}

}  // namespace zvk
