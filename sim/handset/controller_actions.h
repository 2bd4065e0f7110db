#pragma once

#include "sim/controller/controller.h"
#include "sim/scenario/scenario.h"

namespace zvk {

// A scenario's step that the controller itself takes. Others are ignored: they have been done.
void ActOnController(const Action& action, Controller& controller);

}  // namespace zvk
