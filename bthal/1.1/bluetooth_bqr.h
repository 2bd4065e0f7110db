// Quality reports of the controller, as readable log lines. The reports are vendor-specific events
// (code FF, sub-event 58); bytes are counted from the event code. Bytes that a report does not have
// read as 0.
#pragma once

#include <hidl/HidlSupport.h>

#include <cstdint>
#include <string>

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::bqr {

// What a report id stands for, padded to one width but for id 7.
std::string QualityReportIdToString(uint8_t id);

// Takes the controller's vendor capability reply, whose version decides how the vendor part of a
// link-quality report is laid out. A short one is ignored.
void updateControllerCapability(const hidl_vec<uint8_t>& event);

// Logs a link-quality report as one line. A report too short for its layout is not logged.
void ParseLinkQualityRelatedEvt(const hidl_vec<uint8_t>& event);

// Logs a vendor-specific trace; the only known kind is the A2DP latency measurement.
void ParseVendorSpecificTraceEvt(const hidl_vec<uint8_t>& event);

// Logs one line per packet, and the averages.
void ParseA2DPLatencyMeasurement(const hidl_vec<uint8_t>& event);

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::bqr
