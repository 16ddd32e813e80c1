// One open descriptor of an emulated video node: its format, frame interval,
// buffers (one memfd, mappable by the client) and the producer thread that
// fills queued buffers with the test pattern. The descriptor handed out is one
// end of a socket pair; the emulation sends one byte from the other end per
// finished frame, so a client's select/poll on it is the real call: readable
// exactly while a VIDIOC_DQBUF would succeed. A socket (not an eventfd) so
// that an unplug can make the kernel itself report the descriptor the way it
// reports a disconnected video node (see breakStream).
#pragma once

#include <linux/videodev2.h>
#include <tqsim/CameraConfig.h>
#include <tqsim/Sim.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "UniqueFd.h"

namespace tqsim {

class Camera;

class VideoStream {
 public:
  // Opens the node for `camera`; null with *error set (errno value) when the
  // socket pair cannot be made.
  static std::unique_ptr<VideoStream> create(std::shared_ptr<Camera> camera, bool captureNode, int* error);
  ~VideoStream();
  VideoStream(const VideoStream&) = delete;
  VideoStream& operator=(const VideoStream&) = delete;

  int fd() const { return clientFd_; }
  CameraId cameraId() const { return cameraId_; }

  // 0, or the errno value the ioctl fails with.
  int ioctl(unsigned long request, void* arg);
  // A mapping of buffer memory, or MAP_FAILED with *error set.
  void* mmap(size_t length, int prot, int flags, int64_t offset, int* error);

  // The node went away (unplug, or the selectFails fault): every later ioctl
  // and mmap fails with ENODEV, and the descriptor polls as a disconnected
  // video node does, POLLERR | POLLHUP | POLLPRI (select: readable, writable
  // and exceptional), waking a wait already in progress. The descriptor stays
  // open and existing mappings stay valid. Returns true the first time.
  bool breakStream();
  bool broken() const { return broken_.load(); }

  // Stops the producer and releases the buffers; the client's descriptor stays
  // open (the owner closes it after removing the stream from its table) and is
  // never touched again.
  void shutdown();

  uint32_t framesProduced() const { return framesProduced_.load(); }

 private:
  enum class BufferState { Dequeued, Queued, Done };
  struct DoneFrame {
    uint32_t index;
    uint32_t bytesUsed;
    uint32_t sequence;
    timeval timestamp;
  };

  VideoStream(std::shared_ptr<Camera> camera, bool captureNode, int clientFd, int peerFd);

  int querycap(v4l2_capability* cap);
  int enumFmt(v4l2_fmtdesc* desc);
  int enumFrameSizes(v4l2_frmsizeenum* fsize);
  int enumFrameIntervals(v4l2_frmivalenum* fival);
  int getFmt(v4l2_format* fmt);
  int setFmt(v4l2_format* fmt);
  int getParm(v4l2_streamparm* parm);
  int setParm(v4l2_streamparm* parm);
  int reqbufs(v4l2_requestbuffers* req);
  int querybuf(v4l2_buffer* buf);
  int qbuf(v4l2_buffer* buf);
  int dqbuf(v4l2_buffer* buf);
  int streamOn(const int* type);
  int streamOff(const int* type);

  void fillBufferInfoLocked(uint32_t index, v4l2_buffer* buf) const;
  void releaseBuffersLocked();
  void stopProducer(std::unique_lock<std::mutex>& lock);
  void dropReadyFramesLocked();
  bool signalFrameLocked();
  bool consumeFrameSignalLocked();
  void producerLoop();
  std::chrono::nanoseconds framePeriodLocked() const;

  const std::shared_ptr<Camera> camera_;
  const CameraId cameraId_;
  const bool captureNode_;
  const int clientFd_;  // the client's descriptor; the client closes it

  mutable std::mutex mutex_;
  // Our end of the pair: frame bytes go out here. Closed when the stream breaks.
  UniqueFd peer_;

  std::condition_variable wake_;
  std::atomic<bool> broken_{false};

  uint32_t width_ = 0;
  uint32_t height_ = 0;
  uint32_t sizeImage_ = 0;
  v4l2_fract interval_{1, 30};

  int memFd_ = -1;
  uint8_t* memory_ = nullptr;  // the producer's own writable mapping
  size_t bufferStride_ = 0;    // page-aligned distance between buffers
  size_t memorySize_ = 0;
  std::vector<BufferState> states_;
  std::deque<uint32_t> incoming_;
  std::deque<DoneFrame> done_;

  bool streaming_ = false;
  bool stopProducer_ = false;
  std::thread producer_;
  uint32_t sequence_ = 0;
  std::atomic<uint32_t> framesProduced_{0};
};

}  // namespace tqsim
