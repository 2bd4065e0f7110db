// Bytes and packets by the names that the simulator uses without a qualifier.
#pragma once

#include "tools/wire/bytes.h"
#include "tools/wire/codes.h"
#include "tools/wire/h4_framer.h"
#include "tools/wire/packet.h"
#include "tools/wire/text.h"

namespace zvk {

using namespace wire;

}  // namespace zvk
