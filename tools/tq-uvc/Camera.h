// The library seen from the tool: lifetime, the camera walk, a connection and
// a streaming session, each owning what it opens.
#pragma once

#include <tq_uvc.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tool {

// TqUvcLibraryInit/Uninit for the tool's lifetime.
class Library {
 public:
  Library() { TqUvcLibraryInit(); }
  ~Library() { TqUvcLibraryUninit(); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
};

struct Camera {
  uint64_t handle = 0;
  _tagTqUvcDevInfo info{};

  std::string serial() const;
  std::string model() const;
  std::string manufacturer() const;
};

// A fixed-width record text up to its first zero.
std::string fieldText(const char* field, size_t width);

// Scans and walks the pool: the cameras present now.
std::vector<Camera> scanCameras();

// The camera `selector` names: a handle (decimal) or a serial number; the first
// camera when selector is empty. Throws Error when there is none.
Camera selectCamera(const std::vector<Camera>& cameras, const std::string& selector);

// Connected for the lifetime of the object.
class Connection {
 public:
  explicit Connection(uint64_t handle);  // throws Error when connect fails
  ~Connection() { TqUvcDisconnect(handle_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

 private:
  uint64_t handle_;
};

// An identity string at a bootstrap address (0x4, 0x44, ... 0x144), 12 bytes.
// Throws Error naming the address when the read fails.
std::string readIdentity(uint64_t handle, uint32_t address);

// Several registers in one multi-register call; where the transport refuses
// those (0x8008), one call per register. Throws Error naming the failing
// address.
std::vector<uint32_t> readRegisters(uint64_t handle, std::vector<uint32_t> addresses);
void writeRegisters(uint64_t handle, std::vector<uint32_t> addresses, std::vector<uint32_t> values);

struct Geometry {
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t pitch = 0;
};

// Width, height and line pitch from the camera's registers; throws Error.
Geometry readGeometry(uint64_t handle);

// One frame as the consumer sees it; `data` is valid during the call only.
struct Frame {
  const uint8_t* data;
  const _tagTqUvcDataBlockInfo* info;
};

// The stream channel, open for the lifetime of the object.
class OpenStreamChannel {
 public:
  explicit OpenStreamChannel(uint64_t handle);  // throws Error
  ~OpenStreamChannel() { TqUvcCloseStrmChan(handle_); }
  OpenStreamChannel(const OpenStreamChannel&) = delete;
  OpenStreamChannel& operator=(const OpenStreamChannel&) = delete;

 private:
  uint64_t handle_;
};

// Frame delivery, started for the lifetime of the object.
class RunningStream {
 public:
  explicit RunningStream(uint64_t handle);  // throws Error
  ~RunningStream() { TqUvcStreamStop(handle_, 0); }
  RunningStream(const RunningStream&) = delete;
  RunningStream& operator=(const RunningStream&) = delete;

 private:
  uint64_t handle_;
};

// Streams into a ring of client buffers from construction to destruction.
// The library fills a buffer and hands it over on its capture thread; the
// session's own consumer thread passes it to the sink, keeps it locked for
// `hold` more (a slow consumer; not for the first frames, which give the frame
// period) and then puts it back into the ring. While every buffer is locked
// the library drops arriving frames without telling anyone; the session counts
// them from the gap they leave in the frame timing.
class StreamSession {
 public:
  using Sink = std::function<void(const Frame&)>;
  struct Options {
    unsigned bufferCount = 4;
    std::chrono::milliseconds hold{0};
  };
  // Opens the stream channel, configures the buffers for the geometry and
  // starts. Throws Error on any refusal, leaving nothing open.
  StreamSession(uint64_t handle, const Geometry& geometry, Sink sink, Options options);
  ~StreamSession();
  StreamSession(const StreamSession&) = delete;
  StreamSession& operator=(const StreamSession&) = delete;

  // Frames the camera sent while every buffer was locked.
  uint64_t lostFrames() const { return lost_.load(); }

 private:
  static void onData(uint32_t index, uint32_t request, void* device, _tagTqUvcDataBlockInfo* info,
                     uint64_t context);
  void onLock(uint32_t index);
  void consume();
  void storeWord(uint32_t index, uint32_t word) {
    __atomic_store_n(&lockTable_[index], word, __ATOMIC_RELAXED);
  }
  uint32_t loadWord(uint32_t index) const { return __atomic_load_n(&lockTable_[index], __ATOMIC_RELAXED); }

  using Clock = std::chrono::steady_clock;
  struct Delivered {
    uint32_t index;
    _tagTqUvcDataBlockInfo info;
  };

  const Sink sink_;
  const Options options_;
  std::vector<std::vector<uint8_t>> buffers_;
  std::vector<uint64_t> addresses_;
  std::vector<uint32_t> sizes_;
  std::vector<uint32_t> lockTable_;
  uint32_t currentFrame_ = 0;

  std::mutex mutex_;  // the queue, the timing state, and the order of buffer use
  std::condition_variable wake_;
  std::deque<Delivered> queue_;
  bool stopping_ = false;
  uint64_t consumed_ = 0;
  // Frame timing: when the last frame arrived, whether it left the ring
  // without a free buffer, and recent gaps between frames that had one.
  uint64_t arrivals_ = 0;
  Clock::time_point lastArrival_{};
  bool ringFull_ = false;
  // The first release after the ring was left full: the end of the drops.
  bool released_ = false;
  Clock::time_point firstRelease_{};
  std::deque<Clock::duration> freeGaps_;
  std::atomic<uint64_t> lost_{0};

  // Declared last: delivery stops before the channel closes, and both before
  // the buffers go away.
  std::optional<OpenStreamChannel> channel_;
  std::optional<RunningStream> running_;
  std::thread consumer_;
};

}  // namespace tool
