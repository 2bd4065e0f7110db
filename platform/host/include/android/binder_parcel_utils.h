// Strings and vectors of structs in parcels.
#pragma once

#include <android/binder_interface_utils.h>
#include <android/binder_parcel.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ndk {

inline binder_status_t AParcel_writeString(AParcel* parcel, const std::string& text) {
  return ::AParcel_writeString(parcel, text.data(), static_cast<int32_t>(text.size()));
}

inline binder_status_t AParcel_readString(const AParcel* parcel, std::string* text) {
  return ::AParcel_readString(parcel, text, [](void* data, int32_t length, char** buffer) {
    auto* string = static_cast<std::string*>(data);
    string->resize(static_cast<size_t>(length));
    *buffer = string->data();
    return true;
  });
}

template <typename T>
binder_status_t AParcel_writeVector(AParcel* parcel, const std::vector<T>& vector) {
  binder_status_t status = AParcel_writeInt32(parcel, static_cast<int32_t>(vector.size()));
  for (size_t i = 0; status == STATUS_OK && i < vector.size(); ++i) {
    status = vector[i].writeToParcel(parcel);
  }
  return status;
}

// Grows as elements are there: the count that a parcel claims is not believed.
template <typename T>
binder_status_t AParcel_readVector(const AParcel* parcel, std::vector<T>* vector) {
  int32_t count = 0;
  binder_status_t status = AParcel_readInt32(parcel, &count);
  if (status == STATUS_OK && count < 0) status = STATUS_UNEXPECTED_NULL;
  vector->clear();
  for (int32_t i = 0; status == STATUS_OK && i < count; ++i) {
    status = vector->emplace_back().readFromParcel(parcel);
  }
  return status;
}

}  // namespace ndk
