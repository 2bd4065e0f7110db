// What the service's log has besides the steps of a bring-up.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tools/log/log_line.h"

namespace bthalctl {

// Link-quality reports, an array: time (seconds since 1970), handle, kind, rssi_dbm, power_dbm,
// retransmission_power_dbm (of the two chains each) and, where it has them, overall, transmit,
// receive (link qualities).
nlohmann::json QualityReports(const std::vector<LogLine>& log);

// The controller's times by the last reading, an array: state, total_ms, entries. Empty without.
nlohmann::json LastResidency(const std::vector<LogLine>& log);

// "(address)" for device addresses in every string of value.
void MaskAddresses(nlohmann::json* value);

}  // namespace bthalctl
