#pragma once

#include <android/binder_parcel.h>
#include <android/binder_status.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t transaction_code_t;
typedef uint32_t binder_flags_t;
enum { FLAG_ONEWAY = 0x01 };
enum { FIRST_CALL_TRANSACTION = 0x00000001 };

// An object of this or another process. While any reference to a remote object is held, every
// reference to it is the same pointer.
struct AIBinder_Class;
typedef struct AIBinder_Class AIBinder_Class;
struct AIBinder_Weak;
typedef struct AIBinder_Weak AIBinder_Weak;
struct AIBinder_DeathRecipient;
typedef struct AIBinder_DeathRecipient AIBinder_DeathRecipient;

typedef void* (*AIBinder_Class_onCreate)(void* args);
typedef void (*AIBinder_Class_onDestroy)(void* userData);
typedef binder_status_t (*AIBinder_Class_onTransact)(AIBinder* binder, transaction_code_t code,
                                                     const AParcel* in, AParcel* out);
typedef void (*AIBinder_DeathRecipient_onBinderDied)(void* cookie);

// The caller owns one reference.
AIBinder* AIBinder_new(const AIBinder_Class* clazz, void* args);
void AIBinder_incStrong(AIBinder* binder);
void AIBinder_decStrong(AIBinder* binder);
bool AIBinder_isRemote(const AIBinder* binder);
bool AIBinder_isAlive(const AIBinder* binder);
// Says which interface a remote object has; the object itself is not asked. False when binder is
// null or has another interface already.
bool AIBinder_associateClass(AIBinder* binder, const AIBinder_Class* clazz);

AIBinder_Weak* AIBinder_Weak_new(AIBinder* binder);
void AIBinder_Weak_delete(AIBinder_Weak* weak);
AIBinder* AIBinder_Weak_promote(AIBinder_Weak* weak);

binder_status_t AIBinder_prepareTransaction(AIBinder* binder, AParcel** in);
// Frees *in; the caller owns *out.
binder_status_t AIBinder_transact(AIBinder* binder, transaction_code_t code, AParcel** in,
                                  AParcel** out, binder_flags_t flags);

AIBinder_DeathRecipient* AIBinder_DeathRecipient_new(
    AIBinder_DeathRecipient_onBinderDied onBinderDied);
// Unlinks it from what it is still linked to. Its function may be running.
void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient* recipient);
// STATUS_DEAD_OBJECT when the object's process has gone already: there will be no call.
binder_status_t AIBinder_linkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                     void* cookie);
binder_status_t AIBinder_unlinkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                       void* cookie);

#ifdef __cplusplus
}
#endif
