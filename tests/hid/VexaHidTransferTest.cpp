#include <gtest/gtest.h>
#include <tqsim/Sim.h>

#include <cstring>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "VexaHidFixture.h"

namespace hidtest {
namespace {

using Bytes = std::vector<uint8_t>;

class VexaHidTransfer : public VexaHidTest {
 protected:
  void configure(tqsim::CameraConfig& c) override {
    c.memory[0x0540] = std::string(70, 'm');
    c.memory[0x05B0] = "short";
  }
  void setXml(const Bytes& file) {
    ASSERT_TRUE(tqsim::modifyCamera(sim_, [&](tqsim::CameraConfig& c) { c.xmlFile = file; }));
  }
  size_t chunkRequests() {
    size_t n = 0;
    for (const auto& r : tqsim::receivedReports(sim_)) n += r.size() > 1 && r[1] == 0x4E;
    return n;
  }
};

Bytes patterned(size_t size) {
  Bytes b(size);
  for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>((i * 7 + i / 251) & 0xFF);
  return b;
}

TEST_F(VexaHidTransfer, DownloadsAreByteExact) {
  for (size_t size : {size_t{0}, size_t{1}, size_t{1023}, size_t{1024}, size_t{1025}, size_t{70000}}) {
    SCOPED_TRACE(size);
    Bytes file = patterned(size);
    setXml(file);
    tqsim::clearReceivedReports(sim_);
    // One spare byte after the file must stay untouched.
    std::vector<char> buf(size + 1, '\x5A');
    ASSERT_EQ(hid_->ReadXML(cam_, buf.data(), static_cast<int>(size)), 0);
    EXPECT_TRUE(Bytes(buf.begin(), buf.begin() + static_cast<long>(size)) == file);
    EXPECT_EQ(buf[size], '\x5A');
    EXPECT_EQ(chunkRequests(), (size + 1023) / 1024);
  }
}

TEST_F(VexaHidTransfer, ChunkRequestsCarryTheIndexInTwoBytes) {
  // 0x0004B007 bytes: 301 chunks; the request keeps the size's outer bytes.
  const size_t size = 0x0004B007;
  setXml(patterned(size));
  std::vector<char> buf(size);
  ASSERT_EQ(hid_->ReadXML(cam_, buf.data(), static_cast<int>(size)), 0);
  std::vector<Bytes> chunks;
  for (const auto& r : tqsim::receivedReports(sim_))
    if (r.size() > 1 && r[1] == 0x4E) chunks.push_back(r);
  ASSERT_EQ(chunks.size(), 301u);
  EXPECT_EQ(chunks[0], (Bytes{1, 0x4E, 0x00, 0, 0, 0x07}));
  EXPECT_EQ(chunks[255], (Bytes{1, 0x4E, 0x00, 0xFF, 0x00, 0x07}));
  EXPECT_EQ(chunks[300], (Bytes{1, 0x4E, 0x00, 0x2C, 0x01, 0x07}));
}

TEST_F(VexaHidTransfer, TooSmallBufferIsRefusedBeforeAnyChunk) {
  setXml(patterned(2000));
  tqsim::clearReceivedReports(sim_);
  tqtest::LogCapture log;
  std::vector<char> buf(2000, '\x5A');
  EXPECT_EQ(hid_->ReadXML(cam_, buf.data(), 1999), -101);
  EXPECT_TRUE(log.contains("Vexa_HID::ReadXML error: supplied buffer not sufficient for XML download!"));
  EXPECT_EQ(chunkRequests(), 0u);
  EXPECT_EQ(std::string(buf.begin(), buf.end()), std::string(2000, '\x5A'));
}

TEST_F(VexaHidTransfer, FailedChunksStopTheDownload) {
  setXml(patterned(3000));
  std::vector<char> buf(3000);
  tqtest::LogCapture log;

  tqsim::HidFaults faults;
  faults.featureFails = true;
  ASSERT_TRUE(tqsim::setHidFaults(sim_, faults));
  EXPECT_EQ(hid_->ReadXML(cam_, buf.data(), 3000), -103);
  EXPECT_TRUE(log.contains("Vexa_HID::ReadXML error: Error: VX_UVC_STATUS_UNKNOWN_ERROR @KOR_HID_FeatureRd"));

  // A refused size query ends it before any chunk.
  faults = tqsim::HidFaults{};
  faults.status = 7;
  ASSERT_TRUE(tqsim::setHidFaults(sim_, faults));
  EXPECT_EQ(hid_->ReadXML(cam_, buf.data(), 3000), 7);
  EXPECT_TRUE(log.contains("Vexa_HID::ReadXML error: Error: VX_UVC_STATUS_INVALID_CHUNK_ID"));
}

TEST_F(VexaHidTransfer, ReadMemClampsToFiftyNineCharacters) {
  struct {
    int adr;
    int len;
    std::string expected;
  } cases[] = {
      {0x0540, 100, std::string(59, 'm')},
      {0x0540, 60, std::string(59, 'm')},
      {0x0540, 12, std::string(11, 'm')},
      {0x05B0, 12, "short"},
      {0x0540, 1, ""},
  };
  for (const auto& c : cases) {
    char buf[128];
    std::memset(buf, '#', sizeof buf);
    ASSERT_EQ(hid_->ReadMem(cam_, c.adr, buf, c.len), 0);
    EXPECT_EQ(std::string(buf), c.expected) << "len " << c.len;
    // strncpy fills up to the clamped length, nothing beyond.
    int n = c.len < 60 ? c.len : 60;
    EXPECT_EQ(buf[n], '#') << "len " << c.len;
  }
  char buf[4] = {'#', '#', '#', '#'};
  EXPECT_EQ(hid_->ReadMem(cam_, 0x0540, buf, 0), 0);
  EXPECT_EQ(std::string(buf, 4), "####");
}

}  // namespace
}  // namespace hidtest
