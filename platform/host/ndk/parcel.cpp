#include "ndk/parcel.h"

#include <android/binder_parcel_utils.h>

#include <cstring>
#include <memory>
#include <string>

#include "ndk/ibinder.h"
#include "ndk/status.h"

using android::sp;
using android::hardware::IBinder;

void AParcel_delete(AParcel* parcel) { delete parcel; }

int32_t AParcel_getDataPosition(const AParcel* parcel) {
  return static_cast<int32_t>(parcel->parcel.position());
}

binder_status_t AParcel_setDataPosition(const AParcel* parcel, int32_t position) {
  if (position < 0) return STATUS_BAD_VALUE;
  return parcel->parcel.setPosition(static_cast<size_t>(position));
}

binder_status_t AParcel_writeInt32(AParcel* parcel, int32_t value) {
  return parcel->parcel.writeInt32(value);
}

binder_status_t AParcel_readInt32(const AParcel* parcel, int32_t* value) {
  return parcel->parcel.readInt32(value);
}

binder_status_t AParcel_writeInt64(AParcel* parcel, int64_t value) {
  return parcel->parcel.writeInt64(value);
}

binder_status_t AParcel_readInt64(const AParcel* parcel, int64_t* value) {
  return parcel->parcel.readInt64(value);
}

binder_status_t AParcel_writeString(AParcel* parcel, const char* text, int32_t length) {
  if (text == nullptr || length < 0) return STATUS_BAD_VALUE;
  return parcel->parcel.writeCString(std::string(text, static_cast<size_t>(length)).c_str());
}

binder_status_t AParcel_readString(const AParcel* parcel, void* data,
                                   AParcel_stringAllocator allocator) {
  const char* text = parcel->parcel.readCString();
  if (text == nullptr) return STATUS_BAD_VALUE;
  const size_t length = strlen(text);
  char* buffer = nullptr;
  if (!allocator(data, static_cast<int32_t>(length), &buffer)) return STATUS_NO_MEMORY;
  memcpy(buffer, text, length + 1);
  return STATUS_OK;
}

binder_status_t AParcel_writeStrongBinder(AParcel* parcel, AIBinder* binder) {
  return parcel->parcel.writeStrongBinder(binder == nullptr ? nullptr : binder->binder());
}

binder_status_t AParcel_readStrongBinder(const AParcel* parcel, AIBinder** binder) {
  sp<IBinder> object;
  const binder_status_t status = parcel->parcel.readNullableStrongBinder(&object);
  *binder = AIBinder::Own(AIBinder::Of(object));
  if (status != STATUS_OK) return status;
  return *binder != nullptr || object == nullptr ? STATUS_OK : STATUS_BAD_TYPE;
}

binder_status_t AParcel_writeStatusHeader(AParcel* parcel, const AStatus* status) {
  const AStatus& written = status == nullptr ? AStatus::Ok() : *status;
  binder_status_t error = AParcel_writeInt32(parcel, written.exception);
  if (error != STATUS_OK || written.exception == EX_NONE) return error;
  error = AParcel_writeInt32(parcel, written.error);
  return error == STATUS_OK ? ndk::AParcel_writeString(parcel, written.message) : error;
}

binder_status_t AParcel_readStatusHeader(const AParcel* parcel, AStatus** status) {
  auto read = std::make_unique<AStatus>();
  binder_status_t error = AParcel_readInt32(parcel, &read->exception);
  if (error == STATUS_OK && read->exception != EX_NONE) {
    error = AParcel_readInt32(parcel, &read->error);
    if (error == STATUS_OK) error = ndk::AParcel_readString(parcel, &read->message);
  }
  if (error == STATUS_OK) *status = read.release();
  return error;
}
