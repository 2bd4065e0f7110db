#include "tools/link/attachment.h"

#include <android-base/file.h>
#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <android/hardware/bluetooth/1.1/IBluetoothHciCallbacks.h>
#include <cutils/native_handle.h>
#include <fcntl.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl/ServiceManagement.h>
#include <root_folder/root_folder.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <mutex>
#include <thread>

#include "tools/base/failure.h"
#include "tools/base/wait.h"

namespace bthalctl {

using ::android::sp;
using ::android::base::unique_fd;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::android::hardware::bluetooth::V1_0::Status;

// What the service calls, on threads of the HIDL pool; the caller's thread reads the queue, unless
// there is a receiver.
class StackCallbacks : public ::android::hardware::bluetooth::V1_1::IBluetoothHciCallbacks,
                       public ::android::hardware::hidl_death_recipient {
 public:
  StackCallbacks() : readable_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (readable_ < 0) throw Failure(WithErrno("eventfd"));
  }

  Return<void> initializationComplete(Status status) override {
    std::lock_guard<std::mutex> lock(mutex_);
    statuses_.push_back(status);
    return Void();
  }
  Return<void> hciEventReceived(const hidl_vec<uint8_t>& p) override {
    return Push(PacketType::kEvent, p);
  }
  Return<void> aclDataReceived(const hidl_vec<uint8_t>& p) override {
    return Push(PacketType::kAcl, p);
  }
  Return<void> scoDataReceived(const hidl_vec<uint8_t>& p) override {
    return Push(PacketType::kSco, p);
  }
  Return<void> isoDataReceived(const hidl_vec<uint8_t>& p) override {
    return Push(PacketType::kIso, p);
  }
  void serviceDied(uint64_t, const ::android::wp<::android::hidl::base::V1_0::IBase>&) override {
    End("the service died");
  }

  void End(const std::string& reason) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (end_.empty()) end_ = reason;
    Wake();
  }
  std::string end() {
    std::lock_guard<std::mutex> lock(mutex_);
    return end_;
  }
  std::vector<Status> statuses() {
    std::lock_guard<std::mutex> lock(mutex_);
    return statuses_;
  }
  std::optional<Packet> Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (packets_.empty()) {
      if (!end_.empty()) throw Failure(ExitCode::kNoService, end_);
      uint64_t ignored = 0;
      [[maybe_unused]] const ssize_t drained = read(readable_, &ignored, sizeof ignored);
      return std::nullopt;
    }
    Packet packet = std::move(packets_.front());
    packets_.pop_front();
    queued_bytes_ -= packet.bytes.size();
    return packet;
  }
  int fd() const { return readable_; }
  void DeliverTo(HciLink::Receiver receiver) {
    std::lock_guard<std::mutex> lock(mutex_);
    receiver_ = std::move(receiver);
    if (!receiver_) return;
    for (const Packet& packet : packets_) receiver_(packet.type, packet.bytes);
    packets_.clear();
    queued_bytes_ = 0;
  }

 private:
  // A caller that stops taking packets must not fill the memory.
  static constexpr size_t kMaxQueuedBytes = 64 << 20;

  Return<void> Push(PacketType type, const hidl_vec<uint8_t>& packet) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!end_.empty()) return Void();
    if (receiver_) {
      receiver_(type, ByteView(packet.data(), packet.size()));
      return Void();
    }
    if (queued_bytes_ + packet.size() > kMaxQueuedBytes) {
      end_ = "more packets arrived than were taken";
    } else {
      packets_.push_back({type, Bytes(packet.begin(), packet.end())});
      queued_bytes_ += packet.size();
    }
    Wake();
    return Void();
  }
  void Wake() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t ignored = write(readable_, &one, sizeof one);
  }

  const ::android::base::unique_fd readable_;
  std::mutex mutex_;
  HciLink::Receiver receiver_ GUARDED_BY(mutex_);
  std::vector<Status> statuses_ GUARDED_BY(mutex_);
  std::deque<Packet> packets_ GUARDED_BY(mutex_);
  size_t queued_bytes_ GUARDED_BY(mutex_) = 0;
  std::string end_ GUARDED_BY(mutex_);  // why there will be no more packets; empty while there may
};

namespace {

// Why a look-up found no service.
Failure NotFound(int error) {
  const std::string root = root_folder::Path().empty() ? "/" : root_folder::Path();
  const std::string service = "the Bluetooth service in " + root;
  switch (error) {
    case EUSERS:
      return Failure(service + " has as many clients as it takes: end one of them");
    case EMFILE:
      return Failure(service + " has no file descriptor left for another client");
    case EACCES:
      return Failure(service + " is not for this user: be in the group of " +
                     root_folder::Resolve("/run/bthal"));
    case ETIMEDOUT:
      return Failure(ExitCode::kNoService, service + " does not answer");
    default:
      return Failure(ExitCode::kNoService, "no Bluetooth service in " + root + ": is it running?");
  }
}

}  // namespace

sp<Hci> FindService(std::chrono::milliseconds wait) {
  ::android::hardware::configureRpcThreadpool(1, false);
  const TimePoint deadline = Clock::now() + wait;
  sp<Hci> service = Hci::tryGetService();
  while (service == nullptr && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    service = Hci::tryGetService();
  }
  if (service == nullptr) throw NotFound(::android::hardware::details::lastLookUpError());
  return service;
}

void CallDebug(const sp<Hci>& service, unique_fd fd, const std::vector<std::string>& options,
               std::chrono::milliseconds wait) {
  unique_fd answered, answer;
  if (!::android::base::Pipe(&answered, &answer, O_CLOEXEC)) throw Failure(WithErrno("pipe"));
  // The thread may wait as long as the service does, also behind the end of this program.
  std::thread([service, options, fd = std::move(fd), answer = std::move(answer)] {
    NATIVE_HANDLE_DECLARE_STORAGE(storage, 1, 0);
    native_handle_t* const handle = native_handle_init(storage, 1, 0);
    handle->data[0] = fd.get();
    const std::vector<hidl_string> words(options.begin(), options.end());
    if (service->debug(hidl_handle(handle), words).isOk()) {
      ::android::base::WriteFully(answer, "!", 1);
    }
  }).detach();
  if (!WaitReadable(answered.get(), Clock::now() + wait)) {
    throw Failure(ExitCode::kNoService, "the service does not answer: it is inside a bring-up");
  }
  char byte = 0;
  if (!::android::base::ReadFully(answered, &byte, 1)) {
    throw Failure(ExitCode::kNoService, "the service died");
  }
}

Attachment::Attachment(const sp<Hci>& service) : service_(service), callbacks_(new StackCallbacks) {
  service_->linkToDeath(callbacks_, 0).isOk();
  const bool answered = service_->initialize_1_1(callbacks_).isOk();
  if (!answered || !callbacks_->end().empty()) {
    throw Failure(ExitCode::kNoService, "the service died while it brought Bluetooth up; see " +
                                            root_folder::Resolve("/run/bthal/log"));
  }
  // A stack that is refused hears INITIALIZATION_ERROR and nothing more. After a bring-up that
  // failed, the service reports its end as well.
  const std::vector<Status> statuses = callbacks_->statuses();
  if (statuses.size() == 1 && statuses.front() == Status::SUCCESS) return;
  service_->unlinkToDeath(callbacks_).isOk();
  if (statuses.size() == 1 && statuses.front() == Status::INITIALIZATION_ERROR) {
    throw Failure(ExitCode::kBusy, "another Bluetooth stack is attached to the service");
  }
  if (!statuses.empty()) service_->close().isOk();
  throw Failure("Bluetooth could not be brought up; see " + root_folder::Resolve("/run/bthal/log"));
}

Attachment::~Attachment() {
  if (callbacks_->end().empty()) service_->close().isOk();
  service_->unlinkToDeath(callbacks_).isOk();
}

void Attachment::Send(const Packet& packet) {
  hidl_vec<uint8_t> bytes;
  bytes.setToExternal(const_cast<uint8_t*>(packet.bytes.data()), packet.bytes.size());
  bool sent = false;
  switch (packet.type) {
    case PacketType::kCommand:
      sent = service_->sendHciCommand(bytes).isOk();
      break;
    case PacketType::kAcl:
      sent = service_->sendAclData(bytes).isOk();
      break;
    case PacketType::kSco:
      sent = service_->sendScoData(bytes).isOk();
      break;
    case PacketType::kIso:
      sent = service_->sendIsoData(bytes).isOk();
      break;
    case PacketType::kEvent:
      throw Failure("an event cannot be sent");
  }
  if (!sent) callbacks_->End("the service died");
  const std::string end = callbacks_->end();
  if (!end.empty()) throw Failure(ExitCode::kNoService, end);
}

std::optional<Packet> Attachment::Take() { return callbacks_->Take(); }

bool Attachment::DeliverTo(Receiver receiver) {
  callbacks_->DeliverTo(std::move(receiver));
  return true;
}
int Attachment::fd() const { return callbacks_->fd(); }

}  // namespace bthalctl
