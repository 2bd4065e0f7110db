#pragma once

#include <android/binder_status.h>

#ifdef __cplusplus
extern "C" {
#endif

struct AIBinder;
typedef struct AIBinder AIBinder;

// The body of a call or a reply. Its position can be moved, to fill in a size afterwards; it cannot
// be moved behind the last byte.
struct AParcel;
typedef struct AParcel AParcel;

void AParcel_delete(AParcel* parcel);
int32_t AParcel_getDataPosition(const AParcel* parcel);
binder_status_t AParcel_setDataPosition(const AParcel* parcel, int32_t position);

binder_status_t AParcel_writeInt32(AParcel* parcel, int32_t value);
binder_status_t AParcel_readInt32(const AParcel* parcel, int32_t* value);
binder_status_t AParcel_writeInt64(AParcel* parcel, int64_t value);
binder_status_t AParcel_readInt64(const AParcel* parcel, int64_t* value);
// Up to the first zero in text.
binder_status_t AParcel_writeString(AParcel* parcel, const char* text, int32_t length);
// Asks allocator once, for length + 1 bytes; the text is zero-terminated.
typedef bool (*AParcel_stringAllocator)(void* data, int32_t length, char** buffer);
binder_status_t AParcel_readString(const AParcel* parcel, void* data,
                                   AParcel_stringAllocator allocator);
binder_status_t AParcel_writeStrongBinder(AParcel* parcel, AIBinder* binder);
// The caller owns one reference of *binder; null is a value, too.
binder_status_t AParcel_readStrongBinder(const AParcel* parcel, AIBinder** binder);
binder_status_t AParcel_writeStatusHeader(AParcel* parcel, const AStatus* status);
binder_status_t AParcel_readStatusHeader(const AParcel* parcel, AStatus** status);

#ifdef __cplusplus
}
#endif
