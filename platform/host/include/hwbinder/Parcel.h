// The body of a call or a reply: one block of bytes, and beside it descriptors and objects.
#pragma once

#include <android-base/unique_fd.h>
#include <cutils/native_handle.h>
#include <utils/Errors.h>
#include <utils/StrongPointer.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "hwbinder/IBinder.h"

namespace android::hardware {

// Values lie in the block in writing order, padded to 4 bytes. A buffer (a struct, or what a
// vector or string in one refers to) is a header and its bytes, aligned to 8; its handle is the
// offset of its bytes, so that a received one is used in place: reading a child patches the pointer
// in its parent. Pointers are sent as zero. Whatever a received parcel claims is checked; a read
// that fails marks the parcel as malformed.
class Parcel {
 public:
  Parcel() = default;
  ~Parcel() { reset(); }
  Parcel(Parcel&& other) noexcept;
  Parcel& operator=(Parcel&& other) noexcept;
  Parcel(const Parcel&) = delete;
  Parcel& operator=(const Parcel&) = delete;

  status_t writeInterfaceToken(const char* interface) { return writeCString(interface); }
  bool enforceInterface(const char* interface) const;

  status_t writeInt8(int8_t value) { return writeValue(value); }
  status_t writeUint8(uint8_t value) { return writeValue(value); }
  status_t writeInt16(int16_t value) { return writeValue(value); }
  status_t writeUint16(uint16_t value) { return writeValue(value); }
  status_t writeInt32(int32_t value) { return writeValue(value); }
  status_t writeUint32(uint32_t value) { return writeValue(value); }
  status_t writeInt64(int64_t value) { return writeValue(value); }
  status_t writeUint64(uint64_t value) { return writeValue(value); }
  status_t writeBool(bool value) { return writeUint8(value ? 1 : 0); }
  status_t writeCString(const char* text);

  status_t readInt8(int8_t* value) const { return readValue(value); }
  status_t readUint8(uint8_t* value) const { return readValue(value); }
  status_t readInt16(int16_t* value) const { return readValue(value); }
  status_t readUint16(uint16_t* value) const { return readValue(value); }
  status_t readInt32(int32_t* value) const { return readValue(value); }
  status_t readUint32(uint32_t* value) const { return readValue(value); }
  status_t readInt64(int64_t* value) const { return readValue(value); }
  status_t readUint64(uint64_t* value) const { return readValue(value); }
  status_t readBool(bool* value) const;
  // Null when there is none. Lives as long as the parcel.
  const char* readCString() const;

  status_t writeBuffer(const void* data, size_t size, size_t* handle) {
    return writeEmbeddedBuffer(data, size, handle, kNoParent, 0);
  }
  status_t readBuffer(size_t size, size_t* handle, const void** data) const {
    return readEmbeddedBuffer(size, handle, kNoParent, 0, data);
  }
  // The child of the buffer parent, whose pointer to it stands at offset.
  status_t writeEmbeddedBuffer(const void* data, size_t size, size_t* handle, size_t parent,
                               size_t offset);
  status_t readEmbeddedBuffer(size_t size, size_t* handle, size_t parent, size_t offset,
                              const void** data) const;

  // Descriptors are not duplicated: they must stay open until the parcel has been sent, and those
  // of a received parcel close with it.
  status_t writeNativeHandleNoDup(const native_handle_t* handle) {
    return writeEmbeddedNativeHandle(handle, kNoParent, 0);
  }
  status_t readNullableNativeHandleNoDup(const native_handle_t** handle) const {
    return readEmbeddedNativeHandle(handle, kNoParent);
  }
  status_t writeEmbeddedNativeHandle(const native_handle_t* handle, size_t parent, size_t offset);
  status_t readEmbeddedNativeHandle(const native_handle_t** handle, size_t parent) const;

  status_t writeStrongBinder(const sp<IBinder>& binder);
  status_t readNullableStrongBinder(sp<IBinder>* binder) const;
  status_t readStrongBinder(sp<IBinder>* binder) const;

  // Where the next value is read or written. Writing before the end overwrites; a value may not
  // begin behind the last byte.
  size_t position() const { return position_; }
  status_t setPosition(size_t position) const;

  // For the transport.
  const uint8_t* bytes() const { return reinterpret_cast<const uint8_t*>(block_); }
  size_t byteCount() const { return size_; }
  const std::vector<int>& descriptors() const { return descriptors_; }
  const std::vector<sp<IBinder>>& binders() const { return binders_; }
  bool malformed() const { return malformed_; }
  // Becomes what was received: a copy of the bytes, the descriptors (which it now owns), the
  // objects. NO_MEMORY leaves the descriptors closed.
  status_t receive(const void* bytes, size_t size, std::vector<base::unique_fd> descriptors,
                   std::vector<sp<IBinder>> binders);
  void reset();

 private:
  static constexpr size_t kNoParent = 0xffffffff;

  template <typename T>
  status_t writeValue(T value) {
    return writeBytes(&value, sizeof value);
  }
  template <typename T>
  status_t readValue(T* value) const {
    return readBytes(value, sizeof *value);
  }
  status_t writeBytes(const void* data, size_t size);
  status_t readBytes(void* data, size_t size) const;
  // Room for size bytes in all.
  status_t reserve(size_t size);
  status_t clearPointer(size_t parent, size_t offset);
  status_t fail(status_t status) const;
  uint8_t* at(size_t offset) { return reinterpret_cast<uint8_t*>(block_) + offset; }

  uint64_t inline_block_[40];  // most calls fit: no allocation
  uint64_t* block_ = inline_block_;
  size_t size_ = 0;
  size_t capacity_ = sizeof inline_block_;
  std::vector<int> descriptors_;
  std::vector<base::unique_fd> received_descriptors_;  // the same ones, of a received parcel
  std::vector<sp<IBinder>> binders_;

  mutable size_t position_ = 0;
  mutable size_t next_descriptor_ = 0;
  mutable bool malformed_ = false;
  mutable std::vector<native_handle_t*> handles_read_;  // freed with the parcel
};

}  // namespace android::hardware
