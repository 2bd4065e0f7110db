#define LOG_TAG "bthal.hwcontrol"

#include "h4/line_settings.h"

#include <asm/termbits.h>
#include <log/log.h>
#include <sys/ioctl.h>

namespace android::hardware::bluetooth::hwcontrol {

void CheckLineSettings(int fd, uint32_t speed) {
  struct termios2 settings {};
  if (ioctl(fd, TCGETS2, &settings) != 0) return;
  const bool flow_control = (settings.c_cflag & CRTSCTS) != 0;
  const bool is_8n1 = (settings.c_cflag & (CSIZE | PARENB | CSTOPB)) == CS8;
  if (settings.c_ospeed == speed && settings.c_ispeed == speed && flow_control && is_8n1) return;
  ALOGW(
      "%s: wanted %u bit/s with CRTSCTS and 8N1, the port has %u (from the controller %u) with %s "
      "and %s",
      __func__, speed, settings.c_ospeed, settings.c_ispeed,
      flow_control ? "CRTSCTS" : "no CRTSCTS", is_8n1 ? "8N1" : "not 8N1");
}

}  // namespace android::hardware::bluetooth::hwcontrol
