// libv4l2 talks to devices with direct system calls, so the emulated video
// nodes are served by taking over libv4l2's entry points: descriptors of
// emulated nodes go to their VideoStream, everything else to the real libv4l2.
// Waits (select, poll, epoll) are not wrapped: the descriptor itself reports
// frames and unplug to the real calls (see VideoStream).
#include <dlfcn.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <tqsim/VideoStatus.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "Camera.h"
#include "RealCalls.h"
#include "Registry.h"
#include "VideoStream.h"

namespace tqsim {
namespace {

using OpenFn = int (*)(const char*, int, ...);
using CloseFn = int (*)(int);
using IoctlFn = int (*)(int, unsigned long, ...);
using MmapFn = void* (*)(void*, size_t, int, int, int, int64_t);
using MunmapFn = int (*)(void*, size_t);

template <typename Fn>
Fn nextSymbol(const char* name) {
  void* sym = dlsym(RTLD_NEXT, name);
  if (!sym) {
    // libv4l2 not yet in the lookup scope (loaded later by dlopen): ask it.
    void* handle = dlopen("libv4l2.so.0", RTLD_LAZY | RTLD_NOLOAD);
    if (!handle) handle = dlopen("libv4l2.so.0", RTLD_LAZY);
    if (handle) sym = dlsym(handle, name);
  }
  return reinterpret_cast<Fn>(sym);
}

struct Mapping {
  size_t length;
  CameraId camera;
};

class VideoTable {
 public:
  static VideoTable& instance() {
    // Never destroyed: interposed calls may arrive during static destruction.
    static VideoTable* table = new VideoTable();
    return *table;
  }

  int open(const std::shared_ptr<Camera>& camera, bool captureNode) {
    ensurePlugListener();
    int error = 0;
    std::shared_ptr<VideoStream> stream(VideoStream::create(camera, captureNode, &error));
    if (!stream) {
      errno = error;
      return -1;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    streams_[stream->fd()] = stream;
    return stream->fd();
  }

  std::shared_ptr<VideoStream> find(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = streams_.find(fd);
    return it == streams_.end() ? nullptr : it->second;
  }

  // Removes and shuts the stream down; the descriptor is closed last so its
  // number cannot be reused while the table still names it.
  bool close(int fd) {
    std::shared_ptr<VideoStream> stream;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = streams_.find(fd);
      if (it == streams_.end()) return false;
      stream = std::move(it->second);
      streams_.erase(it);
    }
    stream->shutdown();
    tqsim::real::close(fd);
    return true;
  }

  void breakStreams(CameraId camera) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [fd, stream] : streams_)
      if (stream->cameraId() == camera) stream->breakStream();
  }

  // Notes what a client asked of a camera's node (see VideoRequests).
  void record(CameraId camera, const std::function<void(VideoRequests&)>& note) {
    std::lock_guard<std::mutex> lock(mutex_);
    note(requests_[camera]);
  }

  VideoRequests requests(CameraId camera) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = requests_.find(camera);
    return it == requests_.end() ? VideoRequests{} : it->second;
  }

  void addMapping(void* addr, size_t length, CameraId camera) {
    std::lock_guard<std::mutex> lock(mutex_);
    mappings_[addr] = Mapping{length, camera};
  }

  bool removeMapping(void* addr) {
    std::lock_guard<std::mutex> lock(mutex_);
    return mappings_.erase(addr) != 0;
  }

  int openNodes(CameraId camera) {
    std::lock_guard<std::mutex> lock(mutex_);
    int n = 0;
    for (auto& [fd, stream] : streams_)
      if (stream->cameraId() == camera) ++n;
    return n;
  }

  size_t mappings(CameraId camera) {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (auto& [addr, m] : mappings_)
      if (m.camera == camera) ++n;
    return n;
  }

  uint32_t framesProduced(CameraId camera) {
    std::lock_guard<std::mutex> lock(mutex_);
    uint32_t n = 0;
    for (auto& [fd, stream] : streams_)
      if (stream->cameraId() == camera) n += stream->framesProduced();
    return n;
  }

 private:
  void ensurePlugListener() {
    std::call_once(listenerOnce_, [this] {
      addPlugListener([this](const std::shared_ptr<Camera>& camera, bool plugged) {
        if (!plugged && camera) breakStreams(camera->id());
      });
    });
  }

  std::mutex mutex_;
  std::map<int, std::shared_ptr<VideoStream>> streams_;
  std::map<void*, Mapping> mappings_;
  std::map<CameraId, VideoRequests> requests_;  // ids are never reused
  std::once_flag listenerOnce_;
};

}  // namespace

int openVideoNodes(CameraId id) { return VideoTable::instance().openNodes(id); }
size_t videoMappings(CameraId id) { return VideoTable::instance().mappings(id); }
uint32_t videoFramesProduced(CameraId id) { return VideoTable::instance().framesProduced(id); }
VideoRequests videoRequests(CameraId id) { return VideoTable::instance().requests(id); }

namespace {

// Notes the requests VideoRequests reports, before the node answers them.
void recordIoctl(CameraId camera, unsigned long request, const void* arg) {
  if (!arg) return;
  auto& table = VideoTable::instance();
  switch (request) {
    case VIDIOC_REQBUFS: {
      const uint32_t count = static_cast<const v4l2_requestbuffers*>(arg)->count;
      table.record(camera, [count](VideoRequests& r) { r.buffersAsked = count; });
      break;
    }
    case VIDIOC_S_PARM: {
      const v4l2_fract asked = static_cast<const v4l2_streamparm*>(arg)->parm.capture.timeperframe;
      table.record(camera, [asked](VideoRequests& r) {
        r.intervalNumerator = asked.numerator;
        r.intervalDenominator = asked.denominator;
        ++r.parmSets;
      });
      break;
    }
    case VIDIOC_STREAMOFF:
      table.record(camera, [](VideoRequests& r) { ++r.streamOffs; });
      break;
    case VIDIOC_DQBUF:
      table.record(camera, [](VideoRequests& r) { ++r.dequeues; });
      break;
    default:
      break;
  }
}

}  // namespace

}  // namespace tqsim

using tqsim::VideoTable;

extern "C" {

__attribute__((visibility("default"))) int v4l2_open(const char* file, int oflag, ...) {
  va_list ap;
  va_start(ap, oflag);
  const mode_t mode = static_cast<mode_t>(va_arg(ap, int));
  va_end(ap);
  if (file && tqsim::simActive()) {
    if (auto camera = tqsim::findCameraByVideoPath(file)) {
      if (camera->config().videoFaults.openFails) {
        errno = ENODEV;
        return -1;
      }
      VideoTable::instance().record(camera->id(), [oflag](tqsim::VideoRequests& r) { r.openFlags = oflag; });
      return VideoTable::instance().open(camera, camera->isCaptureNode(file));
    }
  }
  static const auto next = tqsim::nextSymbol<tqsim::OpenFn>("v4l2_open");
  if (!next) {
    errno = ENOSYS;
    return -1;
  }
  return next(file, oflag, mode);
}

__attribute__((visibility("default"))) int v4l2_close(int fd) {
  if (VideoTable::instance().close(fd)) return 0;
  static const auto next = tqsim::nextSymbol<tqsim::CloseFn>("v4l2_close");
  return next ? next(fd) : tqsim::real::close(fd);
}

__attribute__((visibility("default"))) int v4l2_ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  void* arg = va_arg(ap, void*);
  va_end(ap);
  if (auto stream = VideoTable::instance().find(fd)) {
    tqsim::recordIoctl(stream->cameraId(), request, arg);
    const int err = stream->ioctl(request, arg);
    if (err == 0) return 0;
    errno = err;
    return -1;
  }
  static const auto next = tqsim::nextSymbol<tqsim::IoctlFn>("v4l2_ioctl");
  if (!next) {
    errno = ENOSYS;
    return -1;
  }
  return next(fd, request, arg);
}

__attribute__((visibility("default"))) void* v4l2_mmap(void* start, size_t length, int prot, int flags,
                                                       int fd, int64_t offset) {
  if (auto stream = VideoTable::instance().find(fd)) {
    VideoTable::instance().record(stream->cameraId(),
                                  [prot](tqsim::VideoRequests& r) { r.mapProtection = prot; });
    int err = 0;
    void* addr = stream->mmap(length, prot, flags, offset, &err);
    if (addr == MAP_FAILED) {
      errno = err;
      return MAP_FAILED;
    }
    VideoTable::instance().addMapping(addr, length, stream->cameraId());
    return addr;
  }
  static const auto next = tqsim::nextSymbol<tqsim::MmapFn>("v4l2_mmap");
  if (!next) {
    errno = ENOSYS;
    return MAP_FAILED;
  }
  return next(start, length, prot, flags, fd, offset);
}

__attribute__((visibility("default"))) int v4l2_munmap(void* start, size_t length) {
  if (VideoTable::instance().removeMapping(start)) return ::munmap(start, length);
  static const auto next = tqsim::nextSymbol<tqsim::MunmapFn>("v4l2_munmap");
  return next ? next(start, length) : ::munmap(start, length);
}

}  // extern "C"
