// The frame path as a client of the exported functions feels it, each value
// beside a baseline doing the same work on the same emulated node:
//   FrameCopy/W/H     the stream handler's work for one frame (lock request,
//                     copy into a client buffer, notification) with callbacks
//                     that do nothing; ColdMemcpy/W/H copies the same bytes
//                     from a source the cache does not hold.
//   ApiStreamFps/W/H  frames per second into four client buffers with the
//                     camera running free; RawV4l2Fps/W/H is a plain libv4l2
//                     mmap loop on the same node copying into one buffer.
//   ApiStreamStop/W/H TqUvcStreamStop at a random point of a frame interval
//                     while the camera streams at the rate the library sets
//                     (its first advertised one), beside one frame interval of
//                     that stream (counter frame_interval_us);
//                     ApiStreamStop/idle while the camera sends nothing.
//   StreamFpsPaired/W/H the two above taking turns on one node, about a
//                     quarter second each, with a third turn: the raw loop
//                     copying into four buffers in turn, as the library must
//                     for a client with four; median ratios of ten rounds,
//                     for reference.
//   ApiStreamStopFreeRun/W/H  the same stop while the camera runs free; with
//                     RawV4l2Stop/W/H, the driver's own tear-down of such a
//                     stream, for reference.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <libv4l2.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/mman.h>
#include <tq_uvc.h>
#include <tqsim/FramePattern.h>
#include <tqsim/Sim.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "BenchCamera.h"
#include "api/TqUvcLibAPI.h"
#include "pool/TqUvcDevPool.h"
#include "stream/TqUvcStrmHandler.h"
#include "video/CaptureThread.h"

namespace {

using Clock = std::chrono::steady_clock;

int widthOf(const benchmark::State& state) { return static_cast<int>(state.range(0)); }
int heightOf(const benchmark::State& state) { return static_cast<int>(state.range(1)); }

// `count` page-aligned frames of `bytes`, each holding the test pattern, so
// every page is mapped before timing starts.
class FrameRing {
 public:
  FrameRing(size_t bytes, size_t count) : bytes_(bytes), count_(count) {
    stride_ = bench::pageRound(bytes);
    memory_.reset(static_cast<uint8_t*>(std::aligned_alloc(4096, stride_ * count)));
    if (!memory_) return;
    for (size_t i = 0; i < count; ++i) tqsim::fillFrame(at(i), bytes, static_cast<uint32_t>(i));
  }
  bool ok() const { return memory_ != nullptr; }
  uint8_t* at(size_t i) { return memory_.get() + (i % count_) * stride_; }
  size_t size() const { return count_; }

 private:
  size_t bytes_;
  size_t count_;
  size_t stride_ = 0;
  bench::PageMemory memory_;
};

void ignoreFrame(uint32_t, uint32_t, void*, _tagTqUvcDataBlockInfo*, uint64_t) {}

void FrameCopy(benchmark::State& state) {
  const int width = widthOf(state);
  const int height = heightOf(state);
  const size_t bytes = bench::frameBytes(width, height);
  // The node sends nothing: every frame the handler sees comes from here.
  tqsim::CameraConfig config = bench::cameraConfig(0, width, height);
  config.videoFaults.stopSending = true;
  bench::ApiCameras cameras({config});
  if (!cameras.error().empty()) {
    state.SkipWithError(cameras.error().c_str());
    return;
  }
  bench::StreamClient client(bytes);
  std::string error = client.open(cameras.handle(0), &ignoreFrame);
  if (error.empty()) error = client.start();
  FrameRing source(bytes, bench::coldRingLength(bytes));
  if (error.empty() && !source.ok()) error = "out of memory";
  TqUvcDevPoolNode* node = error.empty() ? ThePool.load()->GetNode(cameras.handle(0)) : nullptr;
  if (error.empty() && node == nullptr) error = "no device behind the handle";
  if (!error.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  const int size = static_cast<int>(bytes);
  size_t next = 0;
  for (auto _ : state) {
    LocalNewBufferCallBack(reinterpret_cast<char*>(source.at(next++)), size, &node->device);
  }
  // The last frame must have landed whole in one of the client's buffers.
  const uint8_t* last = source.at(next - 1);
  bool found = false;
  for (uint32_t i = 0; i < bench::StreamClient::kBuffers; ++i)
    found = found || std::memcmp(client.buffer(i), last, bytes) == 0;
  if (!found) state.SkipWithError("the frame did not reach a client buffer");
  node->ReleaseRef();
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}

// The baseline: the same bytes, from a source not in cache, into four
// destinations used in turn as the client's buffers are.
void ColdMemcpy(benchmark::State& state) {
  const size_t bytes = bench::frameBytes(widthOf(state), heightOf(state));
  FrameRing source(bytes, bench::coldRingLength(bytes));
  FrameRing target(bytes, bench::StreamClient::kBuffers);
  if (!source.ok() || !target.ok()) {
    state.SkipWithError("out of memory");
    return;
  }
  size_t next = 0;
  for (auto _ : state) {
    std::memcpy(target.at(next), source.at(next), bytes);
    ++next;
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}

double threadCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Counter consumer_cpu_us: CPU time per frame of the thread that takes frames
// from the node and copies them (the capture thread, or the raw loop's),
// sleeps and wake-ups included. Unlike the rate it does not depend on how the
// host times the two threads' wake-ups.
// Microseconds of CPU per frame between two clock readings; 0 when unknown.
double cpuPerFrameUs(double before, double after, uint64_t frames) {
  return before >= 0 && after > before && frames > 0 ? (after - before) * 1e6 / static_cast<double>(frames)
                                                     : 0.0;
}

void setConsumerCpu(benchmark::State& state, double before, double after, uint64_t frames) {
  const double us = cpuPerFrameUs(before, after, frames);
  if (us > 0) state.counters["consumer_cpu_us"] = us;
}

void ApiStreamFps(benchmark::State& state) {
  // One iteration is a slice of time the bench thread sleeps through, so it
  // wakes ten times a second instead of every 256 frames: the raw loop has no
  // third thread, and one waking on the capture thread's CPU would preempt it.
  constexpr auto kSlice = std::chrono::milliseconds(100);
  const int width = widthOf(state);
  const int height = heightOf(state);
  const size_t bytes = bench::frameBytes(width, height);
  tqsim::CameraConfig config = bench::cameraConfig(0, width, height);
  config.video.freeRun = true;
  bench::ApiCameras cameras({config});
  if (!cameras.error().empty()) {
    state.SkipWithError(cameras.error().c_str());
    return;
  }
  bench::StreamClient client(bytes);
  std::string error = client.open(cameras.handle(0));
  if (error.empty()) error = client.start();
  // The first frames come after the capture thread has set the node up.
  if (error.empty() && !client.waitFor(2)) error = "no frame arrived";
  if (!error.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  uint64_t frames = 0;
  const uint64_t framesBefore = client.frames();
  const double cpuBefore = client.delivererCpuSeconds();
  for (auto _ : state) {
    const uint64_t first = client.frames();
    const auto begin = Clock::now();
    std::this_thread::sleep_for(kSlice);
    const uint64_t n = client.frames() - first;
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
    if (n == 0) {
      state.SkipWithError("frames stopped arriving");
      break;
    }
    frames += n;
  }
  setConsumerCpu(state, cpuBefore, client.delivererCpuSeconds(), client.frames() - framesBefore);
  state.SetItemsProcessed(static_cast<int64_t>(frames));
  state.SetBytesProcessed(static_cast<int64_t>(frames * bytes));
}

int xioctl(int fd, unsigned long request, void* arg) {
  int rc;
  do {
    rc = v4l2_ioctl(fd, request, arg);
  } while (rc == -1 && errno == EINTR);
  return rc;
}

// A plain capture loop: open, set the format, map four buffers, stream; per
// frame wait, dequeue, copy into one buffer (or the next of `copies`), queue
// again.
class RawCapture {
 public:
  RawCapture(const char* path, int width, int height, size_t copies = 1) {
    fd_ = v4l2_open(path, O_RDWR | O_NONBLOCK);
    if (fd_ == -1) {
      error_ = "cannot open the node";
      return;
    }
    v4l2_format fmt{};
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    fmt.fmt.pix.width = static_cast<uint32_t>(width);
    fmt.fmt.pix.height = static_cast<uint32_t>(height);
    fmt.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
    fmt.fmt.pix.field = V4L2_FIELD_NONE;
    if (xioctl(fd_, VIDIOC_S_FMT, &fmt) != 0 || fmt.fmt.pix.width != static_cast<uint32_t>(width) ||
        fmt.fmt.pix.height != static_cast<uint32_t>(height)) {
      error_ = "the node has no such size";
      return;
    }
    v4l2_requestbuffers req{};
    req.count = 4;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_MMAP;
    if (xioctl(fd_, VIDIOC_REQBUFS, &req) != 0 || req.count == 0) {
      error_ = "REQBUFS failed";
      return;
    }
    for (uint32_t i = 0; i < req.count; ++i) {
      v4l2_buffer buf = buffer(i);
      if (xioctl(fd_, VIDIOC_QUERYBUF, &buf) != 0) {
        error_ = "QUERYBUF failed";
        return;
      }
      void* start = v4l2_mmap(nullptr, buf.length, PROT_READ, MAP_SHARED, fd_, buf.m.offset);
      if (start == MAP_FAILED) {
        error_ = "mmap failed";
        return;
      }
      maps_.push_back({start, buf.length});
      if (xioctl(fd_, VIDIOC_QBUF, &buf) != 0) {
        error_ = "QBUF failed";
        return;
      }
    }
    // Page-aligned and touched, as the library's client buffers are.
    copyBytes_ = fmt.fmt.pix.sizeimage;
    for (size_t i = 0; i < copies; ++i) {
      copies_.push_back(bench::zeroedPages(copyBytes_));
      if (!copies_.back()) {
        error_ = "out of memory";
        return;
      }
    }
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (xioctl(fd_, VIDIOC_STREAMON, &type) != 0) error_ = "STREAMON failed";
  }
  ~RawCapture() {
    if (fd_ == -1) return;
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    xioctl(fd_, VIDIOC_STREAMOFF, &type);
    for (const auto& m : maps_) v4l2_munmap(m.start, m.length);
    v4l2_close(fd_);
  }
  RawCapture(const RawCapture&) = delete;
  RawCapture& operator=(const RawCapture&) = delete;

  const std::string& error() const { return error_; }

  // One frame; false when none came within the time-out or a call failed.
  bool frame() {
    pollfd pfd{fd_, POLLIN, 0};
    const int timeoutMs = static_cast<int>(std::chrono::milliseconds(bench::kFrameTimeout).count());
    if (::poll(&pfd, 1, timeoutMs) != 1) return false;
    v4l2_buffer buf = buffer(0);
    if (xioctl(fd_, VIDIOC_DQBUF, &buf) != 0 || buf.index >= maps_.size()) return false;
    uint8_t* to = copies_[next_].get();
    next_ = (next_ + 1) % copies_.size();
    std::memcpy(to, maps_[buf.index].start, std::min<size_t>(buf.bytesused, copyBytes_));
    benchmark::ClobberMemory();
    return xioctl(fd_, VIDIOC_QBUF, &buf) == 0;
  }

 private:
  struct Map {
    void* start;
    size_t length;
  };
  static v4l2_buffer buffer(uint32_t index) {
    v4l2_buffer buf{};
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buf.memory = V4L2_MEMORY_MMAP;
    buf.index = index;
    return buf;
  }

  int fd_ = -1;
  std::string error_;
  std::vector<Map> maps_;
  std::vector<bench::PageMemory> copies_;
  size_t copyBytes_ = 0;
  size_t next_ = 0;
};

// A fresh emulated camera running free on /dev/video0, for the raw loops;
// false (and the benchmark skipped) when it cannot be plugged.
bool plugFreeRunCamera(benchmark::State& state, int width, int height) {
  tqsim::reset();
  tqsim::CameraConfig config = bench::cameraConfig(0, width, height);
  config.video.freeRun = true;
  std::string error;
  if (tqsim::plugCamera(config, &error) != tqsim::kNoCamera) return true;
  state.SkipWithError(("cannot plug the camera: " + error).c_str());
  tqsim::reset();
  return false;
}

void RawV4l2Fps(benchmark::State& state) {
  const int width = widthOf(state);
  const int height = heightOf(state);
  const size_t bytes = bench::frameBytes(width, height);
  if (!plugFreeRunCamera(state, width, height)) return;
  std::string error;
  {
    RawCapture capture("/dev/video0", width, height);
    error = capture.error();
    // Warm-up, as for the library: the first frames after STREAMON.
    if (error.empty() && !(capture.frame() && capture.frame())) error = "no frame arrived";
    if (!error.empty()) state.SkipWithError(error.c_str());
    const double cpuBefore = threadCpuSeconds();
    for (auto _ : state) {
      if (!error.empty() || !capture.frame()) {
        if (error.empty()) state.SkipWithError("frames stopped arriving");
        break;
      }
    }
    setConsumerCpu(state, cpuBefore, threadCpuSeconds(), state.iterations());
  }
  tqsim::reset();
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}

// The library and the raw loop take turns on the same free-running node for a
// quarter second each, the one to go first rotating; the ratio of each round's
// rates is kept, and their median is not moved by a host whose speed drifts
// over seconds, as separate repetitions are. A third turn runs the raw loop
// copying into four buffers in turn, the work the library does for a client
// with four: what the baseline's one buffer, staying in the cache, is worth.
// Counters: ratio (library / raw loop), ratio4 (library / raw loop with four
// buffers), api_fps, raw_fps, raw4_fps, and the consumer's CPU per frame of
// each turn, api_cpu_us, raw_cpu_us, raw4_cpu_us (medians over the rounds).
// Reference, no goal.
void StreamFpsPaired(benchmark::State& state) {
  constexpr auto kSlice = std::chrono::milliseconds(250);
  const int width = widthOf(state);
  const int height = heightOf(state);
  tqsim::CameraConfig config = bench::cameraConfig(0, width, height);
  config.video.freeRun = true;
  bench::ApiCameras cameras({config});
  if (!cameras.error().empty()) {
    state.SkipWithError(cameras.error().c_str());
    return;
  }
  bench::StreamClient client(bench::frameBytes(width, height));
  std::string error = client.open(cameras.handle(0));
  if (!error.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  auto rate = [](uint64_t frames, Clock::duration d) {
    return static_cast<double>(frames) / std::chrono::duration<double>(d).count();
  };
  // Consumer CPU per frame of the last slice, in microseconds.
  double sliceCpuUs = 0;
  // Frames per second after two warm-up frames; 0 (and `error` set) on failure.
  auto rawSlice = [&](size_t copies) {
    sliceCpuUs = 0;
    RawCapture capture("/dev/video0", width, height, copies);
    error = capture.error();
    if (error.empty() && !(capture.frame() && capture.frame())) error = "no frame arrived (raw)";
    const auto begin = Clock::now();
    const double cpuBefore = threadCpuSeconds();
    uint64_t n = 0;
    while (error.empty() && Clock::now() - begin < kSlice) {
      if (!capture.frame()) error = "frames stopped arriving (raw)";
      ++n;
    }
    sliceCpuUs = cpuPerFrameUs(cpuBefore, threadCpuSeconds(), n);
    return error.empty() ? rate(n, Clock::now() - begin) : 0.0;
  };
  // The bench thread sleeps through the slice: no wake-up per frame.
  auto apiSlice = [&] {
    sliceCpuUs = 0;
    error = client.start();
    if (!error.empty()) return 0.0;
    if (!client.waitFor(client.frames() + 2)) error = "no frame arrived";
    const uint64_t first = client.frames();
    const auto begin = Clock::now();
    const double cpuBefore = client.delivererCpuSeconds();
    std::this_thread::sleep_for(kSlice);
    const uint64_t n = client.frames() - first;
    const auto end = Clock::now();
    sliceCpuUs = cpuPerFrameUs(cpuBefore, client.delivererCpuSeconds(), client.frames() - first);
    client.stop();
    if (error.empty() && n == 0) error = "frames stopped arriving";
    return error.empty() ? rate(n, end - begin) : 0.0;
  };
  std::vector<double> ratios, ratios4, apiFps, rawFps, raw4Fps;
  std::vector<double> cpuUs[3];  // consumer CPU per frame of each turn
  for (auto _ : state) {
    double fps[3] = {};  // library, raw loop, raw loop with four buffers
    const size_t first = apiFps.size() % 3;
    for (size_t k = 0; k < 3 && error.empty(); ++k) {
      const size_t turn = (first + k) % 3;
      fps[turn] = turn == 0 ? apiSlice() : rawSlice(turn == 1 ? 1 : bench::StreamClient::kBuffers);
      if (sliceCpuUs > 0) cpuUs[turn].push_back(sliceCpuUs);
    }
    if (!error.empty()) {
      state.SkipWithError(error.c_str());
      return;
    }
    ratios.push_back(fps[0] / fps[1]);
    ratios4.push_back(fps[0] / fps[2]);
    apiFps.push_back(fps[0]);
    rawFps.push_back(fps[1]);
    raw4Fps.push_back(fps[2]);
  }
  auto median = [](std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    const size_t mid = v.size() / 2;
    return v.size() % 2 != 0 ? v[mid] : (v[mid - 1] + v[mid]) / 2;
  };
  state.counters["ratio"] = median(ratios);
  state.counters["ratio4"] = median(ratios4);
  state.counters["api_fps"] = median(apiFps);
  state.counters["raw_fps"] = median(rawFps);
  state.counters["raw4_fps"] = median(raw4Fps);
  state.counters["api_cpu_us"] = median(cpuUs[0]);
  state.counters["raw_cpu_us"] = median(cpuUs[1]);
  state.counters["raw4_cpu_us"] = median(cpuUs[2]);
}

enum class StopCase { Paced, FreeRun, Idle };

// Each iteration starts the stream (not timed; the start settles for 100 ms)
// and times the stop. Paced: the camera keeps the rate the library sets, the
// interval between two frames of each iteration is the stream's frame
// interval, and the stop comes at a random point of the next one, as a
// client's would.
void stopLatency(benchmark::State& state, int width, int height, StopCase mode) {
  // During the start the driver fills every buffer the capture thread
  // queues; they arrive in a burst, and the frame made as the first comes
  // back waits behind them. The interval is measured after that one.
  const uint64_t startFrames = CaptureThread().bufferCount() + 1;
  std::mt19937 rng(1);
  tqsim::CameraConfig config = bench::cameraConfig(0, width, height);
  config.video.freeRun = mode == StopCase::FreeRun;
  config.videoFaults.stopSending = mode == StopCase::Idle;
  bench::ApiCameras cameras({config});
  if (!cameras.error().empty()) {
    state.SkipWithError(cameras.error().c_str());
    return;
  }
  bench::StreamClient client(bench::frameBytes(width, height));
  const std::string error = client.open(cameras.handle(0));
  if (!error.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  std::vector<double> intervalsUs;
  for (auto _ : state) {
    std::string failed = client.start();
    // Frames flowing: the capture thread is in its loop.
    if (failed.empty() && mode != StopCase::Idle) {
      const uint64_t first = client.frames() + (mode == StopCase::Paced ? startFrames : 0) + 1;
      const bool arrived = client.waitFor(first);
      const auto firstSeen = Clock::now();
      if (!arrived || !client.waitFor(first + 1)) failed = "no frame arrived";
      const Clock::duration interval = Clock::now() - firstSeen;
      intervalsUs.push_back(std::chrono::duration<double, std::micro>(interval).count());
      if (failed.empty() && mode == StopCase::Paced)
        std::this_thread::sleep_for(std::uniform_real_distribution<double>(0.0, 1.0)(rng) * interval);
    }
    const auto begin = Clock::now();
    const uint32_t rc = client.stop();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
    if (failed.empty() && rc != 0) failed = "TqUvcStreamStop failed";
    if (!failed.empty()) {
      state.SkipWithError(failed.c_str());
      break;
    }
  }
  // The median: now and then the driver adds a frame to the start's burst,
  // and that iteration's pair comes back to back.
  if (mode == StopCase::Paced && !intervalsUs.empty()) {
    std::sort(intervalsUs.begin(), intervalsUs.end());
    state.counters["frame_interval_us"] = intervalsUs[intervalsUs.size() / 2];
  }
}

void ApiStreamStop(benchmark::State& state) {
  stopLatency(state, widthOf(state), heightOf(state), StopCase::Paced);
}
void ApiStreamStopFreeRun(benchmark::State& state) {
  stopLatency(state, widthOf(state), heightOf(state), StopCase::FreeRun);
}

// What the driver alone costs to stop the same free-running stream: STREAMOFF,
// unmapping the buffers and closing the node, the tear-down a stop must do.
void RawV4l2Stop(benchmark::State& state) {
  const int width = widthOf(state);
  const int height = heightOf(state);
  if (!plugFreeRunCamera(state, width, height)) return;
  std::string error;
  for (auto _ : state) {
    auto capture = std::make_unique<RawCapture>("/dev/video0", width, height);
    error = capture->error();
    // As for the library: frames flowing, every buffer mapped and read.
    for (int i = 0; i < 8 && error.empty(); ++i)
      if (!capture->frame()) error = "no frame arrived";
    if (!error.empty()) {
      state.SkipWithError(error.c_str());
      break;
    }
    const auto begin = Clock::now();
    capture.reset();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
  }
  tqsim::reset();
}
void ApiStreamStopIdle(benchmark::State& state) { stopLatency(state, 640, 480, StopCase::Idle); }

void frameSizes(benchmark::internal::Benchmark* b) {
  for (auto [w, h] : {std::pair<int, int>{320, 240}, {640, 480}, {1280, 960}, {1920, 1080}}) b->Args({w, h});
}

BENCHMARK(FrameCopy)->Apply(frameSizes)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(ColdMemcpy)->Apply(frameSizes)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(ApiStreamFps)->Apply(frameSizes)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(RawV4l2Fps)->Apply(frameSizes)->UseRealTime()->Unit(benchmark::kMicrosecond);
// Stops: two sizes, a fixed count (every start settles for 100 ms, and a
// paced one waits up to four frame intervals more), each stop timed by hand.
void stopRuns(benchmark::internal::Benchmark* b, int iterations) {
  b->Args({640, 480})
      ->Args({1920, 1080})
      ->Iterations(iterations)
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond);
}

BENCHMARK(ApiStreamStop)->Apply([](benchmark::internal::Benchmark* b) { stopRuns(b, 10); });
BENCHMARK(ApiStreamStopFreeRun)->Apply([](benchmark::internal::Benchmark* b) { stopRuns(b, 20); });
BENCHMARK(RawV4l2Stop)->Apply([](benchmark::internal::Benchmark* b) { stopRuns(b, 20); });
// Ten pairs, once: the pairing is the repetition.
BENCHMARK(StreamFpsPaired)->Apply(frameSizes)->Iterations(10)->Repetitions(1)->Unit(benchmark::kMillisecond);
BENCHMARK(ApiStreamStopIdle)
    ->Name("ApiStreamStop/idle")
    ->Iterations(20)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
