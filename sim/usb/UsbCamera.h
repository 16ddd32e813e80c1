// The camera as a USB device on one USB/IP link: endpoint 0 (standard, UVC
// and HID class requests), the bulk video endpoint and the HID interrupt
// endpoints, driven by the camera model. Single-threaded: the serving loop
// calls serveRequest when the link is readable and serveDue when nextDue
// has come.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "Camera.h"
#include "Descriptors.h"
#include "UsbFaults.h"
#include "UsbIp.h"
#include "UvcStream.h"

namespace tqsim::usb {

class UsbCamera {
 public:
  using Clock = std::chrono::steady_clock;

  struct Options {
    Functions functions;
    std::string serial;  // the serial string this device shows
    UsbFaults faults;
  };

  // Serves the link on fd (owned: closed by the destructor).
  UsbCamera(std::shared_ptr<Camera> camera, Options options, int fd);
  UsbCamera(const UsbCamera&) = delete;
  UsbCamera& operator=(const UsbCamera&) = delete;
  ~UsbCamera();

  int fd() const { return fd_; }
  const Options& options() const { return options_; }

  // Reads one request (blocking until it is whole) and answers what can be
  // answered at once. False when the link ended: end of file, a read or
  // write error, or a request that is not USB/IP (reason()).
  bool serveRequest();
  // Sends the input reports and video payloads that are due and have a
  // transfer waiting. False when the link broke or a fault dropped it.
  bool serveDue(Clock::time_point now);
  // The earliest time serveDue has something to send; max() when only a new
  // request can change that.
  Clock::time_point nextDue() const;

  // An input report (report id first) for the interrupt IN endpoint, sent
  // after the answers already queued.
  void queueInputReport(std::vector<uint8_t> report);

  // Ends the link from our side (the host sees the device vanish).
  void disconnect();

  const std::string& reason() const { return reason_; }
  uint32_t framesSent() const { return stream_.framesSent(); }

 private:
  struct Reply {
    bool stall = false;
    std::vector<uint8_t> data;  // IN data; OUT: nothing
  };
  static Reply stalled() { return Reply{true, {}}; }
  struct PendingReport {
    std::vector<uint8_t> report;
    Clock::time_point due;
  };

  bool send(const std::vector<uint8_t>& bytes);
  bool readAll(uint8_t* data, size_t length);
  bool submit(Command& command, Clock::time_point now);
  bool unlink(const Command& command);
  Reply control(const uint8_t setup[8], const std::vector<uint8_t>& outData, Clock::time_point now);
  Reply standardRequest(uint8_t type, uint8_t request, uint16_t value, uint16_t index);
  Reply hidRequest(uint8_t request, uint16_t value, uint16_t length, const std::vector<uint8_t>& outData,
                   Clock::time_point now);
  Reply uvcRequest(uint8_t request, uint16_t value, uint16_t index, const std::vector<uint8_t>& outData,
                   Clock::time_point now);
  void outputReport(const std::vector<uint8_t>& report, Clock::time_point now);
  bool stalls(const char* name) const { return options_.faults.stalls.count(name) != 0; }
  FrameFaults frameFaults() const;
  bool halted(uint8_t endpoint) const;

  std::shared_ptr<Camera> camera_;
  Options options_;
  int fd_;
  CameraConfig config_;  // identity and sizes as plugged
  InterfaceNumbers interfaces_;
  std::vector<uint8_t> configuration_;
  uint8_t configurationValue_ = 0;
  std::vector<uint8_t> haltedEndpoints_;
  uint8_t hidIdle_ = 0;
  uint8_t vcErrorCode_ = 0;

  UvcStream stream_;
  FrameFaults frameFaults_;        // from the camera's video faults, refreshed each frame
  std::deque<Command> videoUrbs_;  // bulk IN transfers waiting for payloads
  std::deque<Command> hidUrbs_;    // interrupt IN transfers waiting for reports
  std::deque<PendingReport> reports_;
  std::string reason_;
};

}  // namespace tqsim::usb
