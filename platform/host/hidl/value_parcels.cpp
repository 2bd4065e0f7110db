// Strings, handles and statuses in parcels.
#include <hidl/HidlTransportSupport.h>

namespace android::hardware {

namespace details {

status_t ParcelAccess::readString(const hidl_string& received, const Parcel& parcel, size_t parent,
                                  size_t offset) {
  auto& text = const_cast<hidl_string&>(received);
  text.mOwnsBuffer = false;  // whatever the sender says
  const size_t size = text.mSize;
  text.clear();
  const void* data = nullptr;
  const status_t status = parcel.readEmbeddedBuffer(size + 1, nullptr, parent,
                                                    offset + offsetof(hidl_string, mBuffer), &data);
  if (status != OK) return status;
  const auto* bytes = static_cast<const char*>(data);
  if (bytes[size] != '\0') return BAD_VALUE;
  text.setToExternal(bytes, size);
  return OK;
}

status_t ParcelAccess::readHandle(const hidl_handle& received, const Parcel& parcel,
                                  size_t parent) {
  auto& handle = const_cast<hidl_handle&>(received);
  handle.mOwnsHandle = false;  // whatever the sender says
  const native_handle_t* native = nullptr;
  const status_t status = parcel.readEmbeddedNativeHandle(&native, parent);
  handle.mHandle = native;
  return status;
}

}  // namespace details

status_t readEmbeddedFromParcel(const hidl_string& text, const Parcel& parcel, size_t parent,
                                size_t offset) {
  return details::ParcelAccess::readString(text, parcel, parent, offset);
}

status_t writeEmbeddedToParcel(const hidl_string& text, Parcel* parcel, size_t parent,
                               size_t offset) {
  return parcel->writeEmbeddedBuffer(text.c_str(), text.size() + 1, nullptr, parent, offset);
}

status_t readEmbeddedFromParcel(const hidl_handle& handle, const Parcel& parcel, size_t parent,
                                size_t /*offset*/) {
  return details::ParcelAccess::readHandle(handle, parcel, parent);
}

status_t writeEmbeddedToParcel(const hidl_handle& handle, Parcel* parcel, size_t parent,
                               size_t offset) {
  return parcel->writeEmbeddedNativeHandle(handle, parent, offset);
}

status_t readFromParcel(Status* status, const Parcel& parcel) {
  int32_t exception = Status::EX_NONE;
  const status_t error = parcel.readInt32(&exception);
  if (error != OK) return error;
  if (exception == Status::EX_NONE) {
    *status = Status::ok();
    return OK;
  }
  const char* message = parcel.readCString();
  if (message == nullptr) return BAD_VALUE;
  status->setException(exception, message);
  return OK;
}

status_t writeToParcel(const Status& status, Parcel* parcel) {
  const status_t error = parcel->writeInt32(status.exceptionCode());
  if (error != OK || status.isOk()) return error;
  return parcel->writeCString(status.exceptionMessage());
}

}  // namespace android::hardware
