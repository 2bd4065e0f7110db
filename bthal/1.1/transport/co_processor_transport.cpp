#include "transport/co_processor_transport.h"

#include "chre/qvr_helper.h"
#include "evidence/report.h"
#include "h4/hw_control.h"

namespace android::hardware::bluetooth::hci {

using ::android::hardware::bluetooth::hwcontrol::BtHwControl;

CoProcessorTransport::CoProcessorTransport(const TransportUpcalls& upcalls) {
  QvrHelper::Get().SetLostHandler(upcalls.lost);
}

// The co-processor's own power goes through the same cycle first.
bool CoProcessorTransport::Open(const TransportSettings& /*settings*/) {
  BtHwControl& hw = BtHwControl::Get();
  QvrHelper& qvr = QvrHelper::Get();
  if (!qvr.PrepareQvrTransport()) return false;
  hw.PowerControl(false);
  qvr.PowerControl(false);
  if (!qvr.PowerControl(true) || !hw.PowerControl(true)) {
    qvr.Deinitialize();
    return false;
  }
  if (!qvr.UserialOpen(true)) {
    hw.PowerControl(false);
    qvr.PowerControl(false);
    qvr.Deinitialize();
    return false;
  }
  return true;
}

void CoProcessorTransport::Connect(const PacketReceiver& event_cb, const PacketReceiver& acl_cb,
                                   const PacketReceiver& sco_cb, const PacketReceiver& iso_cb) {
  QvrHelper::Get().InitializeCallback(event_cb, acl_cb, sco_cb, iso_cb);
}

void CoProcessorTransport::Disconnect() { QvrHelper::Get().DeinitializeCallback(); }

void CoProcessorTransport::Close() {
  QvrHelper::Get().UserialOpen(false);
  BtHwControl::Get().PowerControl(false);
  QvrHelper::Get().PowerControl(false);
  QvrHelper::Get().Deinitialize();
}

bool CoProcessorTransport::Abandon(V1_1::zvkbtlinux::debug::BqrErrorCode code,
                                   const std::string& reason) {
  evidence::Report(code, reason);
  return true;
}

size_t CoProcessorTransport::Send(uint8_t type, const uint8_t* data, size_t length, bool flag) {
  return QvrHelper::Get().SendHciToQvr(type, data, length, flag);
}

bool CoProcessorTransport::IsReady() const { return QvrHelper::Get().IsTransportOpen(); }

void CoProcessorTransport::BaudrateChange(UartBaudRate rate) {
  QvrHelper::Get().BaudrateChange(rate);
}

bool CoProcessorTransport::LpmSetup() { return QvrHelper::Get().LpmEnable(true); }
void CoProcessorTransport::LpmTeardown() { QvrHelper::Get().LpmEnable(false); }
bool CoProcessorTransport::IsLpmRunning() { return QvrHelper::Get().IsLpmEnabled(); }

bool CoProcessorTransport::DebugDump(int /*fd*/, const std::string& /*first*/,
                                     const std::string& /*second*/) {
  return QvrHelper::Get().GetChreDebugDump();
}

}  // namespace android::hardware::bluetooth::hci
