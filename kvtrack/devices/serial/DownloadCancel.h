#pragma once
// Cancelling a running download from outside the driver (Ctrl-C in the CLI,
// a cancel button in a host): every open serial port ends its current and
// next reads with code 99, so the driver stops, closes the port and returns
// nothing. Not async-signal-safe; call it from a normal thread.

namespace kvtrack {

void cancelRunningDownloads();
/// Allows downloads again after a cancel.
void resumeDownloads();
bool downloadsCancelled();

}  // namespace kvtrack
