// Codes in words, under the names that the commands use.
#pragma once

#include "tools/wire/code_names.h"

namespace bthalctl {

using wire::CoreVersion;
using wire::OpcodeText;
using wire::ParseOpcode;
using wire::StatusText;

}  // namespace bthalctl
