#define LOG_TAG "bthal.rpc"

#include "rpc/name_service.h"

#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <android-base/thread_annotations.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>

#include "rpc/connection.h"
#include "rpc/listener.h"
#include "rpc/socket_folder.h"

namespace bthal::rpc {
namespace {

using android::sp;
using android::status_t;
using android::hardware::IBinder;
using android::hardware::Parcel;
using std::chrono::milliseconds;

constexpr uint32_t kFindByName = 1;

milliseconds LookupTime() {
  int time_ms = 5000;
  const char* text = getenv("BTHAL_LOOKUP_TIMEOUT_MS");
  if (text != nullptr && !android::base::ParseInt(text, &time_ms, 0)) {
    LOG(WARNING) << "BTHAL_LOOKUP_TIMEOUT_MS is no number of milliseconds: " << text;
  }
  return milliseconds(time_ms);
}

// As a file: an AIDL instance has a slash in its name.
std::string FileName(std::string name) {
  std::replace(name.begin(), name.end(), '/', ':');
  return name;
}

// What this process serves, and its connections to others that serve. Never destroyed.
class Names {
 public:
  static Names& Get() {
    static auto* const names = new Names;
    return *names;
  }

  status_t Publish(const std::string& name, const sp<IBinder>& object) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const SocketFolder folder(/*create=*/true);
    if (!folder.ok() || (socket_name_.empty() && !StartListening(folder, &socket_name_))) {
      const int error = errno;
      PLOG(ERROR) << "cannot open a socket for services";
      return -error;
    }
    objects_[name] = object;
    const int error = folder.Link(FileName(name), socket_name_);
    if (error != 0) LOG(ERROR) << "cannot publish " << name << ": " << strerror(error);
    return -error;
  }

  sp<IBinder> Own(const std::string& name) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = objects_.find(name);
    return found == objects_.end() ? nullptr : found->second;
  }

  // The connection to the process that serves name; null, with errno, when there is none.
  std::shared_ptr<Connection> ConnectionTo(const std::string& name) {
    const SocketFolder folder(/*create=*/false);
    if (!folder.ok()) return nullptr;
    const std::string target = folder.Target(FileName(name));
    if (target.empty()) return nullptr;
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = connections_.find(target);
    if (known != connections_.end() && !known->second->ended()) return known->second;
    android::base::unique_fd socket = folder.Connect(target);
    if (socket.get() < 0) return nullptr;
    std::shared_ptr<Connection> connection = Connection::Start(
        std::move(socket), Connection::Side::kService, [this, target] { Forget(target); });
    if (connection != nullptr) connections_[target] = connection;
    return connection;
  }

 private:
  // Drops the connection to a process that has gone, unless there is a new one already.
  void Forget(const std::string& target) {
    std::shared_ptr<Connection> ended;  // dropped after the lock is free
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = connections_.find(target);
    if (found == connections_.end() || !found->second->ended()) return;
    ended = std::move(found->second);
    connections_.erase(found);
  }

  std::mutex mutex_;
  std::string socket_name_ GUARDED_BY(mutex_);
  std::map<std::string, sp<IBinder>> objects_ GUARDED_BY(mutex_);
  std::map<std::string, std::shared_ptr<Connection>> connections_ GUARDED_BY(mutex_);
};

thread_local int last_find_error = 0;

// 0, or what LastFindError() returns.
int FindNow(const std::string& name, milliseconds answer_time, sp<IBinder>* object) {
  *object = Names::Get().Own(name);
  if (*object != nullptr) return 0;
  const std::shared_ptr<Connection> connection = Names::Get().ConnectionTo(name);
  if (connection == nullptr) {
    if (errno == EAGAIN) return ETIMEDOUT;  // as many connections wait as the socket holds
    return errno == EACCES ? EACCES : ENOENT;
  }
  Parcel data;
  Parcel reply;
  data.writeCString(name.c_str());
  const status_t status = connection->Call(0, kFindByName, data, &reply, 0, answer_time);
  if (status == android::TIMED_OUT) return ETIMEDOUT;
  if (connection->refusal() != 0) return connection->refusal();
  if (status == android::OK) reply.readNullableStrongBinder(object);
  return *object == nullptr ? ENOENT : 0;
}

}  // namespace

status_t Publish(const std::string& name, const sp<IBinder>& object) {
  return Names::Get().Publish(name, object);
}

sp<IBinder> Find(const std::string& name, bool wait) {
  const milliseconds time = LookupTime();
  sp<IBinder> object;
  const auto find = [&] {
    last_find_error = FindNow(name, time, &object);
    return object != nullptr;
  };
  if (!wait) {
    find();
  } else {
    SocketFolder::WaitUntil(std::chrono::steady_clock::now() + time, find);
  }
  return object;
}

int LastFindError() { return last_find_error; }

bool AnswerNameCall(uint32_t code, const Parcel& data, Parcel* reply) {
  const char* name = data.readCString();
  if (code != kFindByName || name == nullptr) return false;
  return reply->writeStrongBinder(Names::Get().Own(name)) == android::OK;
}

}  // namespace bthal::rpc
