#include "Camera.h"

#include <cstdio>
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
    const uint64_t handle = std::stoull(selector);
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
  TqUvcReadMem(handle, address, reinterpret_cast<uint8_t*>(text), 12);
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

StreamSession::StreamSession(uint64_t handle, const Geometry& geometry, Sink sink, unsigned bufferCount)
    : handle_(handle), sink_(std::move(sink)) {
  const uint32_t size = geometry.pitch * geometry.height;
  for (unsigned i = 0; i < bufferCount; ++i) {
    buffers_.emplace_back(size);
    addresses_.push_back(reinterpret_cast<uintptr_t>(buffers_.back().data()));
    sizes_.push_back(size);
    lockTable_.push_back((i + 1) % bufferCount);
  }
  check(TqUvcOpenStrmChan(handle, 0, 0, 0), "open the stream channel");
  opened_ = true;
  _tagTqUvcBufDimension dim{};
  dim.LineIncrement = geometry.pitch;
  check(TqUvcCfgMemory(handle, 0, addresses_.data(), sizes_.data(), bufferCount), "configure buffers");
  check(TqUvcCfgLockTable(handle, 0, lockTable_.data(), reinterpret_cast<uint8_t*>(&currentFrame_)),
        "configure the lock table");
  check(TqUvcCfgBufferDim(handle, 0, &dim), "configure the buffer geometry");
  check(TqUvcRegisterDataCallback(handle, 0, &StreamSession::onData, reinterpret_cast<uintptr_t>(this)),
        "register the data callback");
  check(TqUvcStreamStart(handle, 0), "start streaming");
  started_ = true;
}

StreamSession::~StreamSession() {
  if (started_) TqUvcStreamStop(handle_, 0);
  if (opened_) TqUvcCloseStrmChan(handle_);
}

void StreamSession::onData(uint32_t index, uint32_t request, void* /*device*/, _tagTqUvcDataBlockInfo* info,
                           uint64_t context) {
  auto* self = reinterpret_cast<StreamSession*>(static_cast<uintptr_t>(context));
  const size_t count = self->lockTable_.size();
  if (index >= count) return;
  if (request == TQUVC_REQ_LOCK) {
    self->lockTable_[index] = TQUVC_LOCKED;
    bool anyFree = false;
    for (uint32_t word : self->lockTable_) anyFree = anyFree || word != TQUVC_LOCKED;
    if (!anyFree) self->allLocked_.fetch_add(1);
    return;
  }
  if (info != nullptr) self->sink_(Frame{self->buffers_[index].data(), info});
  self->lockTable_[index] = static_cast<uint32_t>((index + 1) % count);
}

}  // namespace tool
