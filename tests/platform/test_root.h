// The root folder of a test program and of the programs that it starts.
#pragma once

#include <string>

namespace test {

// A folder of this process's own, which is BTHAL_ROOT from before the first static object on.
const std::string& RootFolder();

// A program that is built beside the tests.
std::string TestProgram(const std::string& name);

}  // namespace test
