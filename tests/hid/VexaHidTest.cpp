#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "HidFixture.h"
#include "LogCapture.h"

namespace hidtest {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

class VexaHid : public VexaHidTest {
 protected:
  Bytes lastReport() {
    auto all = tqsim::receivedReports(sim_);
    return all.empty() ? Bytes{} : all.back();
  }
  void setFaults(void (*change)(tqsim::HidFaults&)) {
    tqsim::HidFaults faults;
    change(faults);
    ASSERT_TRUE(tqsim::setHidFaults(sim_, faults));
  }
};

TEST_F(VexaHid, CommandsReachTheCameraAsTheseBytes) {
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

TEST_F(VexaHid, DeviceStatusIsReturnedWithItsText) {
  setFaults([](tqsim::HidFaults& f) { f.status = 5; });
  tqtest::LogCapture log;
  uint32_t value = 7;
  EXPECT_EQ(hid_->GetInt32(cam_, 0x0010, &value), 5);
  EXPECT_EQ(value, 7u);
  EXPECT_EQ(log.countExact("Vexa_HID::ReceiveCallbackHid: cmd rd --> protocol error 5 "), 1u);
  EXPECT_EQ(log.countExact("Vexa_HID::GetInt32 command error:5 : Error: VX_UVC_STATUS_NOT_AVAILABLE"), 1u);

  // A send that fails reports the status the last answer left behind, not the
  // send result.
  const uint8_t pastTable = static_cast<uint8_t>(DevicePool.size());
  EXPECT_EQ(hid_->GetInt32(pastTable, 0x0010, &value), 5);
  EXPECT_EQ(
      log.countExact("Vexa_HID::GetInt32 command error:5 : Error: VX_UVC_STATUS_NOT_AVAILABLE", RKLOG_ERROR),
      2u);
  int size = -1;
  EXPECT_EQ(hid_->GetXMLSize(pastTable, &size), 5);
  EXPECT_EQ(size, -1);
  EXPECT_TRUE(
      log.contains("Vexa_HID::GetFunc command error:5 : Error: VX_UVC_STATUS_NOT_AVAILABLE", RKLOG_ERROR));
}

TEST_F(VexaHid, WrongEchoIsAProtocolError) {
  setFaults([](tqsim::HidFaults& f) { f.wrongEcho = 0x63; });
  tqtest::LogCapture log;
  uint32_t value = 0;
  EXPECT_EQ(hid_->GetInt32(cam_, 0x0010, &value), -2);
  EXPECT_TRUE(log.contains("Vexa_HID::ReceiveCallbackHid: cmd rd --> wrong id 99 92"));
  EXPECT_TRUE(log.contains("Vexa_HID::GetInt32 command error:-2 : Error: HID_ERROR_PROTOCOL_WRONG_ID"));
}

// Waits out the 5-s answer time once; each late answer then goes to the next command
// (the GetFunc time-out line keeps the SetFunc name).
TEST_F(VexaHid, LateAnswerIsTakenByTheNextCommand) {
  setFaults([](tqsim::HidFaults& f) {
    f.lateAnswerMs = 5600;
    f.status = 5;  // makes the late answer's arrival visible in the log
  });
  tqtest::LogCapture log;
  uint32_t value = 0;
  int size = -7;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(hid_->GetXMLSize(cam_, &size), -1);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, 4900ms);
  EXPECT_LT(waited, 5500ms);
  EXPECT_EQ(size, -7);
  EXPECT_EQ(log.countExact("Vexa_HID::SetFunc command error:-1 : Error: HID_ERROR_TIMEOUT", RKLOG_ERROR), 1u);
  EXPECT_EQ(log.countExact("Vexa_HID::GetXMLSize error: Error: HID_ERROR_TIMEOUT", RKLOG_ERROR), 1u);
  ASSERT_TRUE(log.waitFor("cmd rd --> protocol error 5", 3000ms));

  setFaults([](tqsim::HidFaults& f) { f.lateAnswerMs = 300; });
  EXPECT_EQ(hid_->GetInt32(cam_, 0x0020, &value), 5);  // the first command's answer
  // The camera must have taken the second command before its delay changes.
  ASSERT_TRUE(tqsim::waitForReports(sim_, 2, 2000ms));
  setFaults([](tqsim::HidFaults& f) { f.lateAnswerMs = 3000; });
  EXPECT_EQ(hid_->GetInt32(cam_, 0x0010, &value), 0);
  EXPECT_EQ(value, 222u);  // the second command's answer
}

TEST_F(VexaHid, AcquisitionFlagIsSetBeforeTheWriteAndSurvivesItsFailure) {
  const uint8_t pastTable = static_cast<uint8_t>(DevicePool.size());
  tqtest::LogCapture log;
  // No device and no status left by an earlier answer: the send result.
  EXPECT_EQ(hid_->SetInt32(pastTable, 0x0650, 1), 1);
  EXPECT_EQ(log.countExact("Vexa_HID::SetInt32 error:1 : Error: VX_UVC_STATUS_UNKNOWN_ERROR", RKLOG_ERROR),
            1u);
  EXPECT_TRUE(hid_->IsAcquisitionEnabled(pastTable));
  // Zero and other registers leave it alone.
  EXPECT_EQ(hid_->SetInt32(cam_, 0x0650, 0), 0);
  EXPECT_EQ(hid_->SetInt32(cam_, 0x0651, 1), 0);
  EXPECT_FALSE(hid_->IsAcquisitionEnabled(cam_));
}

TEST_F(VexaHid, EventsAreKeptAndAreNoAnswer) {
  tqtest::LogCapture log;
  ASSERT_TRUE(tqsim::sendEvent(sim_, {0x11, 0x22, 0x33, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}));
  ASSERT_TRUE(log.waitFor("Vexa_HID::ReceiveCallbackHid: event rd 2 11 22 33", 3000ms));
  uint8_t event[12];
  hid_->LastEvent(event);
  EXPECT_EQ(Bytes(event, event + 12), (Bytes{2, 0x11, 0x22, 0x33, 4, 5, 6, 7, 8, 9, 10, 11}));
  uint32_t value = 0;
  // An event is no answer: the next command still gets its own.
  EXPECT_EQ(hid_->GetInt32(cam_, 0x0020, &value), 0);
  EXPECT_EQ(value, 222u);
}

TEST_F(VexaHid, DownloadsAreByteExact) {
  // 0x4B007 bytes take 301 chunks: the index needs both of its bytes.
  for (size_t size : {size_t{0}, size_t{1}, size_t{1023}, size_t{1024}, size_t{1025}, size_t{0x4B007}}) {
    SCOPED_TRACE(size);
    Bytes file(size);
    for (size_t i = 0; i < size; ++i) file[i] = static_cast<uint8_t>(i * 7 + i / 251);
    ASSERT_TRUE(tqsim::modifyCamera(sim_, [&](tqsim::CameraConfig& c) { c.xmlFile = file; }));
    tqsim::clearReceivedReports(sim_);
    // One spare byte after the file must stay untouched.
    std::vector<char> buf(size + 1, '\x5A');
    ASSERT_EQ(hid_->ReadXML(cam_, buf.data(), static_cast<int>(size)), 0);
    EXPECT_TRUE(Bytes(buf.begin(), buf.begin() + static_cast<long>(size)) == file);
    EXPECT_EQ(buf[size], '\x5A');
    // Chunk requests keep the outer bytes of the size answer around the index.
    std::vector<Bytes> chunks;
    for (const auto& r : tqsim::receivedReports(sim_))
      if (r.size() > 1 && r[1] == 0x4E) chunks.push_back(r);
    ASSERT_EQ(chunks.size(), (size + 1023) / 1024);
    for (size_t i = 0; i < chunks.size(); ++i)
      ASSERT_EQ(chunks[i], (Bytes{1, 0x4E, 0, uint8_t(i), uint8_t(i >> 8), uint8_t(size)})) << "chunk " << i;
  }
}

TEST_F(VexaHid, DownloadStopsAtATooSmallBufferOrAFailedRead) {
  ASSERT_TRUE(tqsim::modifyCamera(sim_, [&](tqsim::CameraConfig& c) { c.xmlFile = Bytes(2000, 0x33); }));
  tqtest::LogCapture log;
  std::vector<char> buf(2000, '\x5A');
  EXPECT_EQ(hid_->ReadXML(cam_, buf.data(), 1999), -101);
  EXPECT_TRUE(log.contains("Vexa_HID::ReadXML error: supplied buffer not sufficient for XML download!"));
  // Refused before any chunk: the size query was the last thing sent.
  EXPECT_EQ(lastReport(), (Bytes{1, 0xC8, 0x10, 4, 0, 0}));
  EXPECT_EQ(std::string(buf.begin(), buf.end()), std::string(2000, '\x5A'));

  setFaults([](tqsim::HidFaults& f) { f.featureFails = true; });
  EXPECT_EQ(hid_->ReadXML(cam_, buf.data(), 2000), -103);

  // The size query is answered, the first chunk request refused: one request,
  // both lines, and nothing copied.
  setFaults([](tqsim::HidFaults& f) {
    f.status = 7;
    f.onlyCommand = 0x4E;
  });
  tqsim::clearReceivedReports(sim_);
  EXPECT_EQ(hid_->ReadXML(cam_, buf.data(), 2000), -102);
  EXPECT_EQ(tqsim::receivedReports(sim_),
            (std::vector<Bytes>{{1, 0xC8, 0x10, 4, 0, 0}, {1, 0x4E, 0, 0, 0, 0xD0}}));
  EXPECT_EQ(log.countExact("Vexa_HID::SetFunc command error:7 : Error: VX_UVC_STATUS_INVALID_CHUNK_ID",
                           RKLOG_ERROR),
            1u);
  EXPECT_EQ(
      log.countExact("Vexa_HID::ReadXML error: Error: VX_UVC_STATUS_INVALID_CHUNK_ID @SetFunc", RKLOG_ERROR),
      1u);
  EXPECT_EQ(std::string(buf.begin(), buf.end()), std::string(2000, '\x5A'));
}

TEST_F(VexaHid, ReadMemClampsToFiftyNineCharacters) {
  const std::tuple<int, int, std::string> cases[] = {{0x0540, 100, std::string(59, 'm')},
                                                     {0x0540, 12, std::string(11, 'm')},
                                                     {0x05B0, 12, "short"},
                                                     {0x0540, 1, ""}};
  for (const auto& [adr, len, expected] : cases) {
    char buf[128];
    std::memset(buf, '#', sizeof buf);
    ASSERT_EQ(hid_->ReadMem(cam_, adr, buf, len), 0);
    EXPECT_EQ(std::string(buf), expected) << "len " << len;
    // Zeros fill up to the clamped length, nothing beyond.
    const int n = std::min(len, 60);
    EXPECT_EQ(buf[n - 1], '\0') << "len " << len;
    EXPECT_EQ(buf[n], '#') << "len " << len;
  }
  char buf[4] = {'#', '#', '#', '#'};
  EXPECT_EQ(hid_->ReadMem(cam_, 0x0540, buf, 0), 0);
  EXPECT_EQ(std::string(buf, 4), "####");
}

}  // namespace
}  // namespace hidtest
