// A row of messages from a peer, which is a client, or a service that is called (the first byte is
// odd). A message: type, object, code, flags, serial, number of references, of descriptors, length
// (two bytes), then the references (owner, object), then its body. Of type 255 it is sent as it
// stands.
#include <aidl/android/vendor/powerstats/BnTavioStateResidencyCallback.h>
#include <aidl/android/vendor/powerstats/ITavioStateResidencyProvider.h>
#include <android/hardware/bluetooth/1.1/BnHwBluetoothHci.h>
#include <android/hardware/bluetooth/1.1/BpHwBluetoothHci.h>
#include <fcntl.h>
#include <hidl/HidlTransportSupport.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>

#include "bluetooth_ccc.h"
#include "bthal/command_sender.h"
#include "ndk/ibinder.h"
#include "rpc/connection.h"
#include "rpc/name_service.h"
#include "rpc/thread_pool.h"
#include "target.h"

namespace {

using namespace bthal::rpc;
using aidl::android::vendor::powerstats::BnTavioStateResidencyCallback;
using aidl::android::vendor::powerstats::ITavioStateResidencyProvider;
using android::sp;
using android::base::unique_fd;
using android::hardware::IBinder;
using android::hardware::Parcel;
namespace hal = android::hardware::bluetooth::V1_1;
using hardware::nuvexa::bluetooth::ccc::V1_1::implementation::BluetoothCcc;

struct ResidencyCallback : BnTavioStateResidencyCallback {
  using States = std::vector<aidl::android::hardware::power::stats::StateResidency>;
  ndk::ScopedAStatus getStateResidency(States* states) override {
    states->resize(4);
    return ndk::ScopedAStatus::ok();
  }
};

// The next message, as a peer sends it, and whether it sends more at once.
std::string NextMessage(fuzz::Input* input, uint8_t* descriptors, bool* more) {
  const uint8_t type = input->Byte();
  MessageHeader header;
  header.type = MessageType{type};
  header.object = input->Byte();
  header.code = input->Byte();
  const unsigned flags = input->Byte();
  header.flags = (flags & IBinder::FLAG_ONEWAY) | (flags << 7 & (kRunsAhead | kAsksForProgress));
  *more = (flags & 0x80) != 0;
  header.serial = input->Byte();
  header.references = input->Byte();
  *descriptors = static_cast<uint8_t>(input->Byte() % (kMaxDescriptors + 1));
  header.descriptors = *descriptors;
  const unsigned length = input->Byte();
  const unsigned length_high = input->Byte();
  const std::string references = input->Take(header.references * sizeof(ObjectReference));
  const std::string body = input->Take(length | length_high << 8);
  if (type == 0xFF) return body;
  header.bytes = static_cast<uint32_t>(body.size());
  return std::string(reinterpret_cast<const char*>(&header), sizeof header) + references + body;
}

// The connection's socket: the kernel takes longer for one than the service for an input.
constexpr int kSocket = 1 << 20;
struct Sent {
  std::string bytes;
  uint8_t descriptors;
};
std::deque<Sent> sent;  // by the peer, which reads whatever it is sent
bool has_end = false;   // the peer sends no more

// What has been posted to the pools and waits.
std::deque<std::unique_ptr<Task>> tasks;

// Runs it, on this thread.
void Drain() {
  while (!tasks.empty()) {
    const std::unique_ptr<Task> task = std::move(tasks.front());
    tasks.pop_front();
    task->Run();
  }
}

const std::shared_ptr<ResidencyCallback>& TheResidencyCallback() {
  static const auto* const callback = new auto(ndk::SharedRefBase::make<ResidencyCallback>());
  return *callback;
}

// Calls the peer as a client does; it has said all that it says.
void CallService(Connection& connection) {
  Parcel name, reply;
  name.writeCString("a/b");
  sp<IBinder> object;
  if (connection.Call(0, 1, name, &reply, 0) != 0) return;
  if (reply.readNullableStrongBinder(&object) != 0 || object == nullptr) return;
  if (const auto service = android::hardware::fromBinder<hal::IBluetoothHci, hal::BpHwBluetoothHci,
                                                         hal::BnHwBluetoothHci>(object)) {
    service->sendHciCommand({3, 12, 0}).isOk();
    service
        ->interfaceChain(
            [](const auto& chain) { fuzz::Require(chain.size() < 1 << 16, "a chain"); })
        .isOk();
  }
  const ndk::SpAIBinder binder(AIBinder::Own(AIBinder::Of(object)));
  const auto provider = ITavioStateResidencyProvider::fromBinder(binder);
  if (provider == nullptr) return;
  provider->registerCallback("Bluetooth", TheResidencyCallback()).isOk();
  provider->unregisterCallback(TheResidencyCallback()).isOk();
}

int LowestFreeDescriptor() { return unique_fd(fcntl(0, F_DUPFD_CLOEXEC, 0)).get(); }

void Begin() {
  client_answer_time = std::chrono::milliseconds(0);  // a client has said what it says
  IoLoop::Get().TryLead();                            // for good: this thread reads
  const sp<BluetoothCcc> ccc = new BluetoothCcc;
  fuzz::Require(ccc->registerAsService() == 0, "a service can be registered");
  fuzz::Require(sp(new test::CommandSender)->registerAsService() == 0, "and another one");
  Publish("residency", TheResidencyCallback()->asBinder().get()->binder());
  CallThread::Current();  // has descriptors of its own
}

}  // namespace

// In the place of the threads of the pools.
namespace bthal::rpc {

class FunctionTask : public Task {
 public:
  explicit FunctionTask(std::function<void()> function) : function_(std::move(function)) {}
  void Run() override { function_(); }

 private:
  const std::function<void()> function_;
};

ThreadPool::ThreadPool(std::string name, Idle idle) : name_(std::move(name)), idle_kind_(idle) {}
void ThreadPool::Configure(size_t, bool) {}
void ThreadPool::Start() {}
void ThreadPool::Join() { abort(); }
void ThreadPool::Post(std::unique_ptr<Task> task) { tasks.push_back(std::move(task)); }
void ThreadPool::Post(std::function<void()> task) {
  Post(std::make_unique<FunctionTask>(std::move(task)));
}
void ThreadPool::DropObsolete() { TakeObsolete(tasks); }
bool ThreadPool::HasOwnTask() { return false; }
void ThreadPool::LeadIsFree() {}

ThreadPool& HidlThreadPool() {
  static auto* const pool = new ThreadPool("hidl-rpc", ThreadPool::Idle::kSleep);
  return *pool;
}
ThreadPool& NdkThreadPool() { return HidlThreadPool(); }

}  // namespace bthal::rpc

// In the place of the kernel's functions (the linker's --wrap). This thread asks each connection
// itself whether there is something to read.
extern "C" {

int __wrap_epoll_ctl(int, int, int, epoll_event*) { return 0; }
int __wrap_poll(pollfd* fds, nfds_t count, int) {
  fds[0].revents = 0;
  if (count < 2 || (sent.empty() && !has_end)) return 0;
  fds[1].revents = POLLIN;
  return 1;
}
ssize_t __wrap_sendmsg(int, const msghdr* message, int) {
  size_t size = 0;
  for (size_t i = 0; i < message->msg_iovlen; ++i) size += message->msg_iov[i].iov_len;
  return static_cast<ssize_t>(size);
}
ssize_t __wrap_recvmsg(int, msghdr* message, int) {
  message->msg_controllen = 0;
  message->msg_flags = 0;
  if (sent.empty()) {
    errno = EAGAIN;
    return has_end ? 0 : -1;
  }
  const auto [bytes, descriptors] = std::move(sent.front());
  sent.pop_front();
  fuzz::Require(bytes.size() <= message->msg_iov->iov_len, "a message fits");
  memcpy(message->msg_iov->iov_base, bytes.data(), bytes.size());
  if (descriptors > 0) {
    message->msg_controllen = CMSG_SPACE(descriptors * sizeof(int));
    cmsghdr* const rights = CMSG_FIRSTHDR(message);
    *rights = {CMSG_LEN(descriptors * sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
    auto* const numbers = reinterpret_cast<int*>(CMSG_DATA(rights));
    for (int i = 0; i < descriptors; ++i) numbers[i] = fcntl(0, F_DUPFD_CLOEXEC, 0);
  }
  return static_cast<ssize_t>(bytes.size());
}

}  // extern "C"

std::vector<std::string> fuzz::Seeds() {
  std::vector<std::string> seeds;
  // As they stand, for both sides.
  for (const auto& [file, field] : {std::pair("ipc_messages.txt", 0), {"ipc_mistakes.txt", 2}}) {
    for (const std::string& message : Packets(file, static_cast<size_t>(field))) {
      if (message.size() > 1000) continue;
      for (char side : {'\0', '\1'}) {
        seeds.push_back(std::string{side, '\xFF', 0, 0, 0, 0, 0, 0,
                                    static_cast<char>(message.size()),
                                    static_cast<char>(message.size() >> 8)} +
                        message);
      }
    }
  }
  return seeds;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool begun = (Begin(), true);
  static_cast<void>(begun);
  fuzz::Log(size);
  fuzz::Input input(data, size);
  const bool is_service = (input.Byte() & 1) != 0;
  const int lowest = LowestFreeDescriptor();
  int ends = 0;
  {
    sent.clear();
    has_end = false;
    const auto side = is_service ? Connection::Side::kService : Connection::Side::kClient;
    const auto connection = Connection::Start(unique_fd(kSocket), side, [&] { ++ends; });
    while (!input.empty() && !connection->ended()) {
      Sent message;
      bool more = false;
      message.bytes = NextMessage(&input, &message.descriptors, &more);
      sent.push_back(std::move(message));
      if (is_service || more) continue;
      connection->OnReady(EPOLLIN);
      Drain();
    }
    has_end = true;
    if (is_service) CallService(*connection);
    do {
      connection->OnReady(EPOLLIN);
      Drain();
    } while (!connection->ended());
  }
  fuzz::Require(ends == 1, "the end of a connection is told once");
  fuzz::Require(LowestFreeDescriptor() == lowest, "no descriptor is left open");
  return 0;
}
