#pragma once

#include <cstdint>

namespace android::hardware::bluetooth::hwcontrol {

// Reads back what tcsetattr was to set at the tty fd: this speed in bit/s, CRTSCTS, 8N1. tcsetattr
// succeeds when any part of its work does: an adapter that cannot do a speed falls to another one.
// Logs one warning with what was wanted and what the port has, when they differ.
void CheckLineSettings(int fd, uint32_t speed);

}  // namespace android::hardware::bluetooth::hwcontrol
