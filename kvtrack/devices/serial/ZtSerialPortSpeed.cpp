// Only these two headers: <asm/termbits.h> redefines what <termios.h> declares.
#include <asm/termbits.h>
#include <sys/ioctl.h>

#include <cerrno>

#include "kvtrack/devices/serial/ZtSerialPortSpeed.h"

namespace kvtrack::detail {

int setArbitrarySpeed(int fd, unsigned long speed) {
  struct termios2 settings {};
  if (::ioctl(fd, TCGETS2, &settings) != 0) return errno;
  settings.c_cflag &= ~(CBAUD | (CBAUD << IBSHIFT));
  settings.c_cflag |= BOTHER | (BOTHER << IBSHIFT);
  settings.c_ispeed = static_cast<speed_t>(speed);
  settings.c_ospeed = static_cast<speed_t>(speed);
  if (::ioctl(fd, TCSETS2, &settings) != 0) return errno;
  // Drivers may round or refuse silently; read back what the line now runs at.
  struct termios2 check {};
  if (::ioctl(fd, TCGETS2, &check) != 0) return errno;
  return check.c_ospeed == speed ? 0 : EINVAL;
}

int applySettings(int fd, unsigned iflag, unsigned oflag, unsigned cflag, unsigned lflag,
                  const unsigned char* cc, unsigned long speed) {
  struct termios2 settings {};
  if (::ioctl(fd, TCGETS2, &settings) != 0) return errno;
  settings.c_iflag = iflag;
  settings.c_oflag = oflag;
  settings.c_lflag = lflag;
  settings.c_cflag = cflag & ~(CBAUD | (CBAUD << IBSHIFT));
  settings.c_cflag |= BOTHER | (BOTHER << IBSHIFT);
  for (unsigned i = 0; i < NCCS; ++i) settings.c_cc[i] = cc[i];
  settings.c_ispeed = static_cast<speed_t>(speed);
  settings.c_ospeed = static_cast<speed_t>(speed);
  return ::ioctl(fd, TCSETS2, &settings) == 0 ? 0 : errno;
}

unsigned long arbitrarySpeed(int fd) {
  struct termios2 settings {};
  if (::ioctl(fd, TCGETS2, &settings) != 0) return 0;
  return settings.c_ospeed;
}

}  // namespace kvtrack::detail
