// The UVC video function of every camera: per camera number the client's
// new-buffer callback and its context, fed from that camera's capture thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "video/CaptureThread.h"

typedef void (*NewBufferCallback)(char* data, int size, void* context);

class Vexa_UVC {
 public:
  Vexa_UVC();
  // Stops every capture that still delivers frames to this object and detaches
  // it, so no capture thread calls into freed memory.
  ~Vexa_UVC();
  Vexa_UVC(const Vexa_UVC&) = delete;
  Vexa_UVC& operator=(const Vexa_UVC&) = delete;

  unsigned char Init();
  // Opens the camera's node and lists its sizes into `list` (room for
  // LIST_MAX_NUM + 1 entries) and `count`; -21 or -22 on failure.
  int OpenStreaming(unsigned char index, char* devicePath, _Formats* list, int* count);
  void GetStreamingFrameFormat(unsigned char index, int* width, int* height, int* lineBytes);
  void SetStreamingFrameFormat(unsigned char index, int width, int height);
  // Routes the camera's frames here and starts its capture thread; -20, -23, -24.
  int StartStreaming(unsigned char index);
  int StopStreaming(unsigned char index);
  void CloseStreaming(unsigned char index);
  // Stores callback and context for the camera number; -1 when the callback is
  // null (the slot is cleared all the same), else 0.
  int RegisterNewBufferCallback(unsigned char index, NewBufferCallback callback, void* context);

  // Runs on the capture thread; `context` is the Vexa_UVC object. Always 0.
  static int ReceiveCallbackStream(unsigned char* data, int size, int index, void* context);

  // Frames passed on since the last StartStreaming, all cameras together.
  uint32_t frameCount() const { return frameCount_; }
  bool streaming() const { return streaming_; }

 private:
  struct Receiver {
    NewBufferCallback callback = nullptr;
    void* context = nullptr;
  };
  // Written by the caller's thread, read by the capture threads: one lock so
  // a frame never pairs one registration's callback with another's context.
  mutable std::mutex receiversLock_;
  Receiver receivers_[256];
  std::atomic<uint32_t> frameCount_{0};
  std::atomic<bool> streaming_{false};
};
