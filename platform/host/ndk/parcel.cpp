#include "ndk/parcel.h"

#include <android/binder_parcel_utils.h>

#include <cstring>
#include <memory>
#include <string>

#include "ndk/ibinder.h"
#include "ndk/status.h"

using android::sp;
using android::status_t;
using android::hardware::IBinder;
using android::hardware::Parcel;

namespace {
constexpr size_t Padded(size_t size) { return (size + 3) & ~size_t{3}; }
}  // namespace

binder_status_t AParcel::Write(const void* data, size_t size) {
  const size_t end = position + Padded(size);
  if (end > INT32_MAX) return STATUS_NO_MEMORY;
  if (end > bytes.size()) bytes.resize(end);
  if (size != 0) memcpy(bytes.data() + position, data, size);
  position = end;
  return STATUS_OK;
}

binder_status_t AParcel::Read(void* data, size_t size) const {
  if (Padded(size) > bytes.size() - position) {
    memset(data, 0, size);
    return STATUS_NOT_ENOUGH_DATA;
  }
  if (size != 0) memcpy(data, bytes.data() + position, size);
  position += Padded(size);
  return STATUS_OK;
}

const char* AParcel::ReadText(size_t size) const {
  if (Padded(size + 1) > bytes.size() - position) return nullptr;
  const auto* text = reinterpret_cast<const char*>(bytes.data() + position);
  if (text[size] != '\0') return nullptr;
  position += Padded(size + 1);
  return text;
}

status_t AParcel::Pack(Parcel* parcel) const {
  status_t status = parcel->writeUint32(static_cast<uint32_t>(bytes.size()));
  if (status == android::OK) status = parcel->writeBuffer(bytes.data(), bytes.size(), nullptr);
  if (status == android::OK) status = parcel->writeUint32(static_cast<uint32_t>(binders.size()));
  for (const sp<IBinder>& binder : binders) {
    if (status == android::OK) status = parcel->writeStrongBinder(binder);
  }
  return status;
}

status_t AParcel::Unpack(const Parcel& parcel) {
  uint32_t size = 0;
  const void* data = nullptr;
  status_t status = parcel.readUint32(&size);
  if (status == android::OK) status = parcel.readBuffer(size, nullptr, &data);
  uint32_t count = 0;
  if (status == android::OK) status = parcel.readUint32(&count);
  if (status != android::OK) return status;
  const auto* from = static_cast<const uint8_t*>(data);
  bytes.assign(from, from + size);
  for (uint32_t i = 0; i < count; ++i) {
    sp<IBinder> binder;
    status = parcel.readNullableStrongBinder(&binder);
    if (status != android::OK) return status;
    binders.push_back(binder);
  }
  return android::OK;
}

void AParcel_delete(AParcel* parcel) { delete parcel; }

int32_t AParcel_getDataPosition(const AParcel* parcel) {
  return static_cast<int32_t>(parcel->position);
}

binder_status_t AParcel_setDataPosition(const AParcel* parcel, int32_t position) {
  if (position < 0 || static_cast<size_t>(position) > parcel->bytes.size()) {
    return STATUS_BAD_VALUE;
  }
  parcel->position = static_cast<size_t>(position);
  return STATUS_OK;
}

binder_status_t AParcel_writeInt32(AParcel* parcel, int32_t value) {
  return parcel->Write(&value, sizeof value);
}

binder_status_t AParcel_readInt32(const AParcel* parcel, int32_t* value) {
  return parcel->Read(value, sizeof *value);
}

binder_status_t AParcel_writeInt64(AParcel* parcel, int64_t value) {
  return parcel->Write(&value, sizeof value);
}

binder_status_t AParcel_readInt64(const AParcel* parcel, int64_t* value) {
  return parcel->Read(value, sizeof *value);
}

binder_status_t AParcel_writeString(AParcel* parcel, const char* text, int32_t length) {
  if (length < 0) return STATUS_BAD_VALUE;
  const std::string terminated(text, static_cast<size_t>(length));
  const binder_status_t status = AParcel_writeInt32(parcel, length);
  return status == STATUS_OK ? parcel->Write(terminated.c_str(), terminated.size() + 1) : status;
}

binder_status_t AParcel_readString(const AParcel* parcel, void* data,
                                   AParcel_stringAllocator allocator) {
  int32_t length = 0;
  const binder_status_t status = AParcel_readInt32(parcel, &length);
  if (status != STATUS_OK) return status;
  if (length < 0) return STATUS_UNEXPECTED_NULL;
  const char* text = parcel->ReadText(static_cast<size_t>(length));
  if (text == nullptr) return STATUS_BAD_VALUE;
  char* buffer = nullptr;
  if (!allocator(data, length, &buffer)) return STATUS_NO_MEMORY;
  memcpy(buffer, text, static_cast<size_t>(length) + 1);
  return STATUS_OK;
}

binder_status_t AParcel_writeStrongBinder(AParcel* parcel, AIBinder* binder) {
  if (binder == nullptr) return AParcel_writeInt32(parcel, -1);
  parcel->binders.push_back(binder->binder());
  return AParcel_writeInt32(parcel, static_cast<int32_t>(parcel->binders.size() - 1));
}

binder_status_t AParcel_readStrongBinder(const AParcel* parcel, AIBinder** binder) {
  *binder = nullptr;
  int32_t index = 0;
  const binder_status_t status = AParcel_readInt32(parcel, &index);
  if (status != STATUS_OK || index == -1) return status;
  if (index < 0 || static_cast<size_t>(index) >= parcel->binders.size()) return STATUS_BAD_VALUE;
  const sp<IBinder>& object = parcel->binders[static_cast<size_t>(index)];
  *binder = AIBinder::Own(AIBinder::Of(object));
  return *binder != nullptr || object == nullptr ? STATUS_OK : STATUS_BAD_TYPE;
}

binder_status_t AParcel_writeStatusHeader(AParcel* parcel, const AStatus* status) {
  const AStatus& written = status == nullptr ? AStatus::Ok() : *status;
  binder_status_t error = AParcel_writeInt32(parcel, written.exception);
  if (error != STATUS_OK || written.exception == EX_NONE) return error;
  error = AParcel_writeInt32(parcel, written.error);
  if (error != STATUS_OK) return error;
  return AParcel_writeString(parcel, written.message.data(),
                             static_cast<int32_t>(written.message.size()));
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
