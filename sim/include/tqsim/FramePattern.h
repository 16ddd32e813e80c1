// The emulated camera's test picture: a deterministic byte pattern in YUYV
// frames that carries its frame number, so a consumer can check every byte of
// every frame it received and tell frames apart, lost or repeated.
//
// Layout of a frame of `size` bytes with frame number n (counted from 0 at
// STREAMON on each open node):
//   bytes 0..3   n, little-endian
//   bytes 4..7   ~n, little-endian (guards against a zero-filled buffer)
//   byte  i >= 8 (i * 7 + (i >> 11) + n * 3) & 0xFF
// Frames shorter than 8 bytes carry only the leading part of the header.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tqsim {

constexpr size_t kFrameHeaderBytes = 8;

// The value the pattern puts at `offset` of frame `frameNumber`.
inline uint8_t framePatternByte(uint32_t frameNumber, size_t offset) {
  if (offset < 4) return static_cast<uint8_t>(frameNumber >> (8 * offset));
  if (offset < kFrameHeaderBytes) return static_cast<uint8_t>(~frameNumber >> (8 * (offset - 4)));
  return static_cast<uint8_t>(offset * 7 + (offset >> 11) + frameNumber * 3);
}

// Bytes [begin, end) of frame `frameNumber` into `dst`, the start of the frame.
inline void fillFrameRange(uint8_t* dst, size_t size, uint32_t frameNumber, size_t begin, size_t end) {
  if (end > size) end = size;
  const size_t header = end < kFrameHeaderBytes ? end : kFrameHeaderBytes;
  for (size_t i = begin; i < header; ++i) dst[i] = framePatternByte(frameNumber, i);
  // Within a 2048-byte block the pattern is i*7 plus a constant (2048*7 is a
  // multiple of 256), so each block is one vectorisable add over a template.
  struct Template {
    uint8_t bytes[2048];
    Template() {
      for (size_t j = 0; j < sizeof(bytes); ++j) bytes[j] = static_cast<uint8_t>(j * 7);
    }
  };
  static const Template ramp;
  const uint8_t base = static_cast<uint8_t>(frameNumber * 3);
  for (size_t i = begin > kFrameHeaderBytes ? begin : kFrameHeaderBytes; i < end;) {
    const size_t blockEnd = ((i >> 11) + 1) << 11;
    const size_t stop = blockEnd < end ? blockEnd : end;
    const uint8_t add = static_cast<uint8_t>((i >> 11) + base);
    const uint8_t* src = ramp.bytes + (i & 2047);
    uint8_t* out = dst + i;
    for (size_t k = 0, n = stop - i; k < n; ++k) out[k] = static_cast<uint8_t>(src[k] + add);
    i = stop;
  }
}

inline void fillFrame(uint8_t* dst, size_t size, uint32_t frameNumber) {
  fillFrameRange(dst, size, frameNumber, 0, size);
}

// The frame number a frame claims; false when it is shorter than the header or
// the header's two copies disagree.
inline bool frameNumberOf(const uint8_t* data, size_t size, uint32_t* frameNumber) {
  if (!data || size < kFrameHeaderBytes) return false;
  uint32_t n = 0;
  uint32_t check = 0;
  for (size_t i = 0; i < 4; ++i) {
    n |= static_cast<uint32_t>(data[i]) << (8 * i);
    check |= static_cast<uint32_t>(data[4 + i]) << (8 * i);
  }
  if (check != ~n) return false;
  if (frameNumber) *frameNumber = n;
  return true;
}

// True when the frame has a valid header and every byte matches the pattern of
// the frame number found there (stored in *frameNumber). Otherwise false, with
// the offset of the first wrong byte in *firstBad (0 for a bad header).
inline bool verifyFrame(const uint8_t* data, size_t size, uint32_t* frameNumber = nullptr,
                        size_t* firstBad = nullptr) {
  uint32_t n = 0;
  if (!frameNumberOf(data, size, &n)) {
    if (firstBad) *firstBad = 0;
    return false;
  }
  if (frameNumber) *frameNumber = n;
  const uint8_t base = static_cast<uint8_t>(n * 3);
  for (size_t i = kFrameHeaderBytes; i < size; ++i) {
    if (data[i] != static_cast<uint8_t>(i * 7 + (i >> 11) + base)) {
      if (firstBad) *firstBad = i;
      return false;
    }
  }
  return true;
}

}  // namespace tqsim
