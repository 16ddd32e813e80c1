#include "video/CaptureThread.h"

#include <fcntl.h>
#include <libv4l2.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <sys/select.h>

#include <cerrno>
#include <cstring>

#include "support/LibLogs.h"

namespace {

constexpr int kSelectTimeoutSeconds = 2;

// Drivers answer EAGAIN/EINTR for transient states; only other errors count.
int xioctl(int fd, unsigned long request, void* arg) {
  int r;
  do {
    r = v4l2_ioctl(fd, request, arg);
  } while (r == -1 && (errno == EAGAIN || errno == EINTR));
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

}  // namespace

CaptureThread::CaptureThread()
    : nFrameSizes(0),
      frameRate(0),
      width(0),
      height(0),
      imageSize(0),
      cameraIndex(0),
      callbackContext(nullptr),
      callback(nullptr),
      frameSizes{},
      nBuffers(4),
      devicePath{},
      buffers(nullptr),
      thread(0),
      running(false) {}

CaptureThread::~CaptureThread() {
  if (threadJoinable_) {
    destroying_ = true;
    running = false;
    joinThread();
  }
  releaseStream();
}

int CaptureThread::open(char* device) {
  const char* path = device ? device : "";
  strncpy(devicePath, path, sizeof(devicePath));
  devicePath[sizeof(devicePath) - 1] = '\0';
  LIBLog.Debug("CaptureThread::open video device: \"%s\"\n", devicePath);

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
        nFrameSizes = recorded;
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
      nFrameSizes = recorded + 1;
      break;
    }
    FrameSizeEntry& entry = frameSizes[recorded];
    entry.width = static_cast<int32_t>(fsize.discrete.width);
    entry.height = static_cast<int32_t>(fsize.discrete.height);
    LIBLog.Debug("CaptureThread::enum_frame_sizes[%d] wxh = %dx%d\n", recorded, entry.width, entry.height);
    entry.nFrameRates = 0;
    enumFrameIntervals(fd, entry);
    ++recorded;
  }

  LIBLog.Debug("CaptureThread::open close video device: \"%s\"\n", devicePath);
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
  int count = nFrameSizes > LIST_MAX_NUM + 1 ? LIST_MAX_NUM + 1 : nFrameSizes;
  int chosen = 0;
  if (!(nFrameSizes < 1 || w > frameSizes[0].width || h > frameSizes[0].height)) {
    while (chosen + 1 < count && frameSizes[chosen + 1].width >= w && frameSizes[chosen + 1].height >= h)
      ++chosen;
  }
  width = frameSizes[chosen].width;
  height = frameSizes[chosen].height;
  frameRate = frameSizes[chosen].frameRates[0];
  return 0;
}

int CaptureThread::GetStreamingFormat(int* w, int* h) {
  if (w) *w = width;
  if (h) *h = height;
  return 0;
}

int CaptureThread::start() {
  // A thread started but not yet marked running counts as running: a second
  // thread on the same object would share its node and buffers.
  if (running || (threadJoinable_ && !threadFinished_)) return -23;
  if (threadJoinable_) {
    joinThread();
    releaseStream();
  }
  threadFinished_ = false;
  streamWidth_ = width;
  streamHeight_ = height;
  streamRate_ = frameRate;
  int rc = pthread_create(&thread, nullptr, CaptureThreadRoutineStatic, this);
  if (rc != 0) {
    LIBLog.Error("CaptureThread::start: error creating thread: %d\n", rc);
    thread = 0;
    return -24;
  }
  threadJoinable_ = true;
  LIBLog.Debug("CaptureThread::start: capture thread started\n");
  return 0;
}

int CaptureThread::close() {
  LIBLog.Debug("CaptureThread::close()\n");
  if (!running) return 0;
  running = false;
  if (thread == 0) return 0;
  LIBLog.Debug("CaptureThread::close() pthread_join: waiting\n");
  joinThread();
  LIBLog.Debug("CaptureThread::close() pthread_join: done\n");
  // An early end of the thread leaves the node open and mapped.
  releaseStream();
  return 0;
}

void CaptureThread::joinThread() {
  if (!threadJoinable_) return;
  pthread_join(thread, nullptr);
  threadJoinable_ = false;
}

void CaptureThread::releaseStream() {
  for (uint32_t i = 0; i < mappedCount_; ++i) {
    if (buffers[i].start) v4l2_munmap(buffers[i].start, buffers[i].length);
  }
  bufferStore_.reset();
  buffers = nullptr;
  mappedCount_ = 0;
  if (streamFd_ != -1) {
    v4l2_close(streamFd_);
    streamFd_ = -1;
  }
}

void* CaptureThread::ThreadRoutine() {
  LIBLog.Debug("--> CaptureThread::run (%dx%d) \n", streamWidth_, streamHeight_);
  running = true;

  int fd = v4l2_open(devicePath, O_RDWR | O_NONBLOCK, 0);
  if (fd == -1) {
    LIBLog.Error("---> Cannot open device\n");
    return nullptr;
  }
  streamFd_ = fd;

  v4l2_format fmt;
  memset(&fmt, 0, sizeof(fmt));
  fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  fmt.fmt.pix.width = static_cast<uint32_t>(streamWidth_);
  fmt.fmt.pix.height = static_cast<uint32_t>(streamHeight_);
  fmt.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
  fmt.fmt.pix.field = V4L2_FIELD_NONE;
  if (xioctl(fd, VIDIOC_S_FMT, &fmt) != 0) {
    LIBLog.Error("---> Error xioctl \n");
    return nullptr;
  }
  if (fmt.fmt.pix.pixelformat != V4L2_PIX_FMT_YUYV) {
    LIBLog.Debug("---> Error format \n");
    return nullptr;
  }
  if (fmt.fmt.pix.width != static_cast<uint32_t>(streamWidth_) ||
      fmt.fmt.pix.height != static_cast<uint32_t>(streamHeight_))
    LIBLog.Debug("---> Error size %dx%d\n", static_cast<int>(fmt.fmt.pix.width),
                 static_cast<int>(fmt.fmt.pix.height));
  imageSize = fmt.fmt.pix.sizeimage;

  v4l2_streamparm parm;
  memset(&parm, 0, sizeof(parm));
  parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  xioctl(fd, VIDIOC_G_PARM, &parm);
  parm.parm.capture.timeperframe.denominator = static_cast<uint32_t>(streamRate_);
  xioctl(fd, VIDIOC_S_PARM, &parm);

  v4l2_requestbuffers req;
  memset(&req, 0, sizeof(req));
  req.count = nBuffers;
  req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  req.memory = V4L2_MEMORY_MMAP;
  xioctl(fd, VIDIOC_REQBUFS, &req);
  const uint32_t count = req.count;
  bufferStore_ = std::make_unique<MappedBuffer[]>(count);
  buffers = bufferStore_.get();
  mappedCount_ = count;

  for (uint32_t i = 0; i < count; ++i) {
    v4l2_buffer buf = mmapBuffer(i);
    xioctl(fd, VIDIOC_QUERYBUF, &buf);
    buffers[i].length = buf.length;
    void* start = v4l2_mmap(nullptr, buf.length, PROT_READ, MAP_SHARED, fd, buf.m.offset);
    if (start == MAP_FAILED) {
      LIBLog.Debug("---> mmap\n");
      return nullptr;
    }
    buffers[i].start = start;
  }

  for (uint32_t i = 0; i < count; ++i) {
    v4l2_buffer buf = mmapBuffer(i);
    xioctl(fd, VIDIOC_QBUF, &buf);
  }
  v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  xioctl(fd, VIDIOC_STREAMON, &type);

  while (running && !destroying_) {
    // fd_set cannot describe a descriptor past FD_SETSIZE; treat it as a
    // failing select instead of writing beyond the set.
    int rc;
    fd_set fds;
    if (fd >= FD_SETSIZE) {
      errno = EINVAL;
      rc = -1;
    } else {
      FD_ZERO(&fds);
      FD_SET(fd, &fds);
      timeval tv{kSelectTimeoutSeconds, 0};
      rc = select(fd + 1, &fds, nullptr, nullptr, &tv);
    }
    if (rc == 0) {
      LIBLog.Error("CaptureThread::ThreadRoutine: error in select: timeout expired\n");
      continue;
    }
    if (rc == -1) {
      int err = errno;
      if (err == EINTR) {
        LIBLog.Error("CaptureThread::ThreadRoutine: interrupted system call\n");
        continue;
      }
      LIBLog.Error("CaptureThread::ThreadRoutine: select returned error: \"%s\" (errno:%d)\n", strerror(err),
                   err);
      return nullptr;
    }

    v4l2_buffer buf = mmapBuffer(0);
    int retval = 0;
    if (xioctl(fd, VIDIOC_DQBUF, &buf) != 0) {
      int err = errno;
      LIBLog.Error("CaptureThread::ThreadRoutine: xioctl VIDIOC_DQBUF returned error: \"%s\" (errno:%d)\n",
                   strerror(err), err);
      buf = mmapBuffer(0);
      retval = -1;
    }
    // A driver index outside the mapped set (or no buffers at all) is passed
    // on as no data rather than read out of bounds.
    void* start = buf.index < count ? buffers[buf.index].start : nullptr;
    LIBLog.Trace("VIDIOC_DQBUF: id nr:%d start:%p used:%d flags:%d (rc = %d retval = %d)\n",
                 static_cast<int>(buf.index), start, static_cast<int>(buf.bytesused),
                 static_cast<int>(buf.flags), rc, retval);
    CaptureCallback fn = callback.load();
    if (fn)
      fn(static_cast<unsigned char*>(start), static_cast<int>(buf.bytesused),
         static_cast<int>(cameraIndex.load()), callbackContext.load());
    if (xioctl(fd, VIDIOC_QBUF, &buf) != 0) {
      int err = errno;
      LIBLog.Error("CaptureThread::ThreadRoutine: xioctl VIDIOC_QBUF returned error: \"%s\" (errno:%d)\n",
                   strerror(err), err);
    }
  }

  LIBLog.Debug("CaptureThread::ThreadRoutine: CLEANUP cap thread\n");
  xioctl(fd, VIDIOC_STREAMOFF, &type);
  releaseStream();
  return nullptr;
}

void* CaptureThreadRoutineStatic(void* arg) {
  if (!arg) return nullptr;
  auto* self = static_cast<CaptureThread*>(arg);
  // A throwing client callback must not unwind out of the thread.
  try {
    self->ThreadRoutine();
  } catch (...) {
    LIBLog.Error("CaptureThread::ThreadRoutine: exception in the capture thread\n");
  }
  self->threadFinished_ = true;
  return nullptr;
}
