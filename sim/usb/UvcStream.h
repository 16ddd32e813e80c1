// The video streaming side of the UVC function: probe and commit
// negotiation and the payloads of the committed stream (frames of the test
// pattern, each cut into payloads with a 2-byte header carrying FID and EOF).
// No I/O: the device feeds it requests and pulls payloads.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "Descriptors.h"

namespace tqsim::usb {

// The probe/commit control of UVC 1.1 (34 bytes on the wire).
struct StreamControl {
  uint16_t hint = 0;
  uint8_t formatIndex = 0;
  uint8_t frameIndex = 0;
  uint32_t frameInterval = 0;
  uint16_t keyFrameRate = 0;
  uint16_t pFrameRate = 0;
  uint16_t compQuality = 0;
  uint16_t compWindowSize = 0;
  uint16_t delay = 0;
  uint32_t maxVideoFrameSize = 0;
  uint32_t maxPayloadTransferSize = 0;
  uint32_t clockFrequency = 0;
  uint8_t framingInfo = 0;
  uint8_t preferredVersion = 0;
  uint8_t minVersion = 0;
  uint8_t maxVersion = 0;

  static constexpr size_t kSize = 34;
  std::vector<uint8_t> encode() const;
  // Fields past `length` keep their values (a shorter UVC 1.0 control).
  void decode(const uint8_t* data, size_t length);
};

// The payload size the camera asks for: one payload fills one of
// uvcvideo's bulk transfers (32 packets of 512 bytes).
constexpr uint32_t kMaxPayload = 16384;
constexpr size_t kPayloadHeader = 2;

// Changes of the frames on their way out, for fault runs.
struct FrameFaults {
  bool corruptFirstLine = false;  // pattern bytes of the first line changed
  int64_t frameBytes = -1;        // each frame ends (EOF) after this many bytes (-1: whole frames)
  bool stop = false;              // no frames at all
};

class UvcStream {
 public:
  using Clock = std::chrono::steady_clock;

  explicit UvcStream(std::vector<UvcFrame> frames);

  const std::vector<UvcFrame>& frames() const { return frames_; }

  // The device's answer to a requested control: a valid format, frame and
  // interval nearest to what was asked, sizes filled in.
  StreamControl negotiate(const StreamControl& requested) const;
  StreamControl minimum() const;
  StreamControl maximum() const;
  StreamControl defaults() const;

  StreamControl& probe() { return probe_; }
  const StreamControl& committed() const { return commit_; }

  // A commit starts the stream from frame 0 at once; stop ends it (a
  // CLEAR_FEATURE(HALT) on the endpoint or SET_INTERFACE(0)).
  void commit(const StreamControl& control, Clock::time_point now);
  void stop();
  bool running() const { return running_; }

  // Whether a payload can go out now, and when the next frame starts.
  bool payloadReady(Clock::time_point now, const FrameFaults& faults) const;
  Clock::time_point nextFrameAt() const { return nextFrame_; }

  // The next payload of at most maxLength bytes (header included); call only
  // when payloadReady. Sets *frameDone when it carries the frame's last bytes.
  std::vector<uint8_t> nextPayload(size_t maxLength, const FrameFaults& faults, Clock::time_point now,
                                   bool* frameDone);

  uint32_t framesSent() const { return framesSent_; }

 private:
  void startFrame(const FrameFaults& faults, Clock::time_point now);

  std::vector<UvcFrame> frames_;
  StreamControl probe_;
  StreamControl commit_;
  bool running_ = false;
  bool inFrame_ = false;
  uint8_t fid_ = 0;
  uint32_t frameNumber_ = 0;
  uint32_t framesSent_ = 0;
  std::vector<uint8_t> frame_;
  size_t frameEnd_ = 0;  // bytes of frame_ that go out
  size_t offset_ = 0;
  Clock::time_point frameStart_;
  Clock::time_point nextFrame_;
};

}  // namespace tqsim::usb
