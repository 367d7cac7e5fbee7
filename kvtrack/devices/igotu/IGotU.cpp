#include "kvtrack/devices/igotu/IGotU.h"

#include "kvtrack/devices/igotu/ReceiveBuffer.h"
#include "kvtrack/devices/serial/DownloadCancel.h"
#include "kvtrack/support/Log.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace kvtrack {

namespace {

constexpr uint8_t kLead = 0x93;
constexpr size_t kChunkSize = 8;
constexpr size_t kAcknowledgementSize = 3;
constexpr size_t kIdentificationSize = 10;
constexpr size_t kCountSize = 3;
constexpr uint8_t kNmeaDownload = 3;
constexpr uint8_t kNmeaNormal = 0;

Result<std::unique_ptr<HidTransport>> openUsbLogger() {
  Result<std::unique_ptr<UsbHidDevice>> device = UsbHidDevice::open(IGotU::kVendorId, IGotU::kProductId);
  if (!device) return device.status();
  return std::unique_ptr<HidTransport>(std::move(*device));
}

}  // namespace

IGotU::IGotU() : IGotU(openUsbLogger) {}

IGotU::IGotU(HidTransportOpener opener) : opener_(std::move(opener)), currentTrack_(Track::track()) {}

IGotU::~IGotU() { closeConnection(); }

Result<std::vector<UsbDevicePresence>> IGotU::connectedLoggers() {
  return findUsbDevices(kVendorId, kProductId);
}

Status IGotU::openConnection() {
  closeConnection();
  Result<std::unique_ptr<HidTransport>> transport = opener_();
  if (!transport) return transport.status();
  transport_ = std::move(*transport);
  receiver_ = std::make_unique<ReceiveBuffer>(*transport_);
  return {};
}

void IGotU::closeConnection() {
  // The reader stops before the link it reads goes.
  receiver_.reset();
  transport_.reset();
}

Result<std::span<const uint8_t>> IGotU::read(size_t count) {
  if (!isConnected()) return Status::failure("the logger is not connected");
  return receiver_->take(count, [] { return downloadsCancelled(); });
}

Result<std::span<const uint8_t>> IGotU::sendCommandWithChunk(std::span<const uint8_t> chunk,
                                                             size_t responseLength) {
  if (!isConnected()) return Status::failure("the logger is not connected");
  if (Status sent = transport_->sendOutputReport(chunk); !sent) return sent;
  // Answers that do not start with 0x93 are passed over, however many.
  for (;;) {
    Result<std::span<const uint8_t>> answer = read(responseLength);
    if (!answer || answer->front() == kLead) return answer;
  }
}

Status IGotU::sendCommand(Frame frame) {
  uint8_t sum = 0;
  for (size_t i = 0; i + 1 < frame.size(); ++i) sum = static_cast<uint8_t>(sum + frame[i]);
  frame.back() = static_cast<uint8_t>(0 - sum);
  const std::span<const uint8_t> bytes(frame);
  if (auto first = sendCommandWithChunk(bytes.first(kChunkSize), kAcknowledgementSize); !first) {
    logLine("Error sending chunk1");
    return first.status();
  }
  if (auto second = sendCommandWithChunk(bytes.last(kChunkSize), kAcknowledgementSize); !second) {
    logLine("Error sending chunk2");
    return second.status();
  }
  return {};
}

Status IGotU::sendIdentificationCommand() {
  logLine("sendIdentificationCommand");
  if (Status sent = sendCommand({0x93, 0x0A}); !sent) return sent;
  Result<std::span<const uint8_t>> reply = read(kIdentificationSize);
  if (!reply) return reply.status();
  const std::span<const uint8_t> r = *reply;
  serialNumber_ = uint32_t{r[0]} | (uint32_t{r[1]} << 8) | (uint32_t{r[2]} << 16) | (uint32_t{r[3]} << 24);
  logf("Serial number: {}", serialNumber_);
  loggerType_ = r[7] == 8 ? 3 : r[7] == 2 ? 2 : r[7] == 1 ? 1 : 0;
  logf("Logger type: {}", loggerType_);
  return {};
}

Status IGotU::sendNmeaSwitchCommand(uint8_t mode) {
  return sendCommand({0x93, 0x01, 0x01, mode});
}

Status IGotU::sendCountCommand() {
  logLine("sendCountCommand");
  if (Status sent = sendCommand({0x93, 0x0B, 0x03, 0x00, 0x1D}); !sent) return sent;
  Result<std::span<const uint8_t>> reply = read(kCountSize);
  if (!reply) return reply.status();
  trackPointCount_ = (uint64_t{(*reply)[1]} << 8) | (*reply)[2];
  logf("Trackpoint Count: {}", trackPointCount_);
  return {};
}

Result<std::span<const uint8_t>> IGotU::sendReadCommandForPosition(uint32_t position, uint16_t size) {
  const Frame frame{0x93, 0x05, 0x07,
                    static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size),
                    0x04, 0x03,
                    static_cast<uint8_t>(position >> 16), static_cast<uint8_t>(position >> 8),
                    static_cast<uint8_t>(position)};
  if (Status sent = sendCommand(frame); !sent) return sent;
  return read(size);
}

Status IGotU::readTrackData() {
  if (trackPointCount_ == 0) return {};
  // Records start at 0x1000; more than 12 blocks are never read.
  const uint64_t needed = kRecordSize * trackPointCount_;
  const uint64_t blocks = std::min((needed + kBlockSize - 1) / kBlockSize, kMaximumBlocks);
  std::vector<uint8_t> memory(blocks * kBlockSize);
  for (uint64_t i = 0; i < blocks; ++i) {
    logf("{} of {}", i, blocks);
    auto block = sendReadCommandForPosition(static_cast<uint32_t>(kBlockSize * (i + 1)), kBlockSize);
    if (!block) return block.status().prefixed(fmt::format("reading block {} of {}", i + 1, blocks));
    logf("Track data for {} received", i + 1);
    std::copy(block->begin(), block->end(), memory.begin() + static_cast<ptrdiff_t>(i * kBlockSize));
    reportProgress(i + 1, blocks, "blocks");
  }
  logLine("Creating track");
  createTrackPoints(memory, trackPointCount_);
  return {};
}

Status IGotU::download() {
  if (Status s = sendNmeaSwitchCommand(kNmeaDownload); !s) return s.prefixed("switching the logger to download mode");
  if (Status s = sendIdentificationCommand(); !s) return s.prefixed("identifying the logger");
  if (Status s = sendCountCommand(); !s) return s.prefixed("counting the records");
  if (Status s = readTrackData(); !s) return s;
  if (Status s = sendNmeaSwitchCommand(kNmeaNormal); !s) return s.prefixed("switching the logger back to normal mode");
  return {};
}

std::optional<std::vector<TrackPtr>> IGotU::importTracksFromDevice(const std::string& /*device*/,
                                                                   const Options& /*options*/) {
  currentTrack_ = Track::track();
  trackPointCount_ = 0;
  loggerType_ = 0;
  serialNumber_ = 0;
  resetInvalidPositionCount();
  lastStatus_ = openConnection();
  if (!lastStatus_) return std::vector<TrackPtr>{currentTrack_};

  lastStatus_ = download();
  closeConnection();
  if (!lastStatus_) {
    logf("i-gotU: download failed, nothing was imported: {}", lastStatus_.reason());
    currentTrack_ = Track::track();
    return std::nullopt;
  }
  return std::vector<TrackPtr>{currentTrack_};
}

bool IGotU::deleteTracksFromDevice(const std::string& /*device*/, const Options& /*options*/) {
  return true;
}

}  // namespace kvtrack
