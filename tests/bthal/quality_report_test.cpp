// Quality reports: exact lines for good ones, and no byte outside a report of any length.

#include <gtest/gtest.h>

#include "bluetooth_bqr.h"
#include "bthal/sequence_runner.h"
#include "debug_central.h"

namespace {

using android::hardware::hidl_vec;
using android::hardware::bluetooth::V1_1::zvkbtlinux::debug::DebugCentral;
using namespace android::hardware::bluetooth::V1_1::zvkbtlinux::bqr;
using test::Bytes;

Bytes CapabilityReply(uint8_t minor) {
  return {0x0E, 0x0E, 0x01, 0x53, 0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, minor, 0x01};
}

TEST(QualityReports, LinesAreExact) {
  test::SequenceRunner runner("bthal.bqr");
  DebugCentral::Get().StartMonitor(&runner.flow());
  runner.RunFile("quality_reports.txt");
  DebugCentral::Get().StopMonitor();
}

// Each report lies in an allocation of its own size, which the address sanitizer guards.
TEST(QualityReports, OfEveryLength_AreReadWithinTheirBounds) {
  test::LogCapture log;
  for (const uint8_t minor : {uint8_t{0}, uint8_t{1}, uint8_t{2}}) {
    updateControllerCapability(CapabilityReply(minor));
    const size_t needed = minor == 0 ? 197 : 248;
    for (size_t size = 0; size <= 257; ++size) {
      for (const uint8_t filler : {uint8_t{0x00}, uint8_t{0xFF}}) {
        const hidl_vec<uint8_t> event = Bytes(size, filler);
        log.Take("bthal.bqr");
        ParseLinkQualityRelatedEvt(event);
        const size_t lines = minor == 2 || size >= needed ? 1 : 0;
        EXPECT_EQ(log.Take("bthal.bqr").size(), lines) << size << " bytes, version " << +minor;
        ParseVendorSpecificTraceEvt(event);
        ParseA2DPLatencyMeasurement(event);
      }
    }
  }
}

}  // namespace
