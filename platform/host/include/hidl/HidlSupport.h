// The value types of HIDL. Their layouts are fixed (generated code asserts sizes and offsets) and
// they can refer to memory that they do not own, as they do inside a received parcel.
#pragma once

#include <cutils/native_handle.h>
#include <hidl/HidlInternal.h>
#include <sched.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace android::hidl::base::V1_0 {
struct IBase;
}

// The kernel's name, used by generated stubs; the C library has the other one only.
#ifndef SCHED_NORMAL
#define SCHED_NORMAL SCHED_OTHER
#endif

#ifndef UNLIKELY
#define UNLIKELY(x) __builtin_expect(!!(x), 0)
#endif

namespace android::hardware {

namespace details {

// Specialised by every generated types.h. In clang the specialisations of a constexpr variable
// template have external linkage unless the primary template has not; g++ wants no namespace here.
#ifdef __clang__
namespace {
#endif
template <typename T, typename = std::enable_if_t<std::is_enum_v<T>>>
constexpr std::array<T, 0> hidl_enum_values{};
#ifdef __clang__
}
#endif

}  // namespace details

template <typename T>
using hidl_bitfield = std::underlying_type_t<T>;

// Called once, on a thread of the runtime, when the process that holds an object has gone.
struct hidl_death_recipient : public virtual RefBase {
  virtual void serviceDied(uint64_t cookie, const wp<::android::hidl::base::V1_0::IBase>& who) = 0;
};

// A native_handle_t that it may own. Copying duplicates the descriptors.
class hidl_handle {
 public:
  hidl_handle() = default;
  hidl_handle(const native_handle_t* handle) : mHandle(handle) {}  // NOLINT: not owned
  hidl_handle(const hidl_handle& other) { *this = other; }
  hidl_handle(hidl_handle&& other) noexcept { *this = std::move(other); }
  ~hidl_handle() { release(); }

  hidl_handle& operator=(const hidl_handle& other);
  hidl_handle& operator=(hidl_handle&& other) noexcept;
  hidl_handle& operator=(const native_handle_t* handle) {
    release();
    mHandle = handle;
    return *this;
  }

  void setTo(native_handle_t* handle, bool shouldOwn = false) {
    release();
    mHandle = handle;
    mOwnsHandle = shouldOwn;
  }

  const native_handle_t* operator->() const { return mHandle; }
  operator const native_handle_t*() const { return mHandle; }  // NOLINT
  const native_handle_t* getNativeHandle() const { return mHandle; }

 private:
  friend struct details::ParcelAccess;
  void release();

  details::hidl_pointer<const native_handle_t> mHandle __attribute__((aligned(8)));
  bool mOwnsHandle __attribute__((aligned(8))) = false;
};

// A zero-terminated string of known length.
class hidl_string {
 public:
  hidl_string() = default;
  hidl_string(const char* text)
      : hidl_string(text, text == nullptr ? 0 : strlen(text)) {}  // NOLINT
  hidl_string(const char* text, size_t length) { copy(text, length); }
  hidl_string(const std::string& text) : hidl_string(text.data(), text.size()) {}  // NOLINT
  template <typename Iterator,
            typename = typename std::iterator_traits<Iterator>::iterator_category>
  hidl_string(Iterator first, Iterator last) : hidl_string(std::string(first, last)) {}
  hidl_string(const hidl_string& other) : hidl_string(other.c_str(), other.size()) {}
  hidl_string(hidl_string&& other) noexcept { move(other); }
  ~hidl_string() { clear(); }

  hidl_string& operator=(const hidl_string& other) {
    if (this != &other) *this = hidl_string(other);
    return *this;
  }
  hidl_string& operator=(hidl_string&& other) noexcept {
    if (this == &other) return *this;
    clear();
    move(other);
    return *this;
  }
  hidl_string& operator=(const char* text) { return *this = hidl_string(text); }
  hidl_string& operator=(const std::string& text) { return *this = hidl_string(text); }

  // Refers to data[0..size], whose last byte is 0 and which must outlive this string.
  void setToExternal(const char* data, size_t size);
  void clear();

  const char* c_str() const { return mBuffer; }
  size_t size() const { return mSize; }
  bool empty() const { return mSize == 0; }
  operator std::string() const { return std::string(c_str(), size()); }  // NOLINT

 private:
  friend struct details::ParcelAccess;
  void copy(const char* text, size_t length);
  void move(hidl_string& other);

  details::hidl_pointer<const char> mBuffer = details::hidl_pointer<const char>("");
  uint32_t mSize = 0;
  bool mOwnsBuffer = false;
};

inline bool operator==(const hidl_string& a, const hidl_string& b) {
  return a.size() == b.size() && memcmp(a.c_str(), b.c_str(), a.size()) == 0;
}
inline bool operator!=(const hidl_string& a, const hidl_string& b) { return !(a == b); }
inline bool operator<(const hidl_string& a, const hidl_string& b) {
  return strcmp(a.c_str(), b.c_str()) < 0;
}
inline bool operator==(const hidl_string& a, const char* b) { return strcmp(a.c_str(), b) == 0; }
inline bool operator!=(const hidl_string& a, const char* b) { return !(a == b); }
inline bool operator==(const char* a, const hidl_string& b) { return b == a; }
inline bool operator!=(const char* a, const hidl_string& b) { return !(b == a); }
inline std::ostream& operator<<(std::ostream& out, const hidl_string& text) {
  return out.write(text.c_str(), static_cast<std::streamsize>(text.size()));
}

// An array of variable length. New elements of a type without a constructor (bytes above all) are
// not cleared: hidl_vec(n) and a growing resize() leave them to the caller to fill.
template <typename T>
class hidl_vec {
 public:
  using value_type = T;
  using iterator = T*;
  using const_iterator = const T*;

  hidl_vec() = default;
  hidl_vec(size_t size) { allocate(size); }  // NOLINT: as on the handset
  hidl_vec(const hidl_vec& other) { assign(other.begin(), other.size()); }
  hidl_vec(hidl_vec&& other) noexcept { take(other); }
  hidl_vec(std::initializer_list<T> list) { assign(list.begin(), list.size()); }
  hidl_vec(const std::vector<T>& other) { assign(other.begin(), other.size()); }  // NOLINT
  template <
      typename Iterator,
      typename = std::enable_if_t<std::is_convertible_v<
          typename std::iterator_traits<Iterator>::iterator_category, std::input_iterator_tag>>>
  hidl_vec(Iterator first, Iterator last) {
    assign(first, static_cast<size_t>(std::distance(first, last)));
  }
  ~hidl_vec() { release(); }

  hidl_vec& operator=(const hidl_vec& other) {
    if (this != &other) *this = hidl_vec(other);
    return *this;
  }
  hidl_vec& operator=(hidl_vec&& other) noexcept {
    if (this == &other) return *this;
    release();
    take(other);
    return *this;
  }
  hidl_vec& operator=(std::initializer_list<T> list) { return *this = hidl_vec(list); }
  hidl_vec& operator=(const std::vector<T>& other) { return *this = hidl_vec(other); }

  // Refers to data, which must outlive this vector; owned memory must come from new T[].
  void setToExternal(T* data, size_t size, bool shouldOwn = false) {
    release();
    mBuffer = data;
    mSize = checked(size);
    mOwnsBuffer = shouldOwn;
  }

  // Keeps the elements that fit. Owned bytes shrink in place.
  void resize(size_t size) {
    if (size == mSize) return;
    if (std::is_trivially_copyable_v<T> && mOwnsBuffer && size != 0 && size < mSize) {
      mSize = static_cast<uint32_t>(size);
      return;
    }
    hidl_vec resized(size);
    std::move(begin(), begin() + std::min<size_t>(size, mSize), resized.begin());
    *this = std::move(resized);
  }

  T* data() { return mBuffer; }
  const T* data() const { return mBuffer; }
  size_t size() const { return mSize; }
  bool empty() const { return mSize == 0; }
  T& operator[](size_t index) { return data()[index]; }
  const T& operator[](size_t index) const { return data()[index]; }
  iterator begin() { return data(); }
  iterator end() { return data() + mSize; }
  const_iterator begin() const { return data(); }
  const_iterator end() const { return data() + mSize; }
  // The index of value, size() when it is not there.
  size_t find(const T& value) const {
    return static_cast<size_t>(std::find(begin(), end(), value) - begin());
  }
  bool contains(const T& value) const { return find(value) != mSize; }
  operator std::vector<T>() const { return std::vector<T>(begin(), end()); }  // NOLINT

 private:
  friend struct details::ParcelAccess;

  static uint32_t checked(size_t size) {
    if (size > std::numeric_limits<uint32_t>::max()) {
      details::logAlwaysFatal("hidl_vec can't hold more than 2^32 elements.");
    }
    return static_cast<uint32_t>(size);
  }
  void allocate(size_t size) {
    mSize = checked(size);
    mBuffer = size == 0 ? nullptr : new T[size];
    mOwnsBuffer = size != 0;
  }
  template <typename Iterator>
  void assign(Iterator first, size_t size) {
    allocate(size);
    std::copy_n(first, size, data());
  }
  void take(hidl_vec& other) {
    mBuffer = other.mBuffer;
    mSize = other.mSize;
    mOwnsBuffer = other.mOwnsBuffer;
    other.forget();
  }
  void forget() {
    mBuffer = nullptr;
    mSize = 0;
    mOwnsBuffer = false;
  }
  void release() {
    if (mOwnsBuffer) delete[] data();
    forget();
  }

  details::hidl_pointer<T> mBuffer;
  uint32_t mSize = 0;
  bool mOwnsBuffer = false;
};

template <typename T>
bool operator==(const hidl_vec<T>& a, const hidl_vec<T>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end());
}
template <typename T>
bool operator!=(const hidl_vec<T>& a, const hidl_vec<T>& b) {
  return !(a == b);
}

// An array of fixed size; one dimension is what the interfaces use.
template <typename T, size_t Size>
class hidl_array {
 public:
  hidl_array() = default;
  hidl_array(const T (&source)[Size]) { *this = +source; }  // NOLINT
  hidl_array(const T* source) { *this = source; }           // NOLINT: elementCount() of them
  hidl_array(const std::array<T, Size>& source) : hidl_array(source.data()) {}  // NOLINT
  hidl_array& operator=(const T* source) {
    std::copy_n(source, Size, mBuffer);
    return *this;
  }
  operator std::array<T, Size>() const {  // NOLINT
    std::array<T, Size> result;
    std::copy_n(mBuffer, Size, result.begin());
    return result;
  }

  T* data() { return mBuffer; }
  const T* data() const { return mBuffer; }
  T& operator[](size_t index) { return mBuffer[index]; }
  const T& operator[](size_t index) const { return mBuffer[index]; }
  static constexpr size_t size() { return Size; }
  static constexpr size_t elementCount() { return Size; }

 private:
  T mBuffer[Size];
};

template <typename T, size_t Size>
bool operator==(const hidl_array<T, Size>& a, const hidl_array<T, Size>& b) {
  return std::equal(a.data(), a.data() + Size, b.data());
}
template <typename T, size_t Size>
bool operator!=(const hidl_array<T, Size>& a, const hidl_array<T, Size>& b) {
  return !(a == b);
}

// A block of shared memory: no interface carries one. Generated code asserts the size.
struct hidl_memory {
  uint64_t unused[5];
};

// Text forms. A byte vector reads "[3]{1, 2, 3}".

template <typename T>
std::enable_if_t<std::is_arithmetic_v<T>, std::string> toString(T value) {
  if constexpr (std::is_same_v<T, bool>) {
    return value ? "true" : "false";
  } else {
    return std::to_string(value);
  }
}
inline std::string toString(const void* pointer) {
  return details::toHexString(reinterpret_cast<uintptr_t>(pointer));
}
inline std::string toString(const hidl_string& text) { return '"' + std::string(text) + '"'; }
std::string toString(const hidl_handle& handle);
std::string toString(const sp<hidl_death_recipient>& recipient);
template <typename T>
std::string toString(const hidl_vec<T>& vec);
template <typename T, size_t Size>
std::string toString(const hidl_array<T, Size>& array);

namespace details {

template <typename T>
std::string listToString(const T* elements, size_t count) {
  using ::android::hardware::toString;
  std::string text = "{";
  for (size_t i = 0; i < count; ++i) {
    if (i != 0) text += ", ";
    text += toString(elements[i]);
  }
  return text + "}";
}

}  // namespace details

template <typename T>
std::string toString(const hidl_vec<T>& vec) {
  return "[" + std::to_string(vec.size()) + "]" + details::listToString(vec.data(), vec.size());
}
template <typename T, size_t Size>
std::string toString(const hidl_array<T, Size>& array) {
  return "[" + std::to_string(Size) + "]" + details::listToString(array.data(), Size);
}

}  // namespace android::hardware
