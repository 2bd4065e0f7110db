#define LOG_TAG "hidl"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <hidl/HidlSupport.h>
#include <hidl/Static.h>

namespace android::hardware {

namespace details {

void logAlwaysFatal(const char* message) {
  LOG(FATAL) << message;
  abort();
}

bool debuggable() { return false; }

BnConstructorMap& getBnConstructorMap() {
  static auto* const map = new BnConstructorMap;
  return *map;
}

BsConstructorMap& getBsConstructorMap() {
  static auto* const map = new BsConstructorMap;
  return *map;
}

sp<IBinder> BnMap::getOrMake(const IBase* implementation,
                             const std::function<sp<IBinder>()>& make) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = stubs_.find(implementation);
  if (found != stubs_.end()) {
    const sp<IBinder> binder = found->second.binder.promote();
    if (binder != nullptr) return binder;
  }
  const sp<IBinder> binder = make();
  if (binder != nullptr) stubs_[implementation] = Entry{binder, binder->localBinder()};
  return binder;
}

void BnMap::eraseIfEqual(const IBase* implementation, const BHwBinder* stub) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = stubs_.find(implementation);
  if (found != stubs_.end() && found->second.stub == stub) stubs_.erase(found);
}

}  // namespace details

hidl_handle& hidl_handle::operator=(const hidl_handle& other) {
  if (this == &other) return *this;
  release();
  if (other.mHandle == nullptr) return *this;
  native_handle_t* copy = native_handle_clone(other.mHandle);
  if (copy == nullptr) details::logAlwaysFatal("Failed to clone native_handle in hidl_handle.");
  setTo(copy, true);
  return *this;
}

hidl_handle& hidl_handle::operator=(hidl_handle&& other) noexcept {
  if (this == &other) return *this;
  release();
  mHandle = other.mHandle;
  mOwnsHandle = other.mOwnsHandle;
  other.mHandle = nullptr;
  other.mOwnsHandle = false;
  return *this;
}

void hidl_handle::release() {
  if (mOwnsHandle && mHandle != nullptr) {
    auto* handle = const_cast<native_handle_t*>(getNativeHandle());
    native_handle_close(handle);
    native_handle_delete(handle);
  }
  mHandle = nullptr;
  mOwnsHandle = false;
}

void hidl_string::setToExternal(const char* data, size_t size) {
  if (size >= std::numeric_limits<uint32_t>::max()) {
    details::logAlwaysFatal("string size can't exceed 2^32 bytes.");
  }
  clear();
  mBuffer = data;
  mSize = static_cast<uint32_t>(size);
}

void hidl_string::clear() {
  if (mOwnsBuffer) delete[] c_str();
  mBuffer = "";
  mSize = 0;
  mOwnsBuffer = false;
}

void hidl_string::copy(const char* text, size_t length) {
  if (length == 0) return;
  auto* buffer = new char[length + 1];
  memcpy(buffer, text, length);
  buffer[length] = '\0';
  setToExternal(buffer, length);
  mOwnsBuffer = true;
}

void hidl_string::move(hidl_string& other) {
  if (!other.mOwnsBuffer) return copy(other.c_str(), other.size());
  mBuffer = other.mBuffer;
  mSize = other.mSize;
  mOwnsBuffer = true;
  other.mOwnsBuffer = false;
  other.clear();
}

std::string toString(const hidl_handle& handle) {
  if (handle.getNativeHandle() == nullptr) return "nullptr";
  return base::StringPrintf("handle(%d fds, %d ints)", handle->numFds, handle->numInts);
}

std::string toString(const sp<hidl_death_recipient>& recipient) {
  return recipient == nullptr ? "nullptr" : "hidl_death_recipient";
}

}  // namespace android::hardware
