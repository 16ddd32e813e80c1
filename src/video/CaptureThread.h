// One UVC video node turned into a stream of YUYV frames delivered to one
// callback on a POSIX capture thread. `open` only lists the frame sizes; the
// thread reopens the node, streams, and hands every dequeued buffer to the
// callback before requeueing it.
#pragma once

#include <pthread.h>

#include <atomic>
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

struct MappedBuffer {
  void* start;
  size_t length;
};

typedef int (*CaptureCallback)(unsigned char* data, int size, int cameraIndex, void* context);

class CaptureThread;
void* CaptureThreadRoutineStatic(void* arg);

class CaptureThread {
 public:
  CaptureThread();
  // Stops and joins a thread still alive and releases whatever an early end of
  // the thread left open or mapped.
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
  // Stops and joins the thread; always 0.
  int close();
  void* ThreadRoutine();

  int32_t nFrameSizes;
  int32_t frameRate;
  int32_t width;
  int32_t height;
  uint32_t imageSize;
  // Written by the caller, read by the capture thread once per frame.
  std::atomic<uint32_t> cameraIndex;
  std::atomic<void*> callbackContext;
  std::atomic<CaptureCallback> callback;
  // Ten entries are filled at most; the zeroed spare keeps a count of eleven
  // inside the array for every reader that walks nFrameSizes entries.
  FrameSizeEntry frameSizes[LIST_MAX_NUM + 1];
  uint32_t nBuffers;
  char devicePath[256];
  MappedBuffer* buffers;
  pthread_t thread;
  std::atomic<bool> running;

 private:
  int enumFrameIntervals(int fd, FrameSizeEntry& entry);
  // Unmaps, frees and closes what the thread set up; only once the thread is
  // gone (or from the thread itself).
  void releaseStream();
  // Joins a thread that has been started and not yet joined.
  void joinThread();

  // The node the thread opened, -1 when none; touched by the thread while it
  // lives and by the caller only after joining it.
  // The format the thread applies, taken by start so that a later
  // SetStreamingFormat on the caller's thread never races with the thread.
  int32_t streamWidth_ = 0;
  int32_t streamHeight_ = 0;
  int32_t streamRate_ = 0;
  int streamFd_ = -1;
  uint32_t mappedCount_ = 0;
  std::unique_ptr<MappedBuffer[]> bufferStore_;
  // Set when a started thread has not been joined yet (caller's thread only).
  bool threadJoinable_ = false;
  // Set by the thread as its last action.
  std::atomic<bool> threadFinished_{false};
  // Set by the destructor so that a thread that marks itself running after the
  // object is being destroyed still stops.
  std::atomic<bool> destroying_{false};

  friend void* CaptureThreadRoutineStatic(void* arg);
};

// Entry point handed to pthread_create; 0 for a null argument.
void* CaptureThreadRoutineStatic(void* arg);
