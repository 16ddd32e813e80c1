// The library seen from the tool: lifetime, the camera walk, a connection and
// a streaming session, each owning what it opens.
#pragma once

#include <tq_uvc.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
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

// One frame as the data callback sees it; `data` is valid during the call only.
struct Frame {
  const uint8_t* data;
  const _tagTqUvcDataBlockInfo* info;
};

// Streams into a ring of client buffers from construction to destruction.
// The sink runs on the library's capture thread; the buffer goes back into
// the ring as soon as it returns, so the library never finds all of them
// locked unless the sink itself is slower than the camera.
class StreamSession {
 public:
  using Sink = std::function<void(const Frame&)>;
  // Opens the stream channel, configures `bufferCount` buffers of the
  // geometry's size and starts. Throws Error on any refusal.
  StreamSession(uint64_t handle, const Geometry& geometry, Sink sink, unsigned bufferCount = 4);
  ~StreamSession();
  StreamSession(const StreamSession&) = delete;
  StreamSession& operator=(const StreamSession&) = delete;

  // Lock requests that left no buffer free: each means the library dropped
  // the frame(s) that came before a buffer went back into the ring.
  uint64_t allLockedEpisodes() const { return allLocked_.load(); }

 private:
  static void onData(uint32_t index, uint32_t request, void* device, _tagTqUvcDataBlockInfo* info,
                     uint64_t context);

  uint64_t handle_;
  Sink sink_;
  std::vector<std::vector<uint8_t>> buffers_;
  std::vector<uint64_t> addresses_;
  std::vector<uint32_t> sizes_;
  std::vector<uint32_t> lockTable_;
  uint32_t currentFrame_ = 0;
  std::atomic<uint64_t> allLocked_{0};
  bool opened_ = false;
  bool started_ = false;
};

}  // namespace tool
