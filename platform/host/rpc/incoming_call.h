#pragma once

#include <hwbinder/Parcel.h>

#include <cstdint>
#include <memory>

#include "rpc/load.h"
#include "rpc/thread_pool.h"
#include "rpc/wire.h"

namespace bthal::rpc {

class Connection;

// A call from another process, from its arrival to its reply. Run once, on a thread of the target's
// pool or on a thread that is blocked in the call's chain; or not at all, when its client has gone.
class IncomingCall : public Task {
 public:
  IncomingCall(std::shared_ptr<Connection> connection,
               android::sp<android::hardware::IBinder> target, const MessageHeader& header,
               android::hardware::Parcel data);
  ~IncomingCall() override;

  // Hands call to the thread that is blocked in its chain, else to the target's pool; oneway calls
  // and calls that run ahead queue up at their target, and a ping() behind them: its answer tells
  // that all have run that were sent before, unless it comes from inside one of them.
  static void Dispatch(std::unique_ptr<IncomingCall> call);
  // Hands call to the target's pool.
  static void Post(std::unique_ptr<IncomingCall> call);

  void Run() override;
  // Whether its client has gone.
  bool IsObsolete() const override;

  uint64_t chain() const { return header_.chain; }
  bool is_oneway() const { return (header_.flags & android::hardware::IBinder::FLAG_ONEWAY) != 0; }
  bool runs_ahead() const { return (header_.flags & kRunsAhead) != 0; }
  // Whether it is a ping() that must wait for the calls that run ahead.
  bool is_barrier() const;

 private:
  void Reply(android::status_t status, const android::hardware::Parcel& reply);

  const std::shared_ptr<Connection> connection_;
  const android::sp<android::hardware::IBinder> target_;
  const MessageHeader header_;
  android::hardware::Parcel data_;
  const Load load_;
  bool replied_ = false;
};

// Drops a reference on the pool of the object: destructors are its users' code.
void DropOnPool(android::sp<android::hardware::IBinder> object);

}  // namespace bthal::rpc
