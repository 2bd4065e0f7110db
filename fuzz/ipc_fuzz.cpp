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
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "bluetooth_ccc.h"
#include "bthal/command_sender.h"
#include "ndk/ibinder.h"
#include "rpc/connection.h"
#include "rpc/name_service.h"
#include "rpc/thread_pool.h"
#include "support/wait.h"
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

// The next message, as a peer sends it.
std::string NextMessage(fuzz::Input* input, uint8_t* descriptors) {
  const uint8_t type = input->Byte();
  MessageHeader header;
  header.type = MessageType{type};
  header.object = input->Byte();
  header.code = input->Byte();
  const unsigned flags = input->Byte();
  header.flags = (flags & IBinder::FLAG_ONEWAY) | (flags << 7 & (kRunsAhead | kAsksForProgress));
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

void Send(int socket, const std::string& message, uint8_t descriptors) {
  iovec part{const_cast<char*>(message.data()), message.size()};
  msghdr outgoing{};
  outgoing.msg_iov = &part;
  outgoing.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(kMaxDescriptors * sizeof(int))] = {};
  if (descriptors > 0) {
    outgoing.msg_control = control;
    outgoing.msg_controllen = CMSG_SPACE(descriptors * sizeof(int));
    cmsghdr* rights = CMSG_FIRSTHDR(&outgoing);
    *rights = {CMSG_LEN(descriptors * sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
    for (auto* at = reinterpret_cast<int*>(CMSG_DATA(rights)); descriptors > 0; --descriptors) {
      *at++ = socket;
    }
  }
  sendmsg(socket, &outgoing, MSG_NOSIGNAL | MSG_DONTWAIT);
}

// Runs what has been posted to a pool, on this thread.
void Drain(ThreadPool& pool) {
  struct Done {};
  pool.Post([] { throw Done(); });
  try {
    pool.Join();
  } catch (const Done&) {
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
  client_answer_time = std::chrono::milliseconds(1);
  IoLoop::Get().TryLead();  // for good: this thread reads
  const sp<BluetoothCcc> ccc = new BluetoothCcc;
  fuzz::Require(ccc->registerAsService() == 0, "a service can be registered");
  fuzz::Require(sp(new test::CommandSender)->registerAsService() == 0, "and another one");
  Publish("residency", TheResidencyCallback()->asBinder().get()->binder());
  CallThread::Current();  // has descriptors of its own
}

}  // namespace

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
    int sockets[2];
    fuzz::Require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) == 0, "a socket");
    const unique_fd peer(sockets[1]);
    const auto side = is_service ? Connection::Side::kService : Connection::Side::kClient;
    const auto connection = Connection::Start(unique_fd(sockets[0]), side, [&] { ++ends; });
    while (!input.empty()) {
      uint8_t descriptors = 0;
      const std::string message = NextMessage(&input, &descriptors);
      Send(peer.get(), message, descriptors);
      if (is_service) continue;
      connection->OnReady(EPOLLIN);
      Drain(HidlThreadPool());
      Drain(NdkThreadPool());
    }
    shutdown(peer.get(), SHUT_WR);
    if (is_service) CallService(*connection);
    while (!connection->ended()) connection->OnReady(EPOLLIN);
    Drain(HidlThreadPool());
    Drain(NdkThreadPool());
  }
  fuzz::Require(ends == 1, "the end of a connection is told once");
  // Deaths are told on another thread, which holds the connection until then.
  fuzz::Require(test::WaitFor([&] { return LowestFreeDescriptor() == lowest; }),
                "no descriptor is left open");
  return 0;
}
