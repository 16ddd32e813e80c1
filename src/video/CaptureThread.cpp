#include "video/CaptureThread.h"

#include <fcntl.h>
#include <libv4l2.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "support/LibLogs.h"
#include "support/UniqueFd.h"

// What one started thread works on. The thread holds a reference, so the
// record outlives a CaptureThread destroyed from the thread's own callback.
struct CaptureThread::Stream {
  // Fixed before the thread starts.
  char devicePath[256] = {};
  int32_t width = 0;
  int32_t height = 0;
  int32_t rate = 0;
  uint32_t nBuffers = 4;
  // A stream stopped from its own callback and restarted there: its thread
  // may still be letting go of the node, so this thread waits for it first.
  std::shared_ptr<Stream> previous;

  std::atomic<bool> stop{false};
  std::atomic<bool> running{false};
  std::atomic<uint32_t> imageSize{0};
  // In the thread's poll set next to the node, so a stop wakes it at once.
  UniqueFd wake;

  std::mutex callbackLock;
  CaptureCallback callback = nullptr;
  void* context = nullptr;
  uint32_t cameraIndex = 0;

  // The thread's resources; the owner touches them only once the thread is
  // gone. Declared after the node so the buffers are unmapped first.
  UniqueFd node;
  std::vector<MappedBuffer> buffers;

  std::mutex endLock;
  std::condition_variable endChanged;
  bool ended = false;

  void requestStop() {
    stop = true;
    if (wake.valid()) {
      uint64_t one = 1;
      ssize_t n = ::write(wake.get(), &one, sizeof(one));
      (void)n;
    }
  }
  void release() {
    buffers.clear();
    node.reset();
  }
  // Once the thread is joined nothing waits on the wake descriptor any more;
  // a capture object kept after its last stream holds no descriptor.
  void releaseJoined() {
    release();
    wake.reset();
  }
  void markEnded() {
    std::lock_guard<std::mutex> lock(endLock);
    ended = true;
    endChanged.notify_all();
  }
  void waitEnded() {
    std::unique_lock<std::mutex> lock(endLock);
    endChanged.wait(lock, [this] { return ended; });
  }
};

MappedBuffer::MappedBuffer(MappedBuffer&& other) noexcept
    : start_(std::exchange(other.start_, nullptr)), length_(std::exchange(other.length_, 0)) {}

MappedBuffer& MappedBuffer::operator=(MappedBuffer&& other) noexcept {
  if (this != &other) {
    reset();
    start_ = std::exchange(other.start_, nullptr);
    length_ = std::exchange(other.length_, 0);
  }
  return *this;
}

void MappedBuffer::reset() {
  if (start_) v4l2_munmap(start_, length_);
  start_ = nullptr;
  length_ = 0;
}

namespace {

constexpr int kWaitTimeoutMs = 2000;

// Drivers answer EAGAIN/EINTR for transient states; only other errors count.
// With `stop` the retry also ends once a stop was asked for, so a node that
// wakes without a finished buffer cannot hold a stopping thread.
int xioctl(int fd, unsigned long request, void* arg, const std::atomic<bool>* stop = nullptr) {
  int r;
  do {
    r = v4l2_ioctl(fd, request, arg);
  } while (r == -1 && (errno == EAGAIN || errno == EINTR) && !(stop && stop->load()));
  return r;
}

// A zeroed description of driver buffer `index` of the capture queue.
v4l2_buffer mmapBuffer(uint32_t index) {
  v4l2_buffer buf;
  memset(&buf, 0, sizeof(buf));
  buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  buf.memory = V4L2_MEMORY_MMAP;
  buf.index = index;
  return buf;
}

enum class NodeWait { Ready, Again, Stopped, Failed };

// One wait for the node (`fds`: the node, then the wake descriptor), with the
// results select gives and its log lines: Again after a time-out or EINTR,
// Failed (the thread ends) on any other error.
NodeWait waitForNode(const CaptureThread::Stream& s, pollfd* fds, nfds_t nfds) {
  fds[0].revents = 0;
  fds[1].revents = 0;
  const int rc = poll(fds, nfds, kWaitTimeoutMs);
  if (rc == 0) {
    LIBLog.Error("CaptureThread::ThreadRoutine: error in select: timeout expired\n");
    return NodeWait::Again;
  }
  if (rc == -1 || (fds[0].revents & POLLNVAL) != 0) {
    // select fails with EBADF where poll flags the descriptor.
    const int err = rc == -1 ? errno : EBADF;
    if (err == EINTR) {
      LIBLog.Error("CaptureThread::ThreadRoutine: interrupted system call\n");
      return NodeWait::Again;
    }
    LIBLog.Error("CaptureThread::ThreadRoutine: select returned error: \"%s\" (errno:%d)\n", strerror(err),
                 err);
    return NodeWait::Failed;
  }
  if (s.stop) return NodeWait::Stopped;
  // POLLERR/POLLHUP count as readable, as select reports them; the dequeue
  // then tells what happened.
  return fds[0].revents != 0 ? NodeWait::Ready : NodeWait::Again;
}

// The thread's body. Returns early (node left open, buffers mapped, `running`
// left set) on the failures that end a stream; `close` releases those.
void runStream(CaptureThread::Stream& s) {
  if (s.previous) {
    s.previous->waitEnded();
    s.previous.reset();
  }
  LIBLog.Debug("--> CaptureThread::run (%dx%d) \n", s.width, s.height);
  if (s.stop) return;  // stopped before it began
  s.running = true;

  UniqueFd node(v4l2_open(s.devicePath, O_RDWR | O_NONBLOCK, 0), v4l2_close);
  if (!node) {
    LIBLog.Error("---> Cannot open device\n");
    return;
  }
  const int fd = node.get();
  s.node = std::move(node);

  v4l2_format fmt;
  memset(&fmt, 0, sizeof(fmt));
  fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  fmt.fmt.pix.width = static_cast<uint32_t>(s.width);
  fmt.fmt.pix.height = static_cast<uint32_t>(s.height);
  fmt.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
  fmt.fmt.pix.field = V4L2_FIELD_NONE;
  if (xioctl(fd, VIDIOC_S_FMT, &fmt, &s.stop) != 0) {
    LIBLog.Error("---> Error xioctl \n");
    return;
  }
  if (fmt.fmt.pix.pixelformat != V4L2_PIX_FMT_YUYV) {
    LIBLog.Debug("---> Error format \n");
    return;
  }
  if (fmt.fmt.pix.width != static_cast<uint32_t>(s.width) ||
      fmt.fmt.pix.height != static_cast<uint32_t>(s.height))
    LIBLog.Debug("---> Error size %dx%d\n", static_cast<int>(fmt.fmt.pix.width),
                 static_cast<int>(fmt.fmt.pix.height));
  s.imageSize = fmt.fmt.pix.sizeimage;

  v4l2_streamparm parm;
  memset(&parm, 0, sizeof(parm));
  parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  xioctl(fd, VIDIOC_G_PARM, &parm, &s.stop);
  parm.parm.capture.timeperframe.denominator = static_cast<uint32_t>(s.rate);
  xioctl(fd, VIDIOC_S_PARM, &parm, &s.stop);

  v4l2_requestbuffers req;
  memset(&req, 0, sizeof(req));
  req.count = s.nBuffers;
  req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  req.memory = V4L2_MEMORY_MMAP;
  xioctl(fd, VIDIOC_REQBUFS, &req, &s.stop);
  const uint32_t count = req.count;
  s.buffers.reserve(count);

  for (uint32_t i = 0; i < count; ++i) {
    v4l2_buffer buf = mmapBuffer(i);
    xioctl(fd, VIDIOC_QUERYBUF, &buf, &s.stop);
    void* start = v4l2_mmap(nullptr, buf.length, PROT_READ, MAP_SHARED, fd, buf.m.offset);
    if (start == MAP_FAILED) {
      LIBLog.Debug("---> mmap\n");
      return;
    }
    s.buffers.emplace_back(start, buf.length);
  }

  for (uint32_t i = 0; i < count; ++i) {
    v4l2_buffer buf = mmapBuffer(i);
    xioctl(fd, VIDIOC_QBUF, &buf, &s.stop);
  }
  v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  xioctl(fd, VIDIOC_STREAMON, &type, &s.stop);

  // poll rather than select: any descriptor number works. The wake descriptor
  // only ends the wait; the results for the node are those select gives.
  pollfd fds[2] = {{fd, POLLIN, 0}, {s.wake.get(), POLLIN, 0}};
  const nfds_t nfds = s.wake.valid() ? 2 : 1;
  while (!s.stop) {
    v4l2_buffer buf = mmapBuffer(0);
    int retval = 0;
    // A frame already finished is taken without waiting: the wait would have
    // answered at once. One attempt, no retry. Only EAGAIN, EINTR or EBADF on
    // a closed descriptor go to the wait; any other failure is reported below
    // as after a wait (a node in error polls readable at once).
    bool dequeued = v4l2_ioctl(fd, VIDIOC_DQBUF, &buf) == 0;
    int err = dequeued ? 0 : errno;
    const bool noDescriptor = err == EBADF && fcntl(fd, F_GETFD) == -1;
    if (!dequeued && (err == EAGAIN || err == EINTR || noDescriptor)) {
      const NodeWait wait = waitForNode(s, fds, nfds);
      if (wait == NodeWait::Again) continue;
      if (wait == NodeWait::Stopped) break;
      if (wait == NodeWait::Failed) return;
      buf = mmapBuffer(0);
      dequeued = xioctl(fd, VIDIOC_DQBUF, &buf, &s.stop) == 0;
      err = dequeued ? 0 : errno;
      // This dequeue retries EAGAIN/EINTR until a stop, which then ends it.
      if (!dequeued && s.stop && (err == EAGAIN || err == EINTR)) break;
    }
    if (!dequeued) {
      LIBLog.Error("CaptureThread::ThreadRoutine: xioctl VIDIOC_DQBUF returned error: \"%s\" (errno:%d)\n",
                   strerror(err), err);
      // The node went away (unplug): every later call fails the same way, so
      // end like a failed wait instead of spinning on it.
      if (err == ENODEV) return;
      buf = mmapBuffer(0);
      retval = -1;
    }
    // A driver index outside the mapped set (or no buffers at all) is passed
    // on as no data rather than read out of bounds.
    void* start = buf.index < s.buffers.size() ? s.buffers[buf.index].start() : nullptr;
    // rc is what select would have counted: the node alone, 1.
    LIBLog.Trace("VIDIOC_DQBUF: id nr:%d start:%p used:%d flags:%d (rc = %d retval = %d)\n",
                 static_cast<int>(buf.index), start, static_cast<int>(buf.bytesused),
                 static_cast<int>(buf.flags), 1, retval);
    CaptureCallback callback;
    void* context;
    uint32_t cameraIndex;
    {
      std::lock_guard<std::mutex> lock(s.callbackLock);
      callback = s.callback;
      context = s.context;
      cameraIndex = s.cameraIndex;
    }
    // The callback may stop the stream or destroy the CaptureThread; nothing
    // below touches more than this stream record.
    if (callback)
      callback(static_cast<unsigned char*>(start), static_cast<int>(buf.bytesused),
               static_cast<int>(cameraIndex), context);
    if (xioctl(fd, VIDIOC_QBUF, &buf, &s.stop) != 0) {
      const int err = errno;
      LIBLog.Error("CaptureThread::ThreadRoutine: xioctl VIDIOC_QBUF returned error: \"%s\" (errno:%d)\n",
                   strerror(err), err);
    }
  }

  LIBLog.Debug("CaptureThread::ThreadRoutine: CLEANUP cap thread\n");
  xioctl(fd, VIDIOC_STREAMOFF, &type);
  s.release();
}

}  // namespace

CaptureThread::CaptureThread() : frameSizes_{}, devicePath_{} {}

CaptureThread::~CaptureThread() {
  if (!stream_) return;
  stream_->requestStop();
  if (joinable_) {
    joinable_ = false;
    if (pthread_equal(thread_, pthread_self())) {
      // Destroyed from its own callback: the thread ends after the callback
      // returns and its reference is the last one to the stream.
      pthread_detach(thread_);
      return;
    }
    pthread_join(thread_, nullptr);
  }
  stream_->release();
}

int CaptureThread::open(char* device) {
  const char* path = device ? device : "";
  strncpy(devicePath_, path, sizeof(devicePath_));
  devicePath_[sizeof(devicePath_) - 1] = '\0';
  LIBLog.Debug("CaptureThread::open video device: \"%s\"\n", devicePath_);

  int fd = v4l2_open(path, O_RDWR | O_NONBLOCK, 0);
  if (fd == -1) {
    LIBLog.Error("---> Cannot open device: \"%s\". error=%d\n", path, errno);
    return -22;
  }

  int recorded = 0;
  for (uint32_t index = 0;; ++index) {
    v4l2_frmsizeenum fsize;
    memset(&fsize, 0, sizeof(fsize));
    fsize.index = index;
    fsize.pixel_format = V4L2_PIX_FMT_YUYV;
    if (xioctl(fd, VIDIOC_ENUM_FRAMESIZES, &fsize) != 0) {
      if (errno == EINVAL)
        nFrameSizes_ = recorded;
      else
        LIBLog.Debug("VIDIOC_ENUM_FRAMESIZES - Error enumerating frame sizes\n");
      break;
    }
    if (fsize.type != V4L2_FRMSIZE_TYPE_DISCRETE) {
      LIBLog.Debug("  fsize.type not supported: %d\n", static_cast<int>(fsize.type));
      continue;
    }
    // A count of eleven marks "more than ten"; only ten entries are filled.
    if (recorded + 1 > LIST_MAX_NUM) {
      nFrameSizes_ = recorded + 1;
      break;
    }
    FrameSizeEntry& entry = frameSizes_[recorded];
    entry.width = static_cast<int32_t>(fsize.discrete.width);
    entry.height = static_cast<int32_t>(fsize.discrete.height);
    LIBLog.Debug("CaptureThread::enum_frame_sizes[%d] wxh = %dx%d\n", recorded, entry.width, entry.height);
    entry.nFrameRates = 0;
    enumFrameIntervals(fd, entry);
    ++recorded;
  }

  LIBLog.Debug("CaptureThread::open close video device: \"%s\"\n", devicePath_);
  return v4l2_close(fd);
}

int CaptureThread::enumFrameIntervals(int fd, FrameSizeEntry& entry) {
  for (uint32_t index = 0;; ++index) {
    v4l2_frmivalenum fival;
    memset(&fival, 0, sizeof(fival));
    fival.index = index;
    fival.pixel_format = V4L2_PIX_FMT_YUYV;
    fival.width = static_cast<uint32_t>(entry.width);
    fival.height = static_cast<uint32_t>(entry.height);
    if (xioctl(fd, VIDIOC_ENUM_FRAMEINTERVALS, &fival) != 0) break;
    // Greater-than on purpose: an eleventh rate still gets in. The line keeps
    // its stray "%)"; the count lands in the one real conversion.
    if (entry.nFrameRates > LIST_MAX_NUM) {
      LIBLog.Error("---> list_fps_len(%%) > LIST_MAX_NUM(%d)\n", entry.nFrameRates);
      break;
    }
    if (fival.type != V4L2_FRMIVAL_TYPE_DISCRETE) {
      LIBLog.Error("  error: enum_frame_intervals\n");
      break;
    }
    // Every earlier interval was discrete, so index equals nFrameRates here.
    entry.frameRates[entry.nFrameRates] = static_cast<int32_t>(fival.discrete.denominator);
    ++entry.nFrameRates;
    LIBLog.Debug("CaptureThread::enum_frame_intervals[%d] num/denom = %d/%d\n", entry.nFrameRates,
                 static_cast<int>(fival.discrete.numerator), static_cast<int>(fival.discrete.denominator));
  }
  return entry.nFrameRates;
}

int CaptureThread::SetStreamingFormat(int w, int h) {
  // nFrameSizes may say eleven while ten entries exist; the zeroed spare entry
  // never covers a real request, and the walk stays inside the array.
  int count = std::min(nFrameSizes_, LIST_MAX_NUM + 1);
  int chosen = 0;
  if (!(nFrameSizes_ < 1 || w > frameSizes_[0].width || h > frameSizes_[0].height)) {
    while (chosen + 1 < count && frameSizes_[chosen + 1].width >= w && frameSizes_[chosen + 1].height >= h)
      ++chosen;
  }
  width_ = frameSizes_[chosen].width;
  height_ = frameSizes_[chosen].height;
  frameRate_ = frameSizes_[chosen].frameRates[0];
  return 0;
}

int CaptureThread::GetStreamingFormat(int* w, int* h) {
  if (w) *w = width_;
  if (h) *h = height_;
  return 0;
}

const FrameSizeEntry& CaptureThread::frameSize(int index) const {
  return frameSizes_[std::clamp(index, 0, LIST_MAX_NUM)];
}

uint32_t CaptureThread::imageSize() const { return stream_ ? stream_->imageSize.load() : 0; }

bool CaptureThread::running() const { return stream_ && stream_->running; }

void CaptureThread::setCallback(CaptureCallback callback, void* context, uint32_t cameraIndex) {
  callback_ = callback;
  context_ = context;
  cameraIndex_ = cameraIndex;
  if (stream_) {
    std::lock_guard<std::mutex> lock(stream_->callbackLock);
    stream_->callback = callback;
    stream_->context = context;
    stream_->cameraIndex = cameraIndex;
  }
}

void* CaptureThread::callbackContext() const { return context_; }

bool CaptureThread::onCaptureThread() const { return joinable_ && pthread_equal(thread_, pthread_self()); }

int CaptureThread::start() {
  if (running()) return -23;
  std::shared_ptr<Stream> previous;
  if (joinable_) {
    // Started and not asked to stop: running, even before it says so (a
    // second thread would share the node).
    if (!stream_->stop) return -23;
    if (onCaptureThread()) {
      // Restarted from its own callback: that thread ends after the callback.
      pthread_detach(thread_);
      previous = stream_;
    } else {
      pthread_join(thread_, nullptr);
      stream_->release();
    }
    joinable_ = false;
  }

  auto stream = std::make_shared<Stream>();
  memcpy(stream->devicePath, devicePath_, sizeof(stream->devicePath));
  // The thread's own copy: a later SetStreamingFormat never races with it.
  stream->width = width_;
  stream->height = height_;
  stream->rate = frameRate_;
  stream->nBuffers = nBuffers_;
  stream->callback = callback_;
  stream->context = context_;
  stream->cameraIndex = cameraIndex_;
  stream->previous = std::move(previous);
  // Without it a stop waits out the current wait, which still works.
  stream->wake.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));

  auto* arg = new std::shared_ptr<Stream>(stream);
  int rc = pthread_create(&thread_, nullptr, CaptureThreadRoutineStatic, arg);
  if (rc != 0) {
    delete arg;
    LIBLog.Error("CaptureThread::start: error creating thread: %d\n", rc);
    thread_ = pthread_t{};
    return -24;
  }
  stream_ = std::move(stream);
  joinable_ = true;
  LIBLog.Debug("CaptureThread::start: capture thread started\n");
  return 0;
}

int CaptureThread::close() {
  LIBLog.Debug("CaptureThread::close()\n");
  if (!stream_) return 0;
  const bool wasRunning = stream_->running;
  stream_->requestStop();
  if (!joinable_ || onCaptureThread()) {
    // On the capture thread (from the callback): it ends once the callback
    // returns, releasing what it holds; start or the destructor joins it.
    stream_->running = false;
    return 0;
  }
  if (wasRunning) LIBLog.Debug("CaptureThread::close() pthread_join: waiting\n");
  pthread_join(thread_, nullptr);
  joinable_ = false;
  if (wasRunning) LIBLog.Debug("CaptureThread::close() pthread_join: done\n");
  stream_->running = false;
  // An early end leaves the node open and the buffers mapped.
  stream_->releaseJoined();
  return 0;
}

void* CaptureThreadRoutineStatic(void* arg) {
  if (!arg) return nullptr;
  auto* held = static_cast<std::shared_ptr<CaptureThread::Stream>*>(arg);
  std::shared_ptr<CaptureThread::Stream> stream = std::move(*held);
  delete held;
  // A throwing client callback must not unwind out of the thread.
  try {
    runStream(*stream);
  } catch (...) {
    LIBLog.Error("CaptureThread::ThreadRoutine: exception in the capture thread\n");
  }
  stream->markEnded();
  // For a detached thread this is the last reference: the stream's node and
  // mappings go with it.
  return nullptr;
}
