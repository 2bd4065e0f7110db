#pragma once

#include "sim/scenario/line.h"
#include "sim/scenario/scenario.h"

namespace zvk {

// Takes an action with its arguments from the line. Throws std::runtime_error with the reason.
Action ParseAction(Line& line);

}  // namespace zvk
