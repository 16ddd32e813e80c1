// One UVC video node turned into a stream of YUYV frames delivered to one
// callback on a POSIX capture thread. `open` only lists the frame sizes; the
// thread reopens the node, streams, and hands every dequeued buffer to the
// callback before requeueing it.
//
// Everything the thread touches lives in a stream record that the thread holds
// a reference to, never in the CaptureThread object: the callback may stop the
// stream or even destroy the object, and the thread still ends cleanly once
// the callback has returned.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#define LIST_MAX_NUM 10

// One frame size offered by the camera, as it leaves the capture layer.
struct _Formats {
  int32_t width;
  int32_t height;
};

// One discrete YUYV frame size with its discrete frame rates.
struct FrameSizeEntry {
  int32_t width;
  int32_t height;
  int32_t nFrameRates;
  // One slot more than the limit: the limit test accepts an eleventh rate.
  int32_t frameRates[LIST_MAX_NUM + 1];
};

// One driver buffer mapped into the process; unmapped by its destructor.
class MappedBuffer {
 public:
  MappedBuffer() = default;
  MappedBuffer(void* start, size_t length) : start_(start), length_(length) {}
  MappedBuffer(MappedBuffer&& other) noexcept;
  MappedBuffer& operator=(MappedBuffer&& other) noexcept;
  MappedBuffer(const MappedBuffer&) = delete;
  MappedBuffer& operator=(const MappedBuffer&) = delete;
  ~MappedBuffer() { reset(); }

  void* start() const { return start_; }
  size_t length() const { return length_; }
  void reset();

 private:
  void* start_ = nullptr;
  size_t length_ = 0;
};

typedef int (*CaptureCallback)(unsigned char* data, int size, int cameraIndex, void* context);

class CaptureThread {
 public:
  CaptureThread();
  // Stops the thread. On another thread it joins it and releases whatever an
  // early end left open or mapped; on the capture thread itself (the callback
  // destroying its own capture object) the thread is detached and releases
  // everything after the callback returns.
  ~CaptureThread();
  CaptureThread(const CaptureThread&) = delete;
  CaptureThread& operator=(const CaptureThread&) = delete;

  // Lists the node's discrete YUYV sizes and rates. -22 when the node cannot be
  // opened, else the result of closing it again.
  int open(char* device);
  // Chooses width, height and rate from the list; always 0.
  int SetStreamingFormat(int width, int height);
  // The chosen size; always 0.
  int GetStreamingFormat(int* width, int* height);
  // -23 while running, -24 when the thread cannot be created, else 0.
  int start();
  // Stops the thread; always 0. From another thread it wakes the thread's wait
  // and joins it; from the capture thread (the callback) it only asks it to
  // stop, and the thread ends once the callback returns.
  int close();

  // Callback, its context and the camera number passed back to it, published
  // together; a running thread picks them up with its next frame.
  void setCallback(CaptureCallback callback, void* context, uint32_t cameraIndex);
  void* callbackContext() const;

  int32_t frameSizeCount() const { return nFrameSizes_; }
  // Entry `index` of the listing (0 .. LIST_MAX_NUM; the last one is the zeroed
  // spare that a count of eleven reaches).
  const FrameSizeEntry& frameSize(int index) const;
  int32_t frameRate() const { return frameRate_; }
  // The frame size the driver reported for the last stream, 0 before.
  uint32_t imageSize() const;
  // True from the thread's start until `close`, also after an early end.
  bool running() const;
  const char* devicePath() const { return devicePath_; }
  uint32_t bufferCount() const { return nBuffers_; }

  struct Stream;

 private:
  int enumFrameIntervals(int fd, FrameSizeEntry& entry);
  bool onCaptureThread() const;

  int32_t nFrameSizes_ = 0;
  int32_t frameRate_ = 0;
  int32_t width_ = 0;
  int32_t height_ = 0;
  // Ten entries are filled at most; the zeroed spare keeps a count of eleven
  // inside the array for every reader that walks nFrameSizes entries.
  FrameSizeEntry frameSizes_[LIST_MAX_NUM + 1];
  uint32_t nBuffers_ = 4;
  char devicePath_[256];
  // The owner's copy of the callback; each new stream starts with it.
  CaptureCallback callback_ = nullptr;
  void* context_ = nullptr;
  uint32_t cameraIndex_ = 0;
  // The current (or last) stream, shared with its thread.
  std::shared_ptr<Stream> stream_;
  pthread_t thread_{};
  // Set while a started thread has been neither joined nor detached.
  bool joinable_ = false;
};

// Entry point handed to pthread_create; its argument is a heap-held reference
// to the thread's stream, which it takes over. 0 for a null argument.
void* CaptureThreadRoutineStatic(void* arg);
