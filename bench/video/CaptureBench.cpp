// How fast frames travel from the emulated node through the capture thread to
// the client callback, with the camera running free (no frame interval), and
// how long closing a streaming capture takes. FrameMemcpy copies one frame of
// the same size: the yardstick that makes the delivery cost comparable across
// machines (the emulation writes every frame's pattern, so delivery cannot
// beat one copy).
#include <benchmark/benchmark.h>
#include <tqsim/FramePattern.h>
#include <tqsim/Sim.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "video/KOR_UVC.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr unsigned char kCamera = 0;
// Generous: a free-running camera delivers a frame within milliseconds.
constexpr std::chrono::seconds kFrameTimeout{5};

// Counts the frames the callback sees and wakes the benchmark thread when the
// count it waits for is reached; checks each frame's size and header.
class FrameCounter {
 public:
  explicit FrameCounter(int expectedSize) : expectedSize_(expectedSize) {}

  static int callback(unsigned char* data, int size, int, void* context) {
    static_cast<FrameCounter*>(context)->add(data, size);
    return 0;
  }

  uint64_t frames() const { return frames_.load(); }
  uint64_t badFrames() const { return badFrames_.load(); }

  // False when `target` frames have not arrived before the time-out.
  bool waitFor(uint64_t target) {
    target_.store(target);
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(lock, kFrameTimeout, [&] { return frames_.load() >= target; });
  }

 private:
  void add(const unsigned char* data, int size) {
    if (!data || size != expectedSize_ || !headerOk(data)) ++badFrames_;
    // Lock only to wake the waiter, not on every frame.
    if (++frames_ >= target_.load()) {
      std::lock_guard<std::mutex> lock(mutex_);
      arrived_.notify_one();
    }
  }

  static bool headerOk(const unsigned char* data) {
    uint32_t number = 0;
    std::memcpy(&number, data, sizeof(number));
    for (size_t i = 0; i < tqsim::kFrameHeaderBytes; ++i)
      if (data[i] != tqsim::framePatternByte(number, i)) return false;
    return true;
  }

  const int expectedSize_;
  std::atomic<uint64_t> frames_{0};
  std::atomic<uint64_t> badFrames_{0};
  std::atomic<uint64_t> target_{UINT64_MAX};
  std::mutex mutex_;
  std::condition_variable arrived_;
};

// A free-running emulated camera on /dev/video0, forgotten again on scope exit.
class FreeRunCamera {
 public:
  FreeRunCamera() {
    tqsim::reset();  // the emulation starts with a default camera of its own
    tqsim::CameraConfig config = tqsim::defaultCameraConfig();
    config.video.freeRun = true;
    if (tqsim::plugCamera(config, &error_) == tqsim::kNoCamera) error_ = "cannot plug the camera: " + error_;
  }
  ~FreeRunCamera() {
    KOR_UVC_StreamClose(kCamera);
    tqsim::reset();
  }
  FreeRunCamera(const FreeRunCamera&) = delete;
  FreeRunCamera& operator=(const FreeRunCamera&) = delete;

  // Opens the capture at width x height with `counter` as callback and starts
  // it; empty on success, else what failed.
  std::string startCapture(int width, int height, FrameCounter& counter) {
    if (!error_.empty()) return error_;
    char path[] = "/dev/video0";
    if (KOR_UVC_StreamOpen(kCamera, path) != 0) return "cannot open /dev/video0";
    KOR_UVC_StreamSetFrameFormat(kCamera, width, height);
    int w = 0, h = 0, line = 0;
    KOR_UVC_StreamGetFrameFormat(kCamera, &w, &h, &line);
    if (w != width || h != height)
      return "the camera has no " + std::to_string(width) + "x" + std::to_string(height);
    KOR_UVC_SetCallbackStream(kCamera, &FrameCounter::callback, &counter);
    if (KOR_UVC_StreamStart(kCamera) != 0) return "cannot start the capture";
    return {};
  }

 private:
  std::string error_;
};

int frameBytes(const benchmark::State& state) {
  return static_cast<int>(state.range(0) * state.range(1) * 2);
}

// One iteration is one frame delivered to the callback; the capture is already
// streaming when timing starts.
void FrameDelivery(benchmark::State& state) {
  constexpr int kBatch = 8;
  const int size = frameBytes(state);
  // The counter outlives the camera, whose destructor joins the capture thread.
  FrameCounter counter(size);
  FreeRunCamera camera;
  const std::string error =
      camera.startCapture(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)), counter);
  if (!error.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  // Warm-up: the first frame comes after the thread has set the node up.
  if (!counter.waitFor(1)) {
    state.SkipWithError("no frame arrived");
    return;
  }
  uint64_t target = counter.frames();
  while (state.KeepRunningBatch(kBatch)) {
    target += kBatch;
    if (!counter.waitFor(target)) {
      state.SkipWithError("frames stopped arriving");
      break;
    }
  }
  if (counter.badFrames() != 0) state.SkipWithError("a frame had the wrong size or header");
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * size);
}

// The baseline: one frame of the same size copied between two buffers.
void FrameMemcpy(benchmark::State& state) {
  const size_t size = static_cast<size_t>(frameBytes(state));
  std::vector<uint8_t> source(size), target(size);
  tqsim::fillFrame(source.data(), size, 1);
  for (auto _ : state) {
    std::memcpy(target.data(), source.data(), size);
    benchmark::DoNotOptimize(target.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

// Time for KOR_UVC_StreamClose to return on a capture that is delivering
// frames: the thread finishes its frame, sees the stop, streams off, unmaps
// and is joined. Opening and starting are not timed. The emulation freeing its
// frame buffers on stream-off and close is included and weighs most.
void StopLatency(benchmark::State& state) {
  const int size = frameBytes(state);
  FreeRunCamera camera;
  for (auto _ : state) {
    FrameCounter counter(size);
    const std::string error =
        camera.startCapture(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)), counter);
    if (!error.empty()) {
      KOR_UVC_StreamClose(kCamera);
      state.SkipWithError(error.c_str());
      break;
    }
    // Two frames: the thread is past its set-up and in its loop.
    if (!counter.waitFor(2)) {
      KOR_UVC_StreamClose(kCamera);
      state.SkipWithError("no frame arrived");
      break;
    }
    const auto begin = Clock::now();
    KOR_UVC_StreamClose(kCamera);
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
  }
}

BENCHMARK(FrameDelivery)->Args({1280, 960})->Args({640, 480})->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(FrameMemcpy)->Args({1280, 960})->Args({640, 480})->UseRealTime()->Unit(benchmark::kMicrosecond);
// Each iteration also opens and starts a capture; a fixed count bounds the run.
BENCHMARK(StopLatency)->Args({1280, 960})->Iterations(200)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
