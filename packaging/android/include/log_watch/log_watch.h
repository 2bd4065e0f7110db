// The header of platform/host, whose folder as a whole would hide the platform's own headers.
#pragma once

#include "platform/host/include/log_watch/log_watch.h"
