#include "VideoStream.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <tqsim/FramePattern.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "Camera.h"
#include "RealCalls.h"

namespace tqsim {

namespace {

constexpr uint32_t kMaxBuffers = 32;
// How often an idle or waiting producer looks at faults and the plug state.
constexpr std::chrono::milliseconds kFaultPoll{10};
constexpr v4l2_fract kDefaultInterval{1, 30};

void copyText(uint8_t* dst, size_t size, const std::string& text) {
  // The rest stays zero, so the copy is always terminated.
  memset(dst, 0, size);
  std::copy_n(text.begin(), std::min(size - 1, text.size()), dst);
}

const FrameSize* findSize(const VideoConfig& video, uint32_t width, uint32_t height) {
  for (const auto& s : video.sizes)
    if (s.width == width && s.height == height) return &s;
  return nullptr;
}

size_t pageAligned(size_t n) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return (n + page - 1) / page * page;
}

}  // namespace

std::unique_ptr<VideoStream> VideoStream::create(std::shared_ptr<Camera> camera, bool captureNode,
                                                 int* error) {
  // A stream socket: one byte per finished frame, one recv consumes one.
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) {
    if (error) *error = errno;
    return nullptr;
  }
  return std::unique_ptr<VideoStream>(new VideoStream(std::move(camera), captureNode, fds[0], fds[1]));
}

VideoStream::VideoStream(std::shared_ptr<Camera> camera, bool captureNode, int clientFd, int peerFd)
    : camera_(std::move(camera)),
      cameraId_(camera_->id()),
      captureNode_(captureNode),
      clientFd_(clientFd),
      peer_(peerFd) {
  const CameraConfig config = camera_->config();
  if (!config.video.sizes.empty()) {
    const FrameSize& first = config.video.sizes.front();
    width_ = first.width;
    height_ = first.height;
    if (first.intervalKind == IntervalKind::Discrete && !first.intervals.empty())
      interval_ = {first.intervals.front().numerator, first.intervals.front().denominator};
  } else {
    width_ = 640;
    height_ = 480;
  }
  sizeImage_ = width_ * height_ * 2;
}

VideoStream::~VideoStream() { shutdown(); }

void VideoStream::shutdown() {
  std::unique_lock<std::mutex> lock(mutex_);
  stopProducer(lock);
  streaming_ = false;
  releaseBuffersLocked();
  // The client closes its descriptor next and the number may be reused at
  // once: from here on nothing may send to it or read from it.
  broken_ = true;
  peer_.reset();
}

bool VideoStream::breakStream() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (broken_.exchange(true)) return false;
  // A disconnected video node polls POLLERR | POLLHUP | POLLPRI. The kernel
  // shows a socket so once its far end is gone: closing the far end while it
  // holds unread data gives ECONNRESET (POLLERR) and both shutdowns (POLLHUP,
  // and POLLIN), and an urgent byte (AF_UNIX out-of-band data) gives POLLPRI.
  // The urgent byte alone would wake a waiting client with POLLIN only, so the
  // finished state is built on a fresh pair and put under the client's number
  // in one step (dup3); then closing our end of the old pair wakes a wait in
  // progress with POLLERR | POLLHUP.
  const char byte = 0;
  ssize_t n = send(clientFd_, &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL);
  int fresh[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fresh) == 0) {
    n = send(fresh[1], &byte, 1, MSG_OOB | MSG_DONTWAIT | MSG_NOSIGNAL);
    n = send(fresh[0], &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL);
    real::close(fresh[1]);
    // The client's number stays open throughout: shutdown() marks the stream
    // broken before the client's close, so this never hits a reused number.
    dup3(fresh[0], clientFd_, O_CLOEXEC);
    real::close(fresh[0]);
  }
  (void)n;
  peer_.reset();
  wake_.notify_all();
  return true;
}

int VideoStream::ioctl(unsigned long request, void* arg) {
  if (!arg && request != VIDIOC_LOG_STATUS) return EFAULT;
  if (!camera_->plugged()) breakStream();
  if (broken_) return ENODEV;
  switch (request) {
    case VIDIOC_QUERYCAP:
      return querycap(static_cast<v4l2_capability*>(arg));
    case VIDIOC_ENUM_FMT:
      return enumFmt(static_cast<v4l2_fmtdesc*>(arg));
    case VIDIOC_ENUM_FRAMESIZES:
      return enumFrameSizes(static_cast<v4l2_frmsizeenum*>(arg));
    case VIDIOC_ENUM_FRAMEINTERVALS:
      return enumFrameIntervals(static_cast<v4l2_frmivalenum*>(arg));
    case VIDIOC_G_FMT:
      return getFmt(static_cast<v4l2_format*>(arg));
    case VIDIOC_S_FMT:
      return setFmt(static_cast<v4l2_format*>(arg));
    case VIDIOC_G_PARM:
      return getParm(static_cast<v4l2_streamparm*>(arg));
    case VIDIOC_S_PARM:
      return setParm(static_cast<v4l2_streamparm*>(arg));
    case VIDIOC_REQBUFS:
      return reqbufs(static_cast<v4l2_requestbuffers*>(arg));
    case VIDIOC_QUERYBUF:
      return querybuf(static_cast<v4l2_buffer*>(arg));
    case VIDIOC_QBUF:
      return qbuf(static_cast<v4l2_buffer*>(arg));
    case VIDIOC_DQBUF:
      return dqbuf(static_cast<v4l2_buffer*>(arg));
    case VIDIOC_STREAMON:
      return streamOn(static_cast<const int*>(arg));
    case VIDIOC_STREAMOFF:
      return streamOff(static_cast<const int*>(arg));
    default:
      return ENOTTY;
  }
}

int VideoStream::querycap(v4l2_capability* cap) {
  const CameraConfig config = camera_->config();
  memset(cap, 0, sizeof(*cap));
  copyText(cap->driver, sizeof(cap->driver), "uvcvideo");
  copyText(cap->card, sizeof(cap->card), config.product);
  copyText(cap->bus_info, sizeof(cap->bus_info), "usb-0000:00:14.0-1");
  cap->version = (6u << 16) | (1u << 8);
  cap->device_caps = (captureNode_ ? V4L2_CAP_VIDEO_CAPTURE : V4L2_CAP_META_CAPTURE) | V4L2_CAP_STREAMING |
                     V4L2_CAP_EXT_PIX_FORMAT;
  cap->capabilities = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING |
                      V4L2_CAP_EXT_PIX_FORMAT | V4L2_CAP_DEVICE_CAPS;
  return 0;
}

int VideoStream::enumFmt(v4l2_fmtdesc* desc) {
  const uint32_t index = desc->index;
  const uint32_t type = desc->type;
  if (captureNode_ && type == V4L2_BUF_TYPE_VIDEO_CAPTURE && index == 0) {
    memset(desc, 0, sizeof(*desc));
    desc->index = index;
    desc->type = type;
    copyText(desc->description, sizeof(desc->description), "YUYV 4:2:2");
    desc->pixelformat = V4L2_PIX_FMT_YUYV;
    return 0;
  }
  if (!captureNode_ && type == V4L2_BUF_TYPE_META_CAPTURE && index == 0) {
    memset(desc, 0, sizeof(*desc));
    desc->index = index;
    desc->type = type;
    copyText(desc->description, sizeof(desc->description), "UVC Payload Header Metadata");
    desc->pixelformat = V4L2_META_FMT_UVC;
    return 0;
  }
  return EINVAL;
}

int VideoStream::enumFrameSizes(v4l2_frmsizeenum* fsize) {
  if (!captureNode_ || fsize->pixel_format != V4L2_PIX_FMT_YUYV) return EINVAL;
  const CameraConfig config = camera_->config();
  const auto& sizes = config.video.sizes;
  const uint32_t index = fsize->index;
  if (config.video.sizeKind == SizeKind::Discrete) {
    if (index >= sizes.size()) {
      const int err = config.videoFaults.enumSizesErrno;
      return index == sizes.size() && err != 0 ? err : EINVAL;
    }
    fsize->type = V4L2_FRMSIZE_TYPE_DISCRETE;
    fsize->discrete.width = sizes[index].width;
    fsize->discrete.height = sizes[index].height;
    return 0;
  }
  // Stepwise and continuous ranges are a single answer spanning the sizes.
  if (index != 0 || sizes.empty()) return EINVAL;
  auto [minW, maxW] =
      std::minmax_element(sizes.begin(), sizes.end(), [](auto& a, auto& b) { return a.width < b.width; });
  auto [minH, maxH] =
      std::minmax_element(sizes.begin(), sizes.end(), [](auto& a, auto& b) { return a.height < b.height; });
  const bool stepwise = config.video.sizeKind == SizeKind::Stepwise;
  fsize->type = stepwise ? V4L2_FRMSIZE_TYPE_STEPWISE : V4L2_FRMSIZE_TYPE_CONTINUOUS;
  fsize->stepwise.min_width = minW->width;
  fsize->stepwise.max_width = maxW->width;
  fsize->stepwise.step_width = stepwise ? 16 : 1;
  fsize->stepwise.min_height = minH->height;
  fsize->stepwise.max_height = maxH->height;
  fsize->stepwise.step_height = stepwise ? 16 : 1;
  return 0;
}

int VideoStream::enumFrameIntervals(v4l2_frmivalenum* fival) {
  if (!captureNode_ || fival->pixel_format != V4L2_PIX_FMT_YUYV) return EINVAL;
  const CameraConfig config = camera_->config();
  const FrameSize* size = findSize(config.video, fival->width, fival->height);
  if (!size || size->intervals.empty()) return EINVAL;
  const uint32_t index = fival->index;
  const auto& iv = size->intervals;
  if (size->intervalKind == IntervalKind::Discrete) {
    if (index >= iv.size()) return EINVAL;
    fival->type = V4L2_FRMIVAL_TYPE_DISCRETE;
    fival->discrete = {iv[index].numerator, iv[index].denominator};
    return 0;
  }
  // min, max and step from the list; missing ones repeat the last given.
  if (index != 0) return EINVAL;
  const FrameInterval& min = iv[0];
  const FrameInterval& max = iv.size() > 1 ? iv[1] : iv[0];
  const FrameInterval& step = iv.size() > 2 ? iv[2] : FrameInterval{1, 1000};
  fival->type = size->intervalKind == IntervalKind::Stepwise ? V4L2_FRMIVAL_TYPE_STEPWISE
                                                             : V4L2_FRMIVAL_TYPE_CONTINUOUS;
  fival->stepwise.min = {min.numerator, min.denominator};
  fival->stepwise.max = {max.numerator, max.denominator};
  fival->stepwise.step = {step.numerator, step.denominator};
  return 0;
}

int VideoStream::getFmt(v4l2_format* fmt) {
  if (!captureNode_ || fmt->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  std::lock_guard<std::mutex> lock(mutex_);
  memset(&fmt->fmt, 0, sizeof(fmt->fmt));
  fmt->fmt.pix.width = width_;
  fmt->fmt.pix.height = height_;
  fmt->fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
  fmt->fmt.pix.field = V4L2_FIELD_NONE;
  fmt->fmt.pix.bytesperline = width_ * 2;
  fmt->fmt.pix.sizeimage = sizeImage_;
  fmt->fmt.pix.colorspace = V4L2_COLORSPACE_SRGB;
  return 0;
}

int VideoStream::setFmt(v4l2_format* fmt) {
  if (!captureNode_ || fmt->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  const CameraConfig config = camera_->config();
  const VideoFaults& faults = config.videoFaults;
  if (faults.formatError != 0) return faults.formatError;
  std::lock_guard<std::mutex> lock(mutex_);
  if (!states_.empty()) return EBUSY;
  uint32_t w = fmt->fmt.pix.width;
  uint32_t h = fmt->fmt.pix.height;
  // Like a driver: an unknown discrete size becomes the first one offered.
  if (config.video.sizeKind == SizeKind::Discrete && !config.video.sizes.empty() &&
      !findSize(config.video, w, h)) {
    w = config.video.sizes.front().width;
    h = config.video.sizes.front().height;
  }
  if (faults.answerWidth != 0) w = faults.answerWidth;
  if (faults.answerHeight != 0) h = faults.answerHeight;
  if (w == 0 || h == 0 || w > 16384 || h > 16384) return EINVAL;
  width_ = w;
  height_ = h;
  sizeImage_ = w * h * 2;
  const FrameSize* size = findSize(config.video, w, h);
  interval_ = size && size->intervalKind == IntervalKind::Discrete && !size->intervals.empty()
                  ? v4l2_fract{size->intervals.front().numerator, size->intervals.front().denominator}
                  : kDefaultInterval;
  memset(&fmt->fmt, 0, sizeof(fmt->fmt));
  fmt->fmt.pix.width = w;
  fmt->fmt.pix.height = h;
  fmt->fmt.pix.pixelformat = faults.answerPixelFormat != 0 ? faults.answerPixelFormat : V4L2_PIX_FMT_YUYV;
  fmt->fmt.pix.field = V4L2_FIELD_NONE;
  fmt->fmt.pix.bytesperline = w * 2;
  fmt->fmt.pix.sizeimage = sizeImage_;
  fmt->fmt.pix.colorspace = V4L2_COLORSPACE_SRGB;
  return 0;
}

int VideoStream::getParm(v4l2_streamparm* parm) {
  if (!captureNode_ || parm->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  std::lock_guard<std::mutex> lock(mutex_);
  memset(&parm->parm, 0, sizeof(parm->parm));
  parm->parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
  parm->parm.capture.timeperframe = interval_;
  parm->parm.capture.readbuffers = static_cast<uint32_t>(states_.size());
  return 0;
}

int VideoStream::setParm(v4l2_streamparm* parm) {
  if (!captureNode_ || parm->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  std::lock_guard<std::mutex> lock(mutex_);
  const v4l2_fract asked = parm->parm.capture.timeperframe;
  // A zero part cannot be a frame period; keep the current one.
  if (asked.numerator != 0 && asked.denominator != 0) interval_ = asked;
  memset(&parm->parm, 0, sizeof(parm->parm));
  parm->parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
  parm->parm.capture.timeperframe = interval_;
  return 0;
}

int VideoStream::reqbufs(v4l2_requestbuffers* req) {
  if (!captureNode_ || req->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  if (req->memory != V4L2_MEMORY_MMAP) return EINVAL;
  std::lock_guard<std::mutex> lock(mutex_);
  if (streaming_) return EBUSY;
  releaseBuffersLocked();
  const uint32_t count = std::min(req->count, kMaxBuffers);
  req->count = count;
  if (count == 0) return 0;
  int fd = memfd_create("tqsim-video", MFD_CLOEXEC);
  if (fd == -1) return ENOMEM;
  const size_t stride = pageAligned(sizeImage_);
  const size_t total = stride * count;
  if (ftruncate(fd, static_cast<off_t>(total)) != 0) {
    real::close(fd);
    return ENOMEM;
  }
  void* memory = ::mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (memory == MAP_FAILED) {
    real::close(fd);
    return ENOMEM;
  }
  memFd_ = fd;
  memory_ = static_cast<uint8_t*>(memory);
  bufferStride_ = stride;
  memorySize_ = total;
  states_.assign(count, BufferState::Dequeued);
  return 0;
}

void* VideoStream::mmap(size_t length, int prot, int flags, int64_t offset, int* error) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (broken_) {
    *error = ENODEV;
    return MAP_FAILED;
  }
  // Only whole buffers, at the offsets QUERYBUF hands out.
  if (memFd_ == -1 || bufferStride_ == 0 || offset < 0 || static_cast<size_t>(offset) % bufferStride_ != 0 ||
      static_cast<size_t>(offset) / bufferStride_ >= states_.size() || length == 0 ||
      length > bufferStride_ || (flags & MAP_SHARED) == 0) {
    *error = EINVAL;
    return MAP_FAILED;
  }
  void* addr = ::mmap(nullptr, length, prot, MAP_SHARED, memFd_, static_cast<off_t>(offset));
  if (addr == MAP_FAILED) *error = errno;
  return addr;
}

void VideoStream::fillBufferInfoLocked(uint32_t index, v4l2_buffer* buf) const {
  const uint32_t type = buf->type;
  memset(buf, 0, sizeof(*buf));
  buf->index = index;
  buf->type = type;
  buf->memory = V4L2_MEMORY_MMAP;
  buf->length = sizeImage_;
  buf->m.offset = static_cast<uint32_t>(index * bufferStride_);
  buf->field = V4L2_FIELD_NONE;
  buf->flags = V4L2_BUF_FLAG_MAPPED | V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
  if (states_[index] == BufferState::Queued) buf->flags |= V4L2_BUF_FLAG_QUEUED;
  if (states_[index] == BufferState::Done) buf->flags |= V4L2_BUF_FLAG_DONE;
}

int VideoStream::querybuf(v4l2_buffer* buf) {
  if (!captureNode_ || buf->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  std::lock_guard<std::mutex> lock(mutex_);
  if (buf->index >= states_.size()) return EINVAL;
  fillBufferInfoLocked(buf->index, buf);
  return 0;
}

int VideoStream::qbuf(v4l2_buffer* buf) {
  if (!captureNode_ || buf->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  if (buf->memory != V4L2_MEMORY_MMAP) return EINVAL;
  std::lock_guard<std::mutex> lock(mutex_);
  const uint32_t index = buf->index;
  if (index >= states_.size() || states_[index] != BufferState::Dequeued) return EINVAL;
  states_[index] = BufferState::Queued;
  incoming_.push_back(index);
  fillBufferInfoLocked(index, buf);
  wake_.notify_all();
  return 0;
}

int VideoStream::dqbuf(v4l2_buffer* buf) {
  if (!captureNode_ || buf->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  if (buf->memory != V4L2_MEMORY_MMAP) return EINVAL;
  const VideoFaults faults = camera_->config().videoFaults;
  const int faultErrno = faults.dqbufErrno;
  std::lock_guard<std::mutex> lock(mutex_);
  if (!streaming_) return EINVAL;
  // dqbufAgain: readable, yet nothing to take (the frames stay ready).
  if (done_.empty() || faults.dqbufAgain) return EAGAIN;
  DoneFrame frame = done_.front();
  done_.pop_front();
  consumeFrameSignalLocked();
  if (faultErrno != 0) {
    // The failed frame is lost and its buffer goes back to the driver, so a
    // failing driver costs one error per frame rather than a busy loop.
    states_[frame.index] = BufferState::Queued;
    incoming_.push_back(frame.index);
    wake_.notify_all();
    return faultErrno;
  }
  states_[frame.index] = BufferState::Dequeued;
  fillBufferInfoLocked(frame.index, buf);
  buf->bytesused = frame.bytesUsed;
  buf->sequence = frame.sequence;
  buf->timestamp = frame.timestamp;
  return 0;
}

int VideoStream::streamOn(const int* type) {
  if (!captureNode_ || *type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  std::lock_guard<std::mutex> lock(mutex_);
  if (states_.empty()) return EINVAL;
  if (streaming_) return 0;
  streaming_ = true;
  sequence_ = 0;
  stopProducer_ = false;
  producer_ = std::thread([this] { producerLoop(); });
  return 0;
}

int VideoStream::streamOff(const int* type) {
  if (!captureNode_ || *type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  std::unique_lock<std::mutex> lock(mutex_);
  stopProducer(lock);
  streaming_ = false;
  dropReadyFramesLocked();
  incoming_.clear();
  std::fill(states_.begin(), states_.end(), BufferState::Dequeued);
  return 0;
}

void VideoStream::stopProducer(std::unique_lock<std::mutex>& lock) {
  if (!producer_.joinable()) return;
  stopProducer_ = true;
  wake_.notify_all();
  std::thread producer = std::move(producer_);
  lock.unlock();
  producer.join();
  lock.lock();
  stopProducer_ = false;
}

void VideoStream::dropReadyFramesLocked() {
  while (!done_.empty()) {
    done_.pop_front();
    consumeFrameSignalLocked();
  }
}

bool VideoStream::signalFrameLocked() {
  if (broken_) return false;
  const char byte = 1;
  return send(peer_.get(), &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL) == 1;
}

bool VideoStream::consumeFrameSignalLocked() {
  if (broken_) return false;
  char byte = 0;
  return recv(clientFd_, &byte, 1, MSG_DONTWAIT) == 1;
}

void VideoStream::releaseBuffersLocked() {
  dropReadyFramesLocked();
  incoming_.clear();
  states_.clear();
  if (memory_) ::munmap(memory_, memorySize_);
  memory_ = nullptr;
  memorySize_ = 0;
  bufferStride_ = 0;
  if (memFd_ != -1) real::close(memFd_);
  memFd_ = -1;
}

std::chrono::nanoseconds VideoStream::framePeriodLocked() const {
  const v4l2_fract iv = interval_.numerator != 0 && interval_.denominator != 0 ? interval_ : kDefaultInterval;
  return std::chrono::nanoseconds(static_cast<int64_t>(1000000000LL) * iv.numerator / iv.denominator);
}

void VideoStream::producerLoop() {
  using Clock = std::chrono::steady_clock;
  std::unique_lock<std::mutex> lock(mutex_);
  Clock::time_point next = Clock::now();
  while (!stopProducer_) {
    lock.unlock();
    const CameraConfig config = camera_->config();
    const bool gone = !camera_->plugged() || config.videoFaults.selectFails;
    if (gone) breakStream();
    lock.lock();
    if (stopProducer_) break;
    if (broken_) {
      wake_.wait_for(lock, kFaultPoll);
      continue;
    }
    const bool freeRun = config.video.freeRun;
    if (incoming_.empty() || config.videoFaults.stopSending) {
      wake_.wait_for(lock, kFaultPoll);
      // A camera that resumes starts a fresh period instead of a burst.
      next = Clock::now();
      continue;
    }
    const Clock::time_point now = Clock::now();
    if (!freeRun && now < next) {
      wake_.wait_until(lock, std::min(next, now + kFaultPoll));
      continue;
    }

    const uint32_t index = incoming_.front();
    incoming_.pop_front();
    const uint32_t sequence = sequence_++;
    uint8_t* data = memory_ + index * bufferStride_;
    const uint32_t size = sizeImage_;
    // The buffer belongs to the producer until it is marked done; the memory
    // stays mapped because buffers are released only after this thread ends.
    lock.unlock();
    fillFrame(data, size, sequence);
    lock.lock();

    const uint32_t shortBytes = config.videoFaults.shortFrameBytes;
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    DoneFrame frame{index, shortBytes != 0 ? std::min(shortBytes, size) : size, sequence,
                    timeval{ts.tv_sec, ts.tv_nsec / 1000}};
    states_[index] = BufferState::Done;
    done_.push_back(frame);
    signalFrameLocked();
    ++framesProduced_;
    if (!freeRun) {
      next += framePeriodLocked();
      // After a stall (slow consumer) keep the rate instead of catching up.
      if (next < Clock::now()) next = Clock::now();
    }
  }
}

}  // namespace tqsim
