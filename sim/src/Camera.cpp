#include "Camera.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>

namespace tqsim {

namespace {

constexpr size_t kMemorySize = 0x10000;
constexpr size_t kMemoryAnswerOffset = 3;   // short-form read and file queries answer from byte 3
constexpr size_t kRegisterValueOffset = 5;  // long-form register read answers at 5..8
// The long register read carries six data bytes, the memory read four; the
// camera tells them apart by the report length (id, code and data).
constexpr size_t kMemoryReadLength = 6;

std::array<uint8_t, 20> sha1Of(const std::vector<uint8_t>& data) {
  std::array<uint8_t, 20> digest{};
  unsigned int length = 0;
  // EVP_Digest only fails on allocation; a zero digest then shows in tests.
  EVP_Digest(data.data(), data.size(), digest.data(), &length, EVP_sha1(), nullptr);
  return digest;
}

uint16_t address16(const uint8_t* report) { return static_cast<uint16_t>(report[3] | (report[4] << 8)); }

// Whether the answer faults reach this command's answer.
bool faultsHit(const HidFaults& faults, uint8_t command) {
  return faults.onlyCommand < 0 || faults.onlyCommand == command;
}

}  // namespace

Camera::Camera(CameraId id, CameraConfig config) : id_(id), config_(std::move(config)) {
  registers_ = config_.registers;
  rebuildMemoryLocked();
  rehashLocked();
}

CameraConfig Camera::config() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return config_;
}

void Camera::modify(const std::function<void(CameraConfig&)>& fn) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto oldRegisters = config_.registers;
  const auto oldMemory = config_.memory;
  const auto oldXml = config_.xmlFile;
  fn(config_);
  if (config_.registers != oldRegisters) {
    // Only registers whose configured value changed are reset; values written
    // through the node stay otherwise.
    for (const auto& [address, value] : config_.registers) {
      auto old = oldRegisters.find(address);
      if (old == oldRegisters.end() || old->second != value) registers_[address] = value;
    }
  }
  if (config_.memory != oldMemory) rebuildMemoryLocked();
  if (config_.xmlFile != oldXml) rehashLocked();
}

Camera::VideoRunState Camera::videoRunState() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return {config_.video.freeRun, config_.videoFaults};
}

Camera::NodeNumbers Camera::nodeNumbers() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return {config_.hidrawNumber, config_.videoNumber, config_.metadataVideoNumber};
}

std::string Camera::hidrawPath() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return "/dev/hidraw" + std::to_string(config_.hidrawNumber);
}

std::string Camera::capturePath() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return "/dev/video" + std::to_string(config_.videoNumber);
}

std::string Camera::metadataPath() const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (config_.metadataVideoNumber < 0) return {};
  return "/dev/video" + std::to_string(config_.metadataVideoNumber);
}

bool Camera::isCaptureNode(const char* path) const { return path != nullptr && capturePath() == path; }

bool Camera::isMetadataNode(const char* path) const {
  if (path == nullptr) return false;
  const std::string metadata = metadataPath();
  return !metadata.empty() && metadata == path;
}

std::vector<uint8_t> Camera::answerHeader(uint8_t command, uint8_t status) const {
  const HidFaults& faults = config_.hidFaults;
  const bool hit = faultsHit(faults, command);
  std::vector<uint8_t> report(kInputReportSize, 0);
  report[0] = 1;
  report[1] = hit && faults.wrongEcho >= 0 ? static_cast<uint8_t>(faults.wrongEcho) : command;
  report[2] = hit && faults.status != 0 ? faults.status : status;
  return report;
}

std::vector<Answer> Camera::handle(const uint8_t* report, size_t length) {
  std::lock_guard<std::mutex> lock(mutex_);
  received_.emplace_back(report, report + length);
  reportArrived_.notify_all();

  // Only report 1 carries commands; anything else is taken and ignored.
  if (length < 2 || report[0] != 1) return {};

  // A shorter report than a command needs reads as zero data bytes, as the
  // device would see a zero-padded report.
  uint8_t padded[kInputReportSize] = {};
  std::memcpy(padded, report, std::min(length, sizeof padded));
  const uint8_t command = padded[1];
  if (config_.hidFaults.noAnswer && faultsHit(config_.hidFaults, command)) return {};

  std::vector<uint8_t> answer;
  switch (command) {
    case kCmdRead: {
      const uint16_t address = address16(padded);
      answer = answerHeader(command, 0);
      if (answer[2] != 0) break;
      if (length <= kMemoryReadLength) {
        std::memcpy(answer.data() + kMemoryAnswerOffset, memory_.data() + address,
                    std::min(kInputReportSize - kMemoryAnswerOffset, kMemorySize - address));
      } else {
        auto it = registers_.find(address);
        const uint32_t value = it == registers_.end() ? 0 : it->second;
        for (int i = 0; i < 4; ++i) answer[kRegisterValueOffset + i] = static_cast<uint8_t>(value >> (8 * i));
      }
      break;
    }
    case kCmdWrite: {
      answer = answerHeader(command, 0);
      if (answer[2] != 0) break;
      const uint32_t value =
          padded[5] | (padded[6] << 8) | (padded[7] << 16) | (static_cast<uint32_t>(padded[8]) << 24);
      writeRegisterLocked(address16(padded), value);
      break;
    }
    case kCmdFileQuery: {
      const uint8_t sub = padded[2];
      if (sub == kFileQuerySize) {
        answer = answerHeader(command, 0);
        if (answer[2] != 0) break;
        const auto size = static_cast<uint32_t>(config_.xmlFile.size());
        answer[3] = static_cast<uint8_t>(size >> 24);
        answer[4] = static_cast<uint8_t>(size >> 16);
        answer[5] = static_cast<uint8_t>(size >> 8);
        answer[6] = static_cast<uint8_t>(size);
      } else if (sub == kFileQuerySha1) {
        answer = answerHeader(command, 0);
        if (answer[2] != 0) break;
        std::memcpy(answer.data() + kMemoryAnswerOffset, xmlSha1_.data(), xmlSha1_.size());
      } else {
        answer = answerHeader(command, kStatusBadArgument);
      }
      break;
    }
    case kCmdChunk: {
      const uint32_t chunk = padded[3] | (padded[4] << 8);
      const size_t chunks = (config_.xmlFile.size() + kFeatureReportSize - 1) / kFeatureReportSize;
      if (chunk >= chunks) {
        answer = answerHeader(command, kStatusInvalidChunkId);
      } else {
        answer = answerHeader(command, 0);
        if (answer[2] == 0) chunkIndex_ = chunk;
      }
      break;
    }
    default:
      answer = answerHeader(command, kStatusInvalidCmdId);
      break;
  }
  const uint32_t lateMs = faultsHit(config_.hidFaults, command) ? config_.hidFaults.lateAnswerMs : 0;
  return {Answer{std::move(answer), std::chrono::milliseconds(lateMs)}};
}

bool Camera::featureRead(std::array<uint8_t, kFeatureReportSize>& out) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (config_.hidFaults.featureFails) return false;
  out.fill(0);
  const size_t begin = static_cast<size_t>(chunkIndex_) * kFeatureReportSize;
  if (begin < config_.xmlFile.size()) {
    const size_t count = std::min(kFeatureReportSize, config_.xmlFile.size() - begin);
    std::memcpy(out.data(), config_.xmlFile.data() + begin, count);
  }
  return true;
}

std::vector<uint8_t> Camera::eventReport(const std::vector<uint8_t>& data) {
  std::vector<uint8_t> report(kInputReportSize, 0);
  report[0] = 2;
  std::copy_n(data.begin(), std::min(data.size(), kInputReportSize - 1), report.begin() + 1);
  return report;
}

std::vector<std::vector<uint8_t>> Camera::receivedReports() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

void Camera::clearReceivedReports() {
  std::lock_guard<std::mutex> lock(mutex_);
  received_.clear();
}

bool Camera::waitForReports(size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return reportArrived_.wait_for(lock, timeout, [&] { return received_.size() >= count; });
}

std::vector<uint8_t> Camera::xmlFile() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return config_.xmlFile;
}

std::array<uint8_t, 20> Camera::xmlSha1() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return xmlSha1_;
}

uint32_t Camera::readRegister(uint16_t address) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = registers_.find(address);
  return it == registers_.end() ? 0 : it->second;
}

void Camera::writeRegister(uint16_t address, uint32_t value) {
  std::lock_guard<std::mutex> lock(mutex_);
  writeRegisterLocked(address, value);
}

void Camera::writeRegisterLocked(uint16_t address, uint32_t value) {
  registers_[address] = value;
  // YUYV: two bytes a pixel, so the pitch follows the width.
  if (address == kRegWidth) registers_[kRegLinePitch] = value * 2;
}

void Camera::rebuildMemoryLocked() {
  memory_.assign(kMemorySize, 0);
  for (const auto& [address, text] : config_.memory) {
    const size_t count = std::min(text.size(), kMemorySize - address);
    std::memcpy(memory_.data() + address, text.data(), count);
  }
}

void Camera::rehashLocked() { xmlSha1_ = sha1Of(config_.xmlFile); }

}  // namespace tqsim
