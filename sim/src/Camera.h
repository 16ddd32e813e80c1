// The emulated camera itself: registers, memory, description file and the
// vendor HID command protocol, independent of the transport that carries the
// reports (a socketpair behind /dev/hidrawN today, a USB gadget later).
#pragma once

#include <tqsim/CameraConfig.h>
#include <tqsim/Sim.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace tqsim {

constexpr size_t kInputReportSize = 64;
constexpr size_t kFeatureReportSize = 1024;

// The camera's HID report descriptor (vendor page): output and input report 1
// of 63 bytes, input report 2 (events) of 63 bytes, feature report 1 of 1023
// bytes. The hidraw node and the USB device hand out the same one.
inline constexpr uint8_t kReportDescriptor[] = {
    0x06, 0x00, 0xFF,                                // Usage Page (Vendor 0xFF00)
    0x09, 0x01,                                      // Usage (1)
    0xA1, 0x01,                                      // Collection (Application)
    0x15, 0x00, 0x26, 0xFF, 0x00, 0x75, 0x08,        // 0..255, 8 bits
    0x85, 0x01, 0x95, 0x3F, 0x09, 0x02, 0x81, 0x02,  // Report 1, 63 x Input
    0x95, 0x3F, 0x09, 0x03, 0x91, 0x02,              // 63 x Output
    0x96, 0xFF, 0x03, 0x09, 0x04, 0xB1, 0x02,        // 1023 x Feature
    0x85, 0x02, 0x95, 0x3F, 0x09, 0x05, 0x81, 0x02,  // Report 2, 63 x Input
    0xC0,                                            // End Collection
};

// Command codes of the vendor protocol.
constexpr uint8_t kCmdRead = 0x5C;       // register read (long form) or memory read (short form)
constexpr uint8_t kCmdWrite = 0x5D;      // register write
constexpr uint8_t kCmdFileQuery = 0xC8;  // description file size / SHA-1
constexpr uint8_t kCmdChunk = 0x4E;      // select the description file chunk for the feature read
constexpr uint8_t kFileQuerySize = 0x10;
constexpr uint8_t kFileQuerySha1 = 0x30;

// Device status codes the camera itself produces.
constexpr uint8_t kStatusBadArgument = 2;
constexpr uint8_t kStatusInvalidCmdId = 3;
constexpr uint8_t kStatusInvalidChunkId = 7;

// Registers with a meaning inside the camera.
constexpr uint16_t kRegAcquisitionStart = 0x0650;
constexpr uint16_t kRegLinePitch = 0x0708;
constexpr uint16_t kRegWidth = 0x0A04;
constexpr uint16_t kRegHeight = 0x0A08;
constexpr uint16_t kRegOffsetX = 0x0A0C;
constexpr uint16_t kRegOffsetY = 0x0A10;

// Memory locations of the identity strings and the version bytes.
constexpr uint16_t kMemManufacturer = 0x0500;
constexpr uint16_t kMemModel = 0x0520;
constexpr uint16_t kMemFamily = 0x0540;
constexpr uint16_t kMemManufacturerInfo = 0x0580;
constexpr uint16_t kMemDeviceVersion = 0x05B0;
constexpr uint16_t kMemVersionBytes = 0x05D0;
constexpr uint16_t kMemSerial = 0x05F0;

// One input report to send, after a delay counted from the command's arrival.
struct Answer {
  std::vector<uint8_t> report;  // kInputReportSize bytes
  std::chrono::milliseconds delay{0};
};

class Camera {
 public:
  Camera(CameraId id, CameraConfig config);
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;

  CameraId id() const { return id_; }

  // A copy taken under the lock.
  CameraConfig config() const;
  void modify(const std::function<void(CameraConfig&)>& fn);

  // Set by the registry; the transports ask it before serving anything.
  bool plugged() const { return plugged_.load(); }
  void setPlugged(bool plugged) { plugged_.store(plugged); }

  // What a streaming video node looks at for every frame (cheap: no record
  // copy, which would cost allocations per frame).
  struct VideoRunState {
    bool freeRun = false;
    VideoFaults faults;
  };
  VideoRunState videoRunState() const;

  // The node numbers of the current configuration (cheap: no record copy).
  struct NodeNumbers {
    int hidraw = 0;
    int video = 0;
    int metadata = -1;
  };
  NodeNumbers nodeNumbers() const;

  // Node paths as /dev/... texts, from the current configuration.
  std::string hidrawPath() const;
  std::string capturePath() const;
  std::string metadataPath() const;  // empty when the camera has none
  bool isCaptureNode(const char* path) const;
  bool isMetadataNode(const char* path) const;

  // One output report as written to the node (report id first). Records it and
  // returns what the camera answers, honouring the HID faults.
  std::vector<Answer> handle(const uint8_t* report, size_t length);

  // The feature report: the 1024 bytes of the description file chunk last
  // requested, file data from byte 0, zero beyond the end of the file.
  // False when the feature-read fault is set.
  bool featureRead(std::array<uint8_t, kFeatureReportSize>& out) const;

  // Event input report: id 2, then data (truncated to 63 bytes), zero padded.
  static std::vector<uint8_t> eventReport(const std::vector<uint8_t>& data);

  std::vector<std::vector<uint8_t>> receivedReports() const;
  void clearReceivedReports();
  bool waitForReports(size_t count, std::chrono::milliseconds timeout) const;

  std::vector<uint8_t> xmlFile() const;
  std::array<uint8_t, 20> xmlSha1() const;
  uint32_t readRegister(uint16_t address) const;
  void writeRegister(uint16_t address, uint32_t value);

 private:
  std::vector<uint8_t> answerHeader(uint8_t command, uint8_t status) const;
  void writeRegisterLocked(uint16_t address, uint32_t value);
  void rebuildMemoryLocked();
  void rehashLocked();

  const CameraId id_;
  std::atomic<bool> plugged_{false};

  mutable std::mutex mutex_;
  mutable std::condition_variable reportArrived_;
  CameraConfig config_;
  std::map<uint16_t, uint32_t> registers_;  // current values; starts from config_.registers
  std::vector<uint8_t> memory_;             // 64 KiB image built from config_.memory
  std::array<uint8_t, 20> xmlSha1_{};
  uint32_t chunkIndex_ = 0;
  std::vector<std::vector<uint8_t>> received_;
};

}  // namespace tqsim
