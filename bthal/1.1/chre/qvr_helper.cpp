#define LOG_TAG "bthal.qvrhelper"

#include "chre/qvr_helper.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <log/log.h>

#include <chrono>
#include <thread>

#include "base/thread_role.h"
#include "bt_messages_generated.h"
#include "evidence/bring_up_steps.h"
#include "evidence/report.h"
#include "h4/hw_control.h"

namespace android::hardware::bluetooth::hci {
namespace {

using ::android::base::StringPrintf;
using ::android::hardware::bluetooth::hwcontrol::BtHwControl;
using std::chrono::milliseconds;

constexpr char kServer[] = "chre_bt";
constexpr int kMessageClient = 1;

// Message types: of requests and, the first, of messages from the server.
constexpr int32_t kHciMessage = 8;
constexpr int32_t kControlMessage = 36;

// What a control request begins with.
enum ControlType : uint8_t { kPower = 0, kLowPower = 1, kBaudRate = 2, kDebugDump = 3 };

constexpr uint8_t kBaudModeDefault = 1;
constexpr uint8_t kBaudMode6M = 2;
constexpr uint32_t kCoProcessor6M = 6144000;  // what it takes for 6 Mbaud

// The first of the packet kinds of a message: event, ACL, SCO, ISO.
constexpr int32_t kFirstPacketKind = 8;
constexpr int32_t kPacketKinds = 4;

constexpr int kPrepareAttempts = 10;
constexpr milliseconds kPreparePause{100};
constexpr int kConnectAttempts = 5;
constexpr milliseconds kConnectPause{50};
constexpr milliseconds kControlTimeout{800};
constexpr milliseconds kPowerOnTime{50};

constexpr char kDeliveryFailed[] =
    "%s Attempt failed to deliver message to CHRE: send err %d, resp err %d";
constexpr char kBaudrateDeliveryFailed[] =
    "%s: Attempt failed to deliver message to CHRE: send err: %d, resp err: %d";

// The library's errors 1 to 20 have reports of their own.
BqrErrorCode ReportOf(int error) {
  return static_cast<BqrErrorCode>(static_cast<uint8_t>(error + 192));
}

// On "BtMsgHandler".
void hci_packet_handler(const PacketReceiver& receiver, const hidl_vec<uint8_t>& packet) {
  g_thread_role = ThreadRole::kReader;
  if (packet.empty()) {
    LOG(ERROR) << __func__ << ": no task data.";
  } else if (!receiver) {
    LOG(ERROR) << __func__ << ": no callback.";
  } else {
    receiver(packet);
  }
}

}  // namespace

// By packet kind. Shared by the tasks that wait on the worker.
struct QvrHelper::Receivers {
  PacketReceiver by_kind[kPacketKinds];
};

QvrHelper& QvrHelper::Get() {
  static auto* instance = new QvrHelper;
  return *instance;
}

std::shared_ptr<qvr::TransportClient> QvrHelper::client() {
  std::lock_guard<std::mutex> guard(lock_);
  return client_;
}

std::shared_ptr<qvr::TransportClient> QvrHelper::ReadyClient(const char* operation) {
  std::shared_ptr<qvr::TransportClient> client = this->client();
  if (client == nullptr) LOG(ERROR) << operation << "QVR transport is not ready.";
  return client;
}

bool QvrHelper::Open(const TransportSettings& /*settings*/) {
  BtHwControl& hw = BtHwControl::Get();
  if (!PrepareQvrTransport()) return false;
  hw.PowerControl(false);
  PowerControl(false);
  if (!PowerControl(true) || !hw.PowerControl(true)) {
    Deinitialize();
    return false;
  }
  if (UserialOpen(true)) return true;
  PowerOff();
  return false;
}

void QvrHelper::Connect(const PacketReceivers& receivers) {
  InitializeCallback(receivers.event, receivers.acl, receivers.sco, receivers.iso);
}

void QvrHelper::Close() {
  UserialOpen(false);
  PowerOff();
}

void QvrHelper::PowerOff() {
  BtHwControl::Get().PowerControl(false);
  PowerControl(false);
  Deinitialize();
}

bool QvrHelper::Abandon(BqrErrorCode code, const std::string& reason) {
  evidence::Report(code, reason);
  return true;
}

bool QvrHelper::PrepareQvrTransport() {
  ALOGI("%s", __func__);
  evidence::BringUpSteps::Get().Begin("co-processor");
  for (int failures = 0; failures < kPrepareAttempts; ++failures) {
    if (InitQvrTransport()) {
      ALOGI("%s: return ret (%d), count:%d", __func__, 1, failures);
      evidence::BringUpSteps::Get().End(evidence::AfterFailures("connected", failures));
      return true;
    }
    std::this_thread::sleep_for(kPreparePause);
  }
  ALOGI("%s: return ret (%d), count:%d", __func__, 0, kPrepareAttempts);
  ALOGE("%s: Prepare CHRE QVR transport failed!", __func__);
  evidence::Report(BqrErrorCode::ChreQvrTransportPrepareError,
                   "Prepare CHRE QVR transport failed!");
  ALOGE("%s: Deinitialize()", __func__);
  Deinitialize();
  return false;
}

bool QvrHelper::InitQvrTransport() {
  ALOGI("%s", __func__);
  std::string failure;
  if (ConnectTransport(&failure)) {
    LOG(INFO) << __func__ << ": QVR client connect successfully";
    return true;
  }
  BTHAL_LOG_AND_RECORD(ALOGE, AnchorType::kQvrError, "%s%s", __func__, failure.c_str());
  Deinitialize();
  return false;
}

bool QvrHelper::ConnectTransport(std::string* failure) {
  const auto failed = [failure](const char* what, int error) {
    if (error != 0) *failure = StringPrintf(": %s: err %d", what, error);
    return error != 0;
  };
  int error = qvr::InitClientManager();
  if (error != 0) error = qvr::InitClientManager();
  if (failed("Failed to initialize qvr client mgr", error)) return false;

  std::unique_ptr<qvr::TransportClient> created;
  error = qvr::CreateTransportClient(kMessageClient, &created);
  if (failed("Failed to create a QVR transport client", error)) return false;
  if (created == nullptr) {
    *failure = ": Init Failed: Created a NULL transport client!";
    return false;
  }
  const std::shared_ptr<qvr::TransportClient> client = std::move(created);
  for (int attempt = 1; attempt <= kConnectAttempts; ++attempt) {
    error = client->Connect();
    if (error == 0) {
      LOG(INFO) << "connect_to_qvr_with_retry: Connected to QVR Transport server (retry count: "
                << attempt << ")";
      break;
    }
    std::this_thread::sleep_for(kConnectPause);
  }
  if (failed("Failed to connect to QVR transport server", error)) return false;

  uint32_t server = 0;
  error = client->FindServer(kServer, &server);
  if (failed("Failed to find CHRE message server", error)) return false;
  server_id_ = server;
  error = client->SetConnectionHandler([this] { handle_qvr_connection_event(); });
  if (failed("Failed to set QVR connection handler", error)) return false;
  std::lock_guard<std::mutex> guard(lock_);
  client_ = client;
  return true;
}

void QvrHelper::Deinitialize() {
  ALOGI("%s", __func__);
  std::shared_ptr<qvr::TransportClient> client;
  {
    std::lock_guard<std::mutex> guard(lock_);
    client.swap(client_);
  }
  transport_open_ = false;
  lpm_enabled_ = false;
  client.reset();
  qvr::ReleaseClientManager();
}

void QvrHelper::InitializeCallback(const PacketReceiver& event_cb, const PacketReceiver& acl_cb,
                                   const PacketReceiver& sco_cb, const PacketReceiver& iso_cb) {
  ALOGI("%s", __func__);
  const auto receivers = std::make_shared<Receivers>(Receivers{{event_cb, acl_cb, sco_cb, iso_cb}});
  std::unique_ptr<qvr::Worker> created;
  const int worker_error = qvr::CreateWorker("BtMsgHandler", &created);
  if (worker_error != 0 || created == nullptr) {
    ALOGE("%s: Failed to create BT msg handler worker: err: %d", __func__, worker_error);
    return;
  }
  const std::shared_ptr<qvr::Worker> worker = std::move(created);
  {
    std::lock_guard<std::mutex> guard(lock_);
    worker_ = worker;
  }
  const std::shared_ptr<qvr::TransportClient> client = this->client();
  const int error = client == nullptr ? static_cast<int>(qvr::kNotReady)
                                      : client->SetMessageHandler(
                                            kHciMessage, [this, receivers, worker = worker.get()](
                                                             const uint8_t* table, size_t size) {
                                              qvr_message_handler(receivers, worker, table, size);
                                            });
  if (error != 0) ALOGE("%s: Failed to set Qvr Message Handler: err: %d", __func__, error);
}

void QvrHelper::DeinitializeCallback() {
  if (const std::shared_ptr<qvr::TransportClient> client = this->client()) {
    client->SetMessageHandler(kHciMessage, nullptr);
  }
  // After the handler that posts to it. On the worker itself it ends after the running task.
  std::shared_ptr<qvr::Worker> worker;
  std::lock_guard<std::mutex> guard(lock_);
  worker.swap(worker_);
}

// On the library's thread.
void QvrHelper::qvr_message_handler(const std::shared_ptr<Receivers>& receivers,
                                    qvr::Worker* worker, const uint8_t* table, size_t size) {
  flatbuffers::Verifier verifier(table, size);
  if (!verifier.VerifyBuffer<chre::bt::Event>(nullptr)) {
    __android_log_print(ANDROID_LOG_ERROR, "QVR", "Malformed QVR message.");
    ALOGE("%s: Failed to get qvr msg: err %d", __func__, qvr::kBuffer);
    return;
  }
  const auto* event = flatbuffers::GetRoot<chre::bt::Event>(table);
  const int32_t kind = event->packet_kind();
  if (kind < kFirstPacketKind || kind >= kFirstPacketKind + kPacketKinds) {
    ALOGE("%s: Unimplemented packet type %d", __func__, kind);
    return;
  }
  hidl_vec<uint8_t> packet;
  if (event->packet() != nullptr) {
    packet = std::vector<uint8_t>(event->packet()->begin(), event->packet()->end());
  }
  worker->Post([receivers, kind, packet = std::move(packet)] {
    hci_packet_handler(receivers->by_kind[kind - kFirstPacketKind], packet);
  });
}

void QvrHelper::handle_qvr_connection_event() {
  ALOGE("%s: QVR transport disconnected from ULK...exiting", __func__);
  if (transport_open_) {
    lost_(BqrErrorCode::ChreQvrHandleConnectionEventError,
          "QVR transport disconnected from ULK...exiting");
  }
}

qvr::Request QvrHelper::MakeRequest(int32_t message_type, std::vector<uint8_t> payload) const {
  flatbuffers::FlatBufferBuilder builder(64);
  builder.Finish(
      chre::bt::CreateRequest(builder, message_type, static_cast<int32_t>(server_id_.load())));
  return {{builder.GetBufferPointer(), builder.GetBufferPointer() + builder.GetSize()},
          std::move(payload)};
}

size_t QvrHelper::SendHciToQvr(uint8_t type, const uint8_t* data, size_t length, bool flag) {
  const std::shared_ptr<qvr::TransportClient> client = ReadyClient(__func__);
  if (client == nullptr) return 0;
  std::vector<uint8_t> payload;
  payload.reserve(2 + length);
  payload.push_back(flag ? 1 : 0);
  payload.push_back(type);
  payload.insert(payload.end(), data, data + length);
  const int error =
      client->Send(MakeRequest(kHciMessage, std::move(payload)), [](int completion_error) {
        if (completion_error == 0) return;
        ALOGE("SendHciToQvr: the co-processor did not take a packet, err: %d", completion_error);
      });
  if (error == 0) return length;
  const std::string text =
      StringPrintf("%s: error sending packet via QVR, err: %d", __func__, error);
  ALOGE("%s", text.c_str());
  lost_(ReportOf(error), text);
  return 0;
}

bool QvrHelper::Control(const char* operation, std::vector<uint8_t> payload,
                        const char* failure_format) {
  const std::shared_ptr<qvr::TransportClient> client = ReadyClient(operation);
  if (client == nullptr) return false;
  int response_error = 0;
  const int send_error = client->Call(MakeRequest(kControlMessage, std::move(payload)),
                                      kControlTimeout, &response_error);
  if (send_error == 0 && response_error == 0) return true;
  ALOGE(failure_format, operation, send_error, response_error);
  return false;
}

bool QvrHelper::PowerControl(bool on) {
  if (!Control(__func__, {kPower, static_cast<uint8_t>(on ? 0 : 1)}, kDeliveryFailed)) {
    return false;
  }
  if (on) std::this_thread::sleep_for(kPowerOnTime);
  return true;
}

bool QvrHelper::UserialOpen(bool open) {
  const bool ready = ReadyClient(__func__) != nullptr;
  transport_open_ = ready && open;
  return ready;
}

bool QvrHelper::LpmEnable(bool enable) {
  const std::vector<uint8_t> payload =
      enable ? std::vector<uint8_t>{kLowPower, 0, 24} : std::vector<uint8_t>{kLowPower, 1, 0};
  if (!Control(__func__, payload, kDeliveryFailed)) return false;
  lpm_enabled_ = enable;
  return true;
}

void QvrHelper::BaudrateChange(UartBaudRate rate) {
  auto bits_per_second = static_cast<uint32_t>(rate);
  if (!IsSupported(rate)) {
    LOG(INFO) << __func__ << ": Baud rate (" << bits_per_second << ") unsupported";
    return;
  }
  uint8_t mode = kBaudModeDefault;
  if (rate == UartBaudRate::kRate6000000) {
    bits_per_second = kCoProcessor6M;
    mode = kBaudMode6M;
  }
  Control(__func__,
          {kBaudRate, static_cast<uint8_t>(bits_per_second),
           static_cast<uint8_t>(bits_per_second >> 8), static_cast<uint8_t>(bits_per_second >> 16),
           static_cast<uint8_t>(bits_per_second >> 24), mode},
          kBaudrateDeliveryFailed);
}

bool QvrHelper::GetChreDebugDump() {
  if (ReadyClient(__func__) == nullptr) return false;
  LOG(INFO) << __func__ << " send QvrMsgReqType_BT_DEBUG_DUMP msg";
  if (!Control(__func__, {kDebugDump}, kDeliveryFailed)) return false;
  LOG(INFO) << __func__ << " send QvrMsgReqType_BT_DEBUG_DUMP msg Done";
  return true;
}

}  // namespace android::hardware::bluetooth::hci
