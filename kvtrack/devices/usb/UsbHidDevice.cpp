#include "kvtrack/devices/usb/UsbHidDevice.h"

#include "kvtrack/support/Log.h"

#include <libusb.h>

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <utility>
#include <vector>

namespace kvtrack {

namespace {

// A report that the device does not take within this time is lost; the
// caller hears of it instead of hanging.
constexpr unsigned kControlTimeoutMs = 5000;
constexpr uint8_t kSetReportRequestType = 0x21;  // class, interface, host to device
constexpr uint8_t kSetReport = 0x09;
constexpr uint16_t kOutputReportZero = 0x0200;
constexpr uint8_t kDefaultInputEndpoint = 0x81;

struct DeviceListDeleter {
  void operator()(libusb_device** list) const { libusb_free_device_list(list, 1); }
};
using DeviceList = std::unique_ptr<libusb_device*, DeviceListDeleter>;

struct ConfigDeleter {
  void operator()(libusb_config_descriptor* config) const { libusb_free_config_descriptor(config); }
};
using ConfigDescriptor = std::unique_ptr<libusb_config_descriptor, ConfigDeleter>;

Result<UsbContext> makeContext() {
  libusb_context* raw = nullptr;
  const int rc = libusb_init(&raw);
  if (rc != 0) return Status::failure("USB cannot be used here: " + usbErrorText(rc));
  return UsbContext(raw);
}

// The devices with the ids, in the order libusb lists them. The list keeps
// them referenced while it lives.
std::vector<libusb_device*> matchingDevices(libusb_context* context, DeviceList& list,
                                            uint16_t vendor, uint16_t product, Status& status) {
  libusb_device** raw = nullptr;
  const ssize_t count = libusb_get_device_list(context, &raw);
  if (count < 0) {
    status = Status::failure("cannot list USB devices: " + usbErrorText(static_cast<int>(count)));
    return {};
  }
  list.reset(raw);
  std::vector<libusb_device*> found;
  for (ssize_t i = 0; i < count; ++i) {
    libusb_device_descriptor descriptor{};
    if (libusb_get_device_descriptor(raw[i], &descriptor) != 0) continue;
    if (descriptor.idVendor == vendor && descriptor.idProduct == product) found.push_back(raw[i]);
  }
  return found;
}

const char* transferTypeName(uint8_t attributes) {
  switch (attributes & LIBUSB_TRANSFER_TYPE_MASK) {
    case LIBUSB_TRANSFER_TYPE_CONTROL: return "control";
    case LIBUSB_TRANSFER_TYPE_ISOCHRONOUS: return "isoc";
    case LIBUSB_TRANSFER_TYPE_BULK: return "bulk";
    case LIBUSB_TRANSFER_TYPE_INTERRUPT: return "interrupt";
    default: return "???";
  }
}

// Logs the endpoints of the interface; answers the first input endpoint.
uint8_t describeEndpoints(const libusb_interface_descriptor& interface) {
  logf("Interface has {} endpoints", interface.bNumEndpoints);
  uint8_t input = 0;
  for (int i = 0; i < interface.bNumEndpoints; ++i) {
    const libusb_endpoint_descriptor& endpoint = interface.endpoint[i];
    const bool in = (endpoint.bEndpointAddress & LIBUSB_ENDPOINT_IN) != 0;
    logf("PipeRef {}: direction {}, transfer type {}, maxPacketSize {}", i + 1, in ? "in" : "out",
         transferTypeName(endpoint.bmAttributes), endpoint.wMaxPacketSize);
    if (in && input == 0) input = endpoint.bEndpointAddress;
  }
  return input != 0 ? input : kDefaultInputEndpoint;
}

// Selects the device's first configuration unless it is active already. A
// kernel driver holding an interface refuses the change (busy): the active
// configuration is kept then, as a device opened by someone else is used.
Result<ConfigDescriptor> selectConfiguration(libusb_device* device, libusb_device_handle* handle) {
  libusb_config_descriptor* raw = nullptr;
  int rc = libusb_get_config_descriptor(device, 0, &raw);
  if (rc != 0) {
    logf("Could not set active configuration (error: {})", usbErrorText(rc));
    return Status::failure("cannot read the USB configuration: " + usbErrorText(rc));
  }
  ConfigDescriptor config(raw);
  int active = -1;
  if (libusb_get_configuration(handle, &active) != 0 || active != config->bConfigurationValue) {
    rc = libusb_set_configuration(handle, config->bConfigurationValue);
    if (rc != 0 && rc != LIBUSB_ERROR_BUSY) {
      logf("Could not set active configuration (error: {})", usbErrorText(rc));
      return Status::failure("cannot configure the USB device: " + usbErrorText(rc));
    }
  }
  logLine("Connection opened");
  return config;
}

Result<ClaimedUsbInterface> claimFirstInterface(libusb_device_handle* handle,
                                                const libusb_config_descriptor& config) {
  if (config.bNumInterfaces == 0 || config.interface[0].num_altsetting == 0) {
    logf("Could not find interface (error: {})", usbErrorText(LIBUSB_ERROR_NOT_FOUND));
    return Status::failure("the USB device has no interface");
  }
  const int number = config.interface[0].altsetting[0].bInterfaceNumber;
  // Not every platform can detach kernel drivers; claiming tells.
  libusb_set_auto_detach_kernel_driver(handle, 1);
  const int rc = libusb_claim_interface(handle, number);
  if (rc != 0) {
    logf("Could not open interface (error: {})", usbErrorText(rc));
    return Status::failure("cannot claim the USB interface: " + usbErrorText(rc));
  }
  logLine("Interface opened");
  return ClaimedUsbInterface(handle, number);
}

}  // namespace

std::string usbErrorText(int code) {
  switch (code) {
    case LIBUSB_SUCCESS: return "success";
    case LIBUSB_ERROR_IO: return "input/output error";
    case LIBUSB_ERROR_INVALID_PARAM: return "invalid parameter";
    case LIBUSB_ERROR_ACCESS: return "access denied (insufficient permissions)";
    case LIBUSB_ERROR_NO_DEVICE: return "no such device (it may have been disconnected)";
    case LIBUSB_ERROR_NOT_FOUND: return "entity not found";
    case LIBUSB_ERROR_BUSY: return "resource busy";
    case LIBUSB_ERROR_TIMEOUT: return "operation timed out";
    case LIBUSB_ERROR_OVERFLOW: return "overflow";
    case LIBUSB_ERROR_PIPE: return "pipe error (endpoint stalled)";
    case LIBUSB_ERROR_INTERRUPTED: return "system call interrupted";
    case LIBUSB_ERROR_NO_MEM: return "insufficient memory";
    case LIBUSB_ERROR_NOT_SUPPORTED: return "operation not supported or unimplemented on this platform";
    case LIBUSB_ERROR_OTHER: return "other error";
    default: return fmt::format("Unknown IOError: {:x}", static_cast<unsigned>(code));
  }
}

void UsbContextDeleter::operator()(libusb_context* context) const { libusb_exit(context); }

void UsbHandleDeleter::operator()(libusb_device_handle* handle) const { libusb_close(handle); }

ClaimedUsbInterface::ClaimedUsbInterface(ClaimedUsbInterface&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)), number_(std::exchange(other.number_, -1)) {}

ClaimedUsbInterface& ClaimedUsbInterface::operator=(ClaimedUsbInterface&& other) noexcept {
  if (this != &other) {
    release();
    handle_ = std::exchange(other.handle_, nullptr);
    number_ = std::exchange(other.number_, -1);
  }
  return *this;
}

ClaimedUsbInterface::~ClaimedUsbInterface() { release(); }

void ClaimedUsbInterface::release() {
  if (handle_ != nullptr) libusb_release_interface(handle_, number_);
  handle_ = nullptr;
}

Result<std::vector<UsbDevicePresence>> findUsbDevices(uint16_t vendor, uint16_t product) {
  Result<UsbContext> context = makeContext();
  if (!context) return context.status();
  DeviceList list;
  Status listed;
  const std::vector<libusb_device*> devices =
      matchingDevices(context->get(), list, vendor, product, listed);
  if (!listed) return listed;
  std::vector<UsbDevicePresence> found;
  for (libusb_device* device : devices) {
    UsbDevicePresence presence;
    presence.bus = libusb_get_bus_number(device);
    presence.address = libusb_get_device_address(device);
    libusb_device_handle* handle = nullptr;
    const int rc = libusb_open(device, &handle);
    if (rc == 0) {
      libusb_close(handle);
    } else {
      presence.access = Status::failure(usbErrorText(rc));
      presence.accessDenied = rc == LIBUSB_ERROR_ACCESS;
    }
    found.push_back(std::move(presence));
  }
  return found;
}

Result<std::unique_ptr<UsbHidDevice>> UsbHidDevice::open(uint16_t vendor, uint16_t product) {
  Result<UsbContext> context = makeContext();
  if (!context) {
    logf("Device not found ({})", context.reason());
    return context.status();
  }
  DeviceList list;
  Status listed;
  const std::vector<libusb_device*> devices =
      matchingDevices(context->get(), list, vendor, product, listed);
  if (!listed || devices.empty()) {
    logLine("Device not found");
    return listed ? Status::failure(fmt::format("no USB device {:04x}:{:04x} is connected", vendor,
                                                product))
                  : listed;
  }
  logLine("Device found.");
  libusb_device_handle* raw = nullptr;
  if (const int rc = libusb_open(devices.front(), &raw); rc != 0) {
    logf("Could not open device (error: {})", usbErrorText(rc));
    return Status::failure("cannot open the USB device: " + usbErrorText(rc));
  }
  UsbDeviceHandle handle(raw);
  Result<ConfigDescriptor> config = selectConfiguration(devices.front(), handle.get());
  if (!config) return config.status();
  Result<ClaimedUsbInterface> interface = claimFirstInterface(handle.get(), **config);
  if (!interface) return interface.status();
  const uint8_t input = describeEndpoints((*config)->interface[0].altsetting[0]);
  if (const int rc = libusb_clear_halt(handle.get(), input); rc != 0) {
    logf("Could not clear the stall of endpoint {:#x} (error: {})", input, usbErrorText(rc));
  }
  return std::unique_ptr<UsbHidDevice>(new UsbHidDevice(
      std::move(*context), std::move(handle), std::move(*interface), input));
}

UsbHidDevice::UsbHidDevice(UsbContext context, UsbDeviceHandle handle,
                           ClaimedUsbInterface interface, uint8_t inputEndpoint)
    : context_(std::move(context)),
      handle_(std::move(handle)),
      interface_(std::move(interface)),
      inputEndpoint_(inputEndpoint) {}

// Members go in reverse order: interface released, device closed, session ended.
UsbHidDevice::~UsbHidDevice() = default;

Status UsbHidDevice::sendOutputReport(std::span<const uint8_t> report) {
  std::vector<uint8_t> data(report.begin(), report.end());
  const int rc = libusb_control_transfer(
      handle_.get(), kSetReportRequestType, kSetReport, kOutputReportZero,
      static_cast<uint16_t>(interface_.number()), data.data(), static_cast<uint16_t>(data.size()),
      kControlTimeoutMs);
  if (rc < 0) {
    logf("Error writing to device: {}", usbErrorText(rc));
    return Status::failure("cannot send to the USB device: " + usbErrorText(rc));
  }
  return {};
}

Result<size_t> UsbHidDevice::readInput(std::span<uint8_t> into, std::chrono::milliseconds timeout) {
  int transferred = 0;
  const int length = static_cast<int>(std::min<size_t>(into.size(), INT_MAX));
  const int rc = libusb_interrupt_transfer(handle_.get(), inputEndpoint_, into.data(), length,
                                           &transferred, static_cast<unsigned>(timeout.count()));
  // A time-out may still have brought part of the transfer.
  if (rc == 0 || rc == LIBUSB_ERROR_TIMEOUT || rc == LIBUSB_ERROR_INTERRUPTED) {
    return static_cast<size_t>(transferred);
  }
  return Status::failure("cannot read from the USB device: " + usbErrorText(rc));
}

}  // namespace kvtrack
