#include "UvcStream.h"

#include <tqsim/FramePattern.h>

#include <algorithm>
#include <cstdlib>

namespace tqsim::usb {

namespace {

constexpr uint8_t kHeaderFid = 0x01;
constexpr uint8_t kHeaderEof = 0x02;
constexpr uint8_t kHeaderEoh = 0x80;
// Frame ID and end of frame are always set in the payload headers.
constexpr uint8_t kFramingInfo = 0x03;

void put16(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
void put32(uint8_t* p, uint32_t v) {
  put16(p, v & 0xFFFF);
  put16(p + 2, v >> 16);
}
uint16_t get16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t get32(const uint8_t* p) { return get16(p) | (static_cast<uint32_t>(get16(p + 2)) << 16); }

uint32_t nearestInterval(const UvcFrame& frame, uint32_t wanted) {
  if (wanted == 0) return frame.defaultInterval;
  if (frame.continuous) {
    const uint32_t lo = frame.intervals[0];
    const uint32_t hi = frame.intervals[1];
    const uint32_t step = frame.intervals[2] == 0 ? 1 : frame.intervals[2];
    const uint32_t clamped = std::clamp(wanted, lo, hi);
    const uint32_t steps = (clamped - lo + step / 2) / step;
    return std::min(hi, lo + steps * step);
  }
  uint32_t best = frame.intervals.front();
  for (uint32_t interval : frame.intervals) {
    const auto distance = [&](uint32_t v) { return v > wanted ? v - wanted : wanted - v; };
    if (distance(interval) < distance(best)) best = interval;
  }
  return best;
}

}  // namespace

std::vector<uint8_t> StreamControl::encode() const {
  std::vector<uint8_t> out(kSize, 0);
  uint8_t* p = out.data();
  put16(p, hint);
  p[2] = formatIndex;
  p[3] = frameIndex;
  put32(p + 4, frameInterval);
  put16(p + 8, keyFrameRate);
  put16(p + 10, pFrameRate);
  put16(p + 12, compQuality);
  put16(p + 14, compWindowSize);
  put16(p + 16, delay);
  put32(p + 18, maxVideoFrameSize);
  put32(p + 22, maxPayloadTransferSize);
  put32(p + 26, clockFrequency);
  p[30] = framingInfo;
  p[31] = preferredVersion;
  p[32] = minVersion;
  p[33] = maxVersion;
  return out;
}

void StreamControl::decode(const uint8_t* data, size_t length) {
  uint8_t p[kSize];
  const std::vector<uint8_t> current = encode();
  std::copy(current.begin(), current.end(), p);
  std::copy_n(data, std::min(length, kSize), p);
  hint = get16(p);
  formatIndex = p[2];
  frameIndex = p[3];
  frameInterval = get32(p + 4);
  keyFrameRate = get16(p + 8);
  pFrameRate = get16(p + 10);
  compQuality = get16(p + 12);
  compWindowSize = get16(p + 14);
  delay = get16(p + 16);
  maxVideoFrameSize = get32(p + 18);
  maxPayloadTransferSize = get32(p + 22);
  clockFrequency = get32(p + 26);
  framingInfo = p[30];
  preferredVersion = p[31];
  minVersion = p[32];
  maxVersion = p[33];
}

UvcStream::UvcStream(std::vector<UvcFrame> frames) : frames_(std::move(frames)) {
  probe_ = defaults();
  commit_ = probe_;
}

StreamControl UvcStream::negotiate(const StreamControl& requested) const {
  StreamControl out;
  out.hint = requested.hint;
  out.formatIndex = 1;
  if (frames_.empty()) return out;
  const size_t index =
      std::clamp<size_t>(requested.frameIndex == 0 ? 1 : requested.frameIndex, 1, frames_.size());
  const UvcFrame& frame = frames_[index - 1];
  out.frameIndex = static_cast<uint8_t>(index);
  out.frameInterval = nearestInterval(frame, requested.frameInterval);
  out.maxVideoFrameSize = frame.frameBytes();
  out.maxPayloadTransferSize = kMaxPayload;
  out.clockFrequency = kUvcClockHz;
  out.framingInfo = kFramingInfo;
  return out;
}

StreamControl UvcStream::minimum() const {
  StreamControl request;
  request.frameIndex = 1;
  StreamControl out = negotiate(request);
  if (!frames_.empty())
    out.frameInterval = *std::min_element(frames_[0].intervals.begin(), frames_[0].intervals.end());
  return out;
}

StreamControl UvcStream::maximum() const {
  StreamControl request;
  request.frameIndex = static_cast<uint8_t>(frames_.size());
  StreamControl out = negotiate(request);
  if (!frames_.empty()) {
    const UvcFrame& last = frames_.back();
    out.frameInterval = *std::max_element(last.intervals.begin(), last.intervals.end());
  }
  return out;
}

StreamControl UvcStream::defaults() const {
  StreamControl request;
  request.frameIndex = 1;
  return negotiate(request);
}

void UvcStream::commit(const StreamControl& control, Clock::time_point now) {
  commit_ = negotiate(control);
  running_ = !frames_.empty();
  inFrame_ = false;
  fid_ = 0;
  frameNumber_ = 0;
  offset_ = 0;
  nextFrame_ = now;
}

void UvcStream::stop() {
  running_ = false;
  inFrame_ = false;
  frame_.clear();
  frame_.shrink_to_fit();
}

bool UvcStream::payloadReady(Clock::time_point now, const FrameFaults& faults) const {
  if (!running_) return false;
  if (inFrame_) return true;
  return !faults.stop && now >= nextFrame_;
}

void UvcStream::startFrame(const FrameFaults& faults, Clock::time_point now) {
  const size_t bytes = commit_.maxVideoFrameSize;
  frame_.resize(bytes);
  fillFrame(frame_.data(), bytes, frameNumber_);
  if (faults.corruptFirstLine) {
    const UvcFrame& frame = frames_[commit_.frameIndex - 1];
    const size_t line = std::min<size_t>(bytes, static_cast<size_t>(frame.width) * 2);
    for (size_t i = kFrameHeaderBytes; i < line; ++i) frame_[i] ^= 0x5A;
  }
  frameEnd_ =
      faults.frameBytes >= 0 ? std::min<size_t>(bytes, static_cast<size_t>(faults.frameBytes)) : bytes;
  offset_ = 0;
  inFrame_ = true;
  frameStart_ = now;
}

std::vector<uint8_t> UvcStream::nextPayload(size_t maxLength, const FrameFaults& faults,
                                            Clock::time_point now, bool* frameDone) {
  if (!inFrame_) startFrame(faults, now);
  const size_t room = std::min<size_t>(maxLength, commit_.maxPayloadTransferSize);
  const size_t data = room > kPayloadHeader ? std::min(room - kPayloadHeader, frameEnd_ - offset_) : 0;
  const bool last = offset_ + data >= frameEnd_;
  std::vector<uint8_t> payload(kPayloadHeader + data);
  payload[0] = kPayloadHeader;
  payload[1] = static_cast<uint8_t>(kHeaderEoh | fid_ | (last ? kHeaderEof : 0));
  std::copy_n(frame_.begin() + static_cast<std::ptrdiff_t>(offset_), data, payload.begin() + kPayloadHeader);
  offset_ += data;
  *frameDone = last;
  if (last) {
    inFrame_ = false;
    fid_ ^= kHeaderFid;
    ++frameNumber_;
    ++framesSent_;
    // Frames follow the committed interval; a slow consumer delays the next
    // frame instead of getting a burst to catch up.
    const auto interval = std::chrono::nanoseconds(static_cast<int64_t>(commit_.frameInterval) * 100);
    nextFrame_ = std::max(frameStart_ + interval, now);
  }
  return payload;
}

}  // namespace tqsim::usb
