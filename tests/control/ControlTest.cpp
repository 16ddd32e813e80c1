// The access layer's enumeration cursor, the bootstrap address space as the
// control channel serves it, and the channel's link and connect states, shared
// access privilege, severe-error rule and availability check.
#include <atomic>
#include <cstring>
#include <thread>

#include "ControlFixture.h"
#include "control/VexaHID_Interface.h"

namespace ctltest {
namespace {

constexpr uint32_t kUnhandled = static_cast<uint32_t>(-101);
constexpr uint32_t kUntouched = 0xDEADBEEF;

TEST_F(ControlTest, CursorStopsAt255WithoutCamera) {
  int count = 0x7F00;  // only the low byte is the count
  ASSERT_EQ(TqUvcEnumerateHidDevice(&count), 0);
  EXPECT_EQ(count, 0x7F00);
  int index = -1;
  EXPECT_EQ(TqUvcGetFirstHidDevice(&index), -102);
  EXPECT_EQ(indexCamAbs, 255);
  EXPECT_EQ(index, -1);
  EXPECT_EQ(log_.countExact("TqUvcGetNextHidDevice: error: cannot open cam at index:255"), 1U);
  EXPECT_EQ(TqUvcGetNextHidDevice(&index), -102);  // stays at 255
  EXPECT_EQ(indexCamAbs, 255);
}

class RegisterSpaceTest : public ControlTest {
 protected:
  void SetUp() override {
    ControlTest::SetUp();
    tqsim::CameraConfig config = cameraOn(0, "REG-0");
    config.registers[0x0000] = 0x11111111;
    config.registers[0xFFFF] = 0x22222222;
    config.memory[0x0520] = "ModelNameLonger";
    config.memory[0x0100] = std::string(70, 'x');
    config.memory[0x05D0] = std::string("\x01\x02\x03\x01\x2A", 5);
    ctrl_ = deviceFor(config).GetCtrlChan();
    ASSERT_EQ(ctrl_->Connect(nullptr, false), 0U);
  }
  TqUvcCtrlChan* ctrl_ = nullptr;
};

TEST_F(RegisterSpaceTest, RegistersByAddress) {
  struct Case {
    uint32_t address;
    uint32_t status;
    uint32_t value;  // read back; kUntouched when the value must stay
    bool reachesCamera;
  };
  const Case reads[] = {
      {0x1C4, 0, 0, false},
      {0x40000, 0, 0x11111111, true},
      {0x4FFFF, 0, 0x22222222, true},
      {0x40A04, 0, 1280, true},
      {0x3FFFF, kUnhandled, kUntouched, false},
      {0x50000, kUnhandled, kUntouched, false},
      {0x100000, kUnhandled, kUntouched, false},
  };
  for (const Case& c : reads) {
    tqsim::clearReceivedReports(sim_);
    uint32_t value = kUntouched;
    EXPECT_EQ(ctrl_->ReadReg(c.address, &value), c.status) << std::hex << c.address;
    EXPECT_EQ(value, c.value) << std::hex << c.address;
    EXPECT_EQ(reports() != 0, c.reachesCamera) << std::hex << c.address;
  }
  const Case writes[] = {
      {0xFFFFF, 0, 0, false},          {0x40A10, 0, 0, true},           {0x1C4, kUnhandled, 0, false},
      {0x3FFFF, kUnhandled, 0, false}, {0x50000, kUnhandled, 0, false},
  };
  for (const Case& c : writes) {
    tqsim::clearReceivedReports(sim_);
    EXPECT_EQ(ctrl_->WriteReg(c.address, 0x1234), c.status) << std::hex << c.address;
    EXPECT_EQ(reports() != 0, c.reachesCamera) << std::hex << c.address;
  }
  uint32_t stored = 0;
  ASSERT_TRUE(tqsim::readRegister(sim_, 0x0A10, stored));
  EXPECT_EQ(stored, 0x1234U);
}

TEST_F(RegisterSpaceTest, BlockReadsByAddress) {
  struct Case {
    uint32_t address;
    uint32_t length;
    std::string text;  // what the buffer holds; empty: untouched
    size_t untouchedFrom;
    bool clampLogged;
  };
  const Case cases[] = {
      {0x44, 4, "ModelNameLo", 12, false},  // 12 bytes whatever the length
      {0x40100, 100, std::string(59, 'x'), 60, true},
      {0x40100, 60, std::string(59, 'x'), 60, true},
      {0x40100, 59, std::string(58, 'x'), 59, false},
      {0x405D0, 32, "1.2.3.298", 32, false},
      {0x405D0, 4, "1.2", 4, false},  // truncated: the last byte is the terminator
      {0x200, 128, "", 0, false},     // unhandled
  };
  for (const Case& c : cases) {
    log_.clear();
    tqsim::clearReceivedReports(sim_);
    unsigned char buffer[128];
    std::memset(buffer, 0xAA, sizeof buffer);
    EXPECT_EQ(ctrl_->ReadMem(c.address, buffer, c.length), 0U) << std::hex << c.address;
    if (c.text.empty()) {
      EXPECT_EQ(reports(), 0U);
    } else {
      EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer)), c.text) << c.length;
    }
    for (size_t i = c.untouchedFrom; i < sizeof buffer; ++i) ASSERT_EQ(buffer[i], 0xAA) << c.length;
    char clamp[128];
    std::snprintf(clamp, sizeof clamp,
                  "  TqUvcReadMem() size is too large, clamping to 60 byte: Adr=00000100 Length=%8.8x",
                  c.length);
    EXPECT_EQ(log_.countExact(clamp), c.clampLogged ? 1U : 0U) << c.length;
  }
}

TEST_F(ControlTest, StateTable) {
  TqUvcCtrlChan& ctrl = *deviceFor(cameraOn(0, "STATE")).GetCtrlChan();
  uint32_t value = 0;
  unsigned char block[16];
  // Idle: nothing reaches the camera.
  EXPECT_EQ(ctrl.ReadReg(0x40A04, &value), 0x8008U);
  EXPECT_EQ(ctrl.ReadMem(0x44, block, sizeof block), 0x8008U);
  EXPECT_EQ(ctrl.CheckLink(), 0x8FFFU);

  // Linked: reads reach the camera, writes are refused without touching it.
  ASSERT_EQ(ctrl.Link(), 0U);
  EXPECT_EQ(tqsim::openHidNodes(sim_), 1);
  EXPECT_EQ(ctrl.ReadReg(0x40A04, &value), 0U);
  EXPECT_EQ(value, 1280U);
  tqsim::clearReceivedReports(sim_);
  EXPECT_EQ(ctrl.WriteReg(0x40A04, 640), 0x8008U);
  EXPECT_EQ(reports(), 0U);

  ASSERT_EQ(ctrl.Connect(nullptr, false), 0U);
  EXPECT_EQ(ctrl.WriteReg(0x40A04, 640), 0U);

  // A second Connect is refused and leaves the channel linked, not connected.
  EXPECT_EQ(ctrl.Connect(nullptr, false), 0x8007U);
  EXPECT_FALSE(ctrl.IsConnected());
  EXPECT_TRUE(ctrl.IsLinked());
  EXPECT_EQ(log_.countExact("TqUvcCtrlChan::Connect: Already connected, skip new connect"), 1U);
  EXPECT_EQ(ctrl.WriteReg(0x40A04, 320), 0x8008U);

  // Disconnect unlinks and closes the HID function.
  ASSERT_EQ(ctrl.Connect(nullptr, false), 0U);
  EXPECT_EQ(ctrl.Disconnect(nullptr, true), 0U);
  EXPECT_FALSE(ctrl.IsLinked());
  EXPECT_EQ(tqsim::openHidNodes(sim_), 0);
  EXPECT_EQ(ctrl.ReadReg(0x40A04, &value), 0x8008U);
}

TEST_F(ControlTest, TwoHandlesShareOneRecord) {
  plug(cameraOn(0, "SHARED"));
  const int index = enumerate("SHARED");
  TqUvcCtrlChan& first = *makeDevice("SHARED", index).GetCtrlChan();
  TqUvcCtrlChan& second = *makeDevice("SHARED", index).GetCtrlChan();
  _tagTqUvccpDiscData shared = *devices_.front()->GetDiscData();

  ASSERT_EQ(first.Connect(&shared, false), 0U);
  EXPECT_EQ(shared.AccessPrivilege, 1U);
  EXPECT_EQ(second.Connect(&shared, false), 0U);
  EXPECT_TRUE(second.IsConnected());
  EXPECT_TRUE(log_.contains("already connected by another handle"));
  EXPECT_EQ(first.Disconnect(&shared, true), 0U);
  EXPECT_EQ(shared.AccessPrivilege, 0U);
  EXPECT_TRUE(second.IsConnected());
}

TEST_F(ControlTest, SevereErrorsRaiseTheTrigger) {
  TqUvcCtrlChan& ctrl = *deviceFor(cameraOn(0, "SEVERE")).GetCtrlChan();
  ASSERT_EQ(ctrl.Connect(nullptr, false), 0U);
  uint32_t value = 0;
  tqsim::HidFaults faults;
  faults.status = 5;  // a camera status byte is not severe
  ASSERT_TRUE(tqsim::setHidFaults(sim_, faults));
  EXPECT_EQ(ctrl.ReadReg(0x40A04, &value), 5U);
  EXPECT_EQ(log_.count("error code: 0x0005 (5) severity: \"not severe\""), 1U);
  EXPECT_FALSE(ctrl.HotPlugThread().Triggered());
  ASSERT_TRUE(tqsim::setHidFaults(sim_, tqsim::HidFaults{}));

  EXPECT_EQ(ctrl.ReadReg(0x50000, &value), static_cast<uint32_t>(-101));
  EXPECT_EQ(
      log_.countExact("TqUvcCtrlChan::CheckSevereError() error code: 0xffffff9b (-101) severity: \"severe\""),
      1U);
  EXPECT_TRUE(ctrl.HotPlugThread().Triggered());
  EXPECT_EQ(ctrl.ReadReg(0x40A04, &value), 0U);
  EXPECT_TRUE(ctrl.HotPlugThread().Triggered());  // stays set
}

TEST_F(ControlTest, AvailabilityOfUnlinkedChannelOpensAndCloses) {
  TqUvcCtrlChan& ctrl = *deviceFor(cameraOn(0, "AVAIL")).GetCtrlChan();
  uint32_t available = 7;
  EXPECT_EQ(ctrl.CheckAvailability(&available), 0U);
  EXPECT_EQ(available, 1U);
  EXPECT_FALSE(ctrl.IsLinked());
  EXPECT_EQ(tqsim::openHidNodes(sim_), 0);
  EXPECT_EQ(log_.countExact("TqUvcCtrlChan::CheckAvailability result: is available"), 1U);

  ASSERT_TRUE(tqsim::unplugCamera(sim_));
  EXPECT_EQ(ctrl.CheckAvailability(&available), 0x8FFFU);
  EXPECT_EQ(available, 0U);
}

// The one HID answer slot must never hand one camera's value to another's request.
TEST_F(ControlTest, FourCamerasFromFourThreads) {
  constexpr int kCameras = 4;
  constexpr uint32_t kRounds = 40;
  TqUvcCtrlChan* channels[kCameras] = {};
  tqsim::CameraId sims[kCameras] = {};
  for (int n = 0; n < kCameras; ++n) {
    tqsim::CameraConfig config = cameraOn(n, "MT-" + std::to_string(n));
    config.registers[0x0020] = 0x1000U + static_cast<uint32_t>(n);
    sims[n] = plug(config);
  }
  for (int n = 0; n < kCameras; ++n) {
    const std::string serial = "MT-" + std::to_string(n);
    channels[n] = makeDevice(serial, enumerate(serial)).GetCtrlChan();
    ASSERT_EQ(channels[n]->Connect(nullptr, false), 0U);
  }
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (uint32_t n = 0; n < kCameras; ++n) {
    threads.emplace_back([&, n] {
      for (uint32_t i = 0; i < kRounds; ++i) {
        const uint32_t mine = (n << 24) | i;
        uint32_t value = 0;
        if (channels[n]->WriteReg(0x40030, mine) != 0 || channels[n]->ReadReg(0x40030, &value) != 0 ||
            value != mine)
          ++mismatches;
        if (channels[n]->ReadReg(0x40020, &value) != 0 || value != 0x1000U + n) ++mismatches;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(mismatches.load(), 0);
  for (uint32_t n = 0; n < kCameras; ++n) {
    uint32_t last = 0;
    ASSERT_TRUE(tqsim::readRegister(sims[n], 0x0030, last));
    EXPECT_EQ(last, (n << 24) | (kRounds - 1)) << n;
  }
}

}  // namespace
}  // namespace ctltest
