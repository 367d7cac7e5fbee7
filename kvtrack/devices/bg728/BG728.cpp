#include "kvtrack/devices/bg728/BG728.h"

#include "kvtrack/devices/serial/ZtSerialPort.h"
#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/support/ISODate.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/NumberText.h"

#include <fmt/format.h>

#include <cctype>
#include <charconv>
#include <cstring>
#include <utility>

namespace kvtrack {

namespace {

constexpr unsigned long kSpeed = 115200;
// A read ends with a line end, or after 64 bytes of a longer line; the
// logger answers one line per request, so the driver answers it at once.
constexpr std::size_t kReadSize = 64;
constexpr std::uint8_t kLineEnd = '\n';
// Passes without a fitting answer before giving up: the check happens
// before the increment, so 130 passes in all.
constexpr int64_t kMaxWrongResponses = 129;

constexpr std::string_view kTimezoneRequest = "$BG728,0,3*3B\r\n";
constexpr std::string_view kCountRequest = "$BG728,0,16*0F\r\n";
constexpr std::string_view kDeleteRequest = "$BG728,1,18*00\r\n";

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (true) {
    const std::size_t end = text.find(separator, start);
    if (end == std::string_view::npos) {
      parts.emplace_back(text.substr(start));
      return parts;
    }
    parts.emplace_back(text.substr(start, end - start));
    start = end + 1;
  }
}

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string_view skipSpace(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) {
    text.remove_prefix(1);
  }
  return text;
}

// The logger's numbers are read leniently, as a leading number with
// anything after it ignored and 0 when there is none: "5*" or " 5" count as 5.
int64_t integerValue(std::string_view text) {
  text = skipSpace(text);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  int64_t value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  return result.ec == std::errc() ? value : 0;
}

double decimalValue(std::string_view text) {
  text = skipSpace(text);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  double value = 0.0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value,
                                      std::chars_format::fixed);
  return result.ec == std::errc() ? value : 0.0;
}

std::string_view withoutLineEnd(std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
  return text;
}

std::string describe(const ZtSerialError& error) {
  std::string text = fmt::format("{} code {}, {} bytes read", error.domain, error.code,
                                 error.bytesRead);
  if (error.posixError != 0) text += fmt::format(" ({})", std::strerror(error.posixError));
  return text;
}

}  // namespace

BG728::BG728() = default;

BG728::~BG728() { closePort(); }

std::string BG728::calculateChecksum(std::string_view text) {
  unsigned char checksum = 0;
  for (const char c : text) checksum ^= static_cast<unsigned char>(c);
  return fmt::format("{:02x}", checksum);
}

std::optional<BG728::Response> BG728::splitResponse(std::string_view line) {
  std::vector<std::string> parts = split(line, ',');
  if (parts.size() < 4) return std::nullopt;
  Response response;
  response.identifier = parts[0];
  response.commandCode = parts[1];
  response.commandId = parts[2];
  response.arguments.assign(parts.begin() + 3, parts.end());

  const std::vector<std::string> pieces = split(response.arguments.back(), '*');
  if (pieces.size() != 2) return std::nullopt;
  response.arguments.back() = pieces[0];

  // The checksum covers what lies between "$" and "*"; the line's last three
  // characters are "*" and the two digits.
  if (line.size() < 4) return std::nullopt;
  const std::string_view covered = line.substr(1, line.size() - 4);
  if (calculateChecksum(covered) != lowerCase(pieces[1])) return std::nullopt;
  return response;
}

void BG728::setPort(std::shared_ptr<ZtSerialPort> port) {
  if (port == port_) return;
  port_ = std::move(port);
}

void BG728::initPort(const std::string& path) {
  if (port_ && port_->bsdPath() == path) {
    // Keep the port already held.
  } else {
    closePort();
    auto port = std::make_shared<ZtSerialPort>(path, path, "IOModemSerialStream");
    setPort(port);
    if (!port->open()) setPort(nullptr);
  }
  if (!port_) return;
  port_->setSpeed(kSpeed);
  port_->setParity(0);
  port_->setStopBits(1);
  port_->setDataBits(8);
  port_->setReadTimeout(readTimeout_);
}

void BG728::closePort() {
  if (port_) port_->close();
  setPort(nullptr);
}

void BG728::write(std::string_view text) {
  if (port_ && port_->isOpen()) port_->writeString(text, ZtStringEncoding::ASCII);
}

void BG728::requestTimezone() {
  protocolCommand_ = kStateTimezoneRequested;
  write(kTimezoneRequest);
}

void BG728::requestTrackPointCount() {
  protocolCommand_ = kStateCountRequested;
  write(kCountRequest);
}

void BG728::requestDeleteTracks() {
  protocolCommand_ = kStateDeleteRequested;
  write(kDeleteRequest);
}

void BG728::requestTrackPoint() {
  if (trackPointCounter_ >= numberOfTrackPoints_ || !port_ || !port_->isOpen()) return;
  // The logger ignores the checksum of this request: "00" is sent for every
  // index, as the logger's own software does.
  const std::string text = fmt::format("$BG728,0,17,{}*00\r\n", trackPointCounter_);
  if (!port_->writeString(text, ZtStringEncoding::ASCII)) logf("send ERROR: {}", withoutLineEnd(text));
}

void BG728::sendRequest() {
  switch (protocolCommand_) {
    case kStateCountRequested: requestTrackPointCount(); break;
    case kStatePointsRequested: requestTrackPoint(); break;
    case kStateDeleteRequested: requestDeleteTracks(); break;
    case kStateTimezoneRequested: requestTimezone(); break;
    default: break;
  }
}

void BG728::processTimezoneResponse(const std::vector<std::string>& arguments) {
  if (arguments.empty()) return;
  timezone_ = integerValue(arguments[0]);
  requestTrackPointCount();
}

void BG728::processTrackPointCountResponse(const std::vector<std::string>& arguments) {
  if (arguments.empty()) return;
  numberOfTrackPoints_ = integerValue(arguments[0]);
  if (numberOfTrackPoints_ > 0) {
    trackPointCounter_ = 0;
    protocolCommand_ = kStatePointsRequested;
    requestTrackPoint();
  } else {
    // An empty logger is a successful download of an empty track.
    protocolCommand_ = kStateFinished;
  }
}

void BG728::processDeleteTracksResponse(const std::vector<std::string>& /*arguments*/) {
  protocolCommand_ = kStateFinished;
}

void BG728::processTrackPointResponse(const std::vector<std::string>& arguments) {
  // Coordinates that are no numbers are noise on the link, like any other
  // unfit answer.
  const bool fits = arguments.size() >= 6 && integerValue(arguments[0]) == trackPointCounter_ &&
                    arguments[1].size() == 8 && arguments[2].size() == 6 &&
                    parseFiniteNumber(arguments[3]) && parseFiniteNumber(arguments[4]);
  std::optional<ISODate> time;
  std::string timeText;
  if (fits) {
    const std::string& clock = arguments[1];  // HH:MM:SS
    const std::string& date = arguments[2];   // MMDDYY
    timeText = fmt::format("20{}-{}-{}T{}:{}:{}", date.substr(4, 2), date.substr(0, 2),
                           date.substr(2, 2), clock.substr(0, 2), clock.substr(3, 2),
                           clock.substr(6, 2));
    time = ISODate::isoDateWithString(timeText);
  }
  // A garbled time is treated like any other unfit answer: a point without a
  // time would spoil the track, and the logger usually answers right next time.
  if (!fits || !time) {
    requestTrackPoint();
    return;
  }

  const int64_t index = trackPointCounter_;
  const double latitude = decimalValue(arguments[3]), longitude = decimalValue(arguments[4]);
  // A stored position that is impossible stays impossible when asked again.
  if (acceptPosition(latitude, longitude)) {
    auto point = TrackPoint::trackPointWithParent(currentTrack_.get());
    point->setLatitude(latitude);
    point->setLongitude(longitude);
    point->setTime(time);
    point->setElevation(decimalValue(arguments[5]));
    currentTrack_->addTrackPoint(point);
    if (currentTrack_->loadedPointCount() == 1) currentTrack_->setName(time->descriptionForGui());
  }

  if (index % 50 == 0) {
    logf("BG728: Track point {} of {}: {}", index, numberOfTrackPoints_, timeText);
  }
  trackPointCounter_ = index + 1;
  reportProgress(static_cast<uint64_t>(trackPointCounter_), static_cast<uint64_t>(numberOfTrackPoints_), "points");
  if (trackPointCounter_ == numberOfTrackPoints_) {
    currentTrack_->setTimezoneOffset(static_cast<int32_t>(timezone_ * 60));
    logf("BG728: Finished with timezone: {}", timezone_);
    protocolCommand_ = kStateFinished;
    return;
  }
  requestTrackPoint();
}

void BG728::processResponse(const std::string& identifier, int32_t commandId,
                            const std::vector<std::string>& arguments) {
  if (identifier != "$BG728") {
    sendRequest();
    return;
  }
  if (protocolCommand_ == kStateCountRequested && commandId == 16) {
    wrongResponseCounter_ = 0;
    processTrackPointCountResponse(arguments);
  } else if (protocolCommand_ == kStatePointsRequested && commandId == 17) {
    wrongResponseCounter_ = 0;
    processTrackPointResponse(arguments);
  } else if (protocolCommand_ == kStateDeleteRequested && commandId == 18) {
    wrongResponseCounter_ = 0;
    processDeleteTracksResponse(arguments);
  } else if (protocolCommand_ == kStateTimezoneRequested && commandId == 3) {
    wrongResponseCounter_ = 0;
    processTimezoneResponse(arguments);
  }
  // Answers to another request (late duplicates) are dropped without a resend.
}

void BG728::readData() {
  std::string buffer;
  while (true) {
    if (!port_ || !port_->isOpen()) {
      logLine("BG728: Port has closed!");
      protocolCommand_ = kStateFailed;
      return;
    }
    ZtSerialError error;
    const std::optional<ZtSerialPort::Data> data = port_->readBytesUpToChar(kReadSize, kLineEnd, &error);
    if (error.code > 0) {
      logf("BG728: error reading data: {}", describe(error));
      // A time-out that brought bytes is a short answer, not a failure.
      if (error.code != ZtSerialErrorTimeout || !data || data->empty()) {
        protocolCommand_ = kStateFailed;
        return;
      }
    }
    if (data) buffer.append(data->begin(), data->end());

    while (!buffer.empty()) {
      const std::size_t end = buffer.find("\r\n");
      if (end == std::string::npos) break;  // the rest of the line is still coming
      const std::optional<Response> response =
          splitResponse(std::string_view(buffer).substr(0, end));
      if (response) {
        processResponse(response->identifier,
                        static_cast<int32_t>(integerValue(response->commandId)),
                        response->arguments);
      } else {
        sendRequest();
      }
      buffer.erase(0, end + 2);
    }

    if (protocolCommand_ == kStateFinished || protocolCommand_ == kStateFailed) return;
    if (wrongResponseCounter_++ >= kMaxWrongResponses) {
      logLine("BG728: too many wrong responses!");
      protocolCommand_ = kStateFailed;
      return;
    }
  }
}

std::optional<std::vector<TrackPtr>> BG728::importTracksFromDevice(const std::string& device,
                                                                   const Options& /*options*/) {
  std::lock_guard lock(exchangeMutex_);
  wrongResponseCounter_ = 0;
  resetInvalidPositionCount();
  initPort(device);
  currentTrack_ = Track::track();
  std::vector<TrackPtr> result{currentTrack_};
  requestTimezone();
  readData();
  closePort();
  currentTrack_.reset();
  if (protocolCommand_ != kStateFinished) return std::nullopt;
  return result;
}

bool BG728::deleteTracksFromDevice(const std::string& device, const Options& /*options*/) {
  std::lock_guard lock(exchangeMutex_);
  wrongResponseCounter_ = 0;
  initPort(device);
  requestDeleteTracks();
  readData();
  closePort();
  return protocolCommand_ == kStateFinished;
}


}  // namespace kvtrack
