// One open descriptor of an emulated video node: its format, frame interval,
// buffers (one memfd, mappable by the client) and the producer thread that
// fills queued buffers with the test pattern. The descriptor handed out is an
// eventfd that counts finished frames, so a client's select/poll on it is the
// real call: readable while a VIDIOC_DQBUF would succeed (from a moment after
// the frame is published).
#pragma once

#include <linux/videodev2.h>
#include <poll.h>
#include <tqsim/CameraConfig.h>
#include <tqsim/Sim.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tqsim {

class Camera;

class VideoStream {
 public:
  // Opens the node for `camera`; null with *error set (errno value) when the
  // eventfd cannot be made.
  // flags: open(2)'s, O_NONBLOCK decides whether DQBUF waits. busInfo: the
  // USB path QUERYCAP reports.
  static std::unique_ptr<VideoStream> create(std::shared_ptr<Camera> camera, bool captureNode, int flags,
                                             std::string busInfo, int* error);
  ~VideoStream();
  VideoStream(const VideoStream&) = delete;
  VideoStream& operator=(const VideoStream&) = delete;

  int fd() const { return eventFd_; }
  CameraId cameraId() const { return cameraId_; }

  // 0, or the errno value the ioctl fails with.
  int ioctl(unsigned long request, void* arg);
  // A descriptor of the buffer memory for a mapping of length bytes at
  // offset (the caller maps it and closes it), or the errno value.
  int mapFd(uint64_t offset, uint64_t length, int flags, int& fd);
  // POLLERR before STREAMON, POLLERR | POLLHUP | POLLPRI once the node is gone
  // (unplug, or the selectFails fault: the driver lost the device), else 0.
  int pollState();
  // The same, kept current without a lock: polls run inside a sanitizer's
  // blocking-call region, where lock order is not seen.
  const std::atomic<int>* pollBits() const { return &pollBits_; }

  // The node went away (unplug, or the select fault): every later ioctl fails
  // with ENODEV and select on the descriptor reports EBADF. Wakes a select
  // that is waiting. Returns true the first time.
  bool breakStream();
  bool broken() const { return broken_.load(); }

  // Stops the producer and releases the buffers; the descriptor stays open
  // (the owner closes it after removing the stream from its table).
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

  VideoStream(std::shared_ptr<Camera> camera, bool captureNode, std::string busInfo, int eventFd);

  // What the descriptors open on one node share, as with a driver: the
  // priorities and which descriptor owns the buffer queue.
  using Key = std::pair<CameraId, bool>;
  struct NodeShared {
    std::mutex mutex;
    std::map<Key, std::array<int, 4>> byNode;
    std::map<Key, const VideoStream*> owners;
    std::set<Key> streaming;
    struct Format {
      uint32_t width = 0;
      uint32_t height = 0;
      v4l2_fract interval{1, 30};
    };
    std::map<Key, Format> formats;  // the node's current format, set by S_FMT / S_PARM
    uint32_t highest(const Key& key);
    void change(const Key& key, uint32_t from, uint32_t to);
    bool busy(const Key& key, const VideoStream* self);  // another descriptor owns the queue
    bool allocated(const Key& key);                      // any descriptor holds buffers
    bool isStreaming(const Key& key);
    void own(const Key& key, const VideoStream* self, bool owns);
    void setStreaming(const Key& key, bool on);
  };
  static NodeShared& shared();
  Key nodeKey() const;
  int setPriority(uint32_t priority);
  // The node's format into this descriptor's fields (while it has no buffers)
  // and back.
  void loadFormatLocked();
  void storeFormatLocked();
  int priorityCheck();  // EBUSY when another descriptor has a higher priority
  bool known(unsigned long request) const;
  bool lost() const;
  uint32_t bufferType() const {
    return captureNode_ ? V4L2_BUF_TYPE_VIDEO_CAPTURE : V4L2_BUF_TYPE_META_CAPTURE;
  }
  int enumInput(v4l2_input* input);
  int tryFmt(v4l2_format* fmt);
  int metaFmt(v4l2_format* fmt);
  static void adjustSize(const VideoConfig& video, uint32_t& w, uint32_t& h);
  static void fillFormat(v4l2_format* fmt, uint32_t w, uint32_t h, uint32_t pixelFormat);
  v4l2_fract nearestInterval(const FrameSize* size, v4l2_fract asked) const;

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
  bool signalFrame();
  bool consumeFrameSignal();
  void producerLoop();
  std::chrono::nanoseconds framePeriodLocked() const;

  const std::shared_ptr<Camera> camera_;
  const CameraId cameraId_;
  const bool captureNode_;
  const std::string busInfo_;
  const int eventFd_;

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::atomic<bool> broken_{false};
  // Frame counts on eventFd_ are added and taken under this lock.
  std::mutex signalMutex_;
  // Counts of frames dequeued before their count came (see
  // consumeFrameSignal); the producer leaves out that many.
  uint32_t owedSignals_ = 0;

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
  std::atomic<int> pollBits_{POLLERR};
  bool stopProducer_ = false;
  std::atomic<bool> stopping_{false};  // read by the producer while it fills a frame
  std::thread producer_;
  uint32_t sequence_ = 0;
  std::atomic<uint32_t> framesProduced_{0};
  uint32_t priority_ = V4L2_PRIORITY_DEFAULT;
};

}  // namespace tqsim
