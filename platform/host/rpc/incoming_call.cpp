#include "rpc/incoming_call.h"

#include <utility>

#include "rpc/call_thread.h"
#include "rpc/connection.h"

namespace bthal::rpc {
namespace {

using android::OK;
using android::sp;
using android::status_t;
using android::hardware::BHwBinder;
using android::hardware::IBinder;
using android::hardware::Parcel;

constexpr uint32_t kPingCode = 0x0f504e47;  // of every HIDL interface

// Runs some of the calls that are queued at an object, then makes room for other tasks before the
// next.
void PostQueued(const sp<BHwBinder>& target) {
  target->threadPool().Post([target] {
    for (int i = 0; i < 16; ++i) {
      const std::unique_ptr<IncomingCall> call = target->nextInOrder();
      if (call == nullptr) return;
      call->Run();
    }
    PostQueued(target);
  });
}

}  // namespace

IncomingCall::IncomingCall(std::shared_ptr<Connection> connection, sp<IBinder> target,
                           const MessageHeader& header, Parcel data)
    : connection_(std::move(connection)),
      target_(std::move(target)),
      header_(header),
      data_(std::move(data)),
      load_{1, data_.byteCount(), data_.descriptors().size()} {
  connection_->CallArrived(header_, load_);
}

IncomingCall::~IncomingCall() {
  data_.reset();  // what the load stands for
  connection_->CallDone(header_, load_);
}

bool IncomingCall::IsObsolete() const { return connection_->ended(); }

bool IncomingCall::is_barrier() const {
  const uint64_t ahead = connection_->peer_ahead_chain();
  return header_.code == kPingCode && ahead != 0 && header_.chain != ahead;
}

void IncomingCall::Dispatch(std::unique_ptr<IncomingCall> call) {
  BHwBinder* local = call->target_->localBinder();
  if (local != nullptr && (call->is_oneway() || call->runs_ahead())) {
    const sp<BHwBinder> target = local;
    if (target->queueInOrder(std::move(call))) PostQueued(target);
    return;
  }
  if (local != nullptr && call->is_barrier() && local->queueBehind(call)) return;
  if (!call->is_oneway() && CallThread::DeliverNested(call)) return;
  if (const std::shared_ptr<Connection> connection = call->connection_;
      connection->IsFromAhead(call->header_)) {
    ThreadPool& pool = local == nullptr ? HidlThreadPool() : local->threadPool();
    connection->QueueFromAhead(std::move(call));
    pool.Post([connection] {
      if (const std::unique_ptr<IncomingCall> next = connection->TakeFromAhead(); next != nullptr) {
        next->Run();
      }
    });
  } else {
    Post(std::move(call));
  }
}

void IncomingCall::Post(std::unique_ptr<IncomingCall> call) {
  BHwBinder* local = call->target_->localBinder();
  ThreadPool& pool = local == nullptr ? HidlThreadPool() : local->threadPool();
  pool.Post(std::move(call));
}

void IncomingCall::Run() {
  if (IsObsolete()) return;
  const CallThread::Serving serving(header_.chain);
  Parcel reply;
  const status_t status = target_->transact(header_.code, data_, &reply, header_.flags,
                                            [this](Parcel& filled) { Reply(OK, filled); });
  if (data_.malformed()) {
    connection_->End("a malformed call");
  } else if (runs_ahead()) {
    connection_->RanAhead(header_, status);
  } else {
    if (status != OK) reply.reset();
    Reply(status, reply);
  }
}

void IncomingCall::Reply(status_t status, const Parcel& reply) {
  if (replied_ || is_oneway() || runs_ahead()) return;
  replied_ = true;
  MessageHeader header;
  header.type = MessageType::kReply;
  header.serial = header_.serial;
  header.status = status;
  const status_t sent = connection_->Send(header, reply);
  if (sent == OK || sent == android::DEAD_OBJECT) return;
  header.status = android::FAILED_TRANSACTION;
  connection_->Send(header, Parcel());
}

void DropOnPool(sp<IBinder> object) {
  BHwBinder* local = object->localBinder();
  if (local == nullptr) return;  // of another process: its destructor only sends
  ThreadPool& pool = local->threadPool();
  pool.Post([object = std::move(object)] {});  // the task holds it, and goes with it
}

}  // namespace bthal::rpc
