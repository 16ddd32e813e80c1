#include "stream/TqUvcStrmChan.h"

#include <pthread.h>

#include <cstdint>

#include "control/TqUvcCtrlChan.h"
#include "control/VexaHID_Interface.h"
#include "pool/TqUvcDevice.h"
#include "stream/TqUvcStrmHandler.h"
#include "support/CriticalSectionLock.h"
#include "support/LibLogs.h"
#include "support/TqUvcIni.h"

namespace {

constexpr uint32_t kError = 0x8FFF;
constexpr uint32_t kRequestLock = TQUVC_REQ_LOCK;
constexpr uint32_t kRequestNotify = TQUVC_REQ_NOTIFY;

// Camera registers holding the image geometry.
constexpr uint32_t kRegWidth = 0x40A04;
constexpr uint32_t kRegHeight = 0x40A08;
constexpr uint32_t kRegOffsetX = 0x40A0C;
constexpr uint32_t kRegOffsetY = 0x40A10;
constexpr uint32_t kRegLinePitch = 0x40708;

constexpr uint32_t kPixelFormatYCbCr422 = 0x0210003B;
constexpr uint32_t kStartSettleMs = 100;

// Set while this thread is inside DeliverFrame: a StreamStop issued from the
// data callback must not wait for its own frame.
thread_local bool deliveringFrame = false;
// The handler this thread's frame is in, and that handler once a StreamStop
// from the data callback took it: the frame still runs in it, so DeliverFrame
// deletes it when the frame has left.
thread_local TqUvcStrmHandler* frameHandler = nullptr;
thread_local TqUvcStrmHandler* stoppedUnderFrame = nullptr;

}  // namespace

class TqUvcStrmChan::Joining {
 public:
  explicit Joining(TqUvcStrmChan& chan) : chan_(chan) { chan_.joiners.fetch_add(1); }
  ~Joining() { chan_.joiners.fetch_sub(1); }
  Joining(const Joining&) = delete;
  Joining& operator=(const Joining&) = delete;

 private:
  TqUvcStrmChan& chan_;
};

bool TqUvcStrmChan::enterStrmLock() {
  if (!deliveringFrame) {
    RkOsEnterCriticalSection(&strmLock);
    return true;
  }
  for (;;) {
    if (pthread_mutex_trylock(&strmLock.mutex) == 0) return true;
    if (joiners.load() != 0) return false;
    RkOsSleep(1);
  }
}

TqUvcStrmChan::TqUvcStrmChan(TqUvcDevice* owner)
    : TqUvcChannel(owner),
      dataCallback(nullptr),
      dataContext(0),
      strmLock{},
      handler(nullptr),
      minBufferSize(0),
      nBuffersAtStart(0),
      roiWidth(0),
      roiHeight(0),
      lineLength(0),
      roiOffsetX(0),
      roiOffsetY(0),
      uvcWidth(0),
      uvcHeight(0),
      uvcLineBytes(0),
      opened(0),
      started(0),
      acquisitionTimeout(0),
      testCase(0),
      handlerCount(0),
      framesInFlight(0),
      handlerUsers(0),
      dmaMutex{},
      dmaOwner(std::thread::id()),
      dmaDepth(0),
      joiners(0) {
  RkOsInitializeCriticalSection(&strmLock, "UVC:StrmLock");
  RkOsInitializeCriticalSection(&dmaMutex, "UVC:Dma");
}

TqUvcStrmChan::~TqUvcStrmChan() {
  log().Trace("TqUvcStrmChan::~TqUvcStrmChan()");
  if (handler.load() != nullptr) {
    // The owner left the stream running: end the capture thread before the
    // handler it calls goes away.
    if (device != nullptr && TqUvcIsAvailableUvcDevice(camera())) TqUvcStopAcquisition(camera());
    delete takeHandler();
  }
  RkOsDeleteCriticalSection(&dmaMutex);
  RkOsDeleteCriticalSection(&strmLock);
}

rk::CLog& TqUvcStrmChan::log() const { return device != nullptr ? device->GetLog() : LIBLog; }

int TqUvcStrmChan::camera() const { return static_cast<int>(device->GetCamIndex()); }

uint32_t TqUvcStrmChan::ReadConfiguration() {
  rk::CLog& l = log();
  acquisitionTimeout = static_cast<uint32_t>(TqUvcGetIniIntCached("Tq.Uvc", "AcquisitionTimeout", 6000));
  l.Debug("ReadConfiguration: AcquisitionTimout: %d", static_cast<int>(acquisitionTimeout));
  testCase = static_cast<uint32_t>(TqUvcGetIniIntCached("Tq.Uvc", "TEST_CASE", 0));
  l.Debug("ReadConfiguration: TEST_CASE: %d", static_cast<int>(testCase));
  l.Trace("TqUvcStrmChan::ReadConfiguration() [end]");
  return 0;
}

uint32_t TqUvcStrmChan::Open(uint32_t, uint32_t) {
  rk::CLog& l = log();
  uint32_t result = 0;
  {
    CriticalSectionLock lock(strmLock);
    if (device == nullptr || device->GetCtrlChan() == nullptr) {
      l.Debug("TqUvcStrmChan::no device");
      result = kError;
    } else if (!device->GetCtrlChan()->IsConnected()) {
      l.Debug("TqUvcStrmChan::control channel not open");
      result = kError;
    } else if (opened != 0) {
      l.Debug("Stream channel already connected, skip");
      result = kError;
    } else {
      ReadConfiguration();
      const int cam = camera();
      if (TqUvcIsAvailableUvcDevice(cam)) {
        TqUvcOpenUvcDevice(cam);
        l.Debug("TqUvcStrmChan::Open : register callback");
        TqUvcRegisterNewBufferCallback(cam, LocalNewBufferCallBack, device);
      }
      l.Debug("TqUvcStrmChan::Open :opened stream");
      opened = 1;
    }
  }
  l.Trace("TqUvcStrmChan::Open() [end]");
  return result;
}

uint32_t TqUvcStrmChan::Close() {
  rk::CLog& l = log();
  uint32_t result = 0;
  if (!enterStrmLock()) {
    // From the data callback while another thread stops or closes this
    // stream: that thread is joining us, so refuse rather than wait.
    result = kError;
  } else {
    Joining joining(*this);
    if (opened == 0) {
      l.Trace("TqUvcStrmChan::Close: stream channel already closed, skip close");
    } else if (device == nullptr || !TqUvcIsAvailableUvcDevice(camera())) {
      result = kError;
    } else if (!TqUvcIsOpenUvcDevice(camera())) {
      l.Trace("TqUvcStrmChan::Close: UvcDevice already closed, skip close");
      // The UVC open failed at Open (node gone or moved). Kept opened, the
      // channel could never be opened again, and the capture object that
      // open left in the table would stay with it: finish the close.
      const int cam = camera();
      TqUvcRegisterNewBufferCallback(cam, nullptr, nullptr);
      TqUvcCloseUvcDevice(cam);
      dataMemory.Destroy();
      opened = 0;
    } else {
      const int cam = camera();
      l.Debug("TqUvcStrmChan::Close : unregister callback");
      TqUvcRegisterNewBufferCallback(cam, nullptr, nullptr);
      l.Debug("TqUvcStrmChan::Close: Close UVC streaming class");
      TqUvcCloseUvcDevice(cam);
      dataMemory.Destroy();
      opened = 0;
      l.Info("TqUvcStrmChan::Close(): stream channel closed");
    }
    RkOsLeaveCriticalSection(&strmLock);
  }
  l.Trace("TqUvcStrmChan::Close() [end]");
  return result;
}

uint32_t TqUvcStrmChan::RegisterDataCallback(TqUvcDataCallback callback, uint64_t context) {
  dataContext = context;
  dataCallback = callback;
  log().Trace("TqUvcStrmChan::RegisterDataCallback() [end]");
  return 0;
}

void TqUvcStrmChan::LockData(uint32_t index, _tagTqUvcDataBlockInfo& info) {
  rk::CLog& l = log();
  TqUvcDataCallback callback = dataCallback.load();
  if (device != nullptr && callback != nullptr) {
    info.LockStat = 1;
    info.BufferIdx = index;
    callback(index, kRequestLock, reinterpret_cast<void*>(device->GetHandle()), nullptr, dataContext.load());
    l.Trace("LockData::[blockIdx:%d] buffer[%d]: UNLOCKED -> LOCKED (LockStat:%d)",
            static_cast<int>(info.BlockIdx), static_cast<int>(index), 1);
  }
  l.Trace("TqUvcStrmChan::LockData() [end]");
}

void TqUvcStrmChan::NotifyData(uint32_t index, _tagTqUvcDataBlockInfo& info) {
  rk::CLog& l = log();
  l.Trace("TqUvcStrmChan::NotifyData() BufferIndx=%d", static_cast<int>(index));
  TqUvcDataCallback callback = dataCallback.load();
  if (device != nullptr && callback != nullptr) {
    info.BlockId += 1;
    info.LockStat = 2;
    info.BufferIdx = index;
    l.Trace("NotifyData buffer[%d]: LOCKED -> NOTIFIED (LockStat:%d valid:%d)", static_cast<int>(index), 2,
            static_cast<int>(info.Valid));
    callback(index, kRequestNotify, reinterpret_cast<void*>(device->GetHandle()), &info, dataContext.load());
  }
  l.Trace("TqUvcStrmChan::NotifyData() [end]");
}

uint32_t TqUvcStrmChan::StreamStart(uint32_t) {
  rk::CLog& l = log();
  l.Trace("TqUvcStrmChan::StreamStart()");
  if (device == nullptr || device->GetCtrlChan() == nullptr) {
    l.Error("TqUvcStrmChan::StreamStart: assertion error: missing internal devices");
  } else {
    CriticalSectionLock lock(strmLock);
    if (started.load() == 0) {
      TqUvcCtrlChan* ctrl = device->GetCtrlChan();
      const int cam = camera();

      nBuffersAtStart = dataMemory.GetNrBuffers();
      minBufferSize = dataMemory.GetBufferSize(0);
      for (uint32_t i = 1; i < nBuffersAtStart; ++i) {
        const uint32_t size = dataMemory.GetBufferSize(i);
        if (size < minBufferSize) minBufferSize = size;
      }
      l.Debug("TqUvcStrmChan::StreamStart: got internal min buffer size: %d (0x%x)",
              static_cast<int>(minBufferSize), minBufferSize);

      TqUvcStrmHandler* current = handler.load();
      if (current != nullptr) {
        tqDebugBreak("should not happen! let qz know about it!");
      } else {
        l.Debug("TqUvcStrmChan::StreamStart: create new streaming handler");
        current = new TqUvcStrmSocketHandler(this, 0);
        if (l.DebugEnabled()) {
          ++handlerCount;
          l.Debug("TqUvcStrmChan::StreamStart: create TheStrmHandler (count:%d)",
                  static_cast<int>(handlerCount));
        }
      }
      // The channel creates no other kind of handler.
      _tagTqUvcDataBlockInfo& info = static_cast<TqUvcStrmSocketHandler*>(current)->BlockInfo();
      info.Flags = 1;
      info.BlockIdx = 0;
      info.BufferIdx = 0;
      info.BlockId = 0;
      info.Incomplete = 0;
      info.Valid = 1;
      info.LockStat = 0;
      info.Reserved0 = 0;
      info.DataSize = 0;
      info.Width = 1280;
      info.Height = 1024;
      info.OffsetX = 0;
      info.OffsetY = 0;
      info.Reserved2 = 0;
      info.PixelFormat = kPixelFormatYCbCr422;
      info.Reserved3 = 1024;
      handler.store(current);

      // Register access is there while the control channel is linked.
      if (ctrl->IsLinked()) ctrl->ReadReg(kRegWidth, &roiWidth);
      if (ctrl->IsLinked()) ctrl->ReadReg(kRegHeight, &roiHeight);
      if (ctrl->IsLinked()) ctrl->ReadReg(kRegOffsetX, &roiOffsetX);
      if (ctrl->IsLinked()) ctrl->ReadReg(kRegOffsetY, &roiOffsetY);
      l.Debug("TqUvcStrmChan::StreamStart: read back: wxh = %dx%d offset: %d,%d", static_cast<int>(roiWidth),
              static_cast<int>(roiHeight), static_cast<int>(roiOffsetX), static_cast<int>(roiOffsetY));

      const uint32_t bitsPerPixel = (info.PixelFormat >> 16) & 0xFF;
      lineLength = (bitsPerPixel + 7) / 8 * roiWidth;
      if (ctrl->IsLinked()) ctrl->ReadReg(kRegLinePitch, &lineLength);

      TqUvcSetStreamingFormat(cam, static_cast<int>(roiWidth), static_cast<int>(roiHeight));
      TqUvcGetStreamingFormat(cam, &uvcWidth, &uvcHeight, &uvcLineBytes);

      info.Width = roiWidth;
      info.Height = roiHeight;
      info.OffsetX = roiOffsetX;
      info.OffsetY = roiOffsetY;

      l.Debug("TqUvcStrmChan::StreamStart: start uvc aquisition");
      {
        // A thread stopped from its callback may still be in it; the start
        // joins it.
        Joining joining(*this);
        TqUvcStartAcquisition(cam);
      }
      RkOsSleep(kStartSettleMs);
      started = 1;
      l.Debug("TqUvcStrmChan::StreamStart: stream channel started");
    }
  }
  l.Trace("TqUvcStrmChan::StreamStart() [end]");
  // Outside strmLock: a concurrent StreamStop waits for this call before it
  // deletes the handler.
  handlerUsers.fetch_add(1);
  TqUvcStrmHandler* current = handler.load();
  const uint32_t result = current != nullptr ? current->StreamStart(0) : 0;
  handlerUsers.fetch_sub(1);
  return result;
}

uint32_t TqUvcStrmChan::StreamStop(uint32_t arg) {
  rk::CLog& l = log();
  l.Debug("TqUvcStrmChan::StreamStop()");
  if (device == nullptr || device->GetCtrlChan() == nullptr) {
    l.Error("TqUvcStrmChan::StreamStop: assertion error: missing internal devices");
    l.Trace("TqUvcStrmChan::StreamStop() [end]");
    return kError;
  }
  uint32_t result = 0;
  if (!enterStrmLock()) {
    // From the data callback while another thread stops, closes or restarts
    // this stream and joins the capture thread: that stop comes first and
    // ends the stream, so this one finds it stopped.
    l.Trace("TqUvcStrmChan::StreamStop: stream already stopped");
    result = kError;
  } else {
    Joining joining(*this);
    if (started.load() == 0) {
      l.Trace("TqUvcStrmChan::StreamStop: stream already stopped");
      result = kError;
    } else {
      const int cam = camera();
      // Stops and joins the capture thread: no new frame reaches the handler.
      TqUvcStopAcquisition(cam);
      if (TqUvcStrmHandler* old = takeHandler()) {
        result = old->StreamStop(arg);
        if (deliveringFrame && old == frameHandler)
          stoppedUnderFrame = old;
        else
          delete old;
        if (l.DebugEnabled()) {
          --handlerCount;
          l.Debug("TqUvcStrmChan::StreamStop: deleted TheStrmHandler:%p (count:%d)",
                  static_cast<void*>(handler.load()), static_cast<int>(handlerCount));
        }
      } else {
        result = kError;
      }
      started = 0;
      TqUvcDisableAcqHidDevice(cam);
      l.Debug("TqUvcStrmChan::StreamStop(): stream channel stopped");
    }
    RkOsLeaveCriticalSection(&strmLock);
  }
  l.Trace("TqUvcStrmChan::StreamStop() [end]");
  return result;
}

uint32_t TqUvcStrmChan::StreamLockTableAcquireDmaMutex() {
  uint32_t result = 0;
  if (device == nullptr || device->GetCtrlChan() == nullptr) {
    result = kError;
  } else if (handler.load() != nullptr) {
    // Wait for another holder here, before the handler is counted as in use:
    // a StreamStop then never waits for a client thread that waits for a
    // client thread. The handler's own enter below is a recursive one.
    RkOsEnterCriticalSection(&dmaMutex);
    handlerUsers.fetch_add(1);
    if (TqUvcStrmHandler* current = handler.load()) {
      result = current->StreamLockTableAcquireDmaMutex();
      if (dmaDepth++ == 0) dmaOwner = std::this_thread::get_id();
    }
    handlerUsers.fetch_sub(1);
    RkOsLeaveCriticalSection(&dmaMutex);
  }
  log().Trace("TqUvcStrmChan::StreamLockTableAcquireDmaMutex() [end]");
  return result;
}

uint32_t TqUvcStrmChan::StreamLockTableReleaseDmaMutex() {
  uint32_t result = 0;
  // Only the holder releases; a hold taken before StreamStop is released
  // here even though its handler is gone.
  if (dmaOwner.load() == std::this_thread::get_id()) {
    if (--dmaDepth == 0) dmaOwner = std::thread::id();
    handlerUsers.fetch_add(1);
    if (TqUvcStrmHandler* current = handler.load())
      result = current->StreamLockTableReleaseDmaMutex();
    else
      RkOsLeaveCriticalSection(&dmaMutex);
    handlerUsers.fetch_sub(1);
  }
  log().Trace("TqUvcStrmChan::StreamLockTableReleaseDmaMutex() [end]");
  return result;
}

void TqUvcStrmChan::DeliverFrame(char* data, int size) {
  // Counted before the handler is read, so StreamStop either sees this frame
  // in flight or this frame sees no handler.
  framesInFlight.fetch_add(1);
  deliveringFrame = true;
  if (TqUvcStrmHandler* current = handler.load()) {
    frameHandler = current;
    static_cast<TqUvcStrmSocketHandler*>(current)->OnCallback(data, size);
    frameHandler = nullptr;
  }
  deliveringFrame = false;
  delete stoppedUnderFrame;
  stoppedUnderFrame = nullptr;
  framesInFlight.fetch_sub(1);
}

TqUvcStrmHandler* TqUvcStrmChan::takeHandler() {
  TqUvcStrmHandler* old = handler.exchange(nullptr);
  // The capture thread has normally been joined already; this covers a frame
  // still on its way in (a thread that began after the stop request).
  if (!deliveringFrame) {
    while (framesInFlight.load() != 0) RkOsSleep(1);
  }
  // Client calls in flight hold no lock and never block while counted.
  while (handlerUsers.load() != 0) RkOsSleep(1);
  return old;
}
