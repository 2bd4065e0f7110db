#include "transport/transport_state.h"

namespace android::hardware::bluetooth::hci {

std::string TransportState::Text() const {
  if (userial_type == kUserialClosed) return "state=closed\n";
  const bool co_processor = userial_type == kUserialCoProcessor;
  std::string text = "transport=";
  text += co_processor                  ? "co-processor\n"
          : userial_type == kUserialTty ? "serial line\n"
                                        : "HCI socket\n";
  if (userial_type == kUserialTty) text += "path=" + uart_port + "\n";
  if (!loss.empty()) return text + "state=lost\nloss=" + loss + "\n";
  if (!ready) return text + (co_processor ? "state=connecting\n" : "state=opening\n");
  text += co_processor ? "state=connected\n" : "state=open\n";
  if (line_baud != 0) text += "line_baud=" + std::to_string(line_baud) + "\n";
  return text + (low_power ? "low_power=on\n" : "low_power=off\n");
}

}  // namespace android::hardware::bluetooth::hci
