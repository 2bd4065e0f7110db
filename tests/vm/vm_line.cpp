// vm_line HOST FAR CONTROLLER RECORD: the wire of a virtual machine's serial port. HOST is the port
// that the service opens, FAR the port at the other end of the cable, CONTROLLER the
// pseudo-terminal of a simulated controller. Bytes go both ways; the line speed that is set at HOST
// holds at CONTROLLER. A real UART at HOST gets a clock that is fast enough for 4 Mbit/s. RECORD
// takes what HOST sent.
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

int Open(const char* path, int flags) {
  const int fd = open(path, flags | O_NOCTTY | O_CLOEXEC, 0600);
  if (fd >= 0) return fd;
  std::perror(path);
  std::exit(1);
}

void SetRaw(int fd, speed_t speed) {
  termios settings{};
  tcgetattr(fd, &settings);
  cfmakeraw(&settings);
  settings.c_cflag |= CLOCAL;
  if (speed != 0) cfsetspeed(&settings, speed);
  tcsetattr(fd, TCSANOW, &settings);
}

speed_t SpeedOf(int fd) {
  termios settings{};
  return tcgetattr(fd, &settings) == 0 ? cfgetospeed(&settings) : 0;
}

void WriteAll(int fd, const char* data, ssize_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, static_cast<size_t>(size));
    if (written < 0 && errno != EINTR && errno != EAGAIN) return;
    if (written > 0) data += written, size -= written;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const int host = Open(argv[1], O_RDWR | O_NONBLOCK);  // never read: only to ask for its speed
  const int far = Open(argv[2], O_RDWR);
  const int controller = Open(argv[3], O_RDWR);
  const int record = Open(argv[4], O_WRONLY | O_CREAT | O_TRUNC);
  serial_struct uart{};
  if (ioctl(host, TIOCGSERIAL, &uart) == 0) {
    uart.baud_base = 4000000;
    ioctl(host, TIOCSSERIAL, &uart);
  }
  SetRaw(far, B4000000);
  SetRaw(controller, 0);
  std::puts("ready");
  std::fflush(stdout);

  pollfd ends[2] = {{far, POLLIN, 0}, {controller, POLLIN, 0}};
  while (poll(ends, 2, -1) > 0) {
    char bytes[4096];
    if (ends[0].revents != 0) {
      const ssize_t size = read(far, bytes, sizeof bytes);
      if (size <= 0) break;
      const speed_t speed = SpeedOf(host);
      if (speed != SpeedOf(controller)) SetRaw(controller, speed);
      WriteAll(record, bytes, size);
      WriteAll(controller, bytes, size);
    }
    if (ends[1].revents != 0) {
      const ssize_t size = read(controller, bytes, sizeof bytes);
      if (size <= 0) break;
      WriteAll(far, bytes, size);
    }
  }
}
