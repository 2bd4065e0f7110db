// A peer that writes its messages by hand, to break the rules.
#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <string>
#include <vector>

namespace test {

class RawPeer {
 public:
  // Connects to the process that serves name.
  explicit RawPeer(const std::string& name);

  bool connected() const { return socket_.ok(); }
  bool Send(const std::vector<uint8_t>& message, int descriptor = -1);
  // One message; empty at the end of the connection.
  std::vector<uint8_t> Receive();
  // Whether the other side ends the connection; reads what it still sends.
  bool WaitForEnd();

  // A message of the given type; object is the receiver's, body the parcel's bytes.
  static std::vector<uint8_t> Message(uint32_t type, uint32_t object, uint32_t code,
                                      const std::vector<uint8_t>& body, uint64_t serial = 1);
  // The id of the object with that name.
  uint32_t Find(const std::string& name);

 private:
  const android::base::unique_fd socket_;
};

// The body's parts, as hardware::Parcel lays them out.
class BodyWriter {
 public:
  BodyWriter& Number(uint32_t value);
  BodyWriter& Text(const std::string& text);
  // Returns the handle for children.
  uint32_t Buffer(const std::vector<uint8_t>& data, uint32_t parent = 0xffffffff,
                  uint32_t offset = 0);
  const std::vector<uint8_t>& bytes() const { return bytes_; }

  // What a hidl_vec or hidl_string of that size looks like in a buffer.
  static std::vector<uint8_t> Vector(size_t size);

 private:
  void Align(size_t to);
  std::vector<uint8_t> bytes_;
};

}  // namespace test
