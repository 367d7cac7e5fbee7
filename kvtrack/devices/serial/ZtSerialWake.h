#pragma once
// Internal to the serial port: pipes that wake a thread waiting in select or
// poll. Not part of the public interface.

#include "kvtrack/support/UniqueFd.h"

namespace kvtrack::detail {

/// A non-blocking, close-on-exec pipe; false (ends invalid) when none can be made.
bool makeWakePipe(UniqueFd& readEnd, UniqueFd& writeEnd);
/// Makes the read end readable; harmless on an invalid end.
void signalWake(const UniqueFd& writeEnd);
/// Empties the read end.
void drainWake(const UniqueFd& readEnd);

}  // namespace kvtrack::detail
