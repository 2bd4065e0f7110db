#pragma once

#include <android/binder_parcel.h>
#include <hwbinder/Parcel.h>

#include <cstddef>
#include <cstdint>
#include <vector>

// Bytes with a movable position, and the objects beside them. Travels as one buffer of a
// hardware::Parcel, with its objects after it.
struct AParcel {
 public:
  binder_status_t Write(const void* data, size_t size);
  binder_status_t Read(void* data, size_t size) const;
  // size bytes of text and a zero; null when they are not there.
  const char* ReadText(size_t size) const;

  android::status_t Pack(android::hardware::Parcel* parcel) const;
  android::status_t Unpack(const android::hardware::Parcel& parcel);

  mutable size_t position = 0;
  std::vector<uint8_t> bytes;
  std::vector<android::sp<android::hardware::IBinder>> binders;
};
