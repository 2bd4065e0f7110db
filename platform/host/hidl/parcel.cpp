#include <hwbinder/Parcel.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace android::hardware {
namespace {

// Above what the transport sends: a parcel may be built in full, then refused as a whole.
constexpr size_t kMaxBytes = 1 << 20;

struct BufferHeader {
  uint32_t size;
  uint32_t parent;
  uint32_t offset;
  uint32_t unused;
};

struct HandleHeader {
  uint32_t present;
  uint32_t descriptors;
  uint32_t integers;
  uint32_t parent;
};

constexpr size_t Align(size_t size, size_t to) { return (size + to - 1) & ~(to - 1); }

}  // namespace

Parcel::Parcel(Parcel&& other) noexcept { *this = std::move(other); }

Parcel& Parcel::operator=(Parcel&& other) noexcept {
  if (this == &other) return *this;
  reset();
  if (other.block_ == other.inline_block_) {
    memcpy(inline_block_, other.inline_block_, other.size_);
  } else {
    block_ = std::exchange(other.block_, other.inline_block_);
    capacity_ = std::exchange(other.capacity_, sizeof other.inline_block_);
  }
  size_ = std::exchange(other.size_, 0);
  descriptors_ = std::move(other.descriptors_);
  received_descriptors_ = std::move(other.received_descriptors_);
  binders_ = std::move(other.binders_);
  position_ = other.position_;
  next_descriptor_ = other.next_descriptor_;
  malformed_ = other.malformed_;
  handles_read_ = std::move(other.handles_read_);
  other.handles_read_.clear();
  other.reset();
  return *this;
}

void Parcel::reset() {
  for (native_handle_t* handle : handles_read_) native_handle_delete(handle);
  handles_read_.clear();
  descriptors_.clear();
  received_descriptors_.clear();
  binders_.clear();
  if (block_ != inline_block_) free(block_);
  block_ = inline_block_;
  capacity_ = sizeof inline_block_;
  size_ = 0;
  position_ = 0;
  next_descriptor_ = 0;
  malformed_ = false;
}

status_t Parcel::receive(const void* bytes, size_t size, std::vector<base::unique_fd> descriptors,
                         std::vector<sp<IBinder>> binders) {
  reset();
  received_descriptors_ = std::move(descriptors);
  for (const base::unique_fd& descriptor : received_descriptors_) {
    descriptors_.push_back(descriptor.get());
  }
  binders_ = std::move(binders);
  const status_t status = reserve(size);
  if (status != OK) {
    reset();
    return status;
  }
  if (size != 0) memcpy(block_, bytes, size);
  size_ = size;
  return OK;
}

status_t Parcel::reserve(size_t size) {
  if (size > kMaxBytes) return NO_MEMORY;
  if (size <= capacity_) return OK;
  const size_t capacity = std::max(Align(size, 8), 2 * capacity_);
  const bool is_inline = block_ == inline_block_;
  auto* block = static_cast<uint64_t*>(realloc(is_inline ? nullptr : block_, capacity));
  if (block == nullptr) return NO_MEMORY;
  if (is_inline) memcpy(block, inline_block_, size_);
  block_ = block;
  capacity_ = capacity;
  return OK;
}

status_t Parcel::setPosition(size_t position) const {
  if (position > size_) return fail(BAD_VALUE);
  position_ = position;
  return OK;
}

status_t Parcel::fail(status_t status) const {
  malformed_ = true;
  return status;
}

status_t Parcel::writeBytes(const void* data, size_t size) {
  if (size > kMaxBytes) return NO_MEMORY;
  const size_t end = position_ + Align(size, 4);
  const status_t status = reserve(end);
  if (status != OK) return status;
  if (size != 0) memcpy(at(position_), data, size);
  memset(at(position_ + size), 0, end - position_ - size);
  position_ = end;
  size_ = std::max(size_, end);
  return OK;
}

status_t Parcel::readBytes(void* data, size_t size) const {
  const size_t padded = Align(size, 4);
  if (padded > size_ - position_) {
    memset(data, 0, size);
    return fail(NOT_ENOUGH_DATA);
  }
  if (size != 0) memcpy(data, bytes() + position_, size);
  position_ += padded;
  return OK;
}

status_t Parcel::readBool(bool* value) const {
  uint8_t byte = 0;
  const status_t status = readUint8(&byte);
  *value = byte != 0;
  return status;
}

status_t Parcel::writeCString(const char* text) {
  const size_t size = strlen(text) + 1;
  const status_t status = writeUint32(static_cast<uint32_t>(size));
  return status == OK ? writeBytes(text, size) : status;
}

const char* Parcel::readCString() const {
  uint32_t size = 0;
  if (readUint32(&size) != OK) return nullptr;
  const size_t padded = Align(size, 4);
  const auto* text = reinterpret_cast<const char*>(bytes() + position_);
  if (size == 0 || padded > size_ - position_ || text[size - 1] != '\0') {
    fail(BAD_VALUE);
    return nullptr;
  }
  position_ += padded;
  return text;
}

bool Parcel::enforceInterface(const char* interface) const {
  const char* token = readCString();
  if (token != nullptr && strcmp(token, interface) == 0) return true;
  fail(BAD_TYPE);
  return false;
}

status_t Parcel::clearPointer(size_t parent, size_t offset) {
  if (parent == kNoParent) return OK;
  if (parent > size_ || offset > size_ - parent || size_ - parent - offset < sizeof(uint64_t)) {
    return BAD_INDEX;
  }
  memset(at(parent + offset), 0, sizeof(uint64_t));
  return OK;
}

status_t Parcel::writeEmbeddedBuffer(const void* data, size_t size, size_t* handle, size_t parent,
                                     size_t offset) {
  if (size > kMaxBytes || offset > kMaxBytes) return NO_MEMORY;
  const size_t start = Align(position_, 8);
  const size_t payload = start + sizeof(BufferHeader);
  const size_t end = Align(payload + size, 8);
  status_t status = reserve(end);
  if (status == OK) status = clearPointer(parent, offset);
  if (status != OK) return status;
  memset(at(position_), 0, start - position_);
  const BufferHeader header{static_cast<uint32_t>(size), static_cast<uint32_t>(parent),
                            static_cast<uint32_t>(offset), 0};
  memcpy(at(start), &header, sizeof header);
  if (size != 0) memcpy(at(payload), data, size);
  memset(at(payload + size), 0, end - payload - size);
  position_ = end;
  size_ = std::max(size_, end);
  if (handle != nullptr) *handle = payload;
  return OK;
}

status_t Parcel::readEmbeddedBuffer(size_t size, size_t* handle, size_t parent, size_t offset,
                                    const void** data) const {
  *data = nullptr;
  const size_t start = Align(position_, 8);
  const size_t payload = start + sizeof(BufferHeader);
  if (payload > size_) return fail(NOT_ENOUGH_DATA);
  BufferHeader header;
  memcpy(&header, bytes() + start, sizeof header);
  if (header.size != size || header.parent != static_cast<uint32_t>(parent) ||
      header.offset != offset || Align(size, 8) > size_ - payload) {
    return fail(BAD_VALUE);
  }
  position_ = payload + Align(size, 8);
  if (handle != nullptr) *handle = payload;
  *data = bytes() + payload;
  return OK;
}

status_t Parcel::writeEmbeddedNativeHandle(const native_handle_t* handle, size_t parent,
                                           size_t offset) {
  HandleHeader header{0, 0, 0, static_cast<uint32_t>(parent)};
  if (handle != nullptr) {
    header.present = 1;
    header.descriptors = static_cast<uint32_t>(handle->numFds);
    header.integers = static_cast<uint32_t>(handle->numInts);
  }
  status_t status = clearPointer(parent, offset);
  if (status == OK) status = writeBytes(&header, sizeof header);
  if (status != OK || handle == nullptr) return status;
  const int* integers = handle->data + handle->numFds;
  descriptors_.insert(descriptors_.end(), handle->data, integers);
  return writeBytes(integers, header.integers * sizeof(int));
}

status_t Parcel::readEmbeddedNativeHandle(const native_handle_t** out, size_t parent) const {
  *out = nullptr;
  HandleHeader header;
  const status_t status = readBytes(&header, sizeof header);
  if (status != OK) return status;
  if (header.parent != static_cast<uint32_t>(parent)) return fail(BAD_VALUE);
  if (header.present == 0) return OK;
  if (header.descriptors > descriptors_.size() - next_descriptor_ ||
      header.integers > (size_ - position_) / sizeof(int)) {
    return fail(BAD_VALUE);
  }
  native_handle_t* handle =
      native_handle_create(static_cast<int>(header.descriptors), static_cast<int>(header.integers));
  if (handle == nullptr) return fail(BAD_VALUE);
  handles_read_.push_back(handle);
  for (uint32_t i = 0; i < header.descriptors; ++i) {
    handle->data[i] = descriptors_[next_descriptor_++];
  }
  *out = handle;
  return readBytes(handle->data + header.descriptors, header.integers * sizeof(int));
}

status_t Parcel::writeStrongBinder(const sp<IBinder>& binder) {
  if (binder == nullptr) return writeInt32(-1);
  binders_.push_back(binder);
  return writeInt32(static_cast<int32_t>(binders_.size() - 1));
}

status_t Parcel::readNullableStrongBinder(sp<IBinder>* binder) const {
  *binder = nullptr;
  int32_t index = 0;
  const status_t status = readInt32(&index);
  if (status != OK || index == -1) return status;
  if (index < 0 || static_cast<size_t>(index) >= binders_.size()) return fail(BAD_INDEX);
  *binder = binders_[static_cast<size_t>(index)];
  return OK;
}

status_t Parcel::readStrongBinder(sp<IBinder>* binder) const {
  const status_t status = readNullableStrongBinder(binder);
  return status == OK && *binder == nullptr ? status_t{UNEXPECTED_NULL} : status;
}

}  // namespace android::hardware
