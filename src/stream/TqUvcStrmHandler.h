// Receives each captured frame and writes it into the client's buffers. The
// frame work runs on the camera's capture thread; the handler's own thread
// body does nothing and is never started.
#pragma once

#include <rkosdep.h>
#include <tq_uvc.h>

#include <atomic>
#include <cstdint>

#include "support/TqUvcThread.h"

class TqUvcStrmChan;
class TqUvcDevice;

class TqUvcStrmHandler : public TqUvcThread {
 public:
  explicit TqUvcStrmHandler(TqUvcStrmChan* channel);
  ~TqUvcStrmHandler() override = default;

  virtual bool IsStatusOk() { return true; }
  virtual uint32_t StreamStart(uint32_t) {
    active = true;
    return 0;
  }
  virtual uint32_t StreamStop(uint32_t) {
    active = false;
    return 0;
  }
  virtual uint32_t StreamLockTableAcquireDmaMutex() { return 0; }
  virtual uint32_t StreamLockTableReleaseDmaMutex() { return 0; }

 protected:
  TqUvcStrmChan* channel;
  uint32_t status;
  std::atomic<bool> active;  // StreamStart may run on several client threads
};

class TqUvcStrmSocketHandler : public TqUvcStrmHandler {
 public:
  TqUvcStrmSocketHandler(TqUvcStrmChan* channel, uint32_t count);
  ~TqUvcStrmSocketHandler() override;

  int Execute(void* arg) override;
  uint32_t StreamLockTableAcquireDmaMutex() override;
  uint32_t StreamLockTableReleaseDmaMutex() override;

  // One frame, on the capture thread.
  void OnCallback(char* data, int size);

  _tagTqUvcDataBlockInfo& BlockInfo() { return blockInfo; }

 private:
  // Kept for the handler's layout; nothing reads them.
  [[maybe_unused]] uint32_t count;
  TqUvcDevice* device;
  uint32_t actualBufferIdx;
  [[maybe_unused]] uint32_t unusedIndex;
  // The channel's "UVC:Dma": the client may still hold it when the stream
  // stops and this handler goes, so the channel keeps it.
  RkOsCriticalSection* dmaMutex;
  _tagTqUvcDataBlockInfo blockInfo;
  [[maybe_unused]] uint8_t flag;
};

// The camera's new-buffer callback; context is the TqUvcDevice. Drops the
// frame silently when the device has no stream channel or it is not started.
void LocalNewBufferCallBack(char* data, int size, void* context);
