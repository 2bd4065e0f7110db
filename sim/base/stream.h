#pragma once

#include <android-base/unique_fd.h>

#include <deque>
#include <functional>

#include "sim/base/event_loop.h"
#include "sim/wire.h"

namespace zvk {

// A non-blocking descriptor that the loop reads and writes. Messages wait in order, each for a
// write of its own, while the descriptor is not open or does not take them.
class Stream {
 public:
  struct Limits {
    size_t read_bytes;     // of one read
    size_t waiting_bytes;  // of the messages that wait
  };

  // on_bytes may call Close; its bytes live for the call. on_end is called after the other end has
  // gone and the descriptor was closed; what waits is kept then.
  Stream(EventLoop& loop, Limits limits, std::function<void(ByteView bytes)> on_bytes,
         std::function<void()> on_end);
  ~Stream() { Close(); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  void Open(::android::base::unique_fd fd);
  // Drops what waits.
  void Close();
  bool is_open() const { return fd_.ok(); }

  // Returns false when too much waits.
  bool Send(Bytes message);
  size_t waiting_bytes() const { return waiting_bytes_; }
  // Called when nothing waits any more.
  void SetOnSent(std::function<void()> on_sent) { on_sent_ = std::move(on_sent); }

  // While held it reads nothing, so that the other end has to wait. One that has gone is read to
  // its end all the same.
  void Hold(bool held);

 private:
  void CloseDescriptor();
  void OnReady(uint32_t events);
  void Read();
  void Flush();
  void ChooseEvents();

  EventLoop& loop_;
  const Limits limits_;
  const std::function<void(ByteView)> on_bytes_;
  const std::function<void()> on_end_;
  std::function<void()> on_sent_ = [] {};
  ::android::base::unique_fd fd_;
  Bytes received_;
  std::deque<Bytes> waiting_;
  size_t waiting_bytes_ = 0;
  size_t written_ = 0;  // of the first message
  bool held_ = false;
};

}  // namespace zvk
