#define LOG_TAG "qvr"

#include "qvr/client.h"

#include <android-base/logging.h>
#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <root_folder/root_folder.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <future>
#include <map>
#include <system_error>
#include <tuple>
#include <utility>

namespace qvr {
namespace {

using android::base::unique_fd;
using std::chrono::steady_clock;

constexpr char kFolder[] = "/run/qvr";
constexpr char kSocket[] = "transport";
constexpr size_t kMaxMessageBytes = 192 * 1024;
constexpr std::chrono::milliseconds kFindTimeout{800};
// How long a send waits for a server that does not read.
constexpr std::chrono::milliseconds kRoomTimeout{1000};

enum class Kind : uint32_t {
  kFind = 1,
  kFound = 2,
  kSend = 3,
  kCompleted = 4,
  kCall = 5,
  kResponse = 6,
  kMessage = 7,
};

struct Header {
  Kind kind;
  uint32_t serial;
  uint32_t value;
  uint32_t table_bytes;
};

// The socket's folder is named through /proc/self/fd: an address holds 107 bytes at most.
unique_fd ConnectSocket() {
  const unique_fd folder(root_folder::Open(kFolder, O_PATH | O_DIRECTORY));
  if (folder.get() < 0) return {};
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", folder.get(), kSocket);
  unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (fd.get() < 0 ||
      connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return {};
  }
  const int size = 2 * kMaxMessageBytes;
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  fcntl(fd.get(), F_SETFL, 0);  // the reading thread waits in recvmsg()
  return fd;
}

}  // namespace

// What the client and its reading thread share; the thread may outlive a client that one of its own
// handlers destroys.
struct SocketClient::Link {
  // What a find, send or call waits for.
  struct Pending {
    Kind answer;
    std::function<void(int error, const uint8_t* payload, size_t size)> complete;
  };

  unique_fd socket;  // written before the thread starts
  std::atomic<bool> stopping{false};

  std::mutex write_mutex;  // one datagram at a time
  std::mutex mutex;
  std::condition_variable handler_done;
  uint32_t last_serial GUARDED_BY(mutex) = 0;
  std::map<uint32_t, Pending> pending GUARDED_BY(mutex);
  std::map<uint32_t, std::shared_ptr<MessageHandler>> handlers GUARDED_BY(mutex);
  std::function<void()> on_lost GUARDED_BY(mutex);
  uint32_t running_type GUARDED_BY(mutex) = 0;  // of the message being handled
  bool lost GUARDED_BY(mutex) = false;

  // Succeeds on a lost connection, too: complete then gets kServiceNotAvailable.
  int Start(Kind kind, Kind answer, const std::vector<uint8_t>& table, const void* payload,
            size_t size, decltype(Pending::complete) complete, uint32_t* serial);
  int Write(const Header& header, const std::vector<uint8_t>& table, const void* payload,
            size_t size) EXCLUDES(write_mutex);
  int Await(Kind kind, Kind answer, const std::vector<uint8_t>& table, const void* payload,
            size_t size, std::chrono::milliseconds timeout, int* error,
            std::vector<uint8_t>* result);
  void Read();
  // False at the end of the connection.
  bool ReadMessage(uint8_t* buffer);
  bool Handle(const Header& header, const uint8_t* body, size_t size);
  void Lose();
};

int SocketClient::Link::Write(const Header& header, const std::vector<uint8_t>& table,
                              const void* payload, size_t size) {
  if (sizeof header + table.size() + size > kMaxMessageBytes) return kValueTooBig;
  iovec parts[] = {{const_cast<Header*>(&header), sizeof header},
                   {const_cast<uint8_t*>(table.data()), table.size()},
                   {const_cast<void*>(payload), size}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 3;
  // A thread that waits for room keeps the turn; the time of the next one begins with its turn.
  const std::lock_guard<std::mutex> turn(write_mutex);
  const auto deadline = steady_clock::now() + kRoomTimeout;
  while (sendmsg(socket.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
    if (errno == EINTR) continue;
    // The reading thread sees that, too: Lose() completes the request.
    if (errno == EPIPE || errno == ECONNRESET) return 0;
    if (errno != EAGAIN) return kServiceNotAvailable;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
    if (left.count() <= 0) return kOperationTimedOut;
    pollfd room = {socket.get(), POLLOUT, 0};
    poll(&room, 1, static_cast<int>(left.count()));
  }
  return 0;
}

int SocketClient::Link::Start(Kind kind, Kind answer, const std::vector<uint8_t>& table,
                              const void* payload, size_t size,
                              decltype(Pending::complete) complete, uint32_t* serial) {
  Pending too_late{answer, nullptr};
  {
    const std::lock_guard<std::mutex> lock(mutex);
    if (socket.get() < 0) return kNotReady;
    if (lost) {
      too_late.complete = std::move(complete);
    } else {
      if (++last_serial == 0) ++last_serial;
      *serial = last_serial;
      pending[*serial] = {answer, std::move(complete)};
    }
  }
  if (too_late.complete) {
    too_late.complete(kServiceNotAvailable, nullptr, 0);
    return 0;
  }
  const int error =
      Write({kind, *serial, 0, static_cast<uint32_t>(table.size())}, table, payload, size);
  if (error != 0) {
    const std::lock_guard<std::mutex> lock(mutex);
    // When the connection was lost meanwhile, Lose() has completed it.
    if (pending.erase(*serial) == 0) return 0;
  }
  return error;
}

int SocketClient::Link::Await(Kind kind, Kind answer, const std::vector<uint8_t>& table,
                              const void* payload, size_t size, std::chrono::milliseconds timeout,
                              int* error, std::vector<uint8_t>* result) {
  using Answer = std::pair<int, std::vector<uint8_t>>;
  const auto promise = std::make_shared<std::promise<Answer>>();
  std::future<Answer> answered = promise->get_future();
  const auto complete = [promise](int outcome, const uint8_t* bytes, size_t count) {
    promise->set_value({outcome, {bytes, bytes + count}});
  };
  const auto deadline = steady_clock::now() + timeout;
  uint32_t serial = 0;
  const int sent = Start(kind, answer, table, payload, size, complete, &serial);
  if (sent != 0) return sent;
  if (answered.wait_until(deadline) == std::future_status::ready) {
    std::tie(*error, *result) = answered.get();
    return 0;
  }
  *error = kOperationTimedOut;
  const std::lock_guard<std::mutex> lock(mutex);
  pending.erase(serial);
  return 0;
}

void SocketClient::Link::Read() {
  const std::unique_ptr<uint8_t[]> buffer(new uint8_t[kMaxMessageBytes]);
  while (!stopping) {
    if (!ReadMessage(buffer.get())) return Lose();
  }
}

bool SocketClient::Link::ReadMessage(uint8_t* buffer) {
  iovec part = {buffer, kMaxMessageBytes};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  const ssize_t n = TEMP_FAILURE_RETRY(recvmsg(socket.get(), &message, 0));
  if (n <= 0) return false;
  const auto size = static_cast<size_t>(n);
  Header header;
  if ((message.msg_flags & MSG_TRUNC) == 0 && size >= sizeof header) {
    memcpy(&header, buffer, sizeof header);
    if (Handle(header, buffer + sizeof header, size - sizeof header)) return true;
  }
  LOG(ERROR) << "a malformed datagram of " << size << " bytes from the co-processor";
  return false;
}

bool SocketClient::Link::Handle(const Header& header, const uint8_t* body, size_t size) {
  if (header.table_bytes > size) return false;
  if (header.kind == Kind::kMessage) {
    std::shared_ptr<MessageHandler> handler;
    {
      const std::lock_guard<std::mutex> lock(mutex);
      const auto found = handlers.find(header.value);
      if (found == handlers.end()) return true;
      handler = found->second;
      running_type = header.value;
    }
    (*handler)(body, header.table_bytes);
    const std::lock_guard<std::mutex> lock(mutex);
    running_type = 0;
    handler_done.notify_all();
    return true;
  }
  if (header.kind != Kind::kFound && header.kind != Kind::kCompleted &&
      header.kind != Kind::kResponse) {
    return false;
  }
  Pending answered;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = pending.find(header.serial);
    if (found == pending.end()) return true;  // it came too late
    if (found->second.answer != header.kind) return false;
    answered = std::move(found->second);
    pending.erase(found);
  }
  answered.complete(static_cast<int>(header.value), body + header.table_bytes,
                    size - header.table_bytes);
  return true;
}

void SocketClient::Link::Lose() {
  shutdown(socket.get(), SHUT_RDWR);
  std::map<uint32_t, Pending> unanswered;
  std::function<void()> tell;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    lost = true;
    unanswered.swap(pending);
    tell.swap(on_lost);
  }
  // The loss itself first: it explains the rest.
  if (tell && !stopping) tell();
  for (auto& [serial, waiting] : unanswered) {
    if (!stopping) waiting.complete(kServiceNotAvailable, nullptr, 0);
  }
}

SocketClient::SocketClient() : link_(std::make_shared<Link>()) {}

SocketClient::~SocketClient() {
  link_->stopping = true;
  if (!thread_.joinable()) return;
  shutdown(link_->socket.get(), SHUT_RDWR);  // ends the wait of the reading thread
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

int SocketClient::Connect() {
  if (thread_.joinable()) return kItemAlreadyExists;
  unique_fd socket = ConnectSocket();
  if (socket.get() < 0) return kServiceNotAvailable;
  {
    const std::lock_guard<std::mutex> lock(link_->mutex);
    link_->socket = std::move(socket);
  }
  try {
    thread_ = std::thread([link = link_] { link->Read(); });
  } catch (const std::system_error&) {
    return kAllocation;
  }
  pthread_setname_np(thread_.native_handle(), "qvr_client");
  return 0;
}

int SocketClient::FindServer(const std::string& name, uint32_t* id) {
  int error = 0;
  std::vector<uint8_t> payload;
  const int sent = link_->Await(Kind::kFind, Kind::kFound, {}, name.data(), name.size(),
                                kFindTimeout, &error, &payload);
  if (sent != 0) return sent;
  if (error != 0) return error;
  if (payload.size() != sizeof *id) return kBuffer;
  memcpy(id, payload.data(), sizeof *id);
  return 0;
}

int SocketClient::SetConnectionHandler(std::function<void()> on_lost) {
  {
    const std::lock_guard<std::mutex> lock(link_->mutex);
    if (!link_->lost) {
      link_->on_lost = std::move(on_lost);
      return 0;
    }
  }
  return kServiceNotAvailable;
}

int SocketClient::SetMessageHandler(uint32_t type, MessageHandler handler) {
  std::shared_ptr<MessageHandler> old;  // dropped after the lock is free
  std::unique_lock<std::mutex> lock(link_->mutex);
  const android::base::ScopedLockAssertion locked(link_->mutex);
  const auto found = link_->handlers.find(type);
  if (found != link_->handlers.end()) {
    old = std::move(found->second);
    link_->handlers.erase(found);
  }
  if (handler) link_->handlers[type] = std::make_shared<MessageHandler>(std::move(handler));
  if (thread_.get_id() == std::this_thread::get_id()) return 0;
  while (old != nullptr && link_->running_type == type) link_->handler_done.wait(lock);
  return 0;
}

int SocketClient::Send(const Request& request, std::function<void(int error)> on_complete) {
  const std::shared_ptr<Link> link = link_;  // the answer's handler may destroy this client
  uint32_t serial = 0;
  return link->Start(
      Kind::kSend, Kind::kCompleted, request.table, request.payload.data(), request.payload.size(),
      [on_complete = std::move(on_complete)](int error, const uint8_t*, size_t) {
        on_complete(error);
      },
      &serial);
}

int SocketClient::Call(const Request& request, std::chrono::milliseconds timeout,
                       int* response_error) {
  const std::shared_ptr<Link> link = link_;
  std::vector<uint8_t> payload;
  return link->Await(Kind::kCall, Kind::kResponse, request.table, request.payload.data(),
                     request.payload.size(), timeout, response_error, &payload);
}

}  // namespace qvr
