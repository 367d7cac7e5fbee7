#pragma once
// HidTransport: the link between a USB HID logger driver and the logger. The
// driver sends output reports and takes whatever the logger sends on its
// interrupt-in endpoint; it never sees libusb. UsbHidDevice is the real link;
// tests put an emulated logger behind the same interface.
//
// sendOutputReport and readInput may be called from two threads at once (a
// driver writes on its own thread while a reader thread waits for input).
// Closing is destruction.

#include "kvtrack/support/Status.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

namespace kvtrack {

class HidTransport {
 public:
  virtual ~HidTransport() = default;

  /// One HID output report with report id 0 (SET_REPORT) carrying `report`.
  virtual Status sendOutputReport(std::span<const uint8_t> report) = 0;

  /// Bytes the device sent, stored from the start of `into`: waits at most
  /// `timeout` and answers 0 when nothing came in that time. A failure means
  /// nothing more will come (device gone, interface closed).
  virtual Result<size_t> readInput(std::span<uint8_t> into, std::chrono::milliseconds timeout) = 0;
};

/// Finds and opens the device; the driver calls it once per download.
using HidTransportOpener = std::function<Result<std::unique_ptr<HidTransport>>()>;

}  // namespace kvtrack
