#pragma once

#include <android-base/thread_annotations.h>
#include <qvr/qvr_client.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "transport/transport.h"

namespace android::hardware::bluetooth::hci {

// The transport of handsets whose controller is attached to a low-power co-processor: packets and
// control requests travel as messages to the co-processor's message server, and packets come
// back the same way; the controller's own power switch stays the hardware control's. One instance,
// used through the transport shim. Any thread.
class QvrHelper final : public Transport {
 public:
  static QvrHelper& Get();

  // Transport. The co-processor's own power goes through the same cycle first.
  bool Open(const TransportSettings& settings) override;
  void Connect(const PacketReceivers& receivers) override;
  bool Start() override { return true; }
  void Stop() override {}
  void Disconnect() override { DeinitializeCallback(); }
  void Close() override;
  // Reports the error, which ends the process.
  bool Abandon(BqrErrorCode code, const std::string& reason) override;
  size_t Send(uint8_t type, const uint8_t* data, size_t length, bool flag) override {
    return SendHciToQvr(type, data, length, flag);
  }
  bool IsReady() const override { return transport_open_; }
  void BaudrateChange(UartBaudRate rate) override EXCLUDES(lock_);
  uint32_t RequiredBaudRate() const override { return 6000000; }
  bool LpmSetup() override { return LpmEnable(true); }
  void LpmTeardown() override { LpmEnable(false); }
  // The co-processor keeps the wake line itself.
  bool LpmSuspend() override { return true; }
  bool LpmWakeUp() override { return true; }
  bool IsLpmRunning() override { return lpm_enabled_; }
  bool DebugDump(int, const std::string&, const std::string&) override {
    return GetChreDebugDump();
  }

  // Called with the report and its reason when the connection or a send fails.
  using LostHandler = std::function<void(BqrErrorCode code, const std::string& reason)>;
  // Before anything is connected.
  void SetLostHandler(LostHandler handler) { lost_ = std::move(handler); }

  // Connects, trying for about a second; a failure is reported and ends the process.
  bool PrepareQvrTransport() EXCLUDES(lock_);
  // Releases the connection.
  void Deinitialize() EXCLUDES(lock_);

  // Connects and disconnects the receivers, which run on the thread "BtMsgHandler".
  void InitializeCallback(const PacketReceiver& event_cb, const PacketReceiver& acl_cb,
                          const PacketReceiver& sco_cb, const PacketReceiver& iso_cb)
      EXCLUDES(lock_);
  void DeinitializeCallback() EXCLUDES(lock_);

  // Sends one packet. flag: it is a flow-controlled command. Returns length, or 0 after an error,
  // which has been reported.
  size_t SendHciToQvr(uint8_t type, const uint8_t* data, size_t length, bool flag) EXCLUDES(lock_);

  // Control requests, each answered within 800 ms or failed with one error line.
  bool PowerControl(bool on) EXCLUDES(lock_);
  bool LpmEnable(bool enable) EXCLUDES(lock_);
  bool GetChreDebugDump() EXCLUDES(lock_);

  // Marks the transport open or closed, as long as it is connected.
  bool UserialOpen(bool open) EXCLUDES(lock_);
  bool IsTransportOpen() const { return transport_open_; }
  bool IsLpmEnabled() const { return lpm_enabled_; }

 private:
  struct Receivers;

  QvrHelper() = default;

  // Switches controller and co-processor off and releases the connection.
  void PowerOff() EXCLUDES(lock_);
  bool InitQvrTransport() EXCLUDES(lock_);
  // On failure, failure is what to log.
  bool ConnectTransport(std::string* failure) EXCLUDES(lock_);
  bool Control(const char* operation, std::vector<uint8_t> payload, const char* failure_format)
      EXCLUDES(lock_);
  qvr::Request MakeRequest(int32_t message_type, std::vector<uint8_t> payload) const;
  // Null until connected.
  std::shared_ptr<qvr::TransportClient> client() EXCLUDES(lock_);
  // The same, with one error line when it is null.
  std::shared_ptr<qvr::TransportClient> ReadyClient(const char* operation) EXCLUDES(lock_);
  void qvr_message_handler(const std::shared_ptr<Receivers>& receivers, qvr::Worker* worker,
                           const uint8_t* table, size_t size);
  void handle_qvr_connection_event();

  LostHandler lost_ = [](auto, const auto&) {};
  std::mutex lock_;  // a leaf
  std::shared_ptr<qvr::TransportClient> client_ GUARDED_BY(lock_);
  std::shared_ptr<qvr::Worker> worker_ GUARDED_BY(lock_);
  std::atomic<uint32_t> server_id_{0};
  std::atomic<bool> transport_open_{false};
  std::atomic<bool> lpm_enabled_{false};
};

}  // namespace android::hardware::bluetooth::hci
