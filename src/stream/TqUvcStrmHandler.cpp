#include "stream/TqUvcStrmHandler.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "control/VexaHID_Interface.h"
#include "pool/TqUvcDevice.h"
#include "stream/TqUvcStrmChan.h"

namespace {

constexpr int kAcquisitionWaitPasses = 50;
constexpr uint32_t kAcquisitionWaitMs = 10;

// From this size on a frame is copied with non-temporal stores. The client
// cycles through several buffers, so the one written is not in the cache:
// ordinary stores would first read every line of it, and would push out the
// driver buffers the camera fills next. Measured at 1280x960 (2.4 MB) and up;
// at 640x480 memcpy is faster.
constexpr size_t kStreamingCopyMin = size_t{2} << 20;

void copyFrame(uint8_t* dst, const uint8_t* src, size_t n) {
#if defined(__SSE2__)
  if (n >= kStreamingCopyMin) {
    const size_t head = (16 - (reinterpret_cast<uintptr_t>(dst) & 15)) & 15;
    memcpy(dst, src, head);
    dst += head;
    src += head;
    n -= head;
    for (size_t blocks = n / 64; blocks > 0; --blocks, dst += 64, src += 64) {
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 16));
      const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 32));
      const __m128i d = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 48));
      _mm_stream_si128(reinterpret_cast<__m128i*>(dst), a);
      _mm_stream_si128(reinterpret_cast<__m128i*>(dst + 16), b);
      _mm_stream_si128(reinterpret_cast<__m128i*>(dst + 32), c);
      _mm_stream_si128(reinterpret_cast<__m128i*>(dst + 48), d);
    }
    // Ordered before the notification that hands the buffer to the client.
    _mm_sfence();
    memcpy(dst, src, n % 64);
    return;
  }
#endif
  memcpy(dst, src, n);
}

// Copies the region of interest line by line: line r of the frame (pitch
// uvcLineBytes) to line r of the client buffer (pitch lineLength). Bounded by
// both the bytes the driver delivered and the client buffer's size, so a
// geometry that does not fit copies what exists in both and nothing more.
void copyLines(uint8_t* dst, size_t dstBytes, const uint8_t* src, size_t srcBytes, uint32_t lines,
               size_t lineLength, size_t srcPitch) {
  if (lineLength == srcPitch) {
    // Both sides contiguous: one copy of the whole frame.
    copyFrame(dst, src, std::min({size_t{lines} * srcPitch, srcBytes, dstBytes}));
    return;
  }
  const size_t lineBytes = std::min(lineLength, srcPitch);
  for (uint32_t r = 0; r < lines; ++r) {
    const size_t from = size_t{r} * srcPitch;
    const size_t to = size_t{r} * lineLength;
    if (from >= srcBytes || to >= dstBytes) break;
    const size_t n = std::min({lineBytes, srcBytes - from, dstBytes - to});
    memcpy(dst + to, src + from, n);
  }
}

}  // namespace

TqUvcStrmHandler::TqUvcStrmHandler(TqUvcStrmChan* owner)
    : TqUvcThread("StreamHandler"), channel(owner), status(1), active(false) {}

TqUvcStrmSocketHandler::TqUvcStrmSocketHandler(TqUvcStrmChan* owner, uint32_t handlerCount)
    : TqUvcStrmHandler(owner),
      count(handlerCount),
      device(owner != nullptr ? owner->GetDevice() : nullptr),
      actualBufferIdx(0),
      unusedIndex(0xFFFFFFFFu),
      dmaMutex(owner != nullptr ? owner->GetDmaMutex() : nullptr),
      blockInfo{},
      flag(0) {}

TqUvcStrmSocketHandler::~TqUvcStrmSocketHandler() {
  device->GetLog().Trace("~TqUvcStrmSocketHandler:: [begin]");
  device->GetLog().Trace("~TqUvcStrmSocketHandler:: [end]");
}

int TqUvcStrmSocketHandler::Execute(void*) {
  device->GetLog().Debug("TqUvcStrmSocketHandler::Execute()");
  return 0;
}

uint32_t TqUvcStrmSocketHandler::StreamLockTableAcquireDmaMutex() {
  RkOsEnterCriticalSection(dmaMutex);
  return 0;
}

uint32_t TqUvcStrmSocketHandler::StreamLockTableReleaseDmaMutex() {
  RkOsLeaveCriticalSection(dmaMutex);
  return 0;
}

void TqUvcStrmSocketHandler::OnCallback(char* data, int size) {
  rk::CLog& log = device->GetLog();
  if (log.TraceEnabled()) {
    // A frame may be shorter than the eight bytes shown.
    uint64_t head = 0;
    if (data != nullptr && size > 0) memcpy(&head, data, std::min<size_t>(sizeof(head), size_t(size)));
    log.Trace("TqUvcStrmSocketHandler::OnCallback() [p:%p, size:%x data:%llx]", static_cast<void*>(data),
              static_cast<unsigned>(size), static_cast<unsigned long long>(head));
  }

  const int camera = static_cast<int>(device->GetCamIndex());
  for (int pass = 0; pass < kAcquisitionWaitPasses; ++pass) {
    if (TqUvcIsAcqEnabledHidDevice(camera) || channel->IsStarted()) break;
    log.Trace("TqUvcStrmSocketHandler::OnCallback() waiting for acquisition start");
    RkOsSleep(kAcquisitionWaitMs);
  }

  TqUvcDataMemory& memory = channel->GetDataMemory();
  actualBufferIdx = memory.GetCurrentIndex();
  if (memory.GetNextBufferIndex() == actualBufferIdx) {
    if (log.TraceEnabled())
      log.Trace("TqUvcStrmSocketHandler::OnCallback: nothing to do (NrFreeBuffer:%d)",
                static_cast<int>(memory.GetNrFreeBuffer()));
    return;
  }

  channel->LockData(actualBufferIdx, blockInfo);
  log.Trace("TqUvcStrmSocketHandler::OnCallback: LockData() ActualBufferIdx=%2d",
            static_cast<int>(actualBufferIdx));

  blockInfo.Incomplete = 0;
  blockInfo.DataSize = 0;
  const int64_t expected = int64_t{channel->GetUvcHeight()} * channel->GetUvcLineBytes();
  if (size != expected) {
    log.Debug("TqUvcStrmSocketHandler::OnCallback: incomplete buffer. expected size:%d received size:%d",
              static_cast<int>(expected), size);
    blockInfo.Incomplete = 1;
  }
  blockInfo.Valid = size == expected ? 1 : 0;

  const uint64_t destination = memory.GetAtIndex(actualBufferIdx);
  auto* pBuf = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(destination));
  log.Trace("TqUvcStrmSocketHandler::OnCallback: pBuf=%p pImageData=%p", static_cast<void*>(pBuf),
            static_cast<void*>(data));

  const uint32_t roiHeight = channel->GetRoiHeight();
  const uint32_t lineLength = channel->GetLineLength();
  const int uvcLineBytes = channel->GetUvcLineBytes();
  if (pBuf != nullptr && data != nullptr && size > 0 && roiHeight != 0 && lineLength != 0 && uvcLineBytes > 0)
    copyLines(pBuf, memory.GetBufferSize(actualBufferIdx), reinterpret_cast<const uint8_t*>(data),
              size_t(size), roiHeight, lineLength, size_t(uvcLineBytes));
  blockInfo.DataSize = roiHeight * lineLength;

  log.Trace("TqUvcStrmSocketHandler::OnCallback: NotifyData() ActualBufferIdx=%2d valid=%1d",
            static_cast<int>(actualBufferIdx), static_cast<int>(blockInfo.Valid));
  channel->NotifyData(actualBufferIdx, blockInfo);
}

void LocalNewBufferCallBack(char* data, int size, void* context) {
  if (context == nullptr) return;
  TqUvcStrmChan* channel = static_cast<TqUvcDevice*>(context)->GetStrmChan();
  if (channel == nullptr) return;
  channel->DeliverFrame(data, size);
}
