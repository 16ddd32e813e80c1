#include <gtest/gtest.h>
#include <tqsim/Sim.h>

#include <chrono>
#include <vector>

#include "LogCapture.h"
#include "VexaHidFixture.h"
#include "hid/KOR_HID.h"

namespace hidtest {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

class VexaHidCommand : public VexaHidTest {
 protected:
  void configure(tqsim::CameraConfig& c) override {
    c.registers[0x0010] = 0xA1B2C3D4;
    c.registers[0x0020] = 222;
    c.registers[0x0030] = 333;
    c.memory[0x0520] = "Emu Model";
  }
  Bytes lastReport() {
    auto all = tqsim::receivedReports(sim_);
    return all.empty() ? Bytes{} : all.back();
  }
};

TEST_F(VexaHidCommand, CommandsReachTheCameraAsTheseBytes) {
  uint32_t value = 0;
  ASSERT_EQ(hid_->GetInt32(cam_, 0x0010, &value), 0);
  EXPECT_EQ(value, 0xA1B2C3D4u);
  EXPECT_EQ(lastReport(), (Bytes{1, 0x5C, 0, 0x10, 0x00, 0, 0, 0}));

  ASSERT_EQ(hid_->SetInt32(cam_, 0x1234, 0xCAFEF00D), 0);
  EXPECT_EQ(lastReport(), (Bytes{1, 0x5D, 0, 0x34, 0x12, 0x0D, 0xF0, 0xFE, 0xCA, 0}));
  ASSERT_TRUE(tqsim::readRegister(sim_, 0x1234, value));
  EXPECT_EQ(value, 0xCAFEF00Du);

  int size = -1;
  ASSERT_EQ(hid_->GetXMLSize(cam_, &size), 0);
  EXPECT_EQ(size, static_cast<int>(tqsim::xmlFile(sim_).size()));
  EXPECT_EQ(lastReport(), (Bytes{1, 0xC8, 0x10, 4, 0, 0}));

  char sha[20];
  ASSERT_EQ(hid_->GetXMLSHA(cam_, sha, sizeof sha), 1);
  auto expected = tqsim::xmlSha1(sim_);
  EXPECT_EQ(Bytes(sha, sha + 20), Bytes(expected.begin(), expected.end()));
  EXPECT_EQ(lastReport(), (Bytes{1, 0xC8, 0x30, 20, 0, 0}));

  char text[12];
  ASSERT_EQ(hid_->ReadMem(cam_, 0x0520, text, sizeof text), 0);
  EXPECT_STREQ(text, "Emu Model");
  EXPECT_EQ(lastReport(), (Bytes{1, 0x5C, 0, 0x20, 0x05, 0}));
}

TEST_F(VexaHidCommand, DeviceStatusIsReturnedWithItsText) {
  tqsim::HidFaults faults;
  faults.status = 5;
  ASSERT_TRUE(tqsim::setHidFaults(sim_, faults));
  tqtest::LogCapture log;
  uint32_t value = 7;
  EXPECT_EQ(hid_->GetInt32(cam_, 0x0010, &value), 5);
  EXPECT_EQ(value, 7u);
  EXPECT_EQ(hid_->SetInt32(cam_, 0x0010, 1), 5);
  int size = -1;
  EXPECT_EQ(hid_->GetXMLSize(cam_, &size), 5);
  EXPECT_EQ(size, -1);
  EXPECT_EQ(log.countExact("Vexa_HID::ReceiveCallbackHid: cmd rd --> protocol error 5 "), 3u);
  EXPECT_EQ(log.countExact("Vexa_HID::GetInt32 command error:5 : Error: VX_UVC_STATUS_NOT_AVAILABLE"), 1u);
  EXPECT_EQ(log.countExact("Vexa_HID::SetInt32 command error:5 : Error: VX_UVC_STATUS_NOT_AVAILABLE"), 1u);
  EXPECT_EQ(log.countExact("Vexa_HID::GetFunc command error:5 : Error: VX_UVC_STATUS_NOT_AVAILABLE"), 1u);
  EXPECT_EQ(log.countExact("Vexa_HID::GetXMLSize error: Error: VX_UVC_STATUS_NOT_AVAILABLE"), 1u);
}

TEST_F(VexaHidCommand, WrongEchoIsAProtocolError) {
  tqsim::HidFaults faults;
  faults.wrongEcho = 0x63;
  ASSERT_TRUE(tqsim::setHidFaults(sim_, faults));
  tqtest::LogCapture log;
  uint32_t value = 0;
  EXPECT_EQ(hid_->GetInt32(cam_, 0x0010, &value), -2);
  EXPECT_TRUE(log.contains("Vexa_HID::ReceiveCallbackHid: cmd rd --> wrong id 99 92"));
  EXPECT_TRUE(log.contains("Vexa_HID::GetInt32 command error:-2 : Error: HID_ERROR_PROTOCOL_WRONG_ID"));
}

// The only test that waits out the 5-s answer time: a time-out, then the late
// answer is taken by the next command, whose own answer goes to the one after.
// Answer delays keep each answer from overwriting the previous one unseen.
TEST_F(VexaHidCommand, LateAnswerIsTakenByTheNextCommand) {
  tqsim::HidFaults faults;
  faults.lateAnswerMs = 5600;
  faults.status = 5;  // makes the late answer's arrival visible in the log
  ASSERT_TRUE(tqsim::setHidFaults(sim_, faults));
  tqtest::LogCapture log;

  uint32_t value = 0;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(hid_->GetInt32(cam_, 0x0010, &value), -1);
  auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, 4900ms);
  EXPECT_LT(waited, 5500ms);
  EXPECT_TRUE(log.contains("Vexa_HID::GetInt32 command error:-1 : Error: HID_ERROR_TIMEOUT"));
  ASSERT_TRUE(log.waitFor("cmd rd --> protocol error 5", 3000ms));

  faults = tqsim::HidFaults{};
  faults.lateAnswerMs = 300;
  ASSERT_TRUE(tqsim::setHidFaults(sim_, faults));
  EXPECT_EQ(hid_->GetInt32(cam_, 0x0020, &value), 5);  // the first command's answer
  EXPECT_TRUE(log.contains("Vexa_HID::GetInt32 command error:5 : Error: VX_UVC_STATUS_NOT_AVAILABLE"));

  // The camera must have taken the second command before its delay changes.
  ASSERT_TRUE(tqsim::waitForReports(sim_, 2, 2000ms));
  faults.lateAnswerMs = 3000;
  ASSERT_TRUE(tqsim::setHidFaults(sim_, faults));
  EXPECT_EQ(hid_->GetInt32(cam_, 0x0030, &value), 0);
  EXPECT_EQ(value, 222u);  // the second command's answer
}

TEST_F(VexaHidCommand, SendFailuresReportTheSendResultUnlessAStatusIsLeft) {
  tqtest::LogCapture log;
  uint32_t value = 0;
  const uint8_t pastTable = static_cast<uint8_t>(DevicePool.size());
  // No device behind the index: the send result 1.
  EXPECT_EQ(hid_->GetInt32(pastTable, 0x0010, &value), 1);
  EXPECT_TRUE(log.contains("Vexa_HID::GetInt32 error:1 : Error: VX_UVC_STATUS_UNKNOWN_ERROR"));
  // Attached but closed: -1 cut to 8 bits.
  ASSERT_TRUE(tqsim::unplugCamera(sim_));
  hid_->Close(cam_);
  EXPECT_EQ(hid_->Open(cam_), -101);
  EXPECT_EQ(hid_->SetInt32(cam_, 0x0010, 1), 255);
  EXPECT_TRUE(log.contains("Vexa_HID::SetInt32 error:255 : Error: unknown error code"));
  EXPECT_EQ(hid_->GetFunc(cam_, 0xC8, nullptr, 0), 255);

  // A status left by the previous command wins over the send result.
  ASSERT_TRUE(tqsim::replugCamera(sim_));
  ASSERT_EQ(hid_->Open(cam_), 0);
  tqsim::HidFaults faults;
  faults.status = 3;
  ASSERT_TRUE(tqsim::setHidFaults(sim_, faults));
  EXPECT_EQ(hid_->GetInt32(cam_, 0x0010, &value), 3);
  EXPECT_EQ(hid_->GetInt32(pastTable, 0x0010, &value), 3);
  EXPECT_EQ(hid_->GetFunc(pastTable, 0xC8, nullptr, 0), 3);
}

TEST_F(VexaHidCommand, AcquisitionFlagIsSetBeforeTheWriteAndSurvivesItsFailure) {
  const uint8_t pastTable = static_cast<uint8_t>(DevicePool.size());
  for (uint8_t c : {pastTable, uint8_t{255}}) {
    EXPECT_FALSE(hid_->IsAcquisitionEnabled(c));
    EXPECT_NE(hid_->SetInt32(c, 0x0650, 1), 0);
    EXPECT_TRUE(hid_->IsAcquisitionEnabled(c));
    hid_->DisableAcquisition(c);
    EXPECT_FALSE(hid_->IsAcquisitionEnabled(c));
  }
  // Zero and other registers leave it alone.
  EXPECT_EQ(hid_->SetInt32(cam_, 0x0650, 0), 0);
  EXPECT_EQ(hid_->SetInt32(cam_, 0x0651, 1), 0);
  EXPECT_FALSE(hid_->IsAcquisitionEnabled(cam_));
  EXPECT_EQ(hid_->SetInt32(cam_, 0x0650, 2), 0);
  EXPECT_TRUE(hid_->IsAcquisitionEnabled(cam_));
}

TEST_F(VexaHidCommand, EventReportsAreKeptAndAnswersLeftAlone) {
  tqtest::LogCapture log;
  ASSERT_TRUE(tqsim::sendEvent(sim_, {0x11, 0x22, 0x33, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}));
  ASSERT_TRUE(log.waitFor("Vexa_HID::ReceiveCallbackHid: event rd 2 11 22 33", 3000ms));
  uint8_t event[12];
  hid_->LastEvent(event);
  EXPECT_EQ(Bytes(event, event + 12), (Bytes{2, 0x11, 0x22, 0x33, 4, 5, 6, 7, 8, 9, 10, 11}));
  // An event is no answer: the next command still gets its own.
  uint32_t value = 0;
  EXPECT_EQ(hid_->GetInt32(cam_, 0x0020, &value), 0);
  EXPECT_EQ(value, 222u);
}

TEST_F(VexaHidCommand, OpenFailures) {
  tqtest::LogCapture log;
  const uint8_t pastTable = static_cast<uint8_t>(DevicePool.size());
  EXPECT_EQ(hid_->Open(pastTable), -102);
  EXPECT_TRUE(log.contains("Vexa_HID::Open: error setting callback while opening cam with index nr:" +
                           std::to_string(pastTable)));
  EXPECT_EQ(Vexa_HID::ReceiveCallbackHidStatic(nullptr, nullptr), -3);
  // Opening an open camera again leaves one descriptor, not two.
  EXPECT_EQ(hid_->Open(cam_), 0);
  EXPECT_EQ(tqsim::openHidNodes(sim_), 1);
}

}  // namespace
}  // namespace hidtest
