// Bytes on the wire: checked little-endian reading and writing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace wire {

using Bytes = std::vector<uint8_t>;

// Bytes that belong to somebody else. Reading past the end gives 0, never a fault.
class ByteView {
 public:
  constexpr ByteView() = default;
  constexpr ByteView(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  ByteView(const Bytes& bytes) : data_(bytes.data()), size_(bytes.size()) {}
  template <size_t size>
  constexpr ByteView(const std::array<uint8_t, size>& bytes) : data_(bytes.data()), size_(size) {}
  explicit ByteView(const std::string& text)
      : data_(reinterpret_cast<const uint8_t*>(text.data())), size_(text.size()) {}

  const uint8_t* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const uint8_t* begin() const { return data_; }
  const uint8_t* end() const { return data_ + size_; }
  uint8_t operator[](size_t index) const { return index < size_ ? data_[index] : uint8_t{0}; }

  uint16_t U16(size_t offset) const { return static_cast<uint16_t>(Little(offset, 2)); }
  uint32_t U32(size_t offset) const { return static_cast<uint32_t>(Little(offset, 4)); }
  uint64_t Little(size_t offset, size_t width) const {
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i) {
      value |= static_cast<uint64_t>((*this)[offset + i]) << (8 * i);
    }
    return value;
  }

  ByteView From(size_t offset) const { return Sub(offset, size_); }
  // At most count bytes from offset on.
  ByteView Sub(size_t offset, size_t count) const {
    if (offset >= size_) return {};
    return {data_ + offset, count < size_ - offset ? count : size_ - offset};
  }
  Bytes Copy() const { return {begin(), end()}; }
  std::string Text() const { return {begin(), end()}; }

 private:
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

// Builds a packet field by field.
class Writer {
 public:
  Writer() = default;
  Writer(std::initializer_list<uint8_t> bytes) : bytes_(bytes) {}

  Writer& U8(unsigned value) { return Little(value, 1); }
  Writer& U16(unsigned value) { return Little(value, 2); }
  Writer& U24(unsigned value) { return Little(value, 3); }
  Writer& U32(uint32_t value) { return Little(value, 4); }
  Writer& U64(uint64_t value) { return Little(value, 8); }
  Writer& Little(uint64_t value, size_t width) {
    for (size_t i = 0; i < width; ++i) bytes_.push_back(static_cast<uint8_t>(value >> (8 * i)));
    return *this;
  }
  Writer& Append(ByteView view) {
    bytes_.insert(bytes_.end(), view.begin(), view.end());
    return *this;
  }
  Writer& Zeros(size_t count) {
    bytes_.resize(bytes_.size() + count);
    return *this;
  }

  operator ByteView() const { return bytes_; }
  const Bytes& bytes() const { return bytes_; }
  Bytes Done() { return std::move(bytes_); }

 private:
  Bytes bytes_;
};

}  // namespace wire
