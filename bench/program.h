// What the programs that measure a running service have in common.
#pragma once

#include <hwbinder/ProcessState.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <string>

#include "row.h"

namespace bench {

// The main() of a program of that name: measure gets the first argument as a number, or this one.
inline int RunProgram(const char* name, int argc, char** argv, int number,
                      const std::function<void(int number)>& measure) {
  TakeSwitches(&argc, argv);
  try {
    measure(argc > 1 ? std::max(1, atoi(argv[1])) : number);
  } catch (const std::exception& error) {
    fprintf(stderr, "%s: %s\n", name, error.what());
    return 1;
  }
  return 0;
}

// This process is a client of the services on a root folder, for good: before its first call.
inline void BeClientOn(const std::string& root) {
  setenv("BTHAL_ROOT", root.c_str(), 1);
  android::hardware::ProcessState::self()->startThreadPool();
}

}  // namespace bench
