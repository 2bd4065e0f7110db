#include "tools/report/log_findings.h"

#include <android-base/strings.h>

#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/log/user_data.h"
#include "tools/powerstats/provider.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;

double ToSeconds(std::chrono::system_clock::time_point time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

}  // namespace

Json QualityReports(const std::vector<LogLine>& log) {
  Json reports = Json::array();
  for (const LogLine& line : log) {
    const auto detail = DetailOf(line, "bthal.bqr", "ParseLinkQualityRelatedEvt: ", "");
    if (!detail) continue;
    const size_t comma = detail->find(',');
    if (comma == std::string::npos) continue;
    unsigned handle = 0, overall = 0, transmit = 0, receive = 0;
    int rssi[2] = {}, power[2] = {}, again[2] = {}, at = 0;
    if (std::sscanf(detail->c_str() + comma,
                    ", Handle: 0x%x, RSSI_C0: %d, RSSI_C1: %d, TxPw_C0: %d, ReTxPw_C0: %d, "
                    "TxPw_C1: %d, ReTxPw_C1: %d%n",
                    &handle, &rssi[0], &rssi[1], &power[0], &again[0], &power[1], &again[1],
                    &at) != 7) {
      continue;
    }
    Json report = {{"time", ToSeconds(line.time)},
                   {"handle", handle},
                   {"kind", ::android::base::Trim(detail->substr(0, comma))},
                   {"rssi_dbm", rssi},
                   {"power_dbm", power},
                   {"retransmission_power_dbm", again}};
    const size_t qualities = detail->find(", Overall_link_quality");
    if (qualities != std::string::npos &&
        std::sscanf(detail->c_str() + qualities,
                    ", Overall_link_quality: %u, Tx_link_quality: %u, Rx_link_quality: %u",
                    &overall, &transmit, &receive) == 3) {
      report["overall"] = overall;
      report["transmit"] = transmit;
      report["receive"] = receive;
    }
    reports.push_back(std::move(report));
  }
  return reports;
}

Json LastResidency(const std::vector<LogLine>& log) {
  std::map<int, Json> states;
  for (const LogLine& line : log) {
    const auto detail = DetailOf(line, "bthal.activitywatcher", "getStateResidency: ", "");
    int id = 0;
    long long total_ms = 0, entries = 0;
    if (!detail ||
        std::sscanf(detail->c_str(), "ActivityStat{%d : totalTimeMs %lld totalEntryCount %lld", &id,
                    &total_ms, &entries) != 3) {
      continue;
    }
    states[id] = {{"state", powerstats::StateName("Bluetooth", id)},
                  {"total_ms", total_ms},
                  {"entries", entries}};
  }
  Json out = Json::array();
  for (auto& [id, state] : states) out.push_back(std::move(state));
  return out;
}

void MaskAddresses(Json* value) {
  if (value->is_string()) {
    *value = WithoutAddresses(value->get<std::string>());
  } else if (value->is_structured()) {
    for (Json& part : *value) MaskAddresses(&part);
  }
}

}  // namespace bthalctl
