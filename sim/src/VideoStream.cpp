#include "VideoStream.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <tqsim/FramePattern.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <numeric>

#include "Camera.h"
#include "RealCalls.h"

namespace tqsim {

namespace {

constexpr uint32_t kMaxBuffers = 32;
// Slice of a frame filled between two looks at a stop request.
constexpr size_t kFillSlice = 256 * 1024;
// How often an idle or waiting producer looks at faults and the plug state.
constexpr std::chrono::milliseconds kFaultPoll{10};
constexpr v4l2_fract kDefaultInterval{1, 30};
// uvcvideo's metadata buffer size.
constexpr uint32_t kMetaBufferSize = 10240;

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

std::unique_ptr<VideoStream> VideoStream::create(std::shared_ptr<Camera> camera, bool captureNode, int flags,
                                                 std::string busInfo, int* error) {
  // Semaphore mode: one read consumes one finished frame. The caller's
  // descriptor shares the file's flags, so O_NONBLOCK is the caller's choice;
  // our own reads look first and never block.
  int fd = eventfd(0, EFD_CLOEXEC | EFD_SEMAPHORE | ((flags & O_NONBLOCK) != 0 ? EFD_NONBLOCK : 0));
  if (fd == -1) {
    if (error) *error = errno;
    return nullptr;
  }
  return std::unique_ptr<VideoStream>(
      new VideoStream(std::move(camera), captureNode, std::move(busInfo), fd));
}

VideoStream::VideoStream(std::shared_ptr<Camera> camera, bool captureNode, std::string busInfo, int eventFd)
    : camera_(std::move(camera)),
      cameraId_(camera_->id()),
      captureNode_(captureNode),
      busInfo_(std::move(busInfo)),
      eventFd_(eventFd) {
  shared().change(nodeKey(), V4L2_PRIORITY_UNSET, priority_);
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
  sizeImage_ =
      captureNode_ ? static_cast<uint32_t>(static_cast<uint64_t>(width_) * height_ * 2) : kMetaBufferSize;
}

VideoStream::~VideoStream() {
  shared().change(nodeKey(), priority_, V4L2_PRIORITY_UNSET);
  shutdown();
  ::close(eventFd_);
}

void VideoStream::shutdown() {
  shared().own(nodeKey(), this, false);
  std::unique_lock<std::mutex> lock(mutex_);
  stopProducer(lock);
  if (streaming_) shared().setStreaming(nodeKey(), false);
  streaming_ = false;
  if (!broken_) pollBits_.store(POLLERR, std::memory_order_release);
  releaseBuffersLocked();
}

bool VideoStream::breakStream() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (broken_.exchange(true)) return false;
  pollBits_.store(POLLERR | POLLHUP | POLLPRI, std::memory_order_release);
  // Wake a select that waits on the descriptor; the select wrapper then sees
  // the broken stream and reports the error.
  uint64_t one = 1;
  ssize_t n = write(eventFd_, &one, sizeof(one));
  (void)n;
  wake_.notify_all();
  return true;
}

int VideoStream::ioctl(unsigned long request, void* arg) {
  if (lost()) breakStream();
  if (broken_) return ENODEV;
  if (!known(request)) return ENOTTY;
  if (arg == nullptr) return EFAULT;
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
    case VIDIOC_TRY_FMT:
      return tryFmt(static_cast<v4l2_format*>(arg));
    case VIDIOC_ENUMINPUT:
      return enumInput(static_cast<v4l2_input*>(arg));
    case VIDIOC_G_INPUT:
      *static_cast<int*>(arg) = 0;
      return 0;
    case VIDIOC_S_INPUT:
      if (const int busy = priorityCheck()) return busy;
      return *static_cast<const int*>(arg) == 0 ? 0 : EINVAL;
    case VIDIOC_G_PRIORITY:
      *static_cast<uint32_t*>(arg) = shared().highest(nodeKey());
      return 0;
    case VIDIOC_S_PRIORITY:
      return setPriority(*static_cast<const uint32_t*>(arg));
    default:
      return ENOTTY;
  }
}

bool VideoStream::known(unsigned long request) const {
  switch (request) {
    case VIDIOC_QUERYCAP:
    case VIDIOC_ENUM_FMT:
    case VIDIOC_G_FMT:
    case VIDIOC_S_FMT:
    case VIDIOC_TRY_FMT:
    case VIDIOC_REQBUFS:
    case VIDIOC_QUERYBUF:
    case VIDIOC_QBUF:
    case VIDIOC_DQBUF:
    case VIDIOC_STREAMON:
    case VIDIOC_STREAMOFF:
    case VIDIOC_G_PRIORITY:
    case VIDIOC_S_PRIORITY:
      return true;
    case VIDIOC_ENUMINPUT:
    case VIDIOC_G_INPUT:
    case VIDIOC_S_INPUT:
      return true;
    // The metadata node has no sizes or rates.
    case VIDIOC_ENUM_FRAMESIZES:
    case VIDIOC_ENUM_FRAMEINTERVALS:
    case VIDIOC_G_PARM:
    case VIDIOC_S_PARM:
      return captureNode_;
    default:
      return false;
  }
}

VideoStream::NodeShared& VideoStream::shared() {
  static auto* shared = new NodeShared();
  return *shared;
}

uint32_t VideoStream::NodeShared::highest(const Key& key) {
  std::lock_guard<std::mutex> lock(mutex);
  const auto& counts = byNode[key];
  for (uint32_t p = V4L2_PRIORITY_RECORD; p > V4L2_PRIORITY_UNSET; --p)
    if (counts[p] > 0) return p;
  return V4L2_PRIORITY_UNSET;
}

void VideoStream::NodeShared::change(const Key& key, uint32_t from, uint32_t to) {
  std::lock_guard<std::mutex> lock(mutex);
  auto& counts = byNode[key];
  if (from != V4L2_PRIORITY_UNSET) --counts[from];
  if (to != V4L2_PRIORITY_UNSET) ++counts[to];
}

bool VideoStream::NodeShared::busy(const Key& key, const VideoStream* self) {
  std::lock_guard<std::mutex> lock(mutex);
  auto it = owners.find(key);
  return it != owners.end() && it->second != self;
}

bool VideoStream::NodeShared::allocated(const Key& key) {
  std::lock_guard<std::mutex> lock(mutex);
  return owners.count(key) != 0;
}

bool VideoStream::NodeShared::isStreaming(const Key& key) {
  std::lock_guard<std::mutex> lock(mutex);
  return streaming.count(key) != 0;
}

void VideoStream::NodeShared::setStreaming(const Key& key, bool on) {
  std::lock_guard<std::mutex> lock(mutex);
  if (on)
    streaming.insert(key);
  else
    streaming.erase(key);
}

void VideoStream::NodeShared::own(const Key& key, const VideoStream* self, bool owns) {
  std::lock_guard<std::mutex> lock(mutex);
  auto it = owners.find(key);
  if (owns && it == owners.end()) owners[key] = self;
  if (!owns && it != owners.end() && it->second == self) owners.erase(it);
}

void VideoStream::loadFormatLocked() {
  if (!states_.empty()) return;
  NodeShared& all = shared();
  std::lock_guard<std::mutex> lock(all.mutex);
  auto it = all.formats.find(nodeKey());
  if (it == all.formats.end()) return;
  width_ = it->second.width;
  height_ = it->second.height;
  sizeImage_ = static_cast<uint32_t>(static_cast<uint64_t>(width_) * height_ * 2);
  interval_ = it->second.interval;
}

void VideoStream::storeFormatLocked() {
  NodeShared& all = shared();
  std::lock_guard<std::mutex> lock(all.mutex);
  all.formats[nodeKey()] = NodeShared::Format{width_, height_, interval_};
}

VideoStream::Key VideoStream::nodeKey() const { return {cameraId_, captureNode_}; }

int VideoStream::setPriority(uint32_t priority) {
  if (priority > V4L2_PRIORITY_RECORD) return EINVAL;
  if (const int busy = priorityCheck()) return busy;
  // Like the V4L2 core: a descriptor may take any priority; a lower one than
  // another descriptor's then cannot change the format or the rate.
  std::lock_guard<std::mutex> lock(mutex_);
  if (priority == V4L2_PRIORITY_UNSET) priority = V4L2_PRIORITY_DEFAULT;
  shared().change(nodeKey(), priority_, priority);
  priority_ = priority;
  return 0;
}

int VideoStream::priorityCheck() {
  uint32_t mine = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    mine = priority_;
  }
  return mine < shared().highest(nodeKey()) ? EBUSY : 0;
}

int VideoStream::enumInput(v4l2_input* input) {
  const uint32_t index = input->index;
  if (index != 0) return EINVAL;
  memset(input, 0, sizeof(*input));
  copyText(input->name, sizeof(input->name), "Camera 1");
  input->type = V4L2_INPUT_TYPE_CAMERA;
  return 0;
}

int VideoStream::querycap(v4l2_capability* cap) {
  const CameraConfig config = camera_->config();
  memset(cap, 0, sizeof(*cap));
  copyText(cap->driver, sizeof(cap->driver), "uvcvideo");
  copyText(cap->card, sizeof(cap->card), config.product);
  copyText(cap->bus_info, sizeof(cap->bus_info), busInfo_);
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
    memset(fsize->reserved, 0, sizeof(fsize->reserved));
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
  memset(fsize->reserved, 0, sizeof(fsize->reserved));
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
  memset(fival->reserved, 0, sizeof(fival->reserved));
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
  if (!captureNode_) return fmt->type == V4L2_BUF_TYPE_META_CAPTURE ? metaFmt(fmt) : EINVAL;
  if (fmt->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  std::lock_guard<std::mutex> lock(mutex_);
  loadFormatLocked();
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

// The size a driver takes for the one asked: among discrete sizes the one
// nearest in area (uvcvideo's measure), else clamped to the range and rounded
// to its step.
void VideoStream::adjustSize(const VideoConfig& video, uint32_t& w, uint32_t& h) {
  const auto& sizes = video.sizes;
  if (sizes.empty()) {
    w = std::clamp<uint32_t>(w, 1, kMaxFrameSide);
    h = std::clamp<uint32_t>(h, 1, kMaxFrameSide);
    return;
  }
  if (video.sizeKind == SizeKind::Discrete) {
    uint64_t best = UINT64_MAX;
    uint32_t bw = sizes.front().width;
    uint32_t bh = sizes.front().height;
    for (const auto& size : sizes) {
      const uint64_t common = static_cast<uint64_t>(std::min(w, size.width)) * std::min(h, size.height);
      const uint64_t distance =
          static_cast<uint64_t>(w) * h + static_cast<uint64_t>(size.width) * size.height - 2 * common;
      if (distance < best) {
        best = distance;
        bw = size.width;
        bh = size.height;
      }
    }
    w = bw;
    h = bh;
    return;
  }
  auto [minW, maxW] =
      std::minmax_element(sizes.begin(), sizes.end(), [](auto& a, auto& b) { return a.width < b.width; });
  auto [minH, maxH] =
      std::minmax_element(sizes.begin(), sizes.end(), [](auto& a, auto& b) { return a.height < b.height; });
  const uint32_t step = video.sizeKind == SizeKind::Stepwise ? 16 : 1;
  auto fit = [step](uint32_t value, uint32_t low, uint32_t high) {
    value = std::clamp(value, low, high);
    value = low + (value - low + step / 2) / step * step;
    return std::min(value, high);
  };
  w = fit(w, minW->width, maxW->width);
  h = fit(h, minH->height, maxH->height);
}

void VideoStream::fillFormat(v4l2_format* fmt, uint32_t w, uint32_t h, uint32_t pixelFormat) {
  memset(&fmt->fmt, 0, sizeof(fmt->fmt));
  fmt->fmt.pix.width = w;
  fmt->fmt.pix.height = h;
  fmt->fmt.pix.pixelformat = pixelFormat;
  fmt->fmt.pix.field = V4L2_FIELD_NONE;
  fmt->fmt.pix.bytesperline = w * 2;
  fmt->fmt.pix.sizeimage = static_cast<uint32_t>(static_cast<uint64_t>(w) * h * 2);
  fmt->fmt.pix.colorspace = V4L2_COLORSPACE_SRGB;
}

int VideoStream::tryFmt(v4l2_format* fmt) {
  if (!captureNode_) return fmt->type == V4L2_BUF_TYPE_META_CAPTURE ? metaFmt(fmt) : EINVAL;
  if (fmt->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  const CameraConfig config = camera_->config();
  uint32_t w = fmt->fmt.pix.width;
  uint32_t h = fmt->fmt.pix.height;
  adjustSize(config.video, w, h);
  fillFormat(fmt, w, h, V4L2_PIX_FMT_YUYV);
  return 0;
}

int VideoStream::metaFmt(v4l2_format* fmt) {
  memset(&fmt->fmt, 0, sizeof(fmt->fmt));
  fmt->fmt.meta.dataformat = V4L2_META_FMT_UVC;
  fmt->fmt.meta.buffersize = kMetaBufferSize;
  return 0;
}

int VideoStream::setFmt(v4l2_format* fmt) {
  // The queue is the node's: buffers held by any descriptor fix the format.
  if (!captureNode_) {
    if (fmt->type != V4L2_BUF_TYPE_META_CAPTURE) return EINVAL;
    return shared().allocated(nodeKey()) ? EBUSY : metaFmt(fmt);
  }
  if (fmt->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  const CameraConfig config = camera_->config();
  const VideoFaults& faults = config.videoFaults;
  if (faults.formatError != 0) return faults.formatError;
  if (const int busy = priorityCheck()) return busy;
  std::lock_guard<std::mutex> lock(mutex_);
  if (!states_.empty() || shared().allocated(nodeKey())) return EBUSY;
  uint32_t w = fmt->fmt.pix.width;
  uint32_t h = fmt->fmt.pix.height;
  adjustSize(config.video, w, h);
  if (faults.answerWidth != 0) w = faults.answerWidth;
  if (faults.answerHeight != 0) h = faults.answerHeight;
  if (w == 0 || h == 0 || w > kMaxFrameSide || h > kMaxFrameSide) return EINVAL;
  width_ = w;
  height_ = h;
  sizeImage_ = static_cast<uint32_t>(static_cast<uint64_t>(w) * h * 2);
  const FrameSize* size = findSize(config.video, w, h);
  interval_ = size && size->intervalKind == IntervalKind::Discrete && !size->intervals.empty()
                  ? v4l2_fract{size->intervals.front().numerator, size->intervals.front().denominator}
                  : kDefaultInterval;
  storeFormatLocked();
  fillFormat(fmt, w, h, faults.answerPixelFormat != 0 ? faults.answerPixelFormat : V4L2_PIX_FMT_YUYV);
  return 0;
}

int VideoStream::getParm(v4l2_streamparm* parm) {
  if (!captureNode_ || parm->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  std::lock_guard<std::mutex> lock(mutex_);
  loadFormatLocked();
  memset(&parm->parm, 0, sizeof(parm->parm));
  parm->parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
  parm->parm.capture.timeperframe = interval_;
  return 0;
}

// The interval a driver takes for the one asked: the nearest listed one, or
// the range's, rounded to its step. A zero denominator asks for the longest.
v4l2_fract VideoStream::nearestInterval(const FrameSize* size, v4l2_fract asked) const {
  if (size == nullptr || size->intervals.empty()) return interval_;
  auto seconds = [](uint32_t n, uint32_t d) { return d == 0 ? 1e9 : static_cast<double>(n) / d; };
  const double want = seconds(asked.numerator, asked.denominator);
  const auto& iv = size->intervals;
  if (size->intervalKind == IntervalKind::Discrete) {
    const FrameInterval* best = &iv.front();
    for (const FrameInterval& i : iv) {
      if (std::abs(seconds(i.numerator, i.denominator) - want) <
          std::abs(seconds(best->numerator, best->denominator) - want)) {
        best = &i;
      }
    }
    return {best->numerator, best->denominator};
  }
  const FrameInterval& min = iv[0];
  const FrameInterval& max = iv.size() > 1 ? iv[1] : iv[0];
  const FrameInterval& step = iv.size() > 2 ? iv[2] : FrameInterval{1, 1000};
  const double low = seconds(min.numerator, min.denominator);
  const double high = seconds(max.numerator, max.denominator);
  const double unit = seconds(step.numerator, step.denominator);
  double chosen = std::clamp(want, low, high);
  if (unit > 0) chosen = std::min(high, low + std::round((chosen - low) / unit) * unit);
  // In microseconds, as uvcvideo reports intervals (100 ns units, reduced).
  const auto micros = static_cast<uint32_t>(std::llround(chosen * 1e6));
  const uint32_t divisor = std::gcd(micros, 1000000u);
  return {micros / divisor, 1000000u / divisor};
}

int VideoStream::setParm(v4l2_streamparm* parm) {
  if (!captureNode_ || parm->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  if (const int busy = priorityCheck()) return busy;
  const CameraConfig config = camera_->config();
  std::lock_guard<std::mutex> lock(mutex_);
  if (streaming_ || shared().isStreaming(nodeKey())) return EBUSY;
  loadFormatLocked();
  interval_ = nearestInterval(findSize(config.video, width_, height_), parm->parm.capture.timeperframe);
  storeFormatLocked();
  memset(&parm->parm, 0, sizeof(parm->parm));
  parm->parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
  parm->parm.capture.timeperframe = interval_;
  return 0;
}

int VideoStream::reqbufs(v4l2_requestbuffers* req) {
  if (req->type != bufferType()) return EINVAL;
  if (req->memory != V4L2_MEMORY_MMAP) return EINVAL;
  if (shared().busy(nodeKey(), this)) return EBUSY;
  std::lock_guard<std::mutex> lock(mutex_);
  if (streaming_) return EBUSY;
  releaseBuffersLocked();
  shared().own(nodeKey(), this, false);
  loadFormatLocked();
  const uint32_t count = std::min(req->count, kMaxBuffers);
  req->count = count;
  // Mappings outlive REQBUFS(0): each holds the memory it maps.
  req->capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP | V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;
  req->flags = 0;
  memset(req->reserved, 0, sizeof(req->reserved));
  if (count == 0) return 0;
  int fd = memfd_create("tqsim-video", MFD_CLOEXEC);
  if (fd == -1) return ENOMEM;
  const size_t stride = pageAligned(sizeImage_);
  const size_t total = stride * count;
  if (ftruncate(fd, static_cast<off_t>(total)) != 0) {
    ::close(fd);
    return ENOMEM;
  }
  void* memory = ::mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (memory == MAP_FAILED) {
    ::close(fd);
    return ENOMEM;
  }
  memFd_ = fd;
  memory_ = static_cast<uint8_t*>(memory);
  bufferStride_ = stride;
  memorySize_ = total;
  states_.assign(count, BufferState::Dequeued);
  shared().own(nodeKey(), this, true);
  return 0;
}

int VideoStream::mapFd(uint64_t offset, uint64_t length, int flags, int& fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (broken_) return ENODEV;
  // Only whole buffers, at the offsets QUERYBUF hands out.
  if (memFd_ == -1 || bufferStride_ == 0 || offset % bufferStride_ != 0 ||
      offset / bufferStride_ >= states_.size() || length == 0 || length > bufferStride_ ||
      (flags & MAP_SHARED) == 0) {
    return EINVAL;
  }
  fd = ::fcntl(memFd_, F_DUPFD_CLOEXEC, 0);
  return fd < 0 ? errno : 0;
}

bool VideoStream::lost() const { return !camera_->plugged() || camera_->videoRunState().faults.selectFails; }

int VideoStream::pollState() {
  if (lost()) breakStream();
  // A disconnected node: error, hang-up and an exceptional condition.
  return pollBits_.load(std::memory_order_acquire);
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
  if (buf->type != bufferType()) return EINVAL;
  std::lock_guard<std::mutex> lock(mutex_);
  if (buf->index >= states_.size()) return EINVAL;
  fillBufferInfoLocked(buf->index, buf);
  return 0;
}

int VideoStream::qbuf(v4l2_buffer* buf) {
  if (shared().busy(nodeKey(), this)) return EBUSY;
  if (buf->type != bufferType()) return EINVAL;
  if (buf->memory != V4L2_MEMORY_MMAP) return EINVAL;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const uint32_t index = buf->index;
    if (index >= states_.size() || states_[index] != BufferState::Dequeued) return EINVAL;
    states_[index] = BufferState::Queued;
    incoming_.push_back(index);
    fillBufferInfoLocked(index, buf);
  }
  // Outside the lock: a producer woken here does not block on it at once.
  wake_.notify_all();
  return 0;
}

int VideoStream::dqbuf(v4l2_buffer* buf) {
  if (shared().busy(nodeKey(), this)) return EBUSY;
  if (buf->type != bufferType()) return EINVAL;
  if (buf->memory != V4L2_MEMORY_MMAP) return EINVAL;
  const VideoFaults faults = camera_->videoRunState().faults;
  const int faultErrno = faults.dqbufErrno;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!streaming_) return EINVAL;
    // dqbufAgain: readable, yet nothing to take (the frames stay ready).
    if (done_.empty() || faults.dqbufAgain) return EAGAIN;
    // The count comes off before its frame, under the lock: a poll never
    // finds a count without a frame, and no STREAMOFF in between leaves a
    // debt to the next stream.
    consumeFrameSignal();
    DoneFrame frame = done_.front();
    done_.pop_front();
    if (faultErrno != 0) {
      // The failed frame is lost and its buffer goes back to the driver, so a
      // failing driver costs one error per frame rather than a busy loop.
      states_[frame.index] = BufferState::Queued;
      incoming_.push_back(frame.index);
    } else {
      states_[frame.index] = BufferState::Dequeued;
      fillBufferInfoLocked(frame.index, buf);
      buf->bytesused = frame.bytesUsed;
      buf->sequence = frame.sequence;
      buf->timestamp = frame.timestamp;
    }
  }
  if (faultErrno != 0) {
    wake_.notify_all();
    return faultErrno;
  }
  return 0;
}

int VideoStream::streamOn(const int* type) {
  if (shared().busy(nodeKey(), this)) return EBUSY;
  if (static_cast<uint32_t>(*type) != bufferType()) return EINVAL;
  std::lock_guard<std::mutex> lock(mutex_);
  if (states_.empty()) return EINVAL;
  if (streaming_) return 0;
  streaming_ = true;
  shared().setStreaming(nodeKey(), true);
  if (!broken_) pollBits_.store(0, std::memory_order_release);
  sequence_ = 0;
  stopProducer_ = false;
  // The metadata node carries no payload here: it streams, but nothing arrives.
  if (captureNode_) producer_ = std::thread([this] { producerLoop(); });
  return 0;
}

int VideoStream::streamOff(const int* type) {
  if (shared().busy(nodeKey(), this)) return EBUSY;
  if (static_cast<uint32_t>(*type) != bufferType()) return EINVAL;
  std::unique_lock<std::mutex> lock(mutex_);
  stopProducer(lock);
  if (streaming_) shared().setStreaming(nodeKey(), false);
  streaming_ = false;
  if (!broken_) pollBits_.store(POLLERR, std::memory_order_release);
  dropReadyFramesLocked();
  incoming_.clear();
  std::fill(states_.begin(), states_.end(), BufferState::Dequeued);
  return 0;
}

void VideoStream::stopProducer(std::unique_lock<std::mutex>& lock) {
  if (!producer_.joinable()) return;
  stopProducer_ = true;
  stopping_ = true;
  wake_.notify_all();
  std::thread producer = std::move(producer_);
  lock.unlock();
  producer.join();
  lock.lock();
  stopProducer_ = false;
  stopping_ = false;
}

void VideoStream::dropReadyFramesLocked() {
  while (!done_.empty()) {
    done_.pop_front();
    consumeFrameSignal();
  }
  // The producer is gone: whatever count is left over, or owed, goes too, so
  // the next stream starts unreadable. A broken stream keeps its count: it
  // stays readable.
  if (broken_) return;
  std::lock_guard<std::mutex> lock(signalMutex_);
  pollfd ready{eventFd_, POLLIN, 0};
  const timespec now{};
  uint64_t value = 0;
  while (real::ppoll(&ready, 1, &now, nullptr) == 1 &&
         read(eventFd_, &value, sizeof(value)) == static_cast<ssize_t>(sizeof(value))) {
  }
  owedSignals_ = 0;
}

bool VideoStream::signalFrame() {
  std::lock_guard<std::mutex> lock(signalMutex_);
  // A dequeue that took the frame before its count came is owed it: this is
  // it, so it is not added.
  if (owedSignals_ != 0) {
    --owedSignals_;
    return true;
  }
  uint64_t one = 1;
  return write(eventFd_, &one, sizeof(one)) == static_cast<ssize_t>(sizeof(one));
}

bool VideoStream::consumeFrameSignal() {
  // The producer signals a frame just after publishing it, outside the
  // stream's lock, so a frame taken at once may find its count not yet there.
  // Then the producer leaves that count out instead: decided under one lock
  // with the producer's, so the count never exceeds the frames ready, and a
  // dequeue never waits for the producer (a kernel's does not either). The
  // descriptor may be a blocking one, so look before reading.
  std::lock_guard<std::mutex> lock(signalMutex_);
  pollfd ready{eventFd_, POLLIN, 0};
  const timespec now{};
  int rc;
  do {
    rc = real::ppoll(&ready, 1, &now, nullptr);
  } while (rc == -1 && errno == EINTR);
  if (rc != 1) {
    ++owedSignals_;
    return false;
  }
  uint64_t value = 0;
  return read(eventFd_, &value, sizeof(value)) == static_cast<ssize_t>(sizeof(value));
}

void VideoStream::releaseBuffersLocked() {
  dropReadyFramesLocked();
  incoming_.clear();
  states_.clear();
  if (memory_) ::munmap(memory_, memorySize_);
  memory_ = nullptr;
  memorySize_ = 0;
  bufferStride_ = 0;
  if (memFd_ != -1) ::close(memFd_);
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
  bool signal = false;  // a frame published and not yet signalled
  while (!stopProducer_) {
    lock.unlock();
    if (signal) signalFrame();
    signal = false;
    const Camera::VideoRunState run = camera_->videoRunState();
    const bool gone = !camera_->plugged() || run.faults.selectFails;
    if (gone) breakStream();
    lock.lock();
    if (stopProducer_) break;
    if (broken_) {
      wake_.wait_for(lock, kFaultPoll);
      continue;
    }
    const bool freeRun = run.freeRun;
    if (incoming_.empty() || run.faults.stopSending) {
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
    // In slices, so STREAMOFF or close does not wait for a whole large frame
    // (uvcvideo's STREAMOFF cancels the transfers in flight). A frame left
    // unfinished is never marked done.
    bool whole = true;
    for (size_t from = 0; from < size; from += kFillSlice) {
      if (stopping_.load(std::memory_order_relaxed)) {
        whole = false;
        break;
      }
      fillFrameRange(data, size, sequence, from, std::min<size_t>(size, from + kFillSlice));
    }
    lock.lock();
    if (!whole) break;

    const uint32_t shortBytes = run.faults.shortFrameBytes;
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    DoneFrame frame{index, shortBytes != 0 ? std::min(shortBytes, size) : size, sequence,
                    timeval{ts.tv_sec, ts.tv_nsec / 1000}};
    states_[index] = BufferState::Done;
    done_.push_back(frame);
    ++framesProduced_;
    if (!freeRun) {
      next += framePeriodLocked();
      // After a stall (slow consumer) keep the rate instead of catching up.
      if (next < Clock::now()) next = Clock::now();
    }
    // Sent at the top of the next round, outside the lock: the reader it
    // wakes does not find the lock still held (vb2 too wakes after releasing
    // its done lock).
    signal = true;
  }
  if (signal) {
    lock.unlock();
    signalFrame();
  }
}

}  // namespace tqsim
