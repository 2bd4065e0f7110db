#include "ndk/ibinder.h"

#include <android-base/thread_annotations.h>
#include <android/binder_interface_utils.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "ndk/parcel.h"
#include "rpc/call_thread.h"

using android::sp;
using android::status_t;
using android::wp;
using android::hardware::IBinder;
using android::hardware::Parcel;

namespace {

// The remote objects that somebody holds. Never destroyed.
struct Remotes {
  static Remotes& Get() {
    static auto* const remotes = new Remotes;
    return *remotes;
  }
  struct Entry {
    wp<AIBinder> weak;
    const AIBinder* address;
  };
  std::mutex mutex;
  std::map<const IBinder*, Entry> entries GUARDED_BY(mutex);
};

}  // namespace

// ---- objects

sp<AIBinder> AIBinder::Of(const sp<IBinder>& binder) {
  if (binder == nullptr) return nullptr;
  if (binder->localBinder() != nullptr) return dynamic_cast<LocalBinder*>(binder->localBinder());
  Remotes& remotes = Remotes::Get();
  const std::lock_guard<std::mutex> lock(remotes.mutex);
  Remotes::Entry& entry = remotes.entries[binder.get()];
  sp<AIBinder> known = entry.weak.promote();
  if (known == nullptr) {
    known = new RemoteBinder(binder);
    entry = {known, known.get()};
  }
  return known;
}

AIBinder* AIBinder::Own(const sp<AIBinder>& binder) {
  if (binder != nullptr) AIBinder_incStrong(binder.get());
  return binder.get();
}

RemoteBinder::~RemoteBinder() {
  Remotes& remotes = Remotes::Get();
  const std::lock_guard<std::mutex> lock(remotes.mutex);
  const auto found = remotes.entries.find(remote_.get());
  if (found != remotes.entries.end() && found->second.address == this) {
    remotes.entries.erase(found);
  }
}

LocalBinder::~LocalBinder() {
  const AIBinder_Class* type = clazz;
  if (type->on_destroy != nullptr) type->on_destroy(user_data_);
}

status_t LocalBinder::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                 uint32_t /*flags*/, TransactCallback callback) {
  const AIBinder_Class* type = clazz;
  if (!data.enforceInterface(type->descriptor.c_str())) return android::BAD_TYPE;
  AParcel in;
  AParcel out;
  status_t status = in.Unpack(data);
  if (status == android::OK) status = type->on_transact(this, code, &in, &out);
  if (status == android::OK) status = out.Pack(reply);
  if (status == android::OK && callback != nullptr) callback(*reply);
  return status;
}

AIBinder_Class* AIBinder_Class_define(const char* descriptor, AIBinder_Class_onCreate onCreate,
                                      AIBinder_Class_onDestroy onDestroy,
                                      AIBinder_Class_onTransact onTransact) {
  return new AIBinder_Class{descriptor, onCreate, onDestroy, onTransact};
}

AIBinder* AIBinder_new(const AIBinder_Class* clazz, void* args) {
  return AIBinder::Own(sp<LocalBinder>(new LocalBinder(clazz, args)));
}

void AIBinder_incStrong(AIBinder* binder) { binder->incStrong(nullptr); }
void AIBinder_decStrong(AIBinder* binder) { binder->decStrong(nullptr); }
bool AIBinder_isRemote(const AIBinder* binder) { return binder->is_remote(); }

bool AIBinder_isAlive(const AIBinder* binder) {
  return const_cast<AIBinder*>(binder)->binder()->isBinderAlive();
}

bool AIBinder_associateClass(AIBinder* binder, const AIBinder_Class* clazz) {
  if (binder == nullptr) return false;
  const AIBinder_Class* known = nullptr;
  return binder->clazz.compare_exchange_strong(known, clazz) ||
         known->descriptor == clazz->descriptor;
}

const AIBinder_Class* AIBinder_getClass(AIBinder* binder) { return binder->clazz; }
void* AIBinder_getUserData(AIBinder* binder) { return binder->user_data(); }

struct AIBinder_Weak {
  wp<AIBinder> binder;
};

AIBinder_Weak* AIBinder_Weak_new(AIBinder* binder) { return new AIBinder_Weak{binder}; }
void AIBinder_Weak_delete(AIBinder_Weak* weak) { delete weak; }
AIBinder* AIBinder_Weak_promote(AIBinder_Weak* weak) {
  return AIBinder::Own(weak->binder.promote());
}

// ---- calls

binder_status_t AIBinder_prepareTransaction(AIBinder* binder, AParcel** in) {
  if (binder == nullptr) return STATUS_UNEXPECTED_NULL;
  *in = new AParcel;
  return STATUS_OK;
}

binder_status_t AIBinder_transact(AIBinder* binder, transaction_code_t code, AParcel** in,
                                  AParcel** out, binder_flags_t flags) {
  const std::unique_ptr<AParcel> arguments(std::exchange(*in, nullptr));
  const AIBinder_Class* type = binder->clazz;
  if (type == nullptr) return STATUS_INVALID_OPERATION;
  Parcel data;
  Parcel reply;
  status_t status = data.writeInterfaceToken(type->descriptor.c_str());
  if (status == android::OK) status = arguments->Pack(&data);
  if (status == android::OK) status = binder->binder()->transact(code, data, &reply, flags);
  auto result = std::make_unique<AParcel>();
  if (status == android::OK && (flags & FLAG_ONEWAY) == 0) status = result->Unpack(reply);
  *out = result.release();
  return status;
}

pid_t AIBinder_getCallingPid() {
  const pid_t pid = bthal::rpc::CallThread::Current()->caller.pid;
  return pid < 0 ? getpid() : pid;
}

uid_t AIBinder_getCallingUid() {
  const bthal::rpc::Identity& caller = bthal::rpc::CallThread::Current()->caller;
  return caller.pid < 0 ? geteuid() : caller.uid;
}

// ---- death

struct AIBinder_DeathRecipient {
 public:
  struct Link : public IBinder::DeathRecipient {
    Link(AIBinder_DeathRecipient_onBinderDied function, void* argument, sp<IBinder> linked)
        : on_died(function), cookie(argument), binder(std::move(linked)) {}
    void binderDied(const wp<IBinder>& /*who*/) override { on_died(cookie); }

    const AIBinder_DeathRecipient_onBinderDied on_died;
    void* const cookie;
    const sp<IBinder> binder;
  };

  explicit AIBinder_DeathRecipient(AIBinder_DeathRecipient_onBinderDied function)
      : on_died(function) {}

  const AIBinder_DeathRecipient_onBinderDied on_died;
  std::mutex mutex;
  std::vector<sp<Link>> links GUARDED_BY(mutex);
};

AIBinder_DeathRecipient* AIBinder_DeathRecipient_new(
    AIBinder_DeathRecipient_onBinderDied onBinderDied) {
  return new AIBinder_DeathRecipient(onBinderDied);
}

void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient* recipient) {
  std::vector<sp<AIBinder_DeathRecipient::Link>> links;
  {
    const std::lock_guard<std::mutex> lock(recipient->mutex);
    links.swap(recipient->links);
  }
  for (const auto& link : links) link->binder->unlinkToDeath(link);
  delete recipient;
}

binder_status_t AIBinder_linkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                     void* cookie) {
  const sp<AIBinder_DeathRecipient::Link> link =
      new AIBinder_DeathRecipient::Link(recipient->on_died, cookie, binder->binder());
  const std::lock_guard<std::mutex> lock(recipient->mutex);
  const status_t status = link->binder->linkToDeath(link);
  if (status == android::OK) recipient->links.push_back(link);
  return status;
}

binder_status_t AIBinder_unlinkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                       void* cookie) {
  sp<AIBinder_DeathRecipient::Link> link;
  {
    const std::lock_guard<std::mutex> lock(recipient->mutex);
    for (auto i = recipient->links.begin(); i != recipient->links.end(); ++i) {
      if ((*i)->cookie != cookie || (*i)->binder != binder->binder()) continue;
      link = *i;
      recipient->links.erase(i);
      break;
    }
  }
  return link == nullptr ? STATUS_NAME_NOT_FOUND : link->binder->unlinkToDeath(link);
}

// ---- C++ interfaces

namespace ndk {
namespace {

// What a local object holds: its implementation.
struct Implementation {
  std::shared_ptr<ICInterface> interface;
};

}  // namespace

std::shared_ptr<ICInterface> ICInterface::asInterface(AIBinder* binder) {
  const auto* implementation = static_cast<Implementation*>(AIBinder_getUserData(binder));
  return implementation == nullptr ? nullptr : implementation->interface;
}

AIBinder_Class* ICInterface::defineClass(const char* descriptor,
                                         AIBinder_Class_onTransact onTransact) {
  return AIBinder_Class_define(
      descriptor,
      [](void* args) -> void* {
        return new Implementation{static_cast<ICInterface*>(args)->ref<ICInterface>()};
      },
      [](void* data) { delete static_cast<Implementation*>(data); }, onTransact);
}

}  // namespace ndk
