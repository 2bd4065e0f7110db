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

// Runs one oneway call of an object, then makes room for other tasks before the next.
void PostOneway(const sp<BHwBinder>& target) {
  target->threadPool().Post([target] {
    const std::unique_ptr<IncomingCall> call = target->nextOneway();
    if (call == nullptr) return;
    call->Run();
    PostOneway(target);
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
  connection_->CallArrived(load_);
}

IncomingCall::~IncomingCall() { connection_->CallDone(header_.object, load_); }

bool IncomingCall::IsObsolete() const { return connection_->ended(); }

void IncomingCall::Dispatch(std::unique_ptr<IncomingCall> call) {
  BHwBinder* local = call->target_->localBinder();
  if (call->is_oneway() && local != nullptr) {
    const sp<BHwBinder> target = local;
    if (target->queueOneway(std::move(call))) PostOneway(target);
  } else if (call->is_oneway() || !CallThread::DeliverNested(call)) {
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
  } else {
    if (status != OK) reply.reset();
    Reply(status, reply);
  }
}

void IncomingCall::Reply(status_t status, const Parcel& reply) {
  if (replied_ || is_oneway()) return;
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
