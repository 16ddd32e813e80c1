// Shared set-up of the benchmarks: emulated cameras reached through the
// exported functions only, a client with four buffers under the lock table,
// and the machine facts a cold-cache baseline needs.
#pragma once

#include <benchmark/benchmark.h>
#include <pthread.h>
#include <tq_uvc.h>
#include <tqsim/Sim.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace bench {

// HID addresses of the geometry registers the stream channel reads at start.
constexpr uint16_t kRegWidth = 0x0A04;
constexpr uint16_t kRegHeight = 0x0A08;
constexpr uint16_t kRegLinePitch = 0x0708;
constexpr uint32_t kBytesPerPixel = 2;  // YUYV
constexpr std::chrono::seconds kFrameTimeout{5};

// Camera `index` of several: hidrawN, video2N (capture) and video2N+1, its own
// serial, the default sizes plus 1920x1080, streaming width x height.
inline tqsim::CameraConfig cameraConfig(int index, int width = 1280, int height = 960) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.hidrawNumber = index;
  config.videoNumber = 2 * index;
  config.metadataVideoNumber = 2 * index + 1;
  char serial[16];
  std::snprintf(serial, sizeof serial, "BENCH-%04d", index);
  config.serial = serial;
  tqsim::FrameSize full;
  full.width = 1920;
  full.height = 1080;
  full.intervals = {{1, 30}, {1, 15}};
  config.video.sizes.insert(config.video.sizes.begin(), full);
  config.registers[kRegWidth] = static_cast<uint32_t>(width);
  config.registers[kRegHeight] = static_cast<uint32_t>(height);
  config.registers[kRegLinePitch] = static_cast<uint32_t>(width) * kBytesPerPixel;
  return config;
}

// Page-aligned memory, as a frame grabber allocates it and as the copy
// baselines use it (alignment alone moves memcpy by 10-20 %).
struct FreeMemory {
  void operator()(uint8_t* p) const { std::free(p); }
};
using PageMemory = std::unique_ptr<uint8_t, FreeMemory>;

inline size_t pageRound(size_t bytes) { return (bytes + 4095) / 4096 * 4096; }

// `bytes` rounded up to whole pages, zeroed so every page is mapped; null when
// out of memory.
inline PageMemory zeroedPages(size_t bytes) {
  PageMemory memory(static_cast<uint8_t*>(std::aligned_alloc(4096, pageRound(bytes))));
  if (memory) std::memset(memory.get(), 0, pageRound(bytes));
  return memory;
}

inline size_t frameBytes(int width, int height) {
  return static_cast<size_t>(width) * static_cast<size_t>(height) * kBytesPerPixel;
}

// The emulation reset, `configs` plugged, the library initialised and one scan
// done (the first scan creates the devices; later scans only look). Every
// handle is connected when `connect` is set. Undone on scope exit.
class ApiCameras {
 public:
  explicit ApiCameras(const std::vector<tqsim::CameraConfig>& configs, bool connect = true) {
    tqsim::reset();  // the emulation starts with a default camera of its own
    for (const auto& config : configs) {
      std::string why;
      const tqsim::CameraId id = tqsim::plugCamera(config, &why);
      if (id == tqsim::kNoCamera) {
        error_ = "cannot plug a camera: " + why;
        return;
      }
      ids_.push_back(id);
    }
    TqUvcLibraryInit();
    initialised_ = true;
    TqUvcScanDevices(0, 0, 500);
    _tagTqUvcDevInfo info{};
    info.Size = sizeof info;
    for (uint64_t h = TqUvcGetFirstPoolDev(0, &info); h != 0; h = TqUvcNextPoolDev(h, 0, &info))
      handles_.push_back(h);
    if (handles_.size() != configs.size()) {
      error_ = "the scan found " + std::to_string(handles_.size()) + " cameras";
      return;
    }
    for (uint64_t h : handles_) {
      if (connect && TqUvcConnect(h, 0) != 0) {
        error_ = "cannot connect";
        return;
      }
    }
  }
  ~ApiCameras() {
    if (initialised_) TqUvcLibraryUninit();
    tqsim::reset();
  }
  ApiCameras(const ApiCameras&) = delete;
  ApiCameras& operator=(const ApiCameras&) = delete;

  const std::string& error() const { return error_; }
  uint64_t handle(size_t i) const { return handles_.at(i); }
  tqsim::CameraId id(size_t i) const { return ids_.at(i); }

 private:
  std::string error_;
  bool initialised_ = false;
  std::vector<tqsim::CameraId> ids_;
  std::vector<uint64_t> handles_;
};

// A client of the stream channel: four buffers in a ring under the lock table.
// The data callback locks the buffer it is asked for, counts the notification,
// hands the buffer straight back and wakes a waiter once its target is met.
class StreamClient {
 public:
  static constexpr uint32_t kBuffers = 4;

  explicit StreamClient(size_t bytes) {
    for (uint32_t i = 0; i < kBuffers; ++i) {
      memory_[i] = zeroedPages(bytes);
      addresses_[i] = reinterpret_cast<uintptr_t>(memory_[i].get());
      sizes_[i] = static_cast<uint32_t>(bytes);
      lockTable_[i] = (i + 1) % kBuffers;
    }
  }
  StreamClient(const StreamClient&) = delete;
  StreamClient& operator=(const StreamClient&) = delete;

  // Opens the stream channel of a connected camera and configures it with this
  // client (`callback` null: the counting one below). "" or what failed.
  std::string open(uint64_t handle, TqUvcDataCallback callback = nullptr) {
    handle_ = handle;
    if (TqUvcOpenStrmChan(handle, 0, 0, 0) != 0) return "cannot open the stream channel";
    opened_ = true;
    if (TqUvcCfgMemory(handle, 0, addresses_, sizes_, kBuffers) != 0 ||
        TqUvcCfgLockTable(handle, 0, lockTable_, reinterpret_cast<uint8_t*>(&currentFrame_)) != 0)
      return "cannot configure the buffers";
    TqUvcRegisterDataCallback(handle, 0, callback != nullptr ? callback : &StreamClient::callback,
                              reinterpret_cast<uintptr_t>(this));
    return {};
  }
  std::string start() {
    if (TqUvcStreamStart(handle_, 0) != 0) return "cannot start the stream";
    started_ = true;
    return {};
  }
  uint32_t stop() {
    started_ = false;
    return TqUvcStreamStop(handle_, 0);
  }
  ~StreamClient() {
    if (started_) TqUvcStreamStop(handle_, 0);
    if (opened_) TqUvcCloseStrmChan(handle_);
  }

  uint64_t frames() const { return frames_.load(std::memory_order_relaxed); }
  // CPU time the thread delivering frames has used so far, in seconds; -1
  // before the first frame. Only while the stream runs: the thread must exist.
  double delivererCpuSeconds() const {
    const pthread_t thread = deliverer_.load(std::memory_order_relaxed);
    clockid_t clock;
    timespec t{};
    if (!hasDeliverer_.load() || pthread_getcpuclockid(thread, &clock) != 0 || clock_gettime(clock, &t) != 0)
      return -1;
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
  }
  const uint8_t* buffer(uint32_t i) const { return memory_.at(i).get(); }
  // False when the count has not reached `target` within the time-out.
  bool waitFor(uint64_t target) {
    target_.store(target);
    std::unique_lock<std::mutex> lock(mutex_);
    const bool reached = arrived_.wait_for(lock, kFrameTimeout, [&] { return frames_.load() >= target; });
    // Nobody waits any more: later frames must not take the lock.
    target_.store(UINT64_MAX);
    return reached;
  }

  static void callback(uint32_t index, uint32_t request, void*, _tagTqUvcDataBlockInfo*, uint64_t context) {
    auto* self = reinterpret_cast<StreamClient*>(static_cast<uintptr_t>(context));
    if (index >= kBuffers) return;
    if (request == TQUVC_REQ_LOCK) {
      __atomic_store_n(&self->lockTable_[index], TQUVC_LOCKED, __ATOMIC_RELAXED);
      return;
    }
    __atomic_store_n(&self->lockTable_[index], (index + 1) % kBuffers, __ATOMIC_RELAXED);
    self->deliverer_.store(pthread_self(), std::memory_order_relaxed);
    if (!self->hasDeliverer_.load(std::memory_order_relaxed)) self->hasDeliverer_.store(true);
    // Lock only to wake the waiter, not on every frame.
    if (self->frames_.fetch_add(1, std::memory_order_relaxed) + 1 >= self->target_.load()) {
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->arrived_.notify_one();
    }
  }

 private:
  std::array<PageMemory, kBuffers> memory_;
  uint64_t addresses_[kBuffers] = {};
  uint32_t sizes_[kBuffers] = {};
  uint32_t lockTable_[kBuffers] = {};
  uint32_t currentFrame_ = 0;
  uint64_t handle_ = 0;
  bool opened_ = false;
  bool started_ = false;
  std::atomic<uint64_t> frames_{0};
  std::atomic<uint64_t> target_{UINT64_MAX};
  std::atomic<pthread_t> deliverer_{};
  std::atomic<bool> hasDeliverer_{false};
  std::mutex mutex_;
  std::condition_variable arrived_;
};

// Size of the last-level cache in bytes (32 MiB when the system does not say).
inline size_t lastLevelCacheBytes() {
  for (int index = 4; index >= 0; --index) {
    std::ifstream file("/sys/devices/system/cpu/cpu0/cache/index" + std::to_string(index) + "/size");
    std::string text;
    if (!(file >> text) || text.empty()) continue;
    size_t value = std::stoul(text);
    const char unit = text.back();
    if (unit == 'K') value <<= 10;
    if (unit == 'M') value <<= 20;
    if (value != 0) return value;
  }
  return size_t{32} << 20;
}

// Enough frames of `bytes` that cycling through them evicts each one from the
// last-level cache before it comes round again: twice the cache, at least 3.
inline size_t coldRingLength(size_t bytes) {
  const size_t n = 2 * lastLevelCacheBytes() / bytes + 1;
  return n < 3 ? 3 : n;
}

}  // namespace bench
