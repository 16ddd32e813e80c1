// The library end to end through its exported functions only, against the
// emulated camera. Handles count on across the cases of one process, so the
// cases compare handles with each other, not with fixed numbers.
#include <gtest/gtest.h>
#include <tq_uvc.h>
#include <tqsim/FramePattern.h>
#include <tqsim/Sim.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "SimCamera.h"
#include "TestUtil.h"

namespace {

constexpr uint32_t kNoDevice = 0x8001;
constexpr uint32_t kChannelFailure = 0x8FFF;

using tqtest::cameraOn;
using tqtest::plug;
using tqtest::waitUntil;

_tagTqUvcDevInfo emptyInfo(uint32_t size = sizeof(_tagTqUvcDevInfo)) {
  _tagTqUvcDevInfo info;
  std::memset(&info, 0xEE, sizeof info);
  info.Size = size;
  return info;
}

std::vector<uint64_t> walk() {
  std::vector<uint64_t> handles;
  _tagTqUvcDevInfo info = emptyInfo();
  for (uint64_t h = TqUvcGetFirstPoolDev(0, &info); h != 0; h = TqUvcNextPoolDev(h, 0, &info))
    handles.push_back(h);
  return handles;
}

class ApiTest : public tqtest::SimFixture {
 protected:
  void TearDown() override {
    while (initialized_-- > 0) TqUvcLibraryUninit();
    SimFixture::TearDown();
  }
  void init() {
    TqUvcLibraryInit();
    ++initialized_;
  }

  int initialized_ = 0;
};

TEST_F(ApiTest, InitIsReferenceCountedAndCallsWithoutLibraryAnswerTheFamilyCodes) {
  uint32_t value = 0;
  EXPECT_EQ(TqUvcReadReg(1, 0x40000, &value), kNoDevice);
  EXPECT_EQ(TqUvcConnect(1, 0), kNoDevice);
  EXPECT_EQ(TqUvcOpenStrmChan(1, 0, 0, 0), kChannelFailure);
  EXPECT_EQ(TqUvcGetNrManifestFile(1, &value), kChannelFailure);
  EXPECT_EQ(TqUvcScanDevices(0, 0, 100), kNoDevice);
  _tagTqUvcDevInfo info = emptyInfo();
  EXPECT_EQ(TqUvcGetFirstPoolDev(0, &info), 0u);

  tqtest::LogCapture log;
  TqUvcLibraryInit();
  TqUvcLibraryInit();
  TqUvcLibraryUninit();
  EXPECT_EQ(log.countExact("TqUvcLibraryUninit reference count:2 only decreasing"), 1u);
  // Still initialised: handle 0 is simply unknown.
  EXPECT_EQ(TqUvcReadReg(0, 0x40000, &value), kNoDevice);
  EXPECT_EQ(TqUvcCloseStrmChan(0), kChannelFailure);
  EXPECT_EQ(TqUvcStreamRestartAt(0), kChannelFailure);
  TqUvcLibraryUninit();
  EXPECT_EQ(log.countExact("TqUvcLibraryUninit delete device pool"), 1u);
  log.clear();
  TqUvcLibraryUninit();
  EXPECT_EQ(log.count("TqUvcLibraryUninit "), 0u);
  EXPECT_EQ(TqUvcReadReg(0, 0x40000, &value), kNoDevice);

  uint32_t capability = 0;
  EXPECT_EQ(TqUvcGetHostCapability(&capability), 0u);
  EXPECT_EQ(capability, 4u);
  EXPECT_EQ(TqUvcIsFDAvailable(), kChannelFailure);
}

TEST_F(ApiTest, ScanHandsOutHandlesAndFillsTheDeviceRecord) {
  tqsim::CameraConfig first = cameraOn(0, 0, "14ABC-0001");
  first.manufacturer = "Emu Vendor   ";
  plug(first);
  tqsim::CameraConfig second = cameraOn(1, 2, "99XYZ-0002");
  second.product = "Plain Product  ";
  plug(second);
  init();
  EXPECT_EQ(TqUvcScanDevices(0, 0x0A000001, 500), kNoDevice);

  _tagTqUvcDevInfo info = emptyInfo();
  const uint64_t h1 = TqUvcGetFirstPoolDev(0, &info);
  ASSERT_NE(h1, 0u);
  EXPECT_EQ(info.Size, 320u);
  EXPECT_EQ(info.Flags, 0u);
  EXPECT_EQ(info.DevMode, 0u);
  EXPECT_EQ(info.DevIndex, (h1 - 1) & 255);
  EXPECT_STREQ(info.ManfctName, "Emu Vendor");
  EXPECT_STREQ(info.ModName, "TQ-UC14 Mono");
  EXPECT_STREQ(info.SerialNr, "14ABC-0001");
  EXPECT_EQ(info.Vid, 0x7A3Du);
  EXPECT_EQ(info.Pid, 0x203u);
  EXPECT_EQ(info.Reserved0, 0u);
  EXPECT_EQ(info.UsbVersion, 0u);
  for (uint8_t b : info.Reserved2) EXPECT_EQ(b, 0u);
  const uint32_t firstIndex = info.HIDCamIndex;

  info = emptyInfo();
  const uint64_t h2 = TqUvcNextPoolDev(h1, 0, &info);
  ASSERT_EQ(h2, h1 + 1);
  EXPECT_EQ(info.DevIndex, h1 & 255);
  EXPECT_STREQ(info.ModName, "Plain Product");
  EXPECT_STREQ(info.SerialNr, "99XYZ-0002");
  EXPECT_NE(info.HIDCamIndex, firstIndex);
  EXPECT_EQ(TqUvcNextPoolDev(h2, 0, &info), 0u);
  EXPECT_EQ(TqUvcNextPoolDev(77, 0, &info), 0u);

  // A record shorter than ours is filled as far as it reaches, its size kept.
  _tagTqUvcDevInfo shortInfo = emptyInfo(100);
  EXPECT_EQ(TqUvcGetFirstPoolDev(0, &shortInfo), h1);
  EXPECT_EQ(shortInfo.Size, 100u);
  EXPECT_STREQ(shortInfo.ManfctName, "Emu Vendor");
  EXPECT_EQ(static_cast<unsigned char>(shortInfo.SerialNr[0]), 0xEEu);
}

TEST_F(ApiTest, RescanKeepsHandlesAndUnpluggedCamerasLeaveTheWalkButKeepTheirHandle) {
  plug(cameraOn(0, 0, "CAM-A"));
  const tqsim::CameraId b = plug(cameraOn(1, 2, "CAM-B"));
  init();
  TqUvcScanDevices(0, 0, 100);
  const std::vector<uint64_t> both = walk();
  ASSERT_EQ(both.size(), 2u);
  const uint64_t ha = both[0];
  const uint64_t hb = both[1];

  tqtest::LogCapture log;
  TqUvcScanDevices(0, 0, 100);
  EXPECT_EQ(walk(), both);
  EXPECT_EQ(log.count("Already in device list, no need to add"), 2u);

  ASSERT_TRUE(tqsim::unplugCamera(b));
  TqUvcScanDevices(0, 0, 100);
  EXPECT_EQ(walk(), (std::vector<uint64_t>{ha}));
  // The handle still reaches its device, which answers for itself.
  uint32_t status = 7;
  EXPECT_EQ(TqUvcCheckConnectionStatus(hb, &status), 0u);
  EXPECT_EQ(status, 0u);
  uint32_t value = 0;
  EXPECT_EQ(TqUvcWriteReg(hb, 0x40020, 1), 0x8008u);

  ASSERT_TRUE(tqsim::replugCamera(b));
  TqUvcScanDevices(0, 0, 100);
  EXPECT_EQ(walk(), both);
  EXPECT_EQ(TqUvcConnect(hb, 0), 0u);
  EXPECT_EQ(TqUvcReadReg(hb, 0x40A04, &value), 0u);
  EXPECT_EQ(value, 1280u);
  EXPECT_EQ(TqUvcDisconnect(hb), 0u);
}

TEST_F(ApiTest, RegistersMemoryDescriptionFileAndManifest) {
  tqsim::CameraConfig config = cameraOn(0, 0, "REG-1");
  config.registers[0x0123] = 0xCAFEF00D;
  config.memory[0x0520] = "Cam 1";
  const tqsim::CameraId id = plug(config);
  init();
  TqUvcScanDevices(0, 0, 100);
  const uint64_t h = walk().at(0);

  uint32_t value = 0;
  EXPECT_EQ(TqUvcWriteReg(h, 0x40123, 5), 0x8008u) << "writes need a connection";
  ASSERT_EQ(TqUvcConnect(h, 0), 0u);
  EXPECT_EQ(TqUvcReadReg(h, 0x40123, &value), 0u);
  EXPECT_EQ(value, 0xCAFEF00Du);
  EXPECT_EQ(TqUvcWriteReg(h, 0x40123, 0x12345678), 0u);
  uint32_t stored = 0;
  ASSERT_TRUE(tqsim::readRegister(id, 0x0123, stored));
  EXPECT_EQ(stored, 0x12345678u);
  EXPECT_EQ(TqUvcReadReg(h, 0x3FFFF, &value), static_cast<uint32_t>(-101));
  uint32_t addresses[2] = {0x40000, 0x40004};
  uint32_t values[2] = {};
  EXPECT_EQ(TqUvcReadMultiReg(h, addresses, values, 2), 0x8008u);
  EXPECT_EQ(TqUvcWriteMem(h, 0x40000, reinterpret_cast<uint8_t*>(values), 4), 0x8008u);

  char model[16] = {};
  EXPECT_EQ(TqUvcReadMem(h, 0x44, reinterpret_cast<uint8_t*>(model), 12), 0u);
  EXPECT_STREQ(model, "Cam 1");
  char version[16] = {};
  EXPECT_EQ(TqUvcReadMem(h, 0x405D0, reinterpret_cast<uint8_t*>(version), sizeof version), 0u);
  EXPECT_STREQ(version, "1.2.3.0") << "the version bytes hold a zero, where the memory read stops";

  const std::vector<uint8_t> xml = tqsim::xmlFile(id);
  std::vector<uint8_t> download(xml.size() + 4, 0);
  EXPECT_EQ(TqUvcReadMem(h, 0x100000, download.data(), static_cast<uint32_t>(download.size())), 0u);
  EXPECT_TRUE(std::equal(xml.begin(), xml.end(), download.begin()));

  uint32_t count = 0;
  EXPECT_EQ(TqUvcGetNrManifestFile(h, &count), 0u);
  EXPECT_EQ(count, 1u);
  // The entry's layout is the bootstrap tests' concern; here it comes through.
  char path[256] = {};
  char sha[41] = {};
  ASSERT_EQ(TqUvcGetManifestFileData(h, 0, nullptr, nullptr, reinterpret_cast<uint8_t*>(path), sizeof path,
                                     nullptr, 0, nullptr, nullptr, reinterpret_cast<uint8_t*>(sha)),
            0u);
  EXPECT_EQ(std::string(path).rfind("local:TQ_Cam_1_1.0.05_" + tqtest::shaText(id) + ".xml;", 0), 0u) << path;
  EXPECT_EQ(std::string(sha), tqtest::shaText(id));
  EXPECT_EQ(TqUvcGetManifestFileData(h, 1, nullptr, nullptr, reinterpret_cast<uint8_t*>(path), sizeof path,
                                     nullptr, 0, nullptr, nullptr, nullptr),
            0x8001u);

  uint32_t capabilities = 99;
  EXPECT_EQ(TqUvcGetDevCapabilty(h, &capabilities), 0u);
  EXPECT_EQ(capabilities, 0u);
  uint8_t nick[] = "bench camera";
  EXPECT_EQ(TqUvcSetNickname(h, nick), 0x8008u);
  EXPECT_EQ(TqUvcDisconnect(h), 0u);
}

// What the data callback saw, filled on the capture thread.
struct Client {
  static constexpr uint32_t kBuffers = 4;
  std::vector<std::vector<uint8_t>> memory;
  uint64_t addresses[kBuffers] = {};
  uint32_t sizes[kBuffers] = {};
  uint32_t lockTable[kBuffers] = {};
  uint32_t currentFrame = 0;
  std::atomic<int> locks{0};
  std::atomic<int> notifications{0};
  std::atomic<int> goodFrames{0};
  std::atomic<uint64_t> lastBlockId{0};
  std::atomic<bool> orderBroken{false};
  std::atomic<uint32_t> lockedIndex{0xFFFFFFFF};
  uint64_t handle = 0;

  explicit Client(uint32_t bytes) : memory(kBuffers, std::vector<uint8_t>(bytes)) {
    for (uint32_t i = 0; i < kBuffers; ++i) {
      addresses[i] = reinterpret_cast<uintptr_t>(memory[i].data());
      sizes[i] = bytes;
      lockTable[i] = (i + 1) % kBuffers;
    }
  }

  static void callback(uint32_t index, uint32_t request, void* device, _tagTqUvcDataBlockInfo* info,
                       uint64_t context) {
    auto* self = reinterpret_cast<Client*>(static_cast<uintptr_t>(context));
    if (reinterpret_cast<uintptr_t>(device) != self->handle) self->orderBroken = true;
    if (request == TQUVC_REQ_LOCK) {
      if (info != nullptr || self->lockedIndex != 0xFFFFFFFF) self->orderBroken = true;
      self->lockTable[index] = TQUVC_LOCKED;
      self->lockedIndex = index;
      ++self->locks;
      return;
    }
    if (info == nullptr || self->lockedIndex != index || info->BufferIdx != index || info->LockStat != 2 ||
        info->BlockId != self->lastBlockId + 1)
      self->orderBroken = true;
    self->lastBlockId = info != nullptr ? info->BlockId : 0;
    self->lockedIndex = 0xFFFFFFFF;
    uint32_t frame = 0;
    if (info != nullptr && info->Valid &&
        tqsim::verifyFrame(self->memory[index].data(), info->DataSize, &frame))
      ++self->goodFrames;
    ++self->notifications;
    self->lockTable[index] = (index + 1) % kBuffers;
  }
};

TEST_F(ApiTest, StreamsFramesIntoClientBuffersAndTheLastUninitEndsTheStream) {
  tqsim::CameraConfig config = cameraOn(0, 0, "STREAM-1");
  config.registers[0x0A04] = 320;
  config.registers[0x0A08] = 240;
  config.registers[0x0708] = 640;
  plug(config);
  init();
  TqUvcScanDevices(0, 0, 100);
  Client client(320 * 240 * 2);
  client.handle = walk().at(0);
  const uint64_t h = client.handle;

  EXPECT_EQ(TqUvcOpenStrmChan(h, 0, 0, 0), kChannelFailure) << "needs a connection";
  ASSERT_EQ(TqUvcConnect(h, 0), 0u);
  ASSERT_EQ(TqUvcOpenStrmChan(h, 0, 0, 0), 0u);
  EXPECT_EQ(TqUvcCfgMemory(h, 0, client.addresses, client.sizes, Client::kBuffers), 0u);
  EXPECT_EQ(TqUvcCfgLockTable(h, 0, client.lockTable, reinterpret_cast<uint8_t*>(&client.currentFrame)), 0u);
  _tagTqUvcBufDimension dim{};
  dim.LineIncrement = 640;
  EXPECT_EQ(TqUvcCfgBufferDim(h, 0, &dim), 0u);
  EXPECT_EQ(TqUvcRegisterDataCallback(h, 0, &Client::callback, reinterpret_cast<uintptr_t>(&client)), 0u);
  EXPECT_EQ(TqUvcStreamLockTableAcquireDmaMutex(h), 0u);
  EXPECT_EQ(TqUvcStreamLockTableReleaseDmaMutex(h), 0u);

  EXPECT_EQ(TqUvcStreamStart(h, 0), 0u);
  EXPECT_TRUE(waitUntil([&] { return client.notifications >= 8; }));
  EXPECT_EQ(TqUvcStreamStop(h, 0), 0u);
  EXPECT_EQ(TqUvcStreamStop(h, 0), kChannelFailure) << "already stopped";
  EXPECT_FALSE(client.orderBroken);
  EXPECT_EQ(client.locks.load(), client.notifications.load());
  EXPECT_GE(client.goodFrames.load(), 8);
  EXPECT_LT(client.currentFrame, Client::kBuffers);

  // Streaming again, the last Uninit tears everything down, the stream included.
  const int stopped = client.notifications;
  EXPECT_EQ(TqUvcStreamStart(h, 0), 0u);
  EXPECT_TRUE(waitUntil([&] { return client.notifications >= stopped + 2; }));
  TqUvcLibraryUninit();
  --initialized_;
  const int seen = client.notifications;
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(client.notifications.load(), seen);
  EXPECT_EQ(tqsim::openHidNodes(tqsim::cameras().at(0)), 0);
}

}  // namespace
