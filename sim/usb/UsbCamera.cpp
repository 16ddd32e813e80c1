#include "UsbCamera.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace tqsim::usb {

namespace {

// bmRequestType parts.
constexpr uint8_t kTypeMask = 0x60;
constexpr uint8_t kTypeStandard = 0x00;
constexpr uint8_t kTypeClass = 0x20;
constexpr uint8_t kRecipientMask = 0x1F;
constexpr uint8_t kRecipientInterface = 1;
constexpr uint8_t kRecipientEndpoint = 2;

// Standard requests.
constexpr uint8_t kGetStatus = 0;
constexpr uint8_t kClearFeature = 1;
constexpr uint8_t kSetFeature = 3;
constexpr uint8_t kSetAddress = 5;
constexpr uint8_t kGetDescriptor = 6;
constexpr uint8_t kGetConfiguration = 8;
constexpr uint8_t kSetConfiguration = 9;
constexpr uint8_t kGetInterface = 10;
constexpr uint8_t kSetInterface = 11;

// Descriptor types.
constexpr uint8_t kDtDevice = 1;
constexpr uint8_t kDtConfiguration = 2;
constexpr uint8_t kDtString = 3;
constexpr uint8_t kDtQualifier = 6;
constexpr uint8_t kDtOtherSpeedConfiguration = 7;
constexpr uint8_t kDtHid = 0x21;
constexpr uint8_t kDtHidReport = 0x22;

// HID class requests and report types.
constexpr uint8_t kHidGetReport = 0x01;
constexpr uint8_t kHidGetIdle = 0x02;
constexpr uint8_t kHidSetReport = 0x09;
constexpr uint8_t kHidSetIdle = 0x0A;
constexpr uint8_t kReportInput = 1;
constexpr uint8_t kReportOutput = 2;
constexpr uint8_t kReportFeature = 3;

// UVC class requests and selectors.
constexpr uint8_t kUvcSetCur = 0x01;
constexpr uint8_t kUvcGetCur = 0x81;
constexpr uint8_t kUvcGetMin = 0x82;
constexpr uint8_t kUvcGetMax = 0x83;
constexpr uint8_t kUvcGetRes = 0x84;
constexpr uint8_t kUvcGetLen = 0x85;
constexpr uint8_t kUvcGetInfo = 0x86;
constexpr uint8_t kUvcGetDef = 0x87;
constexpr uint8_t kVsProbe = 1;
constexpr uint8_t kVsCommit = 2;
constexpr uint8_t kVcRequestErrorCode = 2;
constexpr uint8_t kUvcErrorInvalidControl = 6;
constexpr uint8_t kUvcErrorInvalidRequest = 7;

// Reports waiting for an interrupt IN transfer; as the kernel's hidraw
// queue, the newest is dropped when it is full.
constexpr size_t kMaxQueuedReports = 64;

uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

}  // namespace

UsbCamera::UsbCamera(std::shared_ptr<Camera> camera, Options options, int fd)
    : camera_(std::move(camera)),
      options_(std::move(options)),
      fd_(fd),
      config_(camera_->config()),
      interfaces_(interfaceNumbers(options_.functions)),
      configuration_(configurationDescriptor(config_, options_.functions)),
      stream_(uvcFrames(config_.video)) {}

UsbCamera::~UsbCamera() { disconnect(); }

void UsbCamera::disconnect() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool UsbCamera::send(const std::vector<uint8_t>& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      reason_ = std::string("write: ") + std::strerror(errno);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

bool UsbCamera::readAll(uint8_t* data, size_t length) {
  size_t done = 0;
  while (done < length) {
    const ssize_t n = ::read(fd_, data + done, length - done);
    if (n < 0 && errno == EINTR) continue;
    if (n == 0) {
      reason_ = "connection closed by the host";
      return false;
    }
    if (n < 0) {
      reason_ = std::string("read: ") + std::strerror(errno);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

bool UsbCamera::serveRequest() {
  if (fd_ < 0) return false;
  std::array<uint8_t, kHeaderSize> header{};
  if (!readAll(header.data(), header.size())) return false;
  Command command;
  if (!decodeHeader(header.data(), command)) {
    reason_ = "not a USB/IP request (command " + std::to_string(command.command) + ")";
    return false;
  }
  if (command.command == kCmdUnlink) return unlink(command);
  if (command.direction == kDirOut && command.transferLength > 0) {
    command.data.resize(command.transferLength);
    if (!readAll(command.data.data(), command.data.size())) return false;
  }
  // No isochronous endpoints here, but a peer that sends descriptors must not
  // desynchronise the stream.
  if (command.numberOfPackets > 0 && command.numberOfPackets < 1024) {
    std::vector<uint8_t> iso(static_cast<size_t>(command.numberOfPackets) * kIsoDescriptorSize);
    if (!readAll(iso.data(), iso.size())) return false;
  }
  return submit(command, Clock::now());
}

bool UsbCamera::unlink(const Command& command) {
  for (auto* queue : {&videoUrbs_, &hidUrbs_}) {
    auto it = std::find_if(queue->begin(), queue->end(),
                           [&](const Command& urb) { return urb.seqnum == command.unlinkSeqnum; });
    if (it != queue->end()) {
      queue->erase(it);
      return send(encodeRetUnlink(command.seqnum, kStatusUnlinked));
    }
  }
  // Already answered: the host gives its URB back itself.
  return send(encodeRetUnlink(command.seqnum, kStatusOk));
}

bool UsbCamera::halted(uint8_t endpoint) const {
  return std::find(haltedEndpoints_.begin(), haltedEndpoints_.end(), endpoint) != haltedEndpoints_.end();
}

bool UsbCamera::submit(Command& command, Clock::time_point now) {
  const bool in = command.direction == kDirIn;
  const uint8_t address = static_cast<uint8_t>(command.endpoint | (in ? 0x80 : 0));
  if (command.endpoint == 0) {
    const Reply reply = control(command.setup, command.data, now);
    if (reply.stall) return send(encodeRetSubmit(command.seqnum, kStatusStall, nullptr, 0));
    if (!in) return send(encodeRetSubmitOut(command.seqnum, kStatusOk, command.transferLength));
    const size_t length = std::min<size_t>(reply.data.size(), command.transferLength);
    return send(encodeRetSubmit(command.seqnum, kStatusOk, reply.data.data(), length));
  }
  const bool known = (options_.functions.video && address == kVideoEndpoint) ||
                     (options_.functions.hid && (address == kHidInEndpoint || address == kHidOutEndpoint));
  if (!known || configurationValue_ == 0 || halted(address)) {
    return send(encodeRetSubmit(command.seqnum, kStatusStall, nullptr, 0));
  }
  if (address == kHidOutEndpoint) {
    outputReport(command.data, now);
    if (!send(encodeRetSubmitOut(command.seqnum, kStatusOk, command.transferLength))) return false;
    return serveDue(now);
  }
  command.data.clear();
  (address == kVideoEndpoint ? videoUrbs_ : hidUrbs_).push_back(std::move(command));
  return serveDue(now);
}

void UsbCamera::outputReport(const std::vector<uint8_t>& report, Clock::time_point now) {
  if (report.empty()) return;
  for (Answer& answer : camera_->handle(report.data(), report.size())) {
    PendingReport pending{std::move(answer.report), now + answer.delay};
    // Answers go out in order: one behind a late answer waits for it.
    if (!reports_.empty()) pending.due = std::max(pending.due, reports_.back().due);
    if (reports_.size() < kMaxQueuedReports) reports_.push_back(std::move(pending));
  }
}

void UsbCamera::queueInputReport(std::vector<uint8_t> report) {
  if (!options_.functions.hid || reports_.size() >= kMaxQueuedReports) return;
  const Clock::time_point now = Clock::now();
  const Clock::time_point due = reports_.empty() ? now : std::max(now, reports_.back().due);
  reports_.push_back(PendingReport{std::move(report), due});
}

FrameFaults UsbCamera::frameFaults() const {
  FrameFaults faults;
  const VideoFaults video = camera_->config().videoFaults;
  faults.stop = video.stopSending;
  faults.corruptFirstLine = options_.faults.corruptFrame;
  if (video.shortFrameBytes != 0) faults.frameBytes = video.shortFrameBytes;
  if (options_.faults.shortPayload) {
    faults.frameBytes = options_.faults.shortPayloadBytes >= 0
                            ? options_.faults.shortPayloadBytes
                            : stream_.committed().maxVideoFrameSize / 4 * 3;
  }
  return faults;
}

bool UsbCamera::serveDue(Clock::time_point now) {
  if (fd_ < 0) return false;
  while (!hidUrbs_.empty() && !reports_.empty() && reports_.front().due <= now) {
    const Command urb = std::move(hidUrbs_.front());
    hidUrbs_.pop_front();
    const std::vector<uint8_t> report = std::move(reports_.front().report);
    reports_.pop_front();
    const size_t length = std::min<size_t>(report.size(), urb.transferLength);
    if (!send(encodeRetSubmit(urb.seqnum, kStatusOk, report.data(), length))) return false;
  }
  while (!videoUrbs_.empty() && stream_.payloadReady(now, frameFaults_)) {
    const Command urb = std::move(videoUrbs_.front());
    videoUrbs_.pop_front();
    bool frameDone = false;
    const std::vector<uint8_t> payload =
        stream_.nextPayload(urb.transferLength, frameFaults_, now, &frameDone);
    if (!send(encodeRetSubmit(urb.seqnum, kStatusOk, payload.data(), payload.size()))) return false;
    if (!frameDone) continue;
    if (options_.faults.disconnectAfterFrames >= 0 &&
        stream_.framesSent() >= static_cast<uint32_t>(options_.faults.disconnectAfterFrames)) {
      reason_ = "disconnected after " + std::to_string(stream_.framesSent()) + " frames";
      disconnect();
      return false;
    }
    // The camera's video faults are read once per frame, not per payload.
    frameFaults_ = frameFaults();
  }
  return true;
}

UsbCamera::Clock::time_point UsbCamera::nextDue() const {
  Clock::time_point next = Clock::time_point::max();
  if (!hidUrbs_.empty() && !reports_.empty()) next = std::min(next, reports_.front().due);
  if (!videoUrbs_.empty() && stream_.running() && !frameFaults_.stop)
    next = std::min(next, stream_.nextFrameAt());
  return next;
}

UsbCamera::Reply UsbCamera::control(const uint8_t setup[8], const std::vector<uint8_t>& outData,
                                    Clock::time_point now) {
  const uint8_t type = setup[0];
  const uint8_t request = setup[1];
  const uint16_t value = le16(setup + 2);
  const uint16_t index = le16(setup + 4);
  const uint16_t length = le16(setup + 6);
  if ((type & kTypeMask) == kTypeStandard) return standardRequest(type, request, value, index);
  if ((type & kTypeMask) == kTypeClass && (type & kRecipientMask) == kRecipientInterface &&
      configurationValue_ != 0) {
    const int interface = index & 0xFF;
    if (interface == interfaces_.hid) return hidRequest(request, value, length, outData, now);
    if (interface == interfaces_.videoControl || interface == interfaces_.videoStreaming) {
      return uvcRequest(request, value, index, outData, now);
    }
  }
  return Reply{true, {}};
}

UsbCamera::Reply UsbCamera::standardRequest(uint8_t type, uint8_t request, uint16_t value, uint16_t index) {
  const uint8_t recipient = type & kRecipientMask;
  const auto interfaceExists = [&](int number) {
    return number >= 0 && (number == interfaces_.videoControl || number == interfaces_.videoStreaming ||
                           number == interfaces_.hid);
  };
  const auto endpointExists = [&](uint8_t endpoint) {
    if (endpoint == kVideoEndpoint) return options_.functions.video;
    return (endpoint == kHidInEndpoint || endpoint == kHidOutEndpoint) && options_.functions.hid;
  };
  switch (request) {
    case kGetStatus:
      // Interfaces and endpoints other than 0 exist only once configured.
      if (recipient == kRecipientInterface && (!interfaceExists(index) || configurationValue_ == 0))
        return stalled();
      if (recipient == kRecipientEndpoint) {
        const auto endpoint = static_cast<uint8_t>(index & 0xFF);
        if ((endpoint & 0x7F) != 0 && (!endpointExists(endpoint) || configurationValue_ == 0))
          return stalled();
        return Reply{false, {static_cast<uint8_t>(halted(endpoint)), 0}};
      }
      return Reply{false, {0, 0}};
    case kClearFeature:
    case kSetFeature: {
      if (recipient != kRecipientEndpoint) return Reply{};
      // ENDPOINT_HALT is the only endpoint feature.
      if (value != 0) return stalled();
      const auto endpoint = static_cast<uint8_t>(index & 0xFF);
      haltedEndpoints_.erase(std::remove(haltedEndpoints_.begin(), haltedEndpoints_.end(), endpoint),
                             haltedEndpoints_.end());
      if (request == kSetFeature) {
        haltedEndpoints_.push_back(endpoint);
        return Reply{};
      }
      if (stalls("clear-halt")) return stalled();
      // uvcvideo tells a bulk camera that streaming stopped with this.
      if (endpoint == kVideoEndpoint) stream_.stop();
      return Reply{};
    }
    case kSetAddress:
      return Reply{};
    case kGetDescriptor: {
      const uint8_t kind = value >> 8;
      const uint8_t number = value & 0xFF;
      if (recipient == kRecipientInterface) {
        if (static_cast<int>(index) != interfaces_.hid) return stalled();
        if (kind == kDtHidReport) {
          if (stalls("report-descriptor")) return stalled();
          return Reply{false, hidReportDescriptor()};
        }
        if (kind == kDtHid) {
          // The class descriptor sits right after the HID interface descriptor.
          const auto& c = configuration_;
          for (size_t at = 0; at + 1 < c.size() && c[at] != 0; at += c[at]) {
            if (c[at + 1] == kDtHid) return Reply{false, {c.begin() + at, c.begin() + at + c[at]}};
          }
        }
        return stalled();
      }
      switch (kind) {
        case kDtDevice:
          return Reply{false, deviceDescriptor(config_, options_.functions)};
        case kDtConfiguration:
          return number == 0 ? Reply{false, configuration_} : stalled();
        case kDtString: {
          if (stalls("string") && number != 0) return stalled();
          std::vector<uint8_t> text = stringDescriptor(config_, options_.serial, number);
          return text.empty() ? stalled() : Reply{false, std::move(text)};
        }
        case kDtQualifier:
          return Reply{false, deviceQualifier(options_.functions)};
        case kDtOtherSpeedConfiguration:
          return number == 0 ? Reply{false, otherSpeedConfiguration(config_, options_.functions)} : stalled();
        default:
          return stalled();  // BOS, ...
      }
    }
    case kGetConfiguration:
      return Reply{false, {configurationValue_}};
    case kSetConfiguration:
      if (value > 1 || stalls("set-configuration")) return stalled();
      configurationValue_ = static_cast<uint8_t>(value);
      haltedEndpoints_.clear();
      stream_.stop();
      return Reply{};
    case kGetInterface:
      if (!interfaceExists(index) || configurationValue_ == 0) return stalled();
      return Reply{false, {0}};
    case kSetInterface:
      // Every interface has alternate setting 0 only.
      if (!interfaceExists(index) || value != 0 || configurationValue_ == 0 || stalls("set-interface")) {
        return stalled();
      }
      if (static_cast<int>(index) == interfaces_.videoStreaming) stream_.stop();
      return Reply{};
    default:
      return stalled();
  }
}

UsbCamera::Reply UsbCamera::hidRequest(uint8_t request, uint16_t value, uint16_t length,
                                       const std::vector<uint8_t>& outData, Clock::time_point now) {
  const uint8_t reportType = value >> 8;
  const uint8_t reportId = value & 0xFF;
  switch (request) {
    case kHidGetReport: {
      if (stalls("get-report")) return stalled();
      if (reportType == kReportFeature && reportId == 1) {
        std::array<uint8_t, kFeatureReportSize> feature{};
        if (!camera_->featureRead(feature)) return stalled();
        // File data from byte 0, no report id in front: the kernel hands
        // these bytes to the reader unchanged.
        size_t count = feature.size();
        if (options_.faults.shortFeatureBytes >= 0) {
          count = std::min<size_t>(count, static_cast<size_t>(options_.faults.shortFeatureBytes));
        }
        return Reply{false, {feature.begin(), feature.begin() + static_cast<std::ptrdiff_t>(count)}};
      }
      if (reportType == kReportInput && (reportId == 1 || reportId == 2)) {
        std::vector<uint8_t> report(kInputReportSize, 0);
        report[0] = reportId;
        return Reply{false, std::move(report)};
      }
      return stalled();
    }
    case kHidSetReport:
      if (stalls("set-report")) return stalled();
      if (reportType == kReportOutput) {
        outputReport(outData, now);
        return Reply{};
      }
      // Feature writes are taken and ignored: the camera has no settable feature.
      return reportType == kReportFeature ? Reply{} : stalled();
    case kHidSetIdle:
      if (stalls("set-idle")) return stalled();
      hidIdle_ = static_cast<uint8_t>(value >> 8);
      return Reply{};
    case kHidGetIdle:
      return length == 0 ? stalled() : Reply{false, {hidIdle_}};
    default:
      return stalled();  // no boot protocol
  }
}

UsbCamera::Reply UsbCamera::uvcRequest(uint8_t request, uint16_t value, uint16_t index,
                                       const std::vector<uint8_t>& outData, Clock::time_point now) {
  const int interface = index & 0xFF;
  const uint8_t entity = index >> 8;
  const uint8_t selector = value >> 8;
  if (interface == interfaces_.videoControl) {
    // The camera has no controls; the interface itself answers the error
    // code of the last failed request.
    if (entity == 0 && selector == kVcRequestErrorCode && request == kUvcGetCur) {
      return Reply{false, {vcErrorCode_}};
    }
    if (entity == 0 && selector == kVcRequestErrorCode && request == kUvcGetInfo) return Reply{false, {0x01}};
    vcErrorCode_ = entity == 0 ? kUvcErrorInvalidRequest : kUvcErrorInvalidControl;
    return stalled();
  }
  if (entity != 0 || (selector != kVsProbe && selector != kVsCommit)) return stalled();
  if (stalls(selector == kVsProbe ? "probe" : "commit")) return stalled();
  switch (request) {
    case kUvcSetCur: {
      StreamControl requested = selector == kVsProbe ? stream_.probe() : stream_.committed();
      requested.decode(outData.data(), outData.size());
      if (selector == kVsProbe) {
        stream_.probe() = stream_.negotiate(requested);
      } else {
        stream_.commit(requested, now);
        frameFaults_ = frameFaults();
      }
      return Reply{};
    }
    case kUvcGetCur:
      return Reply{false, (selector == kVsProbe ? stream_.probe() : stream_.committed()).encode()};
    case kUvcGetMin:
      return Reply{false, stream_.minimum().encode()};
    case kUvcGetMax:
      return Reply{false, stream_.maximum().encode()};
    case kUvcGetRes:
      // All zero: every field takes only the values the descriptors list.
      return Reply{false, StreamControl{}.encode()};
    case kUvcGetDef:
      return Reply{false, stream_.defaults().encode()};
    case kUvcGetLen:
      return Reply{false, {static_cast<uint8_t>(StreamControl::kSize), 0}};
    case kUvcGetInfo:
      return Reply{false, {0x03}};  // GET and SET supported
    default:
      return stalled();
  }
}

}  // namespace tqsim::usb
