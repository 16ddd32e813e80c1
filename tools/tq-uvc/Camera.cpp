#include "Camera.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Status.h"

namespace tool {

std::string fieldText(const char* field, size_t width) { return std::string(field, strnlen(field, width)); }

std::string Camera::serial() const { return fieldText(info.SerialNr, sizeof info.SerialNr); }
std::string Camera::model() const { return fieldText(info.ModName, sizeof info.ModName); }
std::string Camera::manufacturer() const { return fieldText(info.ManfctName, sizeof info.ManfctName); }

std::vector<Camera> scanCameras() {
  TqUvcScanDevices(0, 0, 1000);  // answers 0x8001 also after a good scan
  std::vector<Camera> cameras;
  Camera camera;
  camera.info.Size = sizeof camera.info;
  for (uint64_t h = TqUvcGetFirstPoolDev(0, &camera.info); h != 0; h = TqUvcNextPoolDev(h, 0, &camera.info)) {
    camera.handle = h;
    cameras.push_back(camera);
    camera.info = _tagTqUvcDevInfo{};
    camera.info.Size = sizeof camera.info;
  }
  return cameras;
}

Camera selectCamera(const std::vector<Camera>& cameras, const std::string& selector) {
  if (cameras.empty()) throw Error("no camera found");
  if (selector.empty()) return cameras.front();
  for (const Camera& c : cameras)
    if (c.serial() == selector) return c;
  if (selector.find_first_not_of("0123456789") == std::string::npos) {
    errno = 0;
    const uint64_t handle = std::strtoull(selector.c_str(), nullptr, 10);
    if (errno == ERANGE)
      throw Error("camera handle \"" + selector + "\" is out of range (not a serial number either)");
    for (const Camera& c : cameras)
      if (c.handle == handle) return c;
  }
  throw Error("no camera with serial number or handle \"" + selector + "\"");
}

Connection::Connection(uint64_t handle) : handle_(handle) {
  const uint32_t status = TqUvcConnect(handle, 0);
  if (status != 0) {
    TqUvcDisconnect(handle);
    throw Error("connect to camera " + std::to_string(handle) + ": " + describeStatus(status), status);
  }
}

std::string readIdentity(uint64_t handle, uint32_t address) {
  char text[13] = {};
  char where[32];
  std::snprintf(where, sizeof where, "read the identity at 0x%X", address);
  check(TqUvcReadMem(handle, address, reinterpret_cast<uint8_t*>(text), 12), where);
  return text;
}

namespace {
// What the multi-register calls answer when the transport does not offer them.
constexpr uint32_t kRefused = 0x8008;

std::string hex32(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", value);
  return text;
}
}  // namespace

std::vector<uint32_t> readRegisters(uint64_t handle, std::vector<uint32_t> addresses) {
  std::vector<uint32_t> values(addresses.size());
  if (addresses.size() > 1) {
    const uint32_t status =
        TqUvcReadMultiReg(handle, addresses.data(), values.data(), static_cast<uint32_t>(addresses.size()));
    if (status == 0) return values;
    if (status != kRefused) check(status, "read " + std::to_string(addresses.size()) + " registers");
  }
  for (size_t k = 0; k < addresses.size(); ++k)
    check(TqUvcReadReg(handle, addresses[k], &values[k]), "read " + hex32(addresses[k]));
  return values;
}

void writeRegisters(uint64_t handle, std::vector<uint32_t> addresses, std::vector<uint32_t> values) {
  if (addresses.size() > 1) {
    const uint32_t status =
        TqUvcWriteMuliReg(handle, addresses.data(), values.data(), static_cast<uint32_t>(addresses.size()));
    if (status == 0) return;
    if (status != kRefused) check(status, "write " + std::to_string(addresses.size()) + " registers");
  }
  for (size_t k = 0; k < addresses.size(); ++k)
    check(TqUvcWriteReg(handle, addresses[k], values[k]), "write " + hex32(addresses[k]));
}

Geometry readGeometry(uint64_t handle) {
  Geometry g;
  const std::vector<uint32_t> values = readRegisters(handle, {0x40A04, 0x40A08, 0x40708});
  g.width = values[0];
  g.height = values[1];
  g.pitch = values[2] != 0 ? values[2] : values[0] * 2;
  if (g.width == 0 || g.height == 0) throw Error("the camera reports an empty image");
  return g;
}

OpenStreamChannel::OpenStreamChannel(uint64_t handle) : handle_(handle) {
  check(TqUvcOpenStrmChan(handle, 0, 0, 0), "open the stream channel");
}

RunningStream::RunningStream(uint64_t handle) : handle_(handle) {
  check(TqUvcStreamStart(handle, 0), "start streaming");
}

namespace {
// Recent inter-frame gaps kept for the frame period.
constexpr size_t kGapsKept = 15;
// The first frames come in a burst (the camera streams while the library
// settles): their gaps say nothing about the frame period and a ring they
// fill loses nothing. The gaps after them give the period, so even a slow
// consumer hands the frames up to kWarmUpFrames back at once.
constexpr uint64_t kBurstFrames = 8;
constexpr uint64_t kWarmUpFrames = 16;
}  // namespace

StreamSession::StreamSession(uint64_t handle, const Geometry& geometry, Sink sink, Options options)
    : sink_(std::move(sink)), options_(options) {
  const unsigned count = std::max(1u, options_.bufferCount);
  const uint32_t size = geometry.pitch * geometry.height;
  for (unsigned i = 0; i < count; ++i) {
    buffers_.emplace_back(size);
    addresses_.push_back(reinterpret_cast<uintptr_t>(buffers_.back().data()));
    sizes_.push_back(size);
    lockTable_.push_back((i + 1) % count);
  }
  channel_.emplace(handle);
  _tagTqUvcBufDimension dim{};
  dim.LineIncrement = geometry.pitch;
  check(TqUvcCfgMemory(handle, 0, addresses_.data(), sizes_.data(), count), "configure buffers");
  check(TqUvcCfgLockTable(handle, 0, lockTable_.data(), reinterpret_cast<uint8_t*>(&currentFrame_)),
        "configure the lock table");
  check(TqUvcCfgBufferDim(handle, 0, &dim), "configure the buffer geometry");
  check(TqUvcRegisterDataCallback(handle, 0, &StreamSession::onData, reinterpret_cast<uintptr_t>(this)),
        "register the data callback");
  running_.emplace(handle);
  // Last: once it runs, nothing here throws any more.
  consumer_ = std::thread(&StreamSession::consume, this);
}

StreamSession::~StreamSession() {
  // Stopping joins the capture thread: no callback after this.
  running_.reset();
  {
    std::lock_guard<std::mutex> guard(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (consumer_.joinable()) consumer_.join();
  channel_.reset();
}

void StreamSession::onData(uint32_t index, uint32_t request, void* /*device*/, _tagTqUvcDataBlockInfo* info,
                           uint64_t context) {
  auto* self = reinterpret_cast<StreamSession*>(static_cast<uintptr_t>(context));
  if (index >= self->lockTable_.size()) return;
  if (request == TQUVC_REQ_LOCK) {
    self->onLock(index);
    return;
  }
  if (info == nullptr) return;
  {
    std::lock_guard<std::mutex> guard(self->mutex_);
    self->queue_.push_back({index, *info});
  }
  self->wake_.notify_one();
}

// A lock request comes with every frame the library keeps, right after the
// frame arrived. Only lock requests take a buffer out of the ring, so a ring
// left without a free buffer by one stays so until a release, and every frame
// in between was dropped: the gap to the next kept frame, in frame periods,
// tells how many.
void StreamSession::onLock(uint32_t index) {
  const Clock::time_point now = Clock::now();
  std::lock_guard<std::mutex> guard(mutex_);
  storeWord(index, TQUVC_LOCKED);
  if (++arrivals_ > kBurstFrames) {
    const Clock::duration gap = now - lastArrival_;
    if (!ringFull_) {
      freeGaps_.push_back(gap);
      if (freeGaps_.size() > kGapsKept) freeGaps_.pop_front();
    } else if (!freeGaps_.empty()) {
      std::vector<Clock::duration> sorted(freeGaps_.begin(), freeGaps_.end());
      std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2),
                       sorted.end());
      const double period = std::chrono::duration<double>(sorted[sorted.size() / 2]).count();
      // Frames came every period after the last one; those before the first
      // release were dropped, and the gap to this one bounds their number
      // too (a camera that paused lost nothing).
      const Clock::time_point freed = released_ ? firstRelease_ : now;
      if (period > 0) {
        const double full = std::chrono::duration<double>(freed - lastArrival_).count();
        const long long beforeRelease = static_cast<long long>(std::floor(full / period));
        const long long inGap = std::llround(std::chrono::duration<double>(gap).count() / period) - 1;
        const long long dropped = std::min(beforeRelease, inGap);
        if (dropped > 0) lost_.fetch_add(static_cast<uint64_t>(dropped));
      }
    }
  }
  lastArrival_ = now;
  released_ = false;
  bool anyFree = false;
  for (uint32_t i = 0; i < lockTable_.size() && !anyFree; ++i) anyFree = loadWord(i) != TQUVC_LOCKED;
  ringFull_ = !anyFree;
}

void StreamSession::consume() {
  const auto count = static_cast<uint32_t>(lockTable_.size());
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    if (stopping_) return;
    const Delivered delivered = queue_.front();
    queue_.pop_front();
    lock.unlock();
    sink_(Frame{buffers_[delivered.index].data(), &delivered.info});
    lock.lock();
    const bool warmingUp = ++consumed_ <= kWarmUpFrames;
    if (!warmingUp && options_.hold.count() > 0 &&
        wake_.wait_for(lock, options_.hold, [this] { return stopping_; }))
      return;
    // Under the mutex, which the next lock request takes too: the library's
    // next write into this buffer comes after the reads above.
    storeWord(delivered.index, (delivered.index + 1) % count);
    if (ringFull_ && !released_) {
      released_ = true;
      firstRelease_ = Clock::now();
    }
  }
}

}  // namespace tool
