#pragma once
// UsbHidDevice: a USB HID device over libusb-1.0, as a HidTransport. Opening
// finds the first device with the vendor and product id, opens it, selects
// the first configuration, claims the first interface (detaching a kernel
// driver that holds it; it is given back on close) and clears a stall on the
// interrupt-in endpoint. Output reports go out as SET_REPORT control
// requests (0x21, 0x09, 0x0200); input comes from the interface's first
// endpoint (normally 0x81).
//
// Every step logs what it did or why it failed; the failure reason is also in
// the result. Move-only handles close everything in reverse order.

#include "kvtrack/devices/usb/HidTransport.h"
#include "kvtrack/support/Status.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct libusb_context;
struct libusb_device_handle;

namespace kvtrack {

/// libusb's error code in words ("access denied (insufficient permissions)");
/// unknown codes give "Unknown IOError: <hex>".
std::string usbErrorText(int code);

/// The libusb session of one device link, closed with it.
struct UsbContextDeleter {
  void operator()(libusb_context* context) const;
};
using UsbContext = std::unique_ptr<libusb_context, UsbContextDeleter>;

struct UsbHandleDeleter {
  void operator()(libusb_device_handle* handle) const;
};
using UsbDeviceHandle = std::unique_ptr<libusb_device_handle, UsbHandleDeleter>;

/// A claimed interface, released (and its kernel driver reattached) on destruction.
class ClaimedUsbInterface {
 public:
  ClaimedUsbInterface() = default;
  ClaimedUsbInterface(libusb_device_handle* handle, int number) : handle_(handle), number_(number) {}
  ClaimedUsbInterface(ClaimedUsbInterface&& other) noexcept;
  ClaimedUsbInterface& operator=(ClaimedUsbInterface&& other) noexcept;
  ClaimedUsbInterface(const ClaimedUsbInterface&) = delete;
  ClaimedUsbInterface& operator=(const ClaimedUsbInterface&) = delete;
  ~ClaimedUsbInterface();
  int number() const { return number_; }

 private:
  void release();
  libusb_device_handle* handle_ = nullptr;
  int number_ = -1;
};

/// A device with the ids on the bus, and whether this user may open it.
struct UsbDevicePresence {
  uint8_t bus = 0;
  uint8_t address = 0;
  /// Success, or why opening failed.
  Status access;
  /// Opening failed for want of permission (a udev rule or group is missing).
  bool accessDenied = false;
};

/// Every device with the vendor and product id; fails when USB itself cannot
/// be used here (no usbfs, as in most containers).
Result<std::vector<UsbDevicePresence>> findUsbDevices(uint16_t vendor, uint16_t product);

class UsbHidDevice : public HidTransport {
 public:
  /// The first device with the ids, opened and ready for reports.
  static Result<std::unique_ptr<UsbHidDevice>> open(uint16_t vendor, uint16_t product);
  ~UsbHidDevice() override;

  Status sendOutputReport(std::span<const uint8_t> report) override;
  Result<size_t> readInput(std::span<uint8_t> into, std::chrono::milliseconds timeout) override;

 private:
  UsbHidDevice(UsbContext context, UsbDeviceHandle handle, ClaimedUsbInterface interface,
               uint8_t inputEndpoint);

  UsbContext context_;
  UsbDeviceHandle handle_;
  ClaimedUsbInterface interface_;
  uint8_t inputEndpoint_;
};

}  // namespace kvtrack
