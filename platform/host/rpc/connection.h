// A connection between two processes, and the objects that each has of the other.
#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <hwbinder/IBinder.h>
#include <hwbinder/Parcel.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "rpc/ahead_window.h"
#include "rpc/call_thread.h"
#include "rpc/io_loop.h"
#include "rpc/load.h"
#include "rpc/wire.h"

namespace bthal::rpc {

class Proxy;

// How long a call to a client's object may take, and a window of calls that run ahead may stand
// still. A call to a service may take any time. Changed, if at all, before the first connection: a
// test shortens it.
inline std::chrono::milliseconds client_answer_time = std::chrono::seconds(10);
// Messages that a peer leaves unread before it is given up.
constexpr size_t kMaxQueuedMessages = 256;
constexpr size_t kMaxQueuedBytes = 8 << 20;
// Read at once before another peer's are looked at.
constexpr int kMessagesPerEvent = 16;

// Safe on any thread; no call blocks but Call() and CallAhead(), and none holds a lock while user
// code runs. Messages are read by one thread at a time: the first caller that waits for a reply
// (which then needs no other thread to wake it), else the thread that leads the I/O loop. A sending
// thread writes to the socket itself; what the socket does not take is queued and written by the
// leader.
//
// A peer that breaks a rule (a malformed message, an unknown object, too much left unread, a client
// that does not answer) costs its connection and nothing else: one log line, calls into it fail
// with DEAD_OBJECT, death notifications go out. Its descriptor stays open until the last user has
// gone. When a connection ends, for whatever reason, the peer's calls that have not begun are
// dropped.
class Connection : public IoHandler, public std::enable_shared_from_this<Connection> {
 public:
  enum class Side { kService, kClient };  // what the peer is to us

  // The connection ends, told through on_end, at the latest when socket does.
  static std::shared_ptr<Connection> Start(android::base::unique_fd socket, Side peer_side,
                                           std::function<void()> on_end);
  ~Connection() override;

  Side peer_side() const { return peer_side_; }
  bool ended() const { return ended_.load(std::memory_order_acquire); }
  // errno of the service that did not take this connection; 0 otherwise. Known when it has ended.
  int refusal() const { return refusal_; }

  // Calls the peer's object and waits for the reply; oneway calls return once queued. Returns
  // TIMED_OUT after limit, when there is one: a reply that still comes is dropped.
  android::status_t Call(uint32_t object, uint32_t code, const android::hardware::Parcel& data,
                         android::hardware::Parcel* reply, uint32_t flags,
                         std::optional<std::chrono::milliseconds> limit = std::nullopt);
  // Whether CallAhead() may be used: the peer is a client.
  bool CanCallAhead() const { return peer_side_ == Side::kClient; }
  // Sends a call without results and does not wait for its answer. Waits while a window of such
  // calls has not run, and serves calls that their handlers make meanwhile. The calls to an object
  // run one at a time, in the order of their sending. Returns, instead of sending, the error that
  // an earlier one met, once, after one log line with its method; DEAD_OBJECT when the connection
  // has ended, which it does when the window stands still for client_answer_time.
  android::status_t CallAhead(uint32_t object, uint32_t code, const char* method,
                              const android::hardware::Parcel& data);
  // Fills in what header says of parcel, and sends both.
  android::status_t Send(MessageHeader header, const android::hardware::Parcel& parcel);

  // Ends the connection; reason is null for an orderly end, else one log line. Once.
  void End(const char* reason);
  // Because a call was not answered in time.
  void EndSilent();

  // For IncomingCall: one more, one less waiting or running. The object that a call is for is kept
  // until then.
  void CallArrived(const MessageHeader& header, const Load& call);
  void CallDone(const MessageHeader& header, const Load& call);
  // For IncomingCall: a call of the peer's that runs ahead has run.
  void RanAhead(const MessageHeader& header, android::status_t status);
  // For IncomingCall: one that a handler of a call that runs ahead has made. Whoever is blocked in
  // a call to this peer runs it, or a thread of its target's pool.
  bool IsFromAhead(const MessageHeader& header) const { return header.chain == ahead_chain_; }
  void QueueFromAhead(std::unique_ptr<IncomingCall> call);
  std::unique_ptr<IncomingCall> TakeFromAhead();
  // The chain of the peer's calls that run ahead; 0 before the first one.
  uint64_t peer_ahead_chain() const { return peer_ahead_chain_.load(std::memory_order_relaxed); }
  // For Proxy: the last reference to a peer's object has gone; received is how often it came.
  void Release(const Proxy* proxy, uint32_t object, uint32_t received);

  void OnReady(uint32_t events) override;

 private:
  struct PendingReply {
    std::shared_ptr<CallThread> thread;
    android::hardware::Parcel* reply;
    android::status_t status = android::OK;
    bool done = false;
  };
  struct Export {
    android::sp<android::hardware::IBinder> object;
    uint32_t references = 0;  // of the peer's
    uint32_t calls = 0;       // of the peer's that wait or run
  };
  struct Import {
    android::wp<Proxy> proxy;
    const Proxy* address = nullptr;
  };
  enum class Reader { kNobody, kLeader, kCaller };

  Connection(android::base::unique_fd socket, Side peer_side, std::function<void()> on_end);

  // reading: whether the calling thread is the reader.
  void Wait(PendingReply* pending, uint64_t serial, bool reading,
            std::optional<std::chrono::milliseconds> limit);
  // Until there is room in the window, or it has stood still for too long.
  void WaitForRoom();
  // Whether the window has stood still for too long.
  bool IsStuck(AheadWindow::Time now) const REQUIRES(mutex_);
  // Makes the calling thread the reader unless there is one.
  bool StartReading() REQUIRES(mutex_);
  void StopReading() REQUIRES(mutex_);
  // For the thread that is the reader: takes one message from the socket and handles it. False when
  // there is none, or the connection has ended.
  bool ReadMessage();
  const char* Handle(ReceivedMessage message);
  const char* HandleCall(const MessageHeader& header, android::hardware::Parcel parcel);
  const char* HandleReply(const MessageHeader& header, android::hardware::Parcel parcel);
  const char* HandleRelease(const MessageHeader& header);
  const char* HandleProgress(const MessageHeader& header);
  const char* HandleAheadFailed(const MessageHeader& header);
  // 0; EAGAIN when too much is queued; or errno of the send.
  int SendOrQueue(const MessageHeader& header, const std::vector<ObjectReference>& references,
                  const android::hardware::Parcel& parcel);
  void Flush();

  // False when a reference names no object.
  bool ToObjects(const std::vector<ObjectReference>& references,
                 std::vector<android::sp<android::hardware::IBinder>>* objects);
  std::vector<ObjectReference> ToReferences(
      const std::vector<android::sp<android::hardware::IBinder>>& objects);
  android::sp<Proxy> ProxyOf(uint32_t object) REQUIRES(mutex_);

  // Takes count references away; the object, when none is left. False when there are not as many.
  bool DropReferences(uint32_t object, uint32_t count,
                      android::sp<android::hardware::IBinder>* dropped) REQUIRES(mutex_);
  // Takes the object away when nothing of the peer's needs it.
  android::sp<android::hardware::IBinder> DropUnused(uint32_t object) REQUIRES(mutex_);

  // Why the I/O loop reads or writes, or does not. Each flag is changed under the lock of what it
  // follows.
  enum WatchFlag : uint32_t { kReadElsewhere = 1, kOverfull = 2, kUnsent = 4 };
  void Watch(WatchFlag flag, bool value);

  const android::base::unique_fd socket_;
  const Side peer_side_;
  const pid_t peer_pid_;
  const std::function<void()> on_end_;
  const uint64_t io_key_;
  std::atomic<bool> ended_{false};
  std::atomic<int> refusal_{0};

  // Of the leader of the I/O loop: the last messages came in a burst, or it was another thread that
  // had to run them, so all are read before one is run. Else the first is run without asking for
  // more.
  bool reads_all_ = false;

  std::mutex mutex_;
  Reader reader_ GUARDED_BY(mutex_) = Reader::kNobody;
  uint64_t last_serial_ GUARDED_BY(mutex_) = 0;
  // Null for a call that was given up.
  std::unordered_map<uint64_t, PendingReply*> pending_ GUARDED_BY(mutex_);
  std::unordered_map<uint32_t, Export> exports_ GUARDED_BY(mutex_);
  std::unordered_map<const android::hardware::IBinder*, uint32_t> export_ids_ GUARDED_BY(mutex_);
  uint32_t last_export_ GUARDED_BY(mutex_) = 0;
  std::unordered_map<uint32_t, Import> imports_ GUARDED_BY(mutex_);
  Load waiting_ GUARDED_BY(mutex_);

  // Of calls that run ahead: those that this side sends,
  const uint64_t ahead_chain_ = CallThread::NewChain();
  AheadWindow window_ GUARDED_BY(mutex_);
  size_t from_ahead_ GUARDED_BY(mutex_) = 0;  // calls of their handlers that wait or run here
  std::deque<std::unique_ptr<IncomingCall>> queued_from_ahead_ GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<CallThread>> room_waiters_ GUARDED_BY(mutex_);
  std::unordered_map<uint32_t, const char*> ahead_methods_ GUARDED_BY(mutex_);
  android::status_t ahead_error_ GUARDED_BY(mutex_) = android::OK;
  // and those that it runs.
  std::atomic<uint64_t> peer_ahead_chain_{0};
  Load ran_ahead_ GUARDED_BY(mutex_);
  std::chrono::steady_clock::time_point told_progress_at_ GUARDED_BY(mutex_);
  bool overfull_ GUARDED_BY(mutex_) = false;  // too many calls wait: nothing more is read

  std::mutex out_mutex_;
  std::deque<std::unique_ptr<QueuedMessage>> out_ GUARDED_BY(out_mutex_);
  size_t out_bytes_ GUARDED_BY(out_mutex_) = 0;

  std::mutex watch_mutex_;  // the innermost
  uint32_t watch_flags_ GUARDED_BY(watch_mutex_) = 0;
};

}  // namespace bthal::rpc
