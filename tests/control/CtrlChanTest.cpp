// The control channel's link and connect states, the shared access privilege,
// the severe-error rule and the availability check, against emulated cameras.
#include <LogCapture.h>

#include <atomic>
#include <thread>

#include "ControlFixture.h"

namespace ctltest {
namespace {

constexpr uint32_t kUnhandled = static_cast<uint32_t>(-101);

class CtrlChanTest : public ControlTest {
 protected:
  TqUvcCtrlChan& channel(const std::string& serial, int n = 0) {
    sim_ = plug(cameraOn(n, serial));
    const int index = enumerate(serial);
    EXPECT_GE(index, 0);
    index_ = index;
    return *makeDevice(serial, index).GetCtrlChan();
  }
  size_t reports() { return tqsim::receivedReports(sim_).size(); }

  tqsim::CameraId sim_ = tqsim::kNoCamera;
  int index_ = -1;
};

TEST_F(CtrlChanTest, StateTable) {
  TqUvcCtrlChan& ctrl = channel("STATE");
  uint32_t value = 0;
  // Idle: nothing reaches the camera.
  EXPECT_EQ(ctrl.ReadReg(0x40A04, &value), 0x8008U);
  EXPECT_EQ(ctrl.WriteReg(0x40A04, 640), 0x8008U);
  unsigned char block[16];
  EXPECT_EQ(ctrl.ReadMem(0x44, block, sizeof block), 0x8008U);
  EXPECT_EQ(ctrl.CheckLink(), 0x8FFFU);

  // Linked: reads reach the camera, writes are refused without touching it.
  ASSERT_EQ(ctrl.Link(), 0U);
  EXPECT_TRUE(ctrl.IsLinked());
  EXPECT_EQ(ctrl.CheckLink(), 0U);
  EXPECT_EQ(tqsim::openHidNodes(sim_), 1);
  tqsim::clearReceivedReports(sim_);
  EXPECT_EQ(ctrl.ReadReg(0x40A04, &value), 0U);
  EXPECT_EQ(value, 1280U);
  EXPECT_EQ(reports(), 1U);
  EXPECT_EQ(ctrl.WriteReg(0x40A04, 640), 0x8008U);
  EXPECT_EQ(reports(), 1U);

  // Connected: writes go through.
  ASSERT_EQ(ctrl.Connect(nullptr, false), 0U);
  EXPECT_TRUE(ctrl.IsConnected());
  EXPECT_EQ(ctrl.WriteReg(0x40A04, 640), 0U);
  EXPECT_EQ(ctrl.ReadReg(0x40A04, &value), 0U);
  EXPECT_EQ(value, 640U);

  // A second Connect is refused and leaves the channel linked, not connected.
  tqtest::LogCapture log;
  EXPECT_EQ(ctrl.Connect(nullptr, false), 0x8007U);
  EXPECT_FALSE(ctrl.IsConnected());
  EXPECT_TRUE(ctrl.IsLinked());
  EXPECT_EQ(log.countExact("TqUvcCtrlChan::Connect: Already connected, skip new connect"), 1U);
  EXPECT_EQ(log.countExact("TqUvcCtrlChan::Connect: Failed to connect (Ret=0x00008007) (IsConnected = 0)"),
            1U);
  EXPECT_EQ(ctrl.WriteReg(0x40A04, 320), 0x8008U);

  // Connect again, then Disconnect: unlinked and the HID function closed.
  ASSERT_EQ(ctrl.Connect(nullptr, false), 0U);
  EXPECT_EQ(ctrl.Disconnect(nullptr, true), 0U);
  EXPECT_FALSE(ctrl.IsConnected());
  EXPECT_FALSE(ctrl.IsLinked());
  EXPECT_EQ(tqsim::openHidNodes(sim_), 0);
  EXPECT_EQ(ctrl.ReadReg(0x40A04, &value), 0x8008U);
}

TEST_F(CtrlChanTest, ConnectLinksFirstAndFillsModelName) {
  tqsim::CameraConfig config = cameraOn(0, "MODEL");
  config.memory[0x0520] = "Emu Model X";
  TqUvcDevice& dev = deviceFor(config);
  TqUvcCtrlChan& ctrl = *dev.GetCtrlChan();
  tqtest::LogCapture log;
  ASSERT_EQ(ctrl.Connect(dev.GetDiscData(), false), 0U);
  EXPECT_TRUE(ctrl.IsLinked());
  EXPECT_STREQ(dev.GetDiscData()->ModName, "Emu Model X");
  EXPECT_EQ(dev.GetDiscData()->AccessPrivilege, 1U);
  EXPECT_EQ(log.countExact("TqUvcCtrlChan::Connect(): control channel connected"), 1U);
  EXPECT_EQ(log.countExact("TqUvcDevPool::Link: opened hid class of uvc/hid camera nr: " +
                           std::to_string(ctrl.GetHIDCamIndex())),
            1U);
}

TEST_F(CtrlChanTest, LinkRefusesOtherHidProduct) {
  plug(cameraOn(0, "OTHER"));
  const int index = enumerate("OTHER");
  ASSERT_GE(index, 0);
  TqUvcCtrlChan& ctrl = *makeDevice("OTHER", index, "Some Keyboard").GetCtrlChan();
  tqtest::LogCapture log;
  EXPECT_EQ(ctrl.Link(), 0x8008U);
  EXPECT_FALSE(ctrl.IsLinked());
  EXPECT_EQ(log.countExact("TqUvcCtrlChan::Link: not an UVC HID Device (Some Keyboard)"), 1U);
  EXPECT_EQ(
      log.countExact("TqUvcCtrlChan::Link: could not establish link (device is not linked) (IsLinked = 0)"),
      1U);
  EXPECT_EQ(ctrl.Connect(nullptr, false), 0x8007U);
  EXPECT_EQ(log.countExact("TqUvcCtrlChan::Connect: No link ready"), 1U);
}

TEST_F(CtrlChanTest, TwoHandlesShareOneRecord) {
  plug(cameraOn(0, "SHARED"));
  const int index = enumerate("SHARED");
  ASSERT_GE(index, 0);
  TqUvcDevice& first = makeDevice("SHARED", index);
  TqUvcDevice& second = makeDevice("SHARED", index);
  _tagTqUvccpDiscData shared = *first.GetDiscData();

  ASSERT_EQ(first.GetCtrlChan()->Connect(&shared, false), 0U);
  EXPECT_EQ(shared.AccessPrivilege, 1U);
  tqtest::LogCapture log;
  EXPECT_EQ(second.GetCtrlChan()->Connect(&shared, false), 0U);
  EXPECT_TRUE(second.GetCtrlChan()->IsConnected());
  EXPECT_TRUE(log.contains("already connected by another handle"));
  EXPECT_EQ(shared.AccessPrivilege, 1U);

  EXPECT_EQ(first.GetCtrlChan()->Disconnect(&shared, true), 0U);
  EXPECT_EQ(shared.AccessPrivilege, 0U);
  EXPECT_TRUE(second.GetCtrlChan()->IsConnected());
}

TEST_F(CtrlChanTest, SevereErrorsRaiseTheTrigger) {
  TqUvcCtrlChan& ctrl = channel("SEVERE");
  ASSERT_EQ(ctrl.Connect(nullptr, false), 0U);
  uint32_t value = 0;
  {
    // A camera status byte is not severe.
    tqsim::HidFaults faults;
    faults.status = 5;
    ASSERT_TRUE(tqsim::setHidFaults(sim_, faults));
    tqtest::LogCapture log;
    EXPECT_EQ(ctrl.ReadReg(0x40A04, &value), 5U);
    EXPECT_EQ(ctrl.WriteReg(0x40A04, 1), 5U);
    EXPECT_EQ(log.count("TqUvcCtrlChan::CheckSevereError() error code: 0x0005 (5) severity: \"not severe\""),
              2U);
    EXPECT_EQ(log.countExact("TqUvcCtrlChan::ReadReg error reading from adr: 0x40a04"), 1U);
    EXPECT_EQ(log.countExact("TqUvcCtrlChan::WriteReg error writing to adr: 0x40a04"), 1U);
    EXPECT_FALSE(ctrl.HotPlugThread().Triggered());
    ASSERT_TRUE(tqsim::setHidFaults(sim_, tqsim::HidFaults{}));
  }
  tqtest::LogCapture log;
  EXPECT_EQ(ctrl.ReadReg(0x50000, &value), kUnhandled);
  EXPECT_EQ(
      log.countExact("TqUvcCtrlChan::CheckSevereError() error code: 0xffffff9b (-101) severity: \"severe\""),
      1U);
  EXPECT_EQ(log.countExact("TqUvcCtrlChan::CheckSevereError() trigger HotPlugThread"), 1U);
  EXPECT_TRUE(ctrl.HotPlugThread().Triggered());
  // It stays set after successful requests.
  EXPECT_EQ(ctrl.ReadReg(0x40A04, &value), 0U);
  EXPECT_TRUE(ctrl.HotPlugThread().Triggered());
}

TEST_F(CtrlChanTest, AvailabilityOfUnlinkedChannelOpensAndCloses) {
  TqUvcCtrlChan& ctrl = channel("AVAIL");
  tqtest::LogCapture log;
  uint32_t available = 7;
  EXPECT_EQ(ctrl.CheckAvailability(&available), 0U);
  EXPECT_EQ(available, 1U);
  EXPECT_FALSE(ctrl.IsLinked());
  EXPECT_EQ(tqsim::openHidNodes(sim_), 0);
  EXPECT_EQ(log.count("Vexa_HID::Open: open cam with index nr:"), 1U);
  EXPECT_EQ(log.count("Vexa_HID::Close: close cam with index nr:"), 1U);
  EXPECT_EQ(log.countExact("TqUvcCtrlChan::CheckLink: Not linked"), 1U);
  EXPECT_EQ(log.countExact("TqUvcCtrlChan::CheckAvailability result: is available"), 1U);

  ASSERT_TRUE(tqsim::unplugCamera(sim_));
  EXPECT_EQ(ctrl.CheckAvailability(&available), 0x8FFFU);
  EXPECT_EQ(available, 0U);
  EXPECT_EQ(log.countExact("TqUvcCtrlChan::CheckAvailability result: is not available"), 1U);
}

TEST_F(CtrlChanTest, AvailabilityOfLinkedChannel) {
  TqUvcCtrlChan& ctrl = channel("HELD");
  TqUvcDevice& dev = *devices_.back();
  ASSERT_EQ(ctrl.Link(), 0U);
  uint32_t available = 0;
  // Linked, nobody holds the camera.
  EXPECT_EQ(ctrl.CheckAvailability(&available), 0U);
  EXPECT_EQ(available, 1U);
  // Another handle holds it: the GENCP_VERSION read fails (unhandled), which
  // also raises the trigger.
  dev.GetDiscData()->AccessPrivilege = 1;
  tqtest::LogCapture log;
  EXPECT_EQ(ctrl.CheckAvailability(&available), 0U);
  EXPECT_EQ(available, 0U);
  EXPECT_EQ(log.countExact("TqUvcCtrlChan::CheckAvailability: Cannot read GENCP_VERSION"), 1U);
  EXPECT_TRUE(ctrl.HotPlugThread().Triggered());
  // Null pointer: the verdict is logged at info level.
  EXPECT_EQ(ctrl.CheckAvailability(nullptr), 0U);
  dev.GetDiscData()->AccessPrivilege = 0;
}

// Four cameras on four threads: the one HID answer slot must never hand one
// camera's value to another's request.
TEST_F(CtrlChanTest, FourCamerasFromFourThreads) {
  constexpr int kCameras = 4;
  constexpr int kRounds = 40;
  TqUvcCtrlChan* channels[kCameras] = {};
  tqsim::CameraId sims[kCameras] = {};
  for (int n = 0; n < kCameras; ++n) {
    tqsim::CameraConfig config = cameraOn(n, "MT-" + std::to_string(n));
    config.registers[0x0020] = 0x1000U + static_cast<uint32_t>(n);
    sims[n] = plug(config);
  }
  for (int n = 0; n < kCameras; ++n) {
    const std::string serial = "MT-" + std::to_string(n);
    const int index = enumerate(serial);
    ASSERT_GE(index, 0);
    channels[n] = makeDevice(serial, index).GetCtrlChan();
    ASSERT_EQ(channels[n]->Connect(nullptr, false), 0U);
  }

  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int n = 0; n < kCameras; ++n) {
    threads.emplace_back([&, n] {
      TqUvcCtrlChan* ctrl = channels[n];
      for (int i = 0; i < kRounds; ++i) {
        const uint32_t mine = (static_cast<uint32_t>(n) << 24) | static_cast<uint32_t>(i);
        uint32_t value = 0;
        if (ctrl->WriteReg(0x40030, mine) != 0 || ctrl->ReadReg(0x40030, &value) != 0 || value != mine)
          ++mismatches;
        if (ctrl->ReadReg(0x40020, &value) != 0 || value != 0x1000U + static_cast<uint32_t>(n)) ++mismatches;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(mismatches.load(), 0);
  for (int n = 0; n < kCameras; ++n) {
    uint32_t last = 0;
    ASSERT_TRUE(tqsim::readRegister(sims[n], 0x0030, last));
    EXPECT_EQ(last, (static_cast<uint32_t>(n) << 24) | (kRounds - 1)) << n;
  }
}

}  // namespace
}  // namespace ctltest
