#pragma once

#include <android/binder_parcel.h>
#include <hwbinder/Parcel.h>

// A hardware::Parcel as the C interface shows it: one of its own, or one that a call has brought.
struct AParcel {
  AParcel() : parcel(own) {}
  explicit AParcel(android::hardware::Parcel& other) : parcel(other) {}
  AParcel(const AParcel&) = delete;
  AParcel& operator=(const AParcel&) = delete;

  android::hardware::Parcel& parcel;

 private:
  android::hardware::Parcel own;
};
