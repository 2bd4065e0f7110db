#include "sim/base/stream.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>

namespace zvk {
namespace {

constexpr int kReadsPerTurn = 16;  // then other descriptors have their turn

}  // namespace

Stream::Stream(EventLoop& loop, Limits limits, std::function<void(ByteView bytes)> on_bytes,
               std::function<void()> on_end)
    : loop_(loop),
      limits_(limits),
      on_bytes_(std::move(on_bytes)),
      on_end_(std::move(on_end)),
      received_(limits.read_bytes) {}

void Stream::Open(::android::base::unique_fd fd) {
  CloseDescriptor();
  fd_ = std::move(fd);
  held_ = false;
  loop_.Watch(fd_.get(), EPOLLIN, [this](uint32_t events) { OnReady(events); });
  Flush();
}

void Stream::CloseDescriptor() {
  if (fd_.ok()) loop_.Unwatch(fd_.get());
  fd_.reset();
  written_ = 0;
}

void Stream::Close() {
  CloseDescriptor();
  waiting_.clear();
  waiting_bytes_ = 0;
}

bool Stream::Send(Bytes message) {
  if (waiting_bytes_ + message.size() > limits_.waiting_bytes) return false;
  waiting_bytes_ += message.size();
  waiting_.push_back(std::move(message));
  if (is_open() && waiting_.size() == 1) Flush();
  return true;
}

void Stream::Hold(bool held) {
  held_ = held;
  if (is_open()) ChooseEvents();
}

void Stream::ChooseEvents() {
  loop_.Change(fd_.get(), (held_ ? 0u : EPOLLIN) | (waiting_.empty() ? 0u : EPOLLOUT));
}

void Stream::OnReady(uint32_t events) {
  if ((events & (EPOLLHUP | EPOLLERR)) != 0) held_ = false;
  if ((events & EPOLLOUT) != 0) Flush();
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) Read();
}

void Stream::Read() {
  for (int turn = 0; turn < kReadsPerTurn && is_open() && !held_; ++turn) {
    const ssize_t count = read(fd_.get(), received_.data(), received_.size());
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) {
      CloseDescriptor();
      on_end_();
      return;
    }
    on_bytes_(ByteView(received_).Sub(0, static_cast<size_t>(count)));
  }
}

// A message that cannot be written is lost; the next Read tells whether the other end has gone.
void Stream::Flush() {
  const bool had_some = !waiting_.empty();
  while (!waiting_.empty()) {
    const Bytes& message = waiting_.front();
    const ssize_t count = write(fd_.get(), message.data() + written_, message.size() - written_);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) break;
    written_ = count < 0 ? message.size() : written_ + static_cast<size_t>(count);
    if (written_ < message.size()) continue;
    waiting_bytes_ -= message.size();
    waiting_.pop_front();
    written_ = 0;
  }
  ChooseEvents();
  if (had_some && waiting_.empty()) on_sent_();
}

}  // namespace zvk
