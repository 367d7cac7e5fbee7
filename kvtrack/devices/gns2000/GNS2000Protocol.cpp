// GNS2000Link: the receiver's stream, one line per delivery, and the
// protocol: requests, answers and the log dump.

#include "kvtrack/devices/gns2000/GNS2000.h"
#include "kvtrack/devices/gns2000/GNS2000Link.h"
#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/support/ISODate.h"
#include "kvtrack/support/Log.h"

#include <charconv>

namespace kvtrack {

namespace {

constexpr size_t kWordsPerRecord = 4;
// The longest sentence the receiver sends is a few hundred characters; more
// without a line end is noise on the link.
constexpr size_t kLongestLine = 8192;
// Lines without "$P" in a row after which the erase request is repeated.
constexpr int64_t kEraseRepeatAfter = 11;

// A leading whole number, 0 when there is none.
int64_t integerValue(std::string_view text) {
  int64_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

}  // namespace

void GNS2000Link::sendCommand(const std::string& body) {
  const std::string line = GNS2000::sentence(body);
  if (!rfcommChannel_) {
    logf("GNS2000: no channel to send {}", body);
    return;
  }
  const auto* bytes = reinterpret_cast<const uint8_t*>(line.data());
  if (Status sent = rfcommChannel_->writeSync({bytes, line.size()}); !sent) {
    logf("GNS2000: sending {} failed: {}", body, sent.reason());
  }
}

// Asks for the firmware version; the download and erase do without it.
void GNS2000Link::requestVersionInfo() { sendCommand("PGNS,V,3"); }

void GNS2000Link::requestReadUsedLoggerMemory() {
  pmtkloxCount_ = -1;
  sendCommand("PGNS,R");
}

void GNS2000Link::requestEraseLoggerMemory() { sendCommand("PGNS,C"); }

void GNS2000Link::sendRequest() {
  if (protocolCommand_ == GNS2000::kStateEraseRequested) requestEraseLoggerMemory();
  else if (protocolCommand_ == GNS2000::kStateReadRequested) requestReadUsedLoggerMemory();
}

void GNS2000Link::rfcommChannelData(RfcommChannel& channel, std::span<const uint8_t> data) {
  Lock lock(mutex_);
  if (&channel != rfcommChannel_.get()) return;
  receivedData_.append(reinterpret_cast<const char*>(data.data()), data.size());
  readData();
}

// One line per delivery, on purpose: further complete lines wait for the next.
void GNS2000Link::readData() {
  if (receivedData_.empty()) return;
  const size_t end = receivedData_.find("\r\n");
  if (end == std::string::npos) {
    if (receivedData_.size() > kLongestLine) {
      logf("GNS2000: {} bytes without a line end dropped", receivedData_.size());
      receivedData_.clear();
    }
    return;
  }
  const std::string line = receivedData_.substr(0, end);
  if (line.starts_with("$P")) nonPResponseCounter_ = 0;
  else ++nonPResponseCounter_;

  if (const std::optional<GNS2000::Response> response = GNS2000::splitResponse(line)) {
    if (firstResponseReceived_) {
      processResponse(response->identifier, response->arguments);
    } else if (response->identifier.starts_with('$')) {
      // The link is known to carry data once the receiver's first sentence is in.
      firstResponseReceived_ = true;
      sendRequest();
    }
  }
  receivedData_.erase(0, end + 2);
  if (protocolCommand_ == GNS2000::kStateFinished) stop();
}

bool GNS2000Link::processResponse(const std::string& identifier,
                                  const std::vector<std::string>& arguments) {
  if (protocolCommand_ == GNS2000::kStateEraseRequested) {
    if (identifier == "$PMTK001") {
      protocolCommand_ = GNS2000::kStateFinished;
      return true;
    }
    // A request lost on the way: asked again on every line while the
    // receiver sends only its stream.
    if (nonPResponseCounter_ >= kEraseRepeatAfter) sendRequest();
  }
  if (identifier == "$PMTKLOX") return processPMTKLOX(arguments);
  return false;
}

bool GNS2000Link::processPMTKLOX(const std::vector<std::string>& arguments) {
  if (arguments.empty()) return false;
  if (protocolCommand_ == GNS2000::kStateDumping && arguments[0] == "2") {
    logLine("GNS2000: end of the log");
    protocolCommand_ = GNS2000::kStateFinished;
    return true;
  }
  if (arguments.size() < 2) return false;
  if (protocolCommand_ == GNS2000::kStateReadRequested && arguments[0] == "0") {
    pmtkloxCount_ = integerValue(arguments[1]);
    pmtkloxPacketCounter_ = 0;
    protocolCommand_ = GNS2000::kStateDumping;
    logf("GNS2000: the log holds {} sentences", pmtkloxCount_);
    return true;
  }
  if (protocolCommand_ != GNS2000::kStateDumping || arguments[0] != "1") return true;
  if (hooks_.progress && pmtkloxCount_ > 0) {
    const int64_t number = integerValue(arguments[1]);
    hooks_.progress(static_cast<uint64_t>(std::min(number + 1, pmtkloxCount_)),
                    static_cast<uint64_t>(pmtkloxCount_), "sentences");
  }
  for (size_t first = 2; first < arguments.size(); first += kWordsPerRecord) {
    std::string hex;
    for (size_t i = first; i < first + kWordsPerRecord && i < arguments.size(); ++i) hex += arguments[i];
    addRecord(hex);
  }
  return true;
}

void GNS2000Link::addRecord(const std::string& hex) {
  const std::optional<GNS2000::LocusRecord> record = GNS2000::decodeLocusRecord(hex);
  if (!record || record->fixType < 1 || record->fixType > 4) return;
  const double latitude = record->latitude, longitude = record->longitude;
  if (hooks_.acceptPosition && !hooks_.acceptPosition(latitude, longitude)) return;

  // Time running backwards: the logger started a new recording.
  if (previousTimestamp_ != 0 && previousTimestamp_ > record->time) createNewTrack_ = true;
  if (createNewTrack_) {
    if (currentTrack_->loadedPointCount() > 0) {
      currentTrack_ = Track::track();
      tracks_.push_back(currentTrack_);
    }
    createNewTrack_ = false;
  }
  auto point = TrackPoint::trackPointWithParent(currentTrack_.get());
  ISODate time = ISODate::isoDateWithTimeIntervalSince1970(record->time);
  time.setTimezoneOffsetInMinutes(0);
  point->setLatitude(latitude);
  point->setLongitude(longitude);
  point->setTime(time);
  point->setElevation(record->height);
  currentTrack_->addTrackPoint(point);
  previousTimestamp_ = record->time;
}

}  // namespace kvtrack
