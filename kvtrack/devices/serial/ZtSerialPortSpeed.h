#pragma once
// Arbitrary line speeds through termios2. Kept apart because <asm/termbits.h>
// clashes with <termios.h>; callers include only this header.

namespace kvtrack::detail {

/// Sets input and output speed in bit/s; 0 on success, else the errno.
int setArbitrarySpeed(int fd, unsigned long speed);
/// Applies whole settings with an arbitrary speed in one TCSETS2 call; cc
/// holds the first 19 control characters. 0 on success, else the errno.
int applySettings(int fd, unsigned iflag, unsigned oflag, unsigned cflag, unsigned lflag,
                  const unsigned char* cc, unsigned long speed);
/// The output speed in bit/s, or 0 when it cannot be read.
unsigned long arbitrarySpeed(int fd);

}  // namespace kvtrack::detail
