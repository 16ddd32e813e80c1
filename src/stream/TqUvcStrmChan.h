// The device's stream channel: connects the camera's video function to the
// client's buffers. Holds the data memory, the client's data callback and,
// while streaming, the stream handler that copies each frame.
#pragma once

#include <rkosdep.h>
#include <tq_uvc.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "control/TqUvcChannel.h"
#include "stream/TqUvcDataMemory.h"
#include "support/CLog.h"

class TqUvcStrmHandler;

class TqUvcStrmChan : public TqUvcChannel {
 public:
  explicit TqUvcStrmChan(TqUvcDevice* owner);
  // Does not stop or close: the device does that first.
  ~TqUvcStrmChan() override;

  uint32_t ReadConfiguration();
  // 0, or 0x8FFF when refused (no device, control channel not connected,
  // already open).
  uint32_t Open(uint32_t arg0, uint32_t arg1);
  uint32_t Close();
  uint32_t RegisterDataCallback(TqUvcDataCallback callback, uint64_t context);
  // The two steps of the buffer protocol, on the capture thread.
  void LockData(uint32_t index, _tagTqUvcDataBlockInfo& info);
  void NotifyData(uint32_t index, _tagTqUvcDataBlockInfo& info);
  uint32_t StreamStart(uint32_t arg);
  // 0x8FFF when not started.
  uint32_t StreamStop(uint32_t arg);
  uint32_t StreamLockTableAcquireDmaMutex();
  uint32_t StreamLockTableReleaseDmaMutex();

  TqUvcDataMemory& GetDataMemory() { return dataMemory; }
  bool IsOpened() const { return opened != 0; }
  bool IsStarted() const { return started != 0; }

  // Geometry fixed at stream start, read by the handler on the capture thread.
  uint32_t GetRoiWidth() const { return roiWidth; }
  uint32_t GetRoiHeight() const { return roiHeight; }
  uint32_t GetLineLength() const { return lineLength; }
  uint32_t GetRoiOffsetX() const { return roiOffsetX; }
  uint32_t GetRoiOffsetY() const { return roiOffsetY; }
  uint32_t GetUvcWidth() const { return uvcWidth; }
  uint32_t GetUvcHeight() const { return uvcHeight; }
  uint32_t GetUvcLineBytes() const { return uvcLineBytes; }
  uint32_t GetMinBufferSize() const { return minBufferSize; }
  TqUvcStrmHandler* GetHandler() const { return handler.load(); }

  // Capture thread: hands one frame to the live handler, or drops it when the
  // stream is not started. StreamStop waits for a frame in here before it
  // deletes the handler.
  void DeliverFrame(char* data, int size);
  // The client's lock-table mutex, handed to each handler. It lives as long
  // as the channel, so a hold taken before StreamStop can be released after.
  RkOsCriticalSection* GetDmaMutex() { return &dmaMutex; }

 private:
  std::atomic<TqUvcDataCallback> dataCallback;
  std::atomic<uint64_t> dataContext;
  RkOsCriticalSection strmLock;  // "UVC:StrmLock"
  // Read by LocalNewBufferCallBack on the capture thread.
  std::atomic<TqUvcStrmHandler*> handler;
  uint32_t minBufferSize;
  uint32_t nBuffersAtStart;
  uint32_t roiWidth, roiHeight, lineLength, roiOffsetX, roiOffsetY;
  int uvcWidth, uvcHeight, uvcLineBytes;
  uint32_t opened;
  std::atomic<uint32_t> started;
  uint32_t acquisitionTimeout;
  uint32_t testCase;
  TqUvcDataMemory dataMemory;
  uint32_t handlerCount;
  // Frames inside DeliverFrame right now.
  std::atomic<uint32_t> framesInFlight;
  // Client calls using the handler outside strmLock right now (the DMA-mutex
  // calls, the end of StreamStart); none of them blocks while counted.
  std::atomic<uint32_t> handlerUsers;
  RkOsCriticalSection dmaMutex;  // "UVC:Dma"
  // The thread holding dmaMutex through the client calls and its depth; the
  // depth is touched only by that thread.
  std::atomic<std::thread::id> dmaOwner;
  uint32_t dmaDepth;
  // Set while a thread holding strmLock may join the capture thread (a stop,
  // a close, a start that joins a thread stopped from its callback).
  std::atomic<uint32_t> joiners;

  // Enters strmLock. On the capture thread (a stop or close from the data
  // callback) it only tries, and gives up once the holder is joining: that
  // join waits for this very thread. False when it gave up.
  bool enterStrmLock();
  // Marks the holder of strmLock as joining for one scope.
  class Joining;

  // Takes the handler out of reach of the capture thread and the client calls
  // and hands it over for deletion once no frame and no call is inside it.
  TqUvcStrmHandler* takeHandler();
  rk::CLog& log() const;
  int camera() const;
};
