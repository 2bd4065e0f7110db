#include "sim/handset/trace.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "tools/wire/packet_text.h"

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

void Trace::Line(char direction, const std::string& text) {
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start_;
  std::fprintf(file_, "%.6f %c %s\n", time.count(), direction, text.c_str());
}

void Trace::Packet(char direction, PacketType type, ByteView packet) {
  if (file_ != nullptr) Line(direction, PacketText(type, packet, kShownBytes));
}

void Trace::Note(const std::string& text) {
  if (file_ != nullptr) Line('-', text);
}

void Trace::Flush() {
  if (file_ != nullptr) std::fflush(file_);
}

}  // namespace zvk
