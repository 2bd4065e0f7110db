#define LOG_TAG "bthal.rpc"

#include "rpc/connection.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <malloc.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "rpc/incoming_call.h"
#include "rpc/name_service.h"
#include "rpc/proxy.h"
#include "rpc/thread_pool.h"

namespace bthal::rpc {
namespace {

using android::sp;
using android::status_t;
using android::base::StringPrintf;
using android::hardware::BHwBinder;
using android::hardware::IBinder;
using android::hardware::Parcel;
using std::chrono::steady_clock;

pid_t PeerOf(int socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0 ? credentials.pid
                                                                               : -1;
}

// For poll(2): -1 without a deadline, else what is left, rounded up.
int PollTime(std::optional<steady_clock::time_point> deadline) {
  if (!deadline) return -1;
  const auto left = *deadline - steady_clock::now();
  if (left <= steady_clock::duration::zero()) return 0;
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
}

// The calls of all peers that wait or run.
class TotalLoad {
 public:
  static TotalLoad& Get() {
    static auto* const total = new TotalLoad;
    return *total;
  }
  void Add(const Load& call) {
    const std::lock_guard<std::mutex> lock(mutex_);
    load_ += call;
    most_bytes_ = std::max(most_bytes_, load_.bytes);
  }
  // Returns whether it was the last one of so many that their memory is worth giving back.
  bool Remove(const Load& call) {
    const std::lock_guard<std::mutex> lock(mutex_);
    load_ -= call;
    return load_.calls == 0 && std::exchange(most_bytes_, 0) >= kFloodBytes;
  }
  // What one peer may have waiting at present.
  const Load& Allowance() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return load_.Reaches(kMaxWaitingOfAll) ? kShare : kMaxWaiting;
  }

 private:
  static constexpr size_t kFloodBytes = 1 << 20;

  std::mutex mutex_;  // a leaf
  Load load_ GUARDED_BY(mutex_);
  size_t most_bytes_ GUARDED_BY(mutex_) = 0;  // since there was no call
};

// Whether errno of a send says that the peer has closed its end.
bool IsGone(int error) { return error == EPIPE || error == ECONNRESET || error == ENOTCONN; }

}  // namespace

std::shared_ptr<Connection> Connection::Start(android::base::unique_fd socket, Side peer_side,
                                              std::function<void()> on_end) {
  std::shared_ptr<Connection> connection(
      new Connection(std::move(socket), peer_side, std::move(on_end)));
  const bool added =
      IoLoop::Get().Add(connection->io_key_, connection->socket_.get(), EPOLLIN, connection);
  return added ? connection : nullptr;
}

Connection::Connection(android::base::unique_fd socket, Side peer_side,
                       std::function<void()> on_end)
    : socket_(std::move(socket)),
      peer_side_(peer_side),
      peer_pid_(PeerOf(socket_.get())),
      on_end_(std::move(on_end)),
      io_key_(IoLoop::Get().NewKey()) {
  // Room for a message of full size whatever the machine's default.
  const int size = 2 * kMaxMessageBytes;
  setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

Connection::~Connection() = default;

// ---- outgoing calls

status_t Connection::Call(uint32_t object, uint32_t code, const Parcel& data, Parcel* reply,
                          uint32_t flags, std::optional<std::chrono::milliseconds> limit) {
  MessageHeader header;
  header.type = MessageType::kCall;
  header.object = object;
  header.code = code;
  header.flags = flags;
  if ((flags & IBinder::FLAG_ONEWAY) != 0) return Send(header, data);

  const CallThread::Blocked blocked;
  PendingReply pending{CallThread::Current(), reply};
  header.chain = pending.thread->chain;
  bool reading = false;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ended()) return android::DEAD_OBJECT;
    header.serial = ++last_serial_;
    pending_.emplace(header.serial, &pending);
    if (overfull_) Watch(kOverfull, false);  // the reply may come behind more calls
    reading = StartReading();                // before a reply can wake another thread
  }
  const status_t sent = Send(header, data);
  // When the peer has gone, the messages that it sent before are read first.
  if (sent != android::OK && (sent != android::DEAD_OBJECT || ended())) {
    const std::lock_guard<std::mutex> lock(mutex_);
    pending_.erase(header.serial);
    if (overfull_ && pending_.empty()) Watch(kOverfull, true);
    if (reading) StopReading();
    return sent;
  }
  Wait(&pending, header.serial, reading, limit);
  return pending.status;
}

void Connection::Wait(PendingReply* pending, uint64_t serial, bool reading,
                      std::optional<std::chrono::milliseconds> limit) {
  CallThread& thread = *pending->thread;
  std::optional<steady_clock::time_point> deadline;
  const auto restart_clock = [&] {
    if (limit) {
      deadline = steady_clock::now() + *limit;
    } else if (peer_side_ == Side::kClient) {
      deadline = steady_clock::now() + client_answer_time;
    }
  };
  restart_clock();
  for (;;) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (pending->done) break;
      if (!reading) reading = StartReading();
    }
    std::unique_ptr<IncomingCall> nested = thread.TakeNested();
    if (nested == nullptr) nested = TakeFromAhead();
    if (nested != nullptr) {
      if (reading) {
        const std::lock_guard<std::mutex> lock(mutex_);
        StopReading();
        reading = false;
      }
      nested->Run();
      nested = nullptr;
      restart_clock();  // the time was spent in this process
      continue;
    }
    pollfd ready[] = {{thread.wake_descriptor(), POLLIN, 0}, {socket_.get(), POLLIN, 0}};
    int poll_time = PollTime(deadline);
    if (thread.wake_descriptor() < 0 && (poll_time < 0 || poll_time > CallThread::kLookPeriodMs)) {
      poll_time = CallThread::kLookPeriodMs;
    }
    const int count = poll(ready, reading ? 2 : 1, poll_time);
    if (count < 0) continue;  // a signal
    if (ready[0].revents != 0) thread.ClearWake();
    if (reading && ready[1].revents != 0) ReadMessage();
    if (count != 0 || PollTime(deadline) != 0) continue;
    if (!limit) {
      EndSilent();
      continue;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (pending->done) break;
    pending_[serial] = nullptr;
    pending->status = android::TIMED_OUT;
    break;
  }
  if (!reading) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  StopReading();
}

bool Connection::StartReading() {
  if (reader_ != Reader::kNobody) return false;
  reader_ = Reader::kCaller;
  Watch(kReadElsewhere, true);
  return true;
}

void Connection::StopReading() {
  reader_ = Reader::kNobody;
  Watch(kReadElsewhere, false);
}

// ---- sending

status_t Connection::Send(MessageHeader header, const Parcel& parcel) {
  if (ended()) return android::DEAD_OBJECT;
  const size_t references = parcel.binders().size();
  if (references > kMaxReferences || parcel.descriptors().size() > kMaxDescriptors ||
      sizeof header + references * sizeof(ObjectReference) + parcel.byteCount() >
          kMaxMessageBytes) {
    LOG(WARNING) << "a message of " << parcel.byteCount() << " bytes is too large to send";
    return android::FAILED_TRANSACTION;
  }
  header.references = static_cast<uint32_t>(references);
  header.descriptors = static_cast<uint32_t>(parcel.descriptors().size());
  header.bytes = static_cast<uint32_t>(parcel.byteCount());
  const std::vector<ObjectReference> names = ToReferences(parcel.binders());

  const int error = SendOrQueue(header, names, parcel);
  if (error == 0) return android::OK;
  if (IsGone(error)) return android::DEAD_OBJECT;  // the reader comes to the end of what it sent
  if (error == EAGAIN) {
    End("it does not read what is sent to it");
    return android::DEAD_OBJECT;
  }
  // The fault of this message alone, such as a descriptor that is not open.
  for (const ObjectReference& name : names) {
    sp<IBinder> dropped;
    if (name.owner != ObjectReference::Owner::kSender) continue;
    const std::lock_guard<std::mutex> lock(mutex_);
    DropReferences(name.id, 1, &dropped);
  }
  LOG(WARNING) << "a message cannot be sent: " << strerror(error);
  return android::FAILED_TRANSACTION;
}

int Connection::SendOrQueue(const MessageHeader& header,
                            const std::vector<ObjectReference>& references, const Parcel& parcel) {
  const std::lock_guard<std::mutex> lock(out_mutex_);
  if (out_.empty()) {
    const int error = SendMessage(socket_.get(), header, references, parcel);
    if (error != EAGAIN) return error;
  }
  if (out_.size() == kMaxQueuedMessages || out_bytes_ > kMaxQueuedBytes) return EAGAIN;
  out_.push_back(std::make_unique<QueuedMessage>(header, references, parcel));
  out_bytes_ += out_.back()->size();
  if (out_.size() == 1) Watch(kUnsent, true);
  return 0;
}

void Connection::Flush() {
  int error = 0;
  {
    const std::lock_guard<std::mutex> lock(out_mutex_);
    while (!out_.empty()) {
      error = out_.front()->Send(socket_.get());
      if (error != 0) break;
      out_bytes_ -= out_.front()->size();
      out_.pop_front();
    }
    Watch(kUnsent, !out_.empty());
  }
  if (error != 0 && error != EAGAIN) End(IsGone(error) ? nullptr : "it cannot be written to");
}

void Connection::Watch(WatchFlag flag, bool value) {
  const std::lock_guard<std::mutex> lock(watch_mutex_);
  watch_flags_ = value ? watch_flags_ | flag : watch_flags_ & ~flag;
  const bool reads = (watch_flags_ & (kReadElsewhere | kOverfull)) == 0;
  uint32_t events = reads ? EPOLLIN : EPOLLET;  // a hang-up is reported in any case: once
  if ((watch_flags_ & kUnsent) != 0) events |= EPOLLOUT;
  IoLoop::Get().Change(io_key_, socket_.get(), events);
}

// ---- receiving

void Connection::OnReady(uint32_t events) {
  if ((events & EPOLLOUT) != 0) Flush();
  if ((events & ~uint32_t{EPOLLOUT}) == 0) return;
  const bool all = std::exchange(reads_all_, false);
  for (int i = 0; i < kMessagesPerEvent; ++i) {
    bool unread = false;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (ended() || reader_ != Reader::kNobody) return;
      unread = overfull_ && pending_.empty();
      if (!unread) reader_ = Reader::kLeader;
    }
    if (unread) {
      // Calls that it sent before it hung up would be dropped unread anyway.
      if ((events & EPOLLHUP) != 0) End(nullptr);
      return;
    }
    const bool more = ReadMessage();
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      reader_ = Reader::kNobody;
    }
    if (!more) return;
    const bool runs_it = ThreadPool::HasOwnTask();
    if (i > 0 || !runs_it) reads_all_ = true;
    if (runs_it && !all) return;
  }
}

bool Connection::ReadMessage() {
  thread_local const std::unique_ptr<uint8_t[]> buffer(new uint8_t[kMaxMessageBytes]);
  ReceivedMessage message;
  const char* failure = nullptr;
  switch (ReceiveMessage(socket_.get(), buffer.get(), &message)) {
    case ReceiveResult::kNothingYet:
      return false;
    case ReceiveResult::kEnd:
      End(nullptr);
      return false;
    case ReceiveResult::kFailed:
      failure = "it cannot be read from";
      break;
    case ReceiveResult::kMalformed:
      failure = "a malformed message";
      break;
    case ReceiveResult::kDescriptorsLost:
      failure = "a message with more descriptors than can be opened";
      break;
    case ReceiveResult::kMessage:
      failure = Handle(std::move(message));
      break;
  }
  if (failure != nullptr) End(failure);
  return failure == nullptr;
}

// The handlers return what is wrong with the message, or null.
const char* Connection::Handle(ReceivedMessage message) {
  const MessageHeader& header = message.header;
  std::vector<sp<IBinder>> objects;
  const bool known = ToObjects(message.references, &objects);
  Parcel parcel;
  if (parcel.receive(message.data, header.bytes, std::move(message.descriptors),
                     std::move(objects)) != android::OK) {
    return "there is no memory for its message";
  }
  if (!known) return "a message that refers to an unknown object";
  switch (header.type) {
    case MessageType::kCall:
      return HandleCall(header, std::move(parcel));
    case MessageType::kReply:
      return HandleReply(header, std::move(parcel));
    case MessageType::kRelease:
      return HandleRelease(header);
    case MessageType::kProgress:
      return HandleProgress(header);
    case MessageType::kAheadFailed:
      return HandleAheadFailed(header);
    case MessageType::kRefusal:
      if (peer_side_ != Side::kService) break;
      refusal_ = header.status;
      return nullptr;
  }
  return "a message of unknown type";
}

const char* Connection::HandleCall(const MessageHeader& header, Parcel parcel) {
  if ((header.flags & kRunsAhead) != 0) {
    if (peer_side_ != Side::kService) return "a client's call that runs ahead";
    peer_ahead_chain_.store(header.chain, std::memory_order_relaxed);
  }
  if (header.object == 0) {  // answered here: the pool may be busy for long
    MessageHeader answer;
    answer.type = MessageType::kReply;
    answer.serial = header.serial;
    Parcel reply;
    if (!AnswerNameCall(header.code, parcel, &reply)) return "a malformed look-up";
    Send(answer, reply);
    return nullptr;
  }
  sp<IBinder> target;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = exports_.find(header.object);
    if (waiting_.Reaches(TotalLoad::Get().Allowance() * kGiveUpFactor)) {
      return "too many of its calls wait";
    }
    if (found != exports_.end() && found->second.references != 0) {
      target = found->second.object;
      ++found->second.calls;
    }
  }
  if (target == nullptr) return ended() ? nullptr : "a call to an unknown object";
  IncomingCall::Dispatch(std::make_unique<IncomingCall>(shared_from_this(), std::move(target),
                                                        header, std::move(parcel)));
  return nullptr;
}

const char* Connection::HandleReply(const MessageHeader& header, Parcel parcel) {
  std::shared_ptr<CallThread> thread;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = pending_.find(header.serial);
    if (found == pending_.end()) return ended() ? nullptr : "a reply to no call";
    PendingReply* pending = found->second;
    pending_.erase(found);
    if (overfull_ && pending_.empty()) Watch(kOverfull, true);
    if (pending == nullptr) return nullptr;
    pending->done = true;
    pending->status = header.status;
    if (pending->reply != nullptr) *pending->reply = std::move(parcel);
    thread = pending->thread;
  }
  thread->Wake();
  return nullptr;
}

const char* Connection::HandleRelease(const MessageHeader& header) {
  sp<IBinder> dropped;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!DropReferences(header.object, header.code, &dropped)) {
      return ended() ? nullptr : "a release of what it does not hold";
    }
  }
  if (dropped != nullptr) DropOnPool(std::move(dropped));
  return nullptr;
}

bool Connection::DropReferences(uint32_t object, uint32_t count, sp<IBinder>* dropped) {
  const auto found = exports_.find(object);
  if (found == exports_.end() || found->second.references < count) return false;
  found->second.references -= count;
  *dropped = DropUnused(object);
  return true;
}

sp<IBinder> Connection::DropUnused(uint32_t object) {
  const auto found = exports_.find(object);
  if (found->second.references != 0 || found->second.calls != 0) return nullptr;
  sp<IBinder> dropped = std::move(found->second.object);
  export_ids_.erase(dropped.get());
  exports_.erase(found);
  return dropped;
}

void Connection::CallArrived(const MessageHeader& header, const Load& call) {
  TotalLoad::Get().Add(call);
  const std::lock_guard<std::mutex> lock(mutex_);
  if (IsFromAhead(header)) ++from_ahead_;
  waiting_ += call;
  if (overfull_ || !waiting_.Reaches(TotalLoad::Get().Allowance())) return;
  overfull_ = true;
  if (pending_.empty()) Watch(kOverfull, true);
}

void Connection::CallDone(const MessageHeader& header, const Load& call) {
  // The allocator keeps what lies between allocations that have stayed.
  if (TotalLoad::Get().Remove(call)) malloc_trim(0);
  sp<IBinder> dropped;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (const auto found = exports_.find(header.object); found != exports_.end()) {
      --found->second.calls;
      dropped = DropUnused(header.object);
    }
    if (IsFromAhead(header)) {
      --from_ahead_;
      window_.Excuse(steady_clock::now());  // the time was spent in this process
    }
    waiting_ -= call;
    if (overfull_ && !waiting_.Exceeds(TotalLoad::Get().Allowance() / 2)) {
      overfull_ = false;
      Watch(kOverfull, false);
    }
  }
  if (dropped != nullptr) DropOnPool(std::move(dropped));
}

// ---- objects

sp<Proxy> Connection::ProxyOf(uint32_t object) {
  Import& import = imports_[object];
  sp<Proxy> proxy = import.proxy.promote();
  if (proxy == nullptr) {
    proxy = new Proxy(shared_from_this(), object);
    import = {proxy, proxy.get()};
  }
  return proxy;
}

bool Connection::ToObjects(const std::vector<ObjectReference>& references,
                           std::vector<sp<IBinder>>* objects) {
  if (references.empty()) return true;
  objects->reserve(references.size());
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const ObjectReference& reference : references) {
    if (reference.owner == ObjectReference::Owner::kSender && reference.id != 0) {
      const sp<Proxy> proxy = ProxyOf(reference.id);
      ++proxy->received_;
      objects->push_back(proxy);
    } else {
      const auto found = exports_.find(reference.id);
      if (reference.owner != ObjectReference::Owner::kReceiver || found == exports_.end() ||
          found->second.references == 0) {
        return false;
      }
      objects->push_back(found->second.object);
    }
  }
  return true;
}

std::vector<ObjectReference> Connection::ToReferences(const std::vector<sp<IBinder>>& objects) {
  std::vector<ObjectReference> references;
  if (objects.empty()) return references;
  references.reserve(objects.size());
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const sp<IBinder>& object : objects) {
    const auto* proxy = dynamic_cast<const Proxy*>(object->remoteBinder());
    if (proxy != nullptr && proxy->connection_.get() == this) {
      references.push_back({ObjectReference::Owner::kReceiver, proxy->object_});
      continue;
    }
    const auto [id, added] = export_ids_.emplace(object.get(), last_export_ + 1);
    if (added) exports_[++last_export_].object = object;
    ++exports_[id->second].references;
    references.push_back({ObjectReference::Owner::kSender, id->second});
  }
  return references;
}

void Connection::Release(const Proxy* proxy, uint32_t object, uint32_t received) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = imports_.find(object);
    if (found != imports_.end() && found->second.address == proxy) imports_.erase(found);
  }
  MessageHeader header;
  header.type = MessageType::kRelease;
  header.object = object;
  header.code = received;
  Send(header, Parcel());
}

void Connection::EndSilent() {
  const std::chrono::duration<double> seconds = client_answer_time;
  End(StringPrintf("a call to it was not answered for %g s", seconds.count()).c_str());
}

void Connection::End(const char* reason) {
  std::vector<sp<Proxy>> orphans;
  std::vector<std::shared_ptr<CallThread>> callers;
  decltype(exports_) dropped;  // with the objects of all calls that wait
  decltype(queued_from_ahead_) dropped_calls;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ended_.exchange(true)) return;
    for (const auto& [serial, pending] : pending_) {
      if (pending == nullptr) continue;
      pending->done = true;
      pending->status = android::DEAD_OBJECT;
      callers.push_back(pending->thread);
    }
    pending_.clear();
    callers.insert(callers.end(), room_waiters_.begin(), room_waiters_.end());
    for (const auto& [object, import] : imports_) {
      if (sp<Proxy> proxy = import.proxy.promote(); proxy != nullptr) orphans.push_back(proxy);
    }
    imports_.clear();
    export_ids_.clear();
    dropped.swap(exports_);
    dropped_calls.swap(queued_from_ahead_);
  }
  if (reason != nullptr) {
    LOG(ERROR) << "connection to process " << peer_pid_ << " ended: " << reason;
  }
  shutdown(socket_.get(), SHUT_RDWR);
  IoLoop::Get().Remove(io_key_, socket_.get());
  for (const std::shared_ptr<CallThread>& thread : callers) thread->Wake();
  on_end_();
  PostDeathNotifications(std::move(orphans));
  for (const auto& [id, exported] : dropped) {
    if (BHwBinder* local = exported.object->localBinder(); local != nullptr) {
      local->dropObsolete();
    }
  }
  CallThread::DropObsolete();
  HidlThreadPool().DropObsolete();
  NdkThreadPool().DropObsolete();
  for (auto& [id, exported] : dropped) DropOnPool(std::move(exported.object));
}

}  // namespace bthal::rpc
