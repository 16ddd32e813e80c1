// tq_uvc_soak: what a busy SDK process does to the library, all at once and for
// minutes, through the exported functions only: four emulated cameras, four
// threads per camera writing and reading back registers, all four streaming
// into clients that hold buffers at random and sometimes stop from the frame
// callback, one camera unplugged, moved and plugged back every few seconds, and
// rescans and connects on the main thread.
//
// The work runs in a child process (this program again, with --worker-fd) so
// that a crash or a hang is reported rather than taking the report with it; the
// counters live in a memfd mapped by both. The child is executed afresh rather
// than forked: the emulation stays inert in a forked copy of its host. The last line of output is the
// verdict; the exit status is 0 only when no value crossed, nothing crashed or hung, no call failed that
// should not have, and descriptors, threads and file mappings are back to what they were.
//
//   tq_uvc_soak [--seconds N | --minutes N] [--seed N] [--no-callback-stop] [--no-flap]
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <tq_uvc.h>
#include <tqsim/FramePattern.h>
#include <tqsim/Sim.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ProcessCounts.h"

namespace {

constexpr int kCameras = 4;
constexpr int kRegisterThreads = 4;
constexpr int kFlapper = kCameras - 1;  // the camera that is unplugged and moved
constexpr uint32_t kBuffers = 4;
constexpr uint32_t kRegisterBase = 0x40000;
constexpr uint16_t kFirstTestRegister = 0x0F00;  // one per register thread, 4 bytes apart
constexpr uint32_t kWidthAddress = 0x40A04;
constexpr uint32_t kSerialAddress = 0x144;  // 12 bytes of HID memory 0x5F0
constexpr uint16_t kSerialMemory = 0x05F0;
constexpr uint32_t kChannelFailure = 0x8FFF;

// Frame sizes alternate between two of the camera's own modes, so that a frame
// of a neighbouring camera shows.
constexpr uint32_t kWidths[kCameras] = {320, 640, 320, 640};
constexpr uint32_t kHeights[kCameras] = {240, 480, 240, 480};

// Video node numbers the flapping camera moves between. Its hidraw number
// stays 3: the kernel hands out the lowest free hidraw minor, and the library's
// hidraw pass ends at the first missing number. The others keep hidraw c,
// video 2c and metadata 2c+1.
constexpr int kFlapHidraw = 3;
constexpr int kFlapVideo[] = {6, 8, 10, 12};  // the library probes video0..15
constexpr int kPlaces = 4;

// ---------------------------------------------------------------- shared with the parent

enum class Op : int {
  Idle,
  Setup,
  ReadReg,
  WriteReg,
  ReadMem,
  Scan,
  Walk,
  Connect,
  Disconnect,
  CheckStatus,
  DmaMutex,
  OpenStrm,
  CloseStrm,
  StreamStart,
  StreamStop,
  Unplug,
  Replug,
  Move,
  Uninit,
  Count,
};
constexpr const char* kOpNames[] = {
    "idle",
    "setup",
    "TqUvcReadReg",
    "TqUvcWriteReg",
    "TqUvcReadMem",
    "TqUvcScanDevices",
    "pool walk",
    "TqUvcConnect",
    "TqUvcDisconnect",
    "TqUvcCheckConnectionStatus",
    "DMA mutex",
    "TqUvcOpenStrmChan",
    "TqUvcCloseStrmChan",
    "TqUvcStreamStart",
    "TqUvcStreamStop",
    "unplug",
    "replug",
    "move",
    "TqUvcLibraryUninit",
};
static_assert(sizeof kOpNames / sizeof kOpNames[0] == static_cast<size_t>(Op::Count), "one name per op");

enum class Phase : int { Starting, WarmUp, Running, Stopping, Uninit, Counting, Done };
constexpr const char* kPhaseNames[] = {"start", "warm-up", "run", "stopping", "uninit", "counting", "done"};

constexpr int kMaxWorkers = 32;

int64_t monotonicNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// One page of counters in MAP_SHARED memory: the child counts, the parent
// reads (also after the child died). std::atomic of these sizes is lock-free
// and address-free on x86-64, so it works across the fork.
struct Shared {
  std::atomic<uint64_t> operations{0};
  std::atomic<uint64_t> expectedFailures{0};  // calls on a camera while it was unplugged or moving
  std::atomic<uint64_t> unexpectedFailures{0};
  std::atomic<uint64_t> frames{0};
  std::atomic<uint64_t> badFrames{0};
  std::atomic<uint64_t> crossed{0};
  std::atomic<uint64_t> workerFailures{0};  // exceptions out of a thread or callback
  std::atomic<uint64_t> callbackStops{0};
  std::atomic<uint64_t> restarts{0};
  std::atomic<uint64_t> flaps{0};
  std::atomic<uint64_t> scans{0};
  std::atomic<int> phase{0};
  std::atomic<int> countsTaken{0};
  std::atomic<int> descriptorsLeft{0};
  std::atomic<int> threadsLeft{0};
  std::atomic<int> mappingsLeft{0};
  std::atomic<int> workers{0};
  struct Worker {
    std::atomic<int> op{0};
    std::atomic<int64_t> since{0};
    char name[24] = {};
  } worker[kMaxWorkers];
};

Shared* g_shared = nullptr;

// Marks what a worker is inside of, for the parent's hang report.
class Busy {
 public:
  Busy(int slot, Op op) : slot_(slot) {
    g_shared->worker[slot_].since.store(monotonicNs());
    g_shared->worker[slot_].op.store(static_cast<int>(op));
  }
  ~Busy() { g_shared->worker[slot_].op.store(static_cast<int>(Op::Idle)); }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

 private:
  int slot_;
};

int registerWorker(const std::string& name) {
  const int slot = g_shared->workers.fetch_add(1);
  if (slot >= kMaxWorkers) std::abort();
  std::snprintf(g_shared->worker[slot].name, sizeof g_shared->worker[slot].name, "%s", name.c_str());
  return slot;
}

// The first few surprises are written out as they happen; the counts say the rest.
void note(const char* format, ...) __attribute__((format(printf, 1, 2)));
void note(const char* format, ...) {
  static std::atomic<int> written{0};
  if (written.fetch_add(1) >= 20) return;
  char line[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  std::fprintf(stderr, "tq_uvc_soak: %s\n", line);
}

// ---------------------------------------------------------------- options

struct Options {
  double seconds = 120;
  uint64_t seed = 0;
  bool callbackStops = true;
  bool flap = true;
  double stallSeconds = 60;  // one call running this long counts as a hang
  int workerFd = -1;         // set in the child: the shared counters
};

[[noreturn]] void usage(int status) {
  std::fprintf(status == 0 ? stdout : stderr,
               "usage: tq_uvc_soak [--seconds N | --minutes N] [--seed N] [--no-callback-stop] [--no-flap]\n"
               "                   [--stall-seconds N]\n");
  std::exit(status);
}

Options parseOptions(int argc, char** argv) {
  Options options;
  options.seed =
      static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count() % 1000000000);
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto number = [&]() -> double {
      if (i + 1 >= argc) usage(2);
      char* end = nullptr;
      const double v = std::strtod(argv[++i], &end);
      if (end == argv[i] || *end != '\0' || v < 0) usage(2);
      return v;
    };
    if (arg == "--seconds") {
      options.seconds = number();
    } else if (arg == "--minutes") {
      options.seconds = number() * 60;
    } else if (arg == "--seed") {
      options.seed = static_cast<uint64_t>(number());
    } else if (arg == "--stall-seconds") {
      options.stallSeconds = number();
    } else if (arg == "--worker-fd") {
      options.workerFd = static_cast<int>(number());
    } else if (arg == "--no-callback-stop") {
      options.callbackStops = false;
    } else if (arg == "--no-flap") {
      options.flap = false;
    } else if (arg == "-h" || arg == "--help") {
      usage(0);
    } else {
      usage(2);
    }
  }
  return options;
}

// ---------------------------------------------------------------- the soak proper

std::atomic<bool> g_stop{false};

void pause(std::chrono::milliseconds total) {
  const auto end = std::chrono::steady_clock::now() + total;
  while (!g_stop && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::min(total, std::chrono::milliseconds(20)));
}

std::string serialOf(int camera) { return "SOAK-CAM-" + std::to_string(camera); }

// Values each register thread writes: marker, camera, thread and a sequence
// number, so a value read back names where it came from.
uint32_t encode(int camera, int thread, uint32_t sequence) {
  return 0xA0000000u | static_cast<uint32_t>(camera) << 24 | static_cast<uint32_t>(thread) << 20 |
         (sequence & 0xFFFFF);
}
bool decode(uint32_t value, int* camera, int* thread) {
  if ((value & 0xF0000000u) != 0xA0000000u) return false;
  *camera = static_cast<int>(value >> 24 & 0xF);
  *thread = static_cast<int>(value >> 20 & 0xF);
  return true;
}

struct CameraState {
  std::atomic<uint64_t> handle{0};
  std::atomic<uint32_t> epoch{0};       // bumped when an unplug or move begins
  std::atomic<bool> healthy{false};     // plugged and connected since the last unplug or move
  std::atomic<uint32_t> connection{0};  // bumped at every successful connect
  std::atomic<bool> connected{false};
  uint32_t connectedEpoch = 0;  // main thread only
  tqsim::CameraId id = tqsim::kNoCamera;
};

CameraState g_cameras[kCameras];
std::mutex g_plugMutex;  // scans and connects never overlap an unplug or move

struct Snapshot {
  uint32_t epoch;
  bool healthy;
};
Snapshot snapshot(int camera) { return {g_cameras[camera].epoch.load(), g_cameras[camera].healthy.load()}; }

// A failed call is expected when the camera was unplugged or moving at any
// time during it; otherwise the library failed a call it should not have.
bool expectedFailure(int camera, const Snapshot& before) {
  const Snapshot after = snapshot(camera);
  return !before.healthy || !after.healthy || before.epoch != after.epoch;
}

// Counts one call; true when it succeeded.
bool account(int camera, const Snapshot& before, uint32_t status, const char* what) {
  g_shared->operations.fetch_add(1);
  if (status == 0) return true;
  if (expectedFailure(camera, before)) {
    g_shared->expectedFailures.fetch_add(1);
  } else {
    g_shared->unexpectedFailures.fetch_add(1);
    note("camera %d: %s failed with 0x%08X while plugged and connected", camera, what, status);
  }
  return false;
}

void crossed(const char* format, ...) __attribute__((format(printf, 1, 2)));
void crossed(const char* format, ...) {
  g_shared->crossed.fetch_add(1);
  char line[400];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  note("crossed: %s", line);
}

// ---------------------------------------------------------------- register threads

void registerThread(int camera, int thread, uint64_t seed) {
  const int slot = registerWorker("reg-c" + std::to_string(camera) + "-t" + std::to_string(thread));
  std::mt19937_64 rng(seed);
  CameraState& cam = g_cameras[camera];
  const uint32_t address = kRegisterBase + kFirstTestRegister + 4 * static_cast<uint32_t>(thread);
  uint32_t sequence = 0;
  uint32_t expected = encode(camera, thread, 0);
  uint32_t maybe = expected;  // a failed write may or may not have reached the camera
  while (!g_stop) {
    const uint64_t h = cam.handle.load();
    if (h == 0 || !cam.connected) {
      pause(std::chrono::milliseconds(20));
      continue;
    }
    // A client whose camera stopped answering does not hammer it.
    if (!cam.healthy) pause(std::chrono::milliseconds(5 + rng() % 20));
    const unsigned pick = static_cast<unsigned>(rng() % 20);
    const Snapshot before = snapshot(camera);
    if (pick < 14) {
      const uint32_t value = encode(camera, thread, ++sequence);
      uint32_t status = 0;
      {
        Busy busy(slot, Op::WriteReg);
        status = TqUvcWriteReg(h, address, value);
      }
      if (account(camera, before, status, "TqUvcWriteReg")) {
        expected = maybe = value;
      } else {
        maybe = value;
      }
      uint32_t read = 0;
      const Snapshot readBefore = snapshot(camera);
      {
        Busy busy(slot, Op::ReadReg);
        status = TqUvcReadReg(h, address, &read);
      }
      if (!account(camera, readBefore, status, "TqUvcReadReg")) continue;
      int fromCamera = -1;
      int fromThread = -1;
      if (!decode(read, &fromCamera, &fromThread) || fromCamera != camera || fromThread != thread) {
        crossed("camera %d thread %d read 0x%08X from register 0x%X (camera %d, thread %d)", camera, thread,
                read, address, fromCamera, fromThread);
      } else if (read != expected && read != maybe) {
        g_shared->unexpectedFailures.fetch_add(1);
        note("camera %d thread %d read 0x%08X back, wrote 0x%08X", camera, thread, read, expected);
      } else {
        expected = maybe = read;
      }
    } else if (pick < 17) {
      uint32_t width = 0;
      uint32_t status = 0;
      {
        Busy busy(slot, Op::ReadReg);
        status = TqUvcReadReg(h, kWidthAddress, &width);
      }
      if (account(camera, before, status, "TqUvcReadReg(width)") && width != kWidths[camera])
        crossed("camera %d read width %u, its own is %u", camera, width, kWidths[camera]);
    } else {
      char serial[16] = {};
      uint32_t status = 0;
      {
        Busy busy(slot, Op::ReadMem);
        status = TqUvcReadMem(h, kSerialAddress, reinterpret_cast<uint8_t*>(serial), 12);
      }
      // A failed transfer shows only in the buffer (the call answers 0): an
      // empty serial is a failure, another camera's serial a crossed value.
      if (serial[0] == '\0') status = 0xFFFFFFFF;
      if (account(camera, before, status, "TqUvcReadMem(serial)") && serialOf(camera) != serial)
        crossed("camera %d read serial \"%s\"", camera, serial);
    }
  }
}

// ---------------------------------------------------------------- streaming clients

struct Client {
  int camera = 0;
  std::atomic<uint64_t> handle{0};  // read by the callback
  uint32_t bytes = 0;
  std::vector<std::vector<uint8_t>> memory;
  uint64_t addresses[kBuffers] = {};
  uint32_t sizes[kBuffers] = {};
  uint32_t lockTable[kBuffers] = {};
  uint32_t currentFrame = 0;
  bool callbackStops = true;
  // Held by whoever changes the stream's state; the callback only tries it,
  // so a stop that waits for the callback never waits for this lock.
  std::mutex state;
  bool stoppedByCallback = false;  // under `state`
  // Capture thread only (one at a time: the old one touches nothing after its stop).
  std::mt19937_64 rng;
  int held = -1;
  int holdFor = 0;
  uint64_t lastBlockId = 0;

  void resetRing() {
    for (uint32_t i = 0; i < kBuffers; ++i)
      __atomic_store_n(&lockTable[i], (i + 1) % kBuffers, __ATOMIC_RELAXED);
    held = -1;
    lastBlockId = 0;
  }
  uint32_t next(uint32_t i) const {
    uint32_t n = (i + 1) % kBuffers;
    if (static_cast<int>(n) == held) n = (n + 1) % kBuffers;
    return n;
  }
  uint32_t previous(uint32_t i) const { return (i + kBuffers - 1) % kBuffers; }
  void store(uint32_t i, uint32_t value) { __atomic_store_n(&lockTable[i], value, __ATOMIC_RELAXED); }

  // Gives the buffer just filled back, after maybe taking it out of the ring for
  // a while or putting an earlier one back; at most one buffer is held, so the
  // ring always has a free buffer and the buffer the library chose next is free.
  void giveBack(uint32_t index) {
    if (held >= 0 && --holdFor <= 0 && static_cast<uint32_t>(held) != index) {
      const uint32_t h = static_cast<uint32_t>(held);
      held = -1;
      store(h, next(h));
      store(previous(h), h);
    }
    if (held < 0 && rng() % 8 == 0 && previous(index) != index) {
      held = static_cast<int>(index);
      holdFor = 1 + static_cast<int>(rng() % 20);
      store(previous(index), next(index));
      return;  // its word stays TQUVC_LOCKED
    }
    store(index, next(index));
  }

  void checkFrame(uint32_t index, const _tagTqUvcDataBlockInfo* info) {
    if (info == nullptr || info->BufferIdx != index || info->LockStat != 2) {
      g_shared->unexpectedFailures.fetch_add(1);
      note("camera %d: notification of buffer %u without a proper record", camera, index);
      return;
    }
    if (lastBlockId != 0 && info->BlockId <= lastBlockId) {
      g_shared->unexpectedFailures.fetch_add(1);
      note("camera %d: block id %" PRIu64 " after %" PRIu64, camera, static_cast<uint64_t>(info->BlockId),
           lastBlockId);
    }
    lastBlockId = info->BlockId;
    if (!info->Valid) return;  // a frame cut short by an unplug or a stop
    if (info->Width != kWidths[camera] || info->Height != kHeights[camera]) {
      crossed("camera %d got a %ux%u frame, its own are %ux%u", camera, info->Width, info->Height,
              kWidths[camera], kHeights[camera]);
      return;
    }
    const uint8_t* data = memory[index].data();
    const size_t size = std::min<size_t>(info->DataSize, bytes);
    uint32_t number = 0;
    bool good = size == bytes && tqsim::frameNumberOf(data, size, &number);
    for (size_t k = 0; good && k < 64; ++k) {
      const size_t offset =
          tqsim::kFrameHeaderBytes + static_cast<size_t>(rng() % (size - tqsim::kFrameHeaderBytes));
      good = data[offset] == tqsim::framePatternByte(number, offset);
    }
    if (!good && g_shared->badFrames.fetch_add(1) < 3)
      note("camera %d: frame in buffer %u (%u bytes, %ux%u) does not hold the test picture", camera, index,
           info->DataSize, info->Width, info->Height);
  }

  static void onData(uint32_t index, uint32_t request, void* device, _tagTqUvcDataBlockInfo* info,
                     uint64_t context) {
    auto* self = reinterpret_cast<Client*>(static_cast<uintptr_t>(context));
    try {
      if (reinterpret_cast<uintptr_t>(device) != self->handle)
        crossed("camera %d's callback got handle %p", self->camera, device);
      if (index >= kBuffers) {
        g_shared->unexpectedFailures.fetch_add(1);
        note("camera %d: callback for buffer %u", self->camera, index);
        return;
      }
      if (request == TQUVC_REQ_LOCK) {
        self->store(index, TQUVC_LOCKED);
        return;
      }
      g_shared->frames.fetch_add(1);
      self->checkFrame(index, info);
      self->giveBack(index);
      if (self->callbackStops && self->rng() % 150 == 0 && self->state.try_lock()) {
        const Snapshot before = snapshot(self->camera);
        const uint32_t status = TqUvcStreamStop(self->handle, 0);
        if (account(self->camera, before, status, "TqUvcStreamStop from the callback")) {
          self->stoppedByCallback = true;
          g_shared->callbackStops.fetch_add(1);
        }
        self->state.unlock();  // nothing of ours is touched after this
      }
    } catch (...) {
      g_shared->workerFailures.fetch_add(1);
    }
  }
};

void clientThread(Client& client, uint64_t seed) {
  const int camera = client.camera;
  const int slot = registerWorker("stream-c" + std::to_string(camera));
  std::mt19937_64 rng(seed);
  CameraState& cam = g_cameras[camera];
  bool open = false;
  bool started = false;
  uint32_t openedOn = 0;  // the connection the channel was opened on
  auto call = [&](Op op, const char* what, uint32_t (*fn)(uint64_t, uint32_t)) {
    const Snapshot before = snapshot(camera);
    uint32_t status = 0;
    {
      Busy busy(slot, op);
      status = fn(client.handle, 0);
    }
    return account(camera, before, status, what);
  };
  auto closeChannel = [&](bool expectOpen) {
    if (started) {
      const Snapshot before = snapshot(camera);
      uint32_t status = 0;
      {
        Busy busy(slot, Op::StreamStop);
        status = TqUvcStreamStop(client.handle, 0);
      }
      if (expectOpen) account(camera, before, status, "TqUvcStreamStop");
    }
    const Snapshot before = snapshot(camera);
    uint32_t status = 0;
    {
      Busy busy(slot, Op::CloseStrm);
      status = TqUvcCloseStrmChan(client.handle);
    }
    if (expectOpen) account(camera, before, status, "TqUvcCloseStrmChan");
    open = started = false;
  };

  while (!g_stop) {
    client.handle = cam.handle.load();
    if (client.handle == 0 || !cam.connected) {
      pause(std::chrono::milliseconds(20));
      continue;
    }
    {
      std::lock_guard<std::mutex> lock(client.state);
      if (client.stoppedByCallback) {
        client.stoppedByCallback = false;
        started = false;
      }
      // A reconnect closed the channel under us: open it again.
      if (open && openedOn != cam.connection.load()) closeChannel(false);
      if (!open) {
        openedOn = cam.connection.load();
        const Snapshot before = snapshot(camera);
        uint32_t status = 0;
        {
          Busy busy(slot, Op::OpenStrm);
          status = TqUvcOpenStrmChan(client.handle, 0, 0, 0);
        }
        if (account(camera, before, status, "TqUvcOpenStrmChan")) {
          open = true;
          client.resetRing();
          _tagTqUvcBufDimension dim{};
          dim.LineIncrement = kWidths[camera] * 2;
          uint32_t s = TqUvcCfgMemory(client.handle, 0, client.addresses, client.sizes, kBuffers);
          s |= TqUvcCfgLockTable(client.handle, 0, client.lockTable,
                                 reinterpret_cast<uint8_t*>(&client.currentFrame));
          s |= TqUvcCfgBufferDim(client.handle, 0, &dim);
          s |= TqUvcRegisterDataCallback(client.handle, 0, &Client::onData,
                                         reinterpret_cast<uintptr_t>(&client));
          account(camera, before, s, "configuring the stream channel");
        }
      }
      if (open && !started) {
        client.lastBlockId = 0;  // block ids count from 1 again at every start
        started = call(Op::StreamStart, "TqUvcStreamStart", &TqUvcStreamStart);
        if (started) g_shared->restarts.fetch_add(1);
      }
    }
    pause(std::chrono::milliseconds(100 + rng() % 900));
    const unsigned pick = static_cast<unsigned>(rng() % 10);
    std::lock_guard<std::mutex> lock(client.state);
    if (!open || !started || client.stoppedByCallback || openedOn != cam.connection.load()) continue;
    if (pick < 2) {
      if (call(Op::StreamStop, "TqUvcStreamStop", &TqUvcStreamStop)) started = false;
    } else if (pick < 3) {
      closeChannel(true);
    } else if (pick < 4) {
      // The client's own lock-table mutex, taken while frames arrive.
      call(Op::DmaMutex, "TqUvcStreamLockTableAcquireDmaMutex",
           [](uint64_t h, uint32_t) { return TqUvcStreamLockTableAcquireDmaMutex(h); });
      call(Op::DmaMutex, "TqUvcStreamLockTableReleaseDmaMutex",
           [](uint64_t h, uint32_t) { return TqUvcStreamLockTableReleaseDmaMutex(h); });
    }
  }
  std::lock_guard<std::mutex> lock(client.state);
  if (client.stoppedByCallback) started = false;
  if (open) closeChannel(openedOn == cam.connection.load());
}

// ---------------------------------------------------------------- unplug and move

tqsim::CameraConfig cameraConfig(int camera) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.serial = serialOf(camera);
  config.memory[kSerialMemory] = serialOf(camera);
  if (camera == kFlapper) {
    config.hidrawNumber = kFlapHidraw;
    config.videoNumber = kFlapVideo[0];
  } else {
    config.hidrawNumber = camera;
    config.videoNumber = 2 * camera;
  }
  config.metadataVideoNumber = config.videoNumber + 1;
  config.registers[kWidthAddress - kRegisterBase] = kWidths[camera];
  config.registers[0x0A08] = kHeights[camera];
  config.registers[0x0708] = kWidths[camera] * 2;
  for (int t = 0; t < kRegisterThreads; ++t)
    config.registers[static_cast<uint16_t>(kFirstTestRegister + 4 * t)] = encode(camera, t, 0);
  return config;
}

void flapperThread(uint64_t seed) {
  const int slot = registerWorker("flapper");
  std::mt19937_64 rng(seed);
  CameraState& cam = g_cameras[kFlapper];
  int place = 0;
  auto moveTo = [&](int to) {
    Busy busy(slot, Op::Move);
    const bool ok = tqsim::modifyCamera(cam.id, [&](tqsim::CameraConfig& c) {
      c.videoNumber = kFlapVideo[to];
      c.metadataVideoNumber = kFlapVideo[to] + 1;
    });
    if (!ok) note("the emulation refused to move the camera to video%d", kFlapVideo[to]);
    place = to;
  };
  while (!g_stop) {
    pause(std::chrono::milliseconds(1500 + rng() % 2000));
    if (g_stop) break;
    const unsigned kind = static_cast<unsigned>(rng() % 3);
    const int to = (place + 1 + static_cast<int>(rng() % (kPlaces - 1))) % kPlaces;
    {
      std::lock_guard<std::mutex> lock(g_plugMutex);
      cam.healthy = false;
      cam.epoch.fetch_add(1);
      if (kind == 2) {
        moveTo(to);  // moved while plugged: gone from one place, there at another
      } else {
        Busy busy(slot, Op::Unplug);
        tqsim::unplugCamera(cam.id);
      }
    }
    g_shared->flaps.fetch_add(1);
    if (kind == 2) continue;
    pause(std::chrono::milliseconds(300 + rng() % 900));
    std::lock_guard<std::mutex> lock(g_plugMutex);
    if (kind == 1) moveTo(to);
    Busy busy(slot, Op::Replug);
    std::string error;
    if (!tqsim::replugCamera(cam.id, &error)) note("the emulation refused the replug: %s", error.c_str());
  }
  std::lock_guard<std::mutex> lock(g_plugMutex);
  if (!tqsim::isPlugged(cam.id)) tqsim::replugCamera(cam.id);
}

// ---------------------------------------------------------------- main thread: scans and connects

// Rescans, follows handles, and connects every camera found that is not
// connected since its last unplug or move. Every Connect and Disconnect runs on
// this thread: a connect that fails keeps the channel's control lock for the
// thread that made it.
void connectRound(int slot) {
  std::lock_guard<std::mutex> lock(g_plugMutex);
  // A camera unplugged or moved since its connect is disconnected before the
  // rescan: a scan leaves a linked device on the camera record it linked
  // with, and only a device whose link is down follows the camera to the
  // record of its new node numbers. Reconnected without that, it would open
  // the old video node.
  for (int c = 0; c < kCameras; ++c) {
    CameraState& cam = g_cameras[c];
    const uint32_t epoch = cam.epoch.load();
    if (!cam.connected || cam.connectedEpoch == epoch) continue;
    cam.connected = false;
    Busy busy(slot, Op::Disconnect);
    account(c, {epoch, true}, TqUvcDisconnect(cam.handle), "TqUvcDisconnect");
  }
  {
    Busy busy(slot, Op::Scan);
    TqUvcScanDevices(0, 0, 100);  // answers 0x8001 also after a good scan
  }
  g_shared->scans.fetch_add(1);
  g_shared->operations.fetch_add(1);
  std::map<std::string, uint64_t> found;
  {
    Busy busy(slot, Op::Walk);
    _tagTqUvcDevInfo info{};
    info.Size = sizeof info;
    for (uint64_t h = TqUvcGetFirstPoolDev(0, &info); h != 0; h = TqUvcNextPoolDev(h, 0, &info)) {
      found[std::string(info.SerialNr, strnlen(info.SerialNr, sizeof info.SerialNr))] = h;
      info.Size = sizeof info;
    }
  }
  for (int c = 0; c < kCameras; ++c) {
    CameraState& cam = g_cameras[c];
    const auto it = found.find(serialOf(c));
    const bool plugged = tqsim::isPlugged(cam.id);
    if (it == found.end()) {
      if (plugged) {
        g_shared->unexpectedFailures.fetch_add(1);
        tqsim::CameraConfig config;
        tqsim::cameraConfig(cam.id, config);
        note("camera %d is plugged (hidraw%d, video%d) but not in the walk", c, config.hidrawNumber,
             config.videoNumber);
      }
      continue;
    }
    if (!plugged) {
      g_shared->unexpectedFailures.fetch_add(1);
      note("camera %d is in the walk while unplugged", c);
      continue;
    }
    const uint64_t previous = cam.handle.load();
    if (previous != 0 && previous != it->second)
      crossed("camera %d came back as handle %" PRIu64 ", was %" PRIu64, c, it->second, previous);
    cam.handle = it->second;
    const uint32_t epoch = cam.epoch.load();
    if (cam.connected && cam.connectedEpoch == epoch) {
      uint32_t status = 7;
      Busy busy(slot, Op::CheckStatus);
      account(c, snapshot(c), TqUvcCheckConnectionStatus(it->second, &status), "TqUvcCheckConnectionStatus");
      if (status != 1) {
        g_shared->unexpectedFailures.fetch_add(1);
        note("camera %d: connection status %u while connected", c, status);
      }
      continue;
    }
    if (cam.connected) {
      cam.connected = false;
      Busy busy(slot, Op::Disconnect);
      account(c, {epoch, true}, TqUvcDisconnect(it->second), "TqUvcDisconnect");
    }
    uint32_t status = 0;
    {
      Busy busy(slot, Op::Connect);
      status = TqUvcConnect(it->second, 0);
    }
    if (account(c, {epoch, true}, status, "TqUvcConnect")) {
      cam.connectedEpoch = epoch;
      cam.connection.fetch_add(1);
      cam.connected = true;
      cam.healthy = cam.epoch.load() == epoch;
    }
  }
}

// One short round of everything before the baseline is taken, unplug while
// streaming included, so one-time setup (the log output, process-wide tables,
// libraries the emulation loads on first use) does not count as left over.
void warmUp(int slot) {
  TqUvcLibraryInit();
  connectRound(slot);
  CameraState& cam = g_cameras[kFlapper];
  Client client;
  client.camera = kFlapper;
  client.handle = cam.handle.load();
  client.bytes = kWidths[kFlapper] * kHeights[kFlapper] * 2;
  client.memory.assign(kBuffers, std::vector<uint8_t>(client.bytes));
  for (uint32_t i = 0; i < kBuffers; ++i) {
    client.addresses[i] = reinterpret_cast<uintptr_t>(client.memory[i].data());
    client.sizes[i] = client.bytes;
  }
  client.callbackStops = false;
  client.resetRing();
  if (TqUvcOpenStrmChan(client.handle, 0, 0, 0) == 0) {
    TqUvcCfgMemory(client.handle, 0, client.addresses, client.sizes, kBuffers);
    TqUvcCfgLockTable(client.handle, 0, client.lockTable, reinterpret_cast<uint8_t*>(&client.currentFrame));
    TqUvcRegisterDataCallback(client.handle, 0, &Client::onData, reinterpret_cast<uintptr_t>(&client));
    TqUvcStreamStart(client.handle, 0);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (g_shared->frames.load() < 2 && std::chrono::steady_clock::now() < end)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    tqsim::unplugCamera(cam.id);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    uint32_t value = 0;
    TqUvcReadReg(client.handle, kWidthAddress, &value);
    TqUvcStreamStop(client.handle, 0);
    TqUvcCloseStrmChan(client.handle);
  }
  for (CameraState& c : g_cameras) {
    if (c.connected) TqUvcDisconnect(c.handle);
    c.connected = false;
    c.healthy = false;
  }
  TqUvcLibraryUninit();
  tqsim::replugCamera(cam.id);
  // Handles count on in the process; the soak learns them afresh.
  for (CameraState& c : g_cameras) c.handle = 0;
  g_shared->frames = 0;
  g_shared->operations = 0;
  g_shared->scans = 0;
  g_shared->unexpectedFailures = 0;
  g_shared->expectedFailures = 0;
}

bool sameCounts(const soak::ProcessCounts& a, const soak::ProcessCounts& b) {
  return a.descriptors.size() == b.descriptors.size() && a.threads == b.threads &&
         a.mappings.size() == b.mappings.size();
}

int runSoak(const Options& options) {
  const int slot = registerWorker("main");
  g_shared->phase = static_cast<int>(Phase::WarmUp);
  {
    Busy busy(slot, Op::Setup);
    tqsim::reset();
    for (int c = 0; c < kCameras; ++c) {
      std::string error;
      g_cameras[c].id = tqsim::plugCamera(cameraConfig(c), &error);
      if (g_cameras[c].id == tqsim::kNoCamera) {
        std::fprintf(stderr, "tq_uvc_soak: cannot plug camera %d: %s\n", c, error.c_str());
        return 2;
      }
    }
  }
  warmUp(slot);

  // Threads that ended a moment ago may still be leaving the task list.
  soak::ProcessCounts before = soak::countProcess();
  for (int i = 0; i < 20; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    soak::ProcessCounts again = soak::countProcess();
    if (sameCounts(before, again)) break;
    before = std::move(again);
  }

  g_shared->phase = static_cast<int>(Phase::Running);
  TqUvcLibraryInit();
  std::mt19937_64 seeds(options.seed);
  std::vector<std::unique_ptr<Client>> clients;
  std::vector<std::thread> threads;
  for (int c = 0; c < kCameras; ++c) {
    auto client = std::make_unique<Client>();
    client->camera = c;
    client->bytes = kWidths[c] * kHeights[c] * 2;
    client->memory.assign(kBuffers, std::vector<uint8_t>(client->bytes));
    for (uint32_t i = 0; i < kBuffers; ++i) {
      client->addresses[i] = reinterpret_cast<uintptr_t>(client->memory[i].data());
      client->sizes[i] = client->bytes;
    }
    client->callbackStops = options.callbackStops;
    client->rng.seed(seeds());
    clients.push_back(std::move(client));
  }
  for (int c = 0; c < kCameras; ++c) {
    for (int t = 0; t < kRegisterThreads; ++t) threads.emplace_back(registerThread, c, t, seeds());
    threads.emplace_back(clientThread, std::ref(*clients[c]), seeds());
  }
  if (options.flap) threads.emplace_back(flapperThread, seeds());

  std::mt19937_64 rng(seeds());
  const auto end = std::chrono::steady_clock::now() +
                   std::chrono::milliseconds(static_cast<int64_t>(options.seconds * 1000));
  while (std::chrono::steady_clock::now() < end) {
    connectRound(slot);
    std::this_thread::sleep_for(std::chrono::milliseconds(50 + rng() % 250));
  }

  g_shared->phase = static_cast<int>(Phase::Stopping);
  g_stop = true;
  for (std::thread& t : threads) t.join();
  for (int c = 0; c < kCameras; ++c) {
    CameraState& cam = g_cameras[c];
    if (!cam.connected) continue;
    Busy busy(slot, Op::Disconnect);
    account(c, snapshot(c), TqUvcDisconnect(cam.handle), "TqUvcDisconnect");
    cam.connected = false;
  }
  g_shared->phase = static_cast<int>(Phase::Uninit);
  {
    Busy busy(slot, Op::Uninit);
    TqUvcLibraryUninit();
  }

  g_shared->phase = static_cast<int>(Phase::Counting);
  soak::ProcessCounts after = soak::countProcess();
  for (int i = 0; i < 40 && !sameCounts(before, after); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    after = soak::countProcess();
  }
  g_shared->descriptorsLeft =
      static_cast<int>(after.descriptors.size()) - static_cast<int>(before.descriptors.size());
  g_shared->threadsLeft = after.threads - before.threads;
  g_shared->mappingsLeft = static_cast<int>(after.mappings.size()) - static_cast<int>(before.mappings.size());
  g_shared->countsTaken = 1;
  for (const std::string& fd : soak::extraEntries(before.descriptors, after.descriptors))
    std::fprintf(stderr, "tq_uvc_soak: descriptor left open: %s\n", fd.c_str());
  for (const std::string& map : soak::extraEntries(before.mappings, after.mappings))
    std::fprintf(stderr, "tq_uvc_soak: mapping left over: %s\n", map.c_str());
  tqsim::reset();
  g_shared->phase = static_cast<int>(Phase::Done);
  return 0;
}

// ---------------------------------------------------------------- the parent

// The threads of a hung child, for the report; gdb is optional.
void dumpStacks(pid_t child) {
  if (std::system("command -v gdb >/dev/null 2>&1") != 0) return;
  const std::string file = "tq_uvc_soak-hang-" + std::to_string(child) + ".txt";
  const std::string command =
      "gdb -p " + std::to_string(child) + " -batch -ex 'thread apply all bt' >" + file + " 2>&1";
  if (std::system(command.c_str()) == 0)
    std::fprintf(stderr, "tq_uvc_soak: stacks of every thread in %s\n", file.c_str());
}

// The environment the child inherits: an empty ini file (no warning per read)
// and the library's log in a file of its own unless the caller chose one.
std::string prepareEnvironment() {
  std::string ini;
  if (getenv("TQ_INI_FILE") == nullptr) {
    char path[] = "/tmp/tq_uvc_soak-XXXXXX.ini";
    const int fd = mkstemps(path, 4);
    if (fd >= 0) {
      close(fd);
      setenv("TQ_INI_FILE", path, 1);
      ini = path;
    }
  }
  if (getenv("TQ_LOG_FILE") == nullptr) setenv("TQ_LOG_FILE", "tq_uvc_soak.log", 1);
  std::fprintf(stderr, "tq_uvc_soak: library log in %s\n", getenv("TQ_LOG_FILE"));
  return ini;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  if (options.workerFd >= 0) {
    void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, options.workerFd, 0);
    if (memory == MAP_FAILED) return 2;
    g_shared = static_cast<Shared*>(memory);
    int status = 3;
    try {
      status = runSoak(options);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "tq_uvc_soak: %s\n", e.what());
      g_shared->workerFailures.fetch_add(1);
    }
    return status;  // a normal exit: the leak checker runs at exit
  }

  // Not close-on-exec: the child maps the same counters.
  const int sharedFd = memfd_create("tq_uvc_soak", 0);
  if (sharedFd < 0 || ftruncate(sharedFd, sizeof(Shared)) != 0) {
    std::perror("tq_uvc_soak: memfd");
    return 2;
  }
  void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, sharedFd, 0);
  if (memory == MAP_FAILED) {
    std::perror("tq_uvc_soak: mmap");
    return 2;
  }
  g_shared = new (memory) Shared();
  const std::string ini = prepareEnvironment();
  std::vector<std::string> args(argv, argv + argc);
  args.push_back("--seed");
  args.push_back(std::to_string(options.seed));
  args.push_back("--worker-fd");
  args.push_back(std::to_string(sharedFd));
  std::vector<char*> childArgv;
  for (std::string& a : args) childArgv.push_back(a.data());
  childArgv.push_back(nullptr);
  std::fflush(nullptr);

  const pid_t child = fork();
  if (child < 0) {
    std::perror("tq_uvc_soak: fork");
    return 2;
  }
  if (child == 0) {
    // The child hosts an emulation of its own.
    unsetenv("TQSIM_OWNER_PID");
    unsetenv("TQSIM_STATE_FILE");
    unsetenv("TQSIM_CONFIG");
    execv("/proc/self/exe", childArgv.data());
    std::perror("tq_uvc_soak: exec");
    _exit(127);
  }

  // Watch: a call that runs far longer than any time-out of the library, or a
  // run far past its end, is a hang.
  const int64_t start = monotonicNs();
  const int64_t deadline = start + static_cast<int64_t>((options.seconds + 180) * 1e9);
  const int64_t stall = static_cast<int64_t>(options.stallSeconds * 1e9);
  int64_t nextProgress = start + 30 * 1000000000LL;
  std::string hang;
  int status = 0;
  for (;;) {
    const pid_t done = waitpid(child, &status, WNOHANG);
    if (done == child) break;
    if (done < 0 && errno != EINTR) {
      std::perror("tq_uvc_soak: waitpid");
      return 2;
    }
    const int64_t now = monotonicNs();
    for (int i = 0; i < std::min(g_shared->workers.load(), kMaxWorkers) && hang.empty(); ++i) {
      const Shared::Worker& w = g_shared->worker[i];
      const int op = w.op.load();
      if (op != static_cast<int>(Op::Idle) && now - w.since.load() > stall)
        hang = std::string(w.name) + " in " + kOpNames[op] + " for " +
               std::to_string((now - w.since.load()) / 1000000000) + " s";
    }
    if (hang.empty() && now > deadline)
      hang = std::string("still in phase ") + kPhaseNames[g_shared->phase.load()] + " long past the end";
    if (!hang.empty()) {
      std::fprintf(stderr, "tq_uvc_soak: hang: %s\n", hang.c_str());
      dumpStacks(child);
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
      break;
    }
    if (options.seconds >= 60 && now >= nextProgress) {
      nextProgress += 30 * 1000000000LL;
      std::fprintf(stderr, "tq_uvc_soak: %3" PRId64 " s: operations %" PRIu64 ", frames %" PRIu64 "\n",
                   (now - start) / 1000000000, g_shared->operations.load(), g_shared->frames.load());
    }
    usleep(100 * 1000);
  }
  if (!ini.empty()) unlink(ini.c_str());

  std::string crashes = std::to_string(g_shared->workerFailures.load());
  bool crashed = g_shared->workerFailures.load() != 0;
  if (!hang.empty()) {
    crashes += " (hang)";
    crashed = true;
  } else if (WIFSIGNALED(status)) {
    crashes = std::to_string(g_shared->workerFailures.load() + 1) + " (signal " +
              std::to_string(WTERMSIG(status)) + " " + strsignal(WTERMSIG(status)) + ")";
    crashed = true;
  } else if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
    crashes = std::to_string(g_shared->workerFailures.load() + 1) + " (exit status " +
              std::to_string(WEXITSTATUS(status)) + ")";
    crashed = true;
  }
  const bool counted = g_shared->countsTaken.load() != 0;
  auto left = [&](int n) { return counted ? (n > 0 ? "+" : "") + std::to_string(n) : std::string("?"); };
  const bool pass = !crashed && counted && g_shared->crossed == 0 && g_shared->unexpectedFailures == 0 &&
                    g_shared->badFrames == 0 && g_shared->descriptorsLeft == 0 &&
                    g_shared->threadsLeft == 0 && g_shared->mappingsLeft == 0 && g_shared->frames > 0;
  std::printf("tq_uvc_soak: %.0f s, seed %" PRIu64 ": operations %" PRIu64 " (failed while unplugged %" PRIu64
              ", unexpected %" PRIu64 "), frames %" PRIu64 " (bad %" PRIu64 ", stops in callback %" PRIu64
              ", starts %" PRIu64 "), unplugs %" PRIu64 ", crossed %" PRIu64
              ", crashes %s, descriptors %s, threads %s, mappings %s: %s\n",
              options.seconds, options.seed, g_shared->operations.load(), g_shared->expectedFailures.load(),
              g_shared->unexpectedFailures.load(), g_shared->frames.load(), g_shared->badFrames.load(),
              g_shared->callbackStops.load(), g_shared->restarts.load(), g_shared->flaps.load(),
              g_shared->crossed.load(), crashes.c_str(), left(g_shared->descriptorsLeft).c_str(),
              left(g_shared->threadsLeft).c_str(), left(g_shared->mappingsLeft).c_str(),
              pass ? "PASS" : "FAIL");
  return pass ? 0 : 1;
}
