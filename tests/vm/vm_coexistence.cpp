// vm_coexistence NAME: a WLAN driver's character device, /dev/NAME, through the kernel's CUSE: the
// program answers what the kernel is asked (linux/fuse.h). Each line of standard input, a
// hexadecimal byte, is the event code of a notice. Prints "ready", "opened", "closed" and, for what
// is written to the device, "written HEX".
#include <fcntl.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <optional>
#include <string>

namespace {

void Say(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

class Device {
 public:
  explicit Device(std::string name) : name_(std::move(name)), fd_(open("/dev/cuse", O_RDWR)) {
    if (fd_ >= 0) return;
    std::perror("/dev/cuse");
    std::exit(1);
  }
  int fd() const { return fd_; }

  // The poll that waits is woken; the read that waits is served.
  void Notify(uint8_t code) {
    notices_.push_back({0x01, 0x00, 0x01, static_cast<char>(code)});
    if (read_) ServeRead();
    if (!poll_) return;
    const fuse_notify_poll_wakeup_out wakeup = {*poll_};
    Send(0, FUSE_NOTIFY_POLL, &wakeup, sizeof wakeup);
    poll_.reset();
  }

  // One request of the kernel's. False at its end.
  bool Serve() {
    alignas(8) char request[1 << 17];
    if (read(fd_, request, sizeof request) <= 0) return errno == EINTR || errno == EAGAIN;
    fuse_in_header header;
    std::memcpy(&header, request, sizeof header);
    const char* const body = request + sizeof header;
    switch (header.opcode) {
      case CUSE_INIT:
        Answer(header.unique, Init() + "DEVNAME=" + name_ + '\0');
        Say("ready");
        break;
      case FUSE_OPEN:
        AnswerWith(header.unique, fuse_open_out{0, FOPEN_DIRECT_IO, 0});
        Say("opened");
        break;
      case FUSE_RELEASE:
        Answer(header.unique, "");
        Say("closed");
        break;
      case FUSE_READ:
        read_ = header.unique;
        if (!notices_.empty()) ServeRead();
        break;
      case FUSE_WRITE:
        Take(header.unique, body);
        break;
      case FUSE_POLL:
        AnswerPoll(header.unique, body);
        break;
      case FUSE_INTERRUPT:  // not answered itself
        if (read_) Send(*read_, -EINTR, nullptr, 0);
        read_.reset();
        break;
      default:
        Send(header.unique, -ENOSYS, nullptr, 0);
    }
    return true;
  }

 private:
  static std::string Init() {
    cuse_init_out init{};
    init.major = FUSE_KERNEL_VERSION;
    init.minor = FUSE_KERNEL_MINOR_VERSION;
    init.max_read = init.max_write = 4096;
    return std::string(reinterpret_cast<const char*>(&init), sizeof init);
  }
  void ServeRead() {
    Answer(*read_, notices_.front());
    notices_.pop_front();
    read_.reset();
  }
  void Take(uint64_t unique, const char* body) {
    fuse_write_in write;
    std::memcpy(&write, body, sizeof write);
    std::string text = "written";
    for (uint32_t i = 0; i < write.size; ++i) {
      char byte[4];
      std::snprintf(byte, sizeof byte, " %02X", static_cast<uint8_t>(body[sizeof write + i]));
      text += byte;
    }
    AnswerWith(unique, fuse_write_out{write.size, 0});
    Say(text);
  }
  void AnswerPoll(uint64_t unique, const char* body) {
    fuse_poll_in poll;
    std::memcpy(&poll, body, sizeof poll);
    if ((poll.flags & FUSE_POLL_SCHEDULE_NOTIFY) != 0) poll_ = poll.kh;
    const unsigned ready = notices_.empty() ? POLLOUT : POLLOUT | POLLIN;
    AnswerWith(unique, fuse_poll_out{ready, 0});
  }

  template <typename Body>
  void AnswerWith(uint64_t unique, const Body& body) {
    Send(unique, 0, &body, sizeof body);
  }
  void Answer(uint64_t unique, const std::string& body) {
    Send(unique, 0, body.data(), body.size());
  }
  void Send(uint64_t unique, int32_t error, const void* body, size_t size) {
    fuse_out_header header = {static_cast<uint32_t>(sizeof(fuse_out_header) + size), error, unique};
    const iovec parts[] = {{&header, sizeof header}, {const_cast<void*>(body), size}};
    if (writev(fd_, parts, size == 0 ? 1 : 2) < 0) std::perror("answer");
  }

  const std::string name_;
  const int fd_;
  std::deque<std::string> notices_;
  std::optional<uint64_t> read_;  // the request that waits for a notice
  std::optional<uint64_t> poll_;  // whom the kernel wakes
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  Device device(argv[1]);
  pollfd ends[2] = {{device.fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
  while (poll(ends, 2, -1) > 0) {
    if (ends[0].revents != 0 && !device.Serve()) break;
    if (ends[1].revents == 0) continue;
    char line[16] = {};
    if (read(STDIN_FILENO, line, sizeof line - 1) <= 0) break;
    device.Notify(static_cast<uint8_t>(std::strtoul(line, nullptr, 16)));
  }
}
