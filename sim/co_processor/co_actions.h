#pragma once

#include <random>

#include "sim/co_processor/co_processor.h"

namespace zvk {

// A scenario's step that the co-processor takes; random is for garbage. Others are ignored.
void ActOnCoProcessor(const Action& action, std::mt19937& random, CoProcessor& co_processor);

}  // namespace zvk
