#include "kvtrack/devices/bluetooth/BlueZDevice.h"

#include "kvtrack/devices/bluetooth/DescriptorChannel.h"
#include "kvtrack/support/Log.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/rfcomm.h>
#include <bluetooth/sdp.h>
#include <bluetooth/sdp_lib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kvtrack {

namespace {

Result<bdaddr_t> parseAddress(const std::string& text) {
  bdaddr_t address{};
  if (::str2ba(text.c_str(), &address) < 0 || ::bachk(text.c_str()) < 0) {
    return Status::failure("\"" + text + "\" is no Bluetooth address");
  }
  return address;
}

std::string systemReason() { return std::strerror(errno); }

// The name and RFCOMM channel of one SDP record.
BluetoothServiceRecord describeRecord(const sdp_record_t* record) {
  BluetoothServiceRecord service;
  char name[256] = {};
  if (sdp_get_service_name(record, name, sizeof name - 1) == 0) service.serviceName = name;
  sdp_list_t* protocols = nullptr;
  if (sdp_get_access_protos(record, &protocols) == 0) {
    const int channel = sdp_get_proto_port(protocols, RFCOMM_UUID);
    if (channel > 0 && channel <= 30) service.rfcommChannelID = static_cast<uint8_t>(channel);
    sdp_list_foreach(protocols, reinterpret_cast<sdp_list_func_t>(sdp_list_free), nullptr);
    sdp_list_free(protocols, nullptr);
  }
  return service;
}

}  // namespace

class BlueZDevice::SdpSession {
 public:
  explicit SdpSession(sdp_session_t* session) : session_(session) {}
  ~SdpSession() { sdp_close(session_); }
  SdpSession(const SdpSession&) = delete;
  SdpSession& operator=(const SdpSession&) = delete;
  sdp_session_t* get() const { return session_; }

  /// Opens a session with the device's SDP server; this brings up the
  /// baseband connection when there is none. The failure is the system's reason.
  static Result<std::unique_ptr<SdpSession>> open(const std::string& address) {
    Result<bdaddr_t> remote = parseAddress(address);
    if (!remote) return remote.status();
    const bdaddr_t any{};
    sdp_session_t* session = sdp_connect(&any, &*remote, SDP_RETRY_IF_BUSY);
    if (session == nullptr) return Status::failure(systemReason());
    return std::make_unique<SdpSession>(session);
  }

 private:
  sdp_session_t* session_;
};

BlueZDevice::BlueZDevice(bluez::DeviceProperties properties, RunLoop& loop)
    : properties_(std::move(properties)), loop_(loop) {}

BlueZDevice::~BlueZDevice() {
  if (query_.joinable()) query_.join();
}

bool BlueZDevice::isConnected() {
  if (session_) return true;
  const Result<bool> connected = bluez::readConnected(properties_.objectPath);
  return connected && *connected;
}

Status BlueZDevice::openConnection() {
  Result<std::unique_ptr<SdpSession>> session = SdpSession::open(properties_.address);
  if (!session) return session.status();
  session_ = std::move(*session);
  return {};
}

Status BlueZDevice::closeConnection() {
  session_.reset();
  const Result<bool> connected = bluez::readConnected(properties_.objectPath);
  if (!connected) return connected.status();
  return *connected ? bluez::disconnect(properties_.objectPath) : Status();
}

Result<std::vector<BluetoothServiceRecord>> BlueZDevice::queryServices() const {
  Result<std::unique_ptr<SdpSession>> session = SdpSession::open(properties_.address);
  if (!session) return session.status().prefixed("the service query of " + properties_.address + " failed");
  uuid_t everyRecord{};
  sdp_uuid16_create(&everyRecord, L2CAP_UUID);  // every service runs on L2CAP
  uint32_t range = 0x0000ffff;                  // all attributes
  sdp_list_t* search = sdp_list_append(nullptr, &everyRecord);
  sdp_list_t* attributes = sdp_list_append(nullptr, &range);
  sdp_list_t* records = nullptr;
  const int r = sdp_service_search_attr_req((*session)->get(), search, SDP_ATTR_REQ_RANGE,
                                            attributes, &records);
  const std::string reason = systemReason();
  sdp_list_free(search, nullptr);
  sdp_list_free(attributes, nullptr);
  if (r < 0) return Status::failure("the service query of " + properties_.address + " failed: " + reason);
  std::vector<BluetoothServiceRecord> services;
  for (sdp_list_t* item = records; item != nullptr; item = item->next) {
    auto* record = static_cast<sdp_record_t*>(item->data);
    services.push_back(describeRecord(record));
    sdp_record_free(record);
  }
  sdp_list_free(records, nullptr);
  return services;
}

Status BlueZDevice::performSDPQuery(std::function<void(const Status&)> completion) {
  if (query_.joinable()) query_.join();
  query_ = std::thread([this, completion = std::move(completion)] {
    Result<std::vector<BluetoothServiceRecord>> found = queryServices();
    if (found) {
      std::lock_guard lock(mutex_);
      services_ = std::move(*found);
    }
    loop_.post([completion, status = found.status()] { completion(status); });
  });
  return {};
}

std::vector<BluetoothServiceRecord> BlueZDevice::services() const {
  std::lock_guard lock(mutex_);
  return services_;
}

Result<std::shared_ptr<RfcommChannel>> BlueZDevice::openRFCOMMChannelSync(
    uint8_t channelID, std::weak_ptr<RfcommChannelDelegate> delegate) {
  Result<bdaddr_t> remote = parseAddress(properties_.address);
  if (!remote) return remote.status();
  UniqueFd socket(::socket(AF_BLUETOOTH, SOCK_STREAM | SOCK_CLOEXEC, BTPROTO_RFCOMM));
  if (!socket) return Status::failure("cannot make an RFCOMM socket: " + systemReason());
  sockaddr_rc address{};
  address.rc_family = AF_BLUETOOTH;
  address.rc_bdaddr = *remote;
  address.rc_channel = channelID;
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
    return Status::failure("cannot open RFCOMM channel " + std::to_string(channelID) + " of " +
                           properties_.address + ": " + systemReason());
  }
  logf("Bluetooth: RFCOMM channel {} of {} is open", channelID, properties_.address);
  Result<std::shared_ptr<DescriptorChannel>> channel =
      DescriptorChannel::start(std::move(socket), loop_, std::move(delegate));
  if (!channel) return channel.status();
  return std::shared_ptr<RfcommChannel>(std::move(*channel));
}

}  // namespace kvtrack
