// Calls that run ahead of their answers, on both sides of a connection.
#define LOG_TAG "bthal.rpc"

#include <android-base/logging.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "rpc/connection.h"
#include "rpc/incoming_call.h"

namespace bthal::rpc {

using android::status_t;
using android::hardware::Parcel;
using std::chrono::steady_clock;

status_t Connection::CallAhead(uint32_t object, uint32_t code, const char* method,
                               const Parcel& data) {
  MessageHeader header;
  header.type = MessageType::kCall;
  header.object = object;
  header.code = code;
  header.flags = kRunsAhead;
  header.chain = ahead_chain_;
  for (bool room = false; !room;) {
    const auto now = steady_clock::now();
    bool stuck = false;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (ended()) return android::DEAD_OBJECT;
      if (ahead_error_ != android::OK) return std::exchange(ahead_error_, android::OK);
      stuck = IsStuck(now);
      room = !stuck && !window_.IsFull(from_ahead_ != 0);
      if (room) {
        ahead_methods_.try_emplace(code, method);
        if (window_.Add(data.byteCount(), now)) header.flags |= kAsksForProgress;
      }
    }
    if (stuck) {
      EndSilent();
    } else if (!room) {
      WaitForRoom();
    }
  }
  return Send(header, data);
}

void Connection::WaitForRoom() {
  const std::shared_ptr<CallThread> thread = CallThread::Current();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    room_waiters_.push_back(thread);
  }
  for (;;) {
    steady_clock::time_point deadline;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (ended() || !window_.IsFull(from_ahead_ != 0) || IsStuck(steady_clock::now())) break;
      deadline = window_.moved_at() + client_answer_time;
    }
    if (std::unique_ptr<IncomingCall> call = TakeFromAhead(); call != nullptr) {
      call->Run();
      continue;
    }
    thread->SleepUntil(deadline);
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  room_waiters_.erase(std::find(room_waiters_.begin(), room_waiters_.end(), thread));
}

bool Connection::IsStuck(AheadWindow::Time now) const {
  return window_.IsWaiting() && from_ahead_ == 0 && now - window_.moved_at() > client_answer_time;
}

void Connection::RanAhead(const MessageHeader& header, status_t status) {
  MessageHeader told;
  told.status = status;
  bool tells = (header.flags & kAsksForProgress) != 0;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++ran_ahead_.calls;
    ran_ahead_.bytes += header.bytes;
    told.serial = ran_ahead_.calls;
    told.chain = ran_ahead_.bytes;
    // The call that asks may be far behind in the queue of a receiver that is slow but not stuck.
    const auto now = steady_clock::now();
    tells = tells || now - told_progress_at_ >= std::chrono::seconds(1);
    if (tells) told_progress_at_ = now;
  }
  if (status != android::OK) {
    told.type = MessageType::kAheadFailed;
    told.code = header.code;
    Send(told, Parcel());
  }
  if (!tells) return;
  told.type = MessageType::kProgress;
  Send(told, Parcel());
}

void Connection::QueueFromAhead(std::unique_ptr<IncomingCall> call) {
  std::vector<std::shared_ptr<CallThread>> blocked;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!ended()) queued_from_ahead_.push_back(std::move(call));
    blocked = room_waiters_;
    for (const auto& [serial, pending] : pending_) {
      if (pending != nullptr) blocked.push_back(pending->thread);
    }
  }
  for (const std::shared_ptr<CallThread>& thread : blocked) thread->Wake();
}

std::unique_ptr<IncomingCall> Connection::TakeFromAhead() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (queued_from_ahead_.empty()) return nullptr;
  std::unique_ptr<IncomingCall> call = std::move(queued_from_ahead_.front());
  queued_from_ahead_.pop_front();
  return call;
}

const char* Connection::HandleProgress(const MessageHeader& header) {
  std::vector<std::shared_ptr<CallThread>> waiters;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!window_.Advance(header.serial, header.chain, steady_clock::now())) {
      return "progress of calls that were not sent";
    }
    waiters = room_waiters_;
  }
  for (const std::shared_ptr<CallThread>& thread : waiters) thread->Wake();
  return nullptr;
}

const char* Connection::HandleAheadFailed(const MessageHeader& header) {
  const char* method = nullptr;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = ahead_methods_.find(header.code);
    if (found == ahead_methods_.end() || header.status == android::OK) {
      return "a failure of a call that was not sent";
    }
    method = found->second;
    if (ahead_error_ != android::OK) return nullptr;  // told already
    ahead_error_ = header.status;
  }
  LOG(ERROR) << method << " failed in process " << peer_pid_ << ": " << strerror(-header.status);
  return nullptr;
}

}  // namespace bthal::rpc
