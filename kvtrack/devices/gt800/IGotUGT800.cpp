#include "kvtrack/devices/gt800/IGotUGT800.h"

#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/support/ISODate.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <mutex>

namespace kvtrack {

namespace {

constexpr uint8_t kLead = 0x93;
constexpr size_t kCommandLength = 16;
constexpr size_t kBlockSize = 4096;
constexpr size_t kRecordSize = 32;
constexpr uint32_t kTopSector = 0x6FF;
constexpr uint8_t kDebugRecord = 0xF1;
constexpr uint8_t kFlagWaypoint = 0x04;
constexpr uint8_t kFlagInvalid = 0x10;
constexpr uint8_t kFlagTrackStart = 0x40;

constexpr const char* kAlertTitle = "i-GotU GT-800";
constexpr const char* kEraseMessage =
    "The memory has been clear succesfully. Please disconnect the logger from your Mac to "
    "perform a restart.";

std::mutex& alertMutex() {
  static std::mutex mutex;
  return mutex;
}

IGotUGT800::AlertCallback& alertCallback() {
  static IGotUGT800::AlertCallback callback;
  return callback;
}

void showAlert(const std::string& message) {
  IGotUGT800::AlertCallback callback;
  {
    std::lock_guard lock(alertMutex());
    callback = alertCallback();
  }
  if (callback) {
    callback(message);
  } else {
    logf("{}: {}", kAlertTitle, message);
  }
}

int32_t bigEndian32(const uint8_t* bytes) {
  const uint32_t value = (uint32_t{bytes[0]} << 24) | (uint32_t{bytes[1]} << 16) |
                         (uint32_t{bytes[2]} << 8) | uint32_t{bytes[3]};
  return static_cast<int32_t>(value);
}

std::string describe(const ZtSerialError& error, size_t asked) {
  std::string text;
  switch (error.code) {
    case ZtSerialErrorTimeout: text = "time-out"; break;
    case ZtSerialErrorFatal: text = "the line failed or hung up"; break;
    case ZtSerialErrorBufferFull: text = "buffer full"; break;
    case ZtSerialErrorNothingToWrite: text = "nothing to write"; break;
    case ZtSerialErrorShortWrite: text = "short write"; break;
    case ZtSerialErrorNone: text = "incomplete"; break;
    default: text = "failure"; break;
  }
  text += fmt::format(" (code {}", error.code);
  if (asked > 0) text += fmt::format(", {} of {} bytes", error.bytesRead, asked);
  if (error.posixError != 0) text += fmt::format(", {}", std::strerror(error.posixError));
  return text + ")";
}

int currentYear() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local.tm_year + 1900;
}

}  // namespace

IGotUGT800::~IGotUGT800() { closePort(); }

void IGotUGT800::setAlertCallback(AlertCallback callback) {
  std::lock_guard lock(alertMutex());
  alertCallback() = std::move(callback);
}

void IGotUGT800::setPort(std::shared_ptr<ZtSerialPort> port) {
  if (port == port_) return;
  port_ = std::move(port);
}

void IGotUGT800::resetTracks() {
  currentTrack_ = Track::track();
  tracks_.assign(1, currentTrack_);
}

bool IGotUGT800::isConnected() const { return port_ && port_->isOpen(); }

void IGotUGT800::initPort(const std::string& path) {
  if (port_ && port_->bsdPath() == path && port_->isOpen()) return;
  closePort();
  setPort(std::make_shared<ZtSerialPort>(path, path, "IOModemSerialStream"));
  if (!port_->open()) {
    logf("i-gotUGT800: could not open {}", path);
    setPort(nullptr);
    return;
  }
  port_->setSpeed(9600);
  port_->setReadTimeout(readTimeout_);
  port_->setStopBits(1);
  port_->setParityNone();
  port_->setDataBits(8);
  port_->setDSROutputFlowControl(false);
  port_->setDTRInputFlowControl(false);
  port_->setRTSInputFlowControl(false);
  port_->setCTSOutputFlowControl(false);
  port_->setCanonicalMode(false);
  port_->setLocalMode(true);
  // The logger still answers on most lines that refuse a setting; go on.
  if (!port_->commitChanges()) logf("i-gotUGT800: could not configure {}", path);
}

void IGotUGT800::closePort() {
  if (port_) port_->close();
  setPort(nullptr);
}

std::optional<ZtSerialPort::Data> IGotUGT800::read(size_t count) {
  if (!isConnected()) return std::nullopt;
  ZtSerialError error;
  std::optional<ZtSerialPort::Data> data = port_->readBytes(count, &error);
  // A short answer is as bad as none: the frame boundaries are lost.
  if (!data || data->size() < count) {
    logf("Error reading data: {}", describe(error, count));
    return std::nullopt;
  }
  return data;
}

int IGotUGT800::sendCommandWithChunk(uint8_t* command, size_t length,
                                     ZtSerialPort::Data* response, size_t responseLength) {
  if (!isConnected() || length == 0) return -1;
  uint8_t sum = 0;
  for (size_t i = 0; i + 1 < length; ++i) sum = static_cast<uint8_t>(sum + command[i]);
  command[length - 1] = static_cast<uint8_t>(0 - sum);

  ZtSerialError error;
  if (!port_->writeBytes(command, length, &error)) {
    logf("Error writing to device: {}", describe(error, 0));
    return -1;
  }
  if (responseLength == 0) return 0;
  // Answers that do not start with 0x93 are skipped, however many; each read
  // is bounded by the port's time-out.
  for (;;) {
    std::optional<ZtSerialPort::Data> answer = read(responseLength);
    if (!answer) return -1;
    if ((*answer)[0] == kLead) {
      if (response) *response = std::move(*answer);
      return 0;
    }
  }
}

bool IGotUGT800::sendNmeaSwitchCommand(uint8_t mode) {
  if (!isConnected()) return false;
  uint8_t command[kCommandLength] = {0x93, 0x01, 0x01, mode};
  ZtSerialPort::Data response;
  return sendCommandWithChunk(command, kCommandLength, &response, 3) == 0;
}

bool IGotUGT800::sendModelCommand() {
  if (!isConnected()) return false;
  logLine("sendModelCommand");
  uint8_t command[kCommandLength] = {0x93, 0x05, 0x04, 0x00, 0x03, 0x01, 0x9F};
  ZtSerialPort::Data response;
  if (sendCommandWithChunk(command, kCommandLength, &response, 6) != 0) return false;
  modelType_ = response[5] == 0x17 ? 1 : 0;
  return true;
}

bool IGotUGT800::sendCountCommand() {
  if (!isConnected()) return false;
  logLine("sendCountCommand");
  uint8_t command[kCommandLength] = {0x93, 0x0B, 0x03, 0x00, 0x1D};
  ZtSerialPort::Data response;
  if (sendCommandWithChunk(command, kCommandLength, &response, 6) != 0) return false;
  trackPointCount_ = (uint64_t{response[3] & 3u} << 16) + (uint64_t{response[4]} << 8) + response[5];
  logf("Trackpoint Count: {}", trackPointCount_);
  return true;
}

bool IGotUGT800::sendUnknownWriteCommand1() {
  if (!isConnected()) return false;
  uint8_t command[kCommandLength] = {0x93, 0x06, 0x04, 0x00, 0x00, 0x01, 0x06};
  ZtSerialPort::Data response;
  if (sendCommandWithChunk(command, kCommandLength, &response, 3) != 0) return false;
  return response[1] == 0x00 && response[2] == 0x00;
}

bool IGotUGT800::sendUnknownWriteCommand2ForPurge(uint8_t* status) {
  if (!isConnected()) return false;
  uint8_t command[kCommandLength] = {0x93, 0x05, 0x04, 0x00, 0x01, 0x01, 0x05};
  ZtSerialPort::Data response;
  if (sendCommandWithChunk(command, kCommandLength, &response, 4) != 0) return false;
  if (response[1] != 0x00 || response[2] != 0x01) return false;
  if (status) *status = response[3];
  return true;
}

bool IGotUGT800::sendWriteCommandForPurgeWithPosition(uint32_t position) {
  if (!isConnected()) return false;
  uint8_t command[kCommandLength] = {0x93,
                                     0x06,
                                     0x07,
                                     0x00,
                                     0x00,
                                     0x04,
                                     0x20,
                                     static_cast<uint8_t>(position >> 16),
                                     static_cast<uint8_t>(position >> 8),
                                     static_cast<uint8_t>(position)};
  ZtSerialPort::Data response;
  if (sendCommandWithChunk(command, kCommandLength, &response, 3) != 0) return false;
  return response[1] == 0x00 && response[2] == 0x00;
}

std::optional<ZtSerialPort::Data> IGotUGT800::sendReadCommandForPosition(uint32_t position,
                                                                         uint16_t size) {
  if (!isConnected()) return std::nullopt;
  uint8_t command[kCommandLength] = {0x93,
                                     0x05,
                                     0x07,
                                     static_cast<uint8_t>(size >> 8),
                                     static_cast<uint8_t>(size),
                                     0x04,
                                     0x03,
                                     static_cast<uint8_t>(position >> 16),
                                     static_cast<uint8_t>(position >> 8),
                                     static_cast<uint8_t>(position)};
  ZtSerialPort::Data response;
  if (sendCommandWithChunk(command, kCommandLength, &response, 3) != 0) return std::nullopt;
  return read(size);
}

bool IGotUGT800::readTrackData() {
  if (!isConnected()) return false;
  if (trackPointCount_ == 0) return true;
  const uint64_t blocks = (kRecordSize * trackPointCount_ + kBlockSize - 1) / kBlockSize;
  std::vector<uint8_t> memory(blocks * kBlockSize);
  for (uint64_t i = 0; i < blocks; ++i) {
    logf("Reading block {} of {}", i, blocks);
    reportProgress(i + 1, blocks, "blocks");
    std::optional<ZtSerialPort::Data> block =
        sendReadCommandForPosition(static_cast<uint32_t>(kBlockSize * (i + 1)), kBlockSize);
    if (!block) {
      logf("i-gotUGT800: block {} of {} could not be read", i, blocks);
      return false;
    }
    std::copy(block->begin(), block->end(), memory.begin() + static_cast<ptrdiff_t>(i * kBlockSize));
  }
  createTrackPoints(memory.data(), trackPointCount_);
  return true;
}

void IGotUGT800::createTrackPoints(const uint8_t* records, uint64_t count) {
  if (!currentTrack_) resetTracks();
  const int year = currentYear();
  const int position = year - (year / 16) * 16;
  bool newTrack = false;

  for (uint64_t i = 0; i < count; ++i) {
    const uint8_t* r = records + i * kRecordSize;
    if (r[0] == kDebugRecord) {
      // The text runs from offset 6 to a zero byte, never past the record.
      const char* text = reinterpret_cast<const char*>(r + 6);
      logf("Debug: {}", std::string(text, strnlen(text, kRecordSize - 6)));
      continue;
    }
    if ((r[0] & kFlagTrackStart) != 0 && currentTrack_->loadedPointCount() > 0) newTrack = true;

    const int cycleYear = r[1] >> 4;
    const int recordYear = year + (cycleYear - position) - (cycleYear > position ? 16 : 0);
    const int month = r[1] & 0x0F;
    const int day = r[2] >> 3;
    const int hour = ((r[2] & 7) << 2) | (r[3] >> 6);
    const int minute = r[3] & 0x3F;
    const int seconds = ((r[4] << 8) | r[5]) / 1000;
    const std::optional<ISODate> time = ISODate::isoDateWithString(fmt::format(
        "{}-{:02}-{:02}T{:02}:{:02}:{:02}", recordYear, month, day, hour, minute, seconds));

    const int qualified = r[29] & 0x0F;
    const int found = r[29] >> 4;
    if ((r[0] & kFlagInvalid) != 0 || qualified < 5 || found == 0) continue;

    const double latitude = bigEndian32(r + 12) / 10000000.0;
    const double longitude = bigEndian32(r + 16) / 10000000.0;
    // Whole metres only, truncated toward zero: 1,234.56 m is stored as 1,234 m.
    const double elevation = std::trunc(bigEndian32(r + 20) / 100.0);
    if (!acceptPosition(latitude, longitude)) continue;
    if (newTrack) {
      currentTrack_ = Track::track();
      tracks_.push_back(currentTrack_);
    }
    TrackPointPtr point = TrackPoint::trackPointWithParent(currentTrack_.get());
    point->setLatitude(latitude);
    point->setLongitude(longitude);
    point->setTime(time);
    // A button press on the logger: a named point, still a track point. The
    // name makes it count as a waypoint in the track's figures, and GPX
    // readers take a track point named "WP..." for a waypoint.
    if ((r[0] & kFlagWaypoint) != 0) point->setName("WPT");
    point->setElevation(elevation);
    currentTrack_->addTrackPoint(point);
    if (currentTrack_->loadedPointCount() == 1 && time) {
      currentTrack_->setName(time->descriptionForGui());
    }
    newTrack = false;
  }

  const int32_t offset = KvPreferences::singleton().timeZoneInMinutes().value_or(0);
  for (const TrackPtr& track : tracks_) track->setTimezoneOffset(offset);
}

std::optional<std::vector<TrackPtr>> IGotUGT800::importTracksFromDevice(const std::string& device,
                                                                        const Options& /*options*/) {
  resetTracks();
  resetInvalidPositionCount();
  trackPointCount_ = 0;
  initPort(device);
  if (!isConnected()) return std::nullopt;

  const bool read = sendNmeaSwitchCommand(3) && sendModelCommand() && sendCountCommand() &&
                    readTrackData();
  if (!read) {
    closePort();
    logf("i-gotUGT800: download from {} failed; nothing was imported", device);
    resetTracks();
    return std::nullopt;
  }
  const bool switched = sendNmeaSwitchCommand(0);
  closePort();
  if (!switched) {
    logf("i-gotUGT800: the logger at {} did not confirm the end of the download", device);
    resetTracks();
    return std::nullopt;
  }
  std::vector<TrackPtr> result = std::move(tracks_);
  resetTracks();
  return result;
}

bool IGotUGT800::purgeMemory() {
  bool foundData = false;
  for (uint32_t sector = kTopSector; sector >= 1; --sector) {
    logf("Purging block: {:x}", sector);
    if (!foundData) {
      logLine("Is block empty?");
      std::optional<ZtSerialPort::Data> head =
          sendReadCommandForPosition(sector * static_cast<uint32_t>(kBlockSize), 16);
      if (!head) return false;
      if (std::all_of(head->begin(), head->end(), [](uint8_t b) { return b == 0xFF; })) continue;
      foundData = true;
    }
    if (!sendUnknownWriteCommand1()) return false;
    sendWriteCommandForPurgeWithPosition(sector * static_cast<uint32_t>(kBlockSize));
    uint8_t status = 0xFF;
    do {
      if (!sendUnknownWriteCommand2ForPurge(&status)) return false;
    } while (status != 0);
  }
  logLine("Ready.");
  return true;
}

bool IGotUGT800::deleteTracksFromDevice(const std::string& device, const Options& /*options*/) {
  initPort(device);
  if (!isConnected()) return false;
  if (!sendNmeaSwitchCommand(3) || !sendModelCommand() || !purgeMemory()) {
    closePort();
    logf("i-gotUGT800: erasing the logger at {} failed", device);
    return false;
  }
  const bool switched = sendNmeaSwitchCommand(0);
  closePort();
  if (!switched) {
    logf("i-gotUGT800: the logger at {} did not confirm the end of the erase", device);
    return false;
  }
  showAlert(kEraseMessage);
  return true;
}



}  // namespace kvtrack
