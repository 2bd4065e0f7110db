#include "ndk/ibinder.h"

#include <android-base/thread_annotations.h>
#include <android/binder_interface_utils.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "ndk/parcel.h"

using android::sp;
using android::status_t;
using android::wp;
using android::hardware::IBinder;
using android::hardware::Parcel;

namespace {

// The remote objects that are held in this process. Never destroyed.
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
  const AParcel in(const_cast<Parcel&>(data));  // which is only read
  AParcel out(*reply);
  const status_t status = type->on_transact(this, code, &in, &out);
  if (status == android::OK && callback != nullptr) callback(*reply);
  return status;
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
  const AIBinder_Class* type = binder->clazz;
  if (type == nullptr) return STATUS_INVALID_OPERATION;
  auto parcel = std::make_unique<AParcel>();
  const status_t status = parcel->parcel.writeInterfaceToken(type->descriptor.c_str());
  if (status == android::OK) *in = parcel.release();
  return status;
}

binder_status_t AIBinder_transact(AIBinder* binder, transaction_code_t code, AParcel** in,
                                  AParcel** out, binder_flags_t flags) {
  const std::unique_ptr<AParcel> arguments(std::exchange(*in, nullptr));
  auto reply = std::make_unique<AParcel>();
  const status_t status =
      binder->binder()->transact(code, arguments->parcel, &reply->parcel, flags);
  *out = reply.release();
  return status;
}

// ---- death

namespace {

// A link to the death of an object's process. It does not keep the object. It leaves the
// recipient's list when the process dies; when nobody holds the object any more, it leaves it no
// later than the recipient's next link.
struct Link : public IBinder::DeathRecipient {
  struct List {
    std::mutex mutex;
    std::vector<sp<Link>> links GUARDED_BY(mutex);
  };

  Link(AIBinder_DeathRecipient_onBinderDied function, void* argument, const sp<IBinder>& object,
       std::weak_ptr<List> list)
      : on_died(function), cookie(argument), binder(object), owner(std::move(list)) {}

  void binderDied(const wp<IBinder>& /*who*/) override {
    if (const std::shared_ptr<List> list = owner.lock(); list != nullptr) {
      const std::lock_guard<std::mutex> lock(list->mutex);
      list->links.erase(std::remove(list->links.begin(), list->links.end(), this),
                        list->links.end());
    }
    on_died(cookie);
  }

  const AIBinder_DeathRecipient_onBinderDied on_died;
  void* const cookie;
  const wp<IBinder> binder;
  const std::weak_ptr<List> owner;
};

// An object that is not held any more has no links.
status_t Unlink(const sp<Link>& link) {
  const sp<IBinder> binder = link->binder.promote();
  return binder == nullptr ? android::DEAD_OBJECT : binder->unlinkToDeath(link);
}

}  // namespace

struct AIBinder_DeathRecipient {
  explicit AIBinder_DeathRecipient(AIBinder_DeathRecipient_onBinderDied function)
      : on_died(function) {}

  const AIBinder_DeathRecipient_onBinderDied on_died;
  const std::shared_ptr<Link::List> list = std::make_shared<Link::List>();
};

AIBinder_DeathRecipient* AIBinder_DeathRecipient_new(
    AIBinder_DeathRecipient_onBinderDied onBinderDied) {
  return new AIBinder_DeathRecipient(onBinderDied);
}

void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient* recipient) {
  std::vector<sp<Link>> links;
  {
    const std::lock_guard<std::mutex> lock(recipient->list->mutex);
    links.swap(recipient->list->links);
  }
  for (const sp<Link>& link : links) Unlink(link);
  delete recipient;
}

binder_status_t AIBinder_linkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                     void* cookie) {
  const sp<IBinder> object = binder->binder();
  const sp<Link> link = new Link(recipient->on_died, cookie, object, recipient->list);
  const std::lock_guard<std::mutex> lock(recipient->list->mutex);
  std::vector<sp<Link>>& links = recipient->list->links;
  links.erase(std::remove_if(links.begin(), links.end(),
                             [](const sp<Link>& old) { return old->binder.promote() == nullptr; }),
              links.end());
  const status_t status = object->linkToDeath(link);
  if (status == android::OK) links.push_back(link);
  return status;
}

binder_status_t AIBinder_unlinkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                       void* cookie) {
  sp<Link> link;
  {
    const std::lock_guard<std::mutex> lock(recipient->list->mutex);
    std::vector<sp<Link>>& links = recipient->list->links;
    const auto found = std::find_if(links.begin(), links.end(), [&](const sp<Link>& candidate) {
      return candidate->cookie == cookie && candidate->binder == binder->binder();
    });
    if (found != links.end()) {
      link = *found;
      links.erase(found);
    }
  }
  return link == nullptr ? STATUS_NAME_NOT_FOUND : Unlink(link);
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
  const auto* implementation = static_cast<Implementation*>(binder->user_data());
  return implementation == nullptr ? nullptr : implementation->interface;
}

AIBinder_Class* ICInterface::defineClass(const char* descriptor,
                                         AIBinder_Class_onTransact onTransact) {
  return new AIBinder_Class{
      descriptor,
      [](void* args) -> void* {
        return new Implementation{static_cast<ICInterface*>(args)->ref<ICInterface>()};
      },
      [](void* data) { delete static_cast<Implementation*>(data); }, onTransact};
}

}  // namespace ndk
