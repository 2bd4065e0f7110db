#include "sim/handset/trace.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace zvk {
namespace {

constexpr size_t kShownBytes = 64;

}  // namespace

Trace::Trace(const std::string& path) {
  if (path.empty()) return;
  file_ = std::fopen(path.c_str(), "we");
  if (file_ == nullptr) throw std::runtime_error(path + ": " + std::strerror(errno));
}

Trace::~Trace() {
  if (file_ != nullptr) std::fclose(file_);
}

const char* Trace::Name(PacketType type) {
  switch (type) {
    case PacketType::kCommand:
      return "command";
    case PacketType::kAcl:
      return "acl";
    case PacketType::kSco:
      return "sco";
    case PacketType::kEvent:
      return "event";
    case PacketType::kIso:
      return "iso";
  }
  return "?";
}

void Trace::Line(char direction, const char* what, ByteView packet) {
  if (file_ == nullptr) return;
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start_;
  std::fprintf(file_, "%.6f %c %s%s%s\n", time.count(), direction, what, packet.empty() ? "" : " ",
               Hex(packet, kShownBytes).c_str());
}

void Trace::Flush() {
  if (file_ != nullptr) std::fflush(file_);
}

}  // namespace zvk
