// The bootstrap address space as the control channel serves it from the
// emulated camera: which addresses reach which HID register or memory, and
// what the unhandled ones leave behind.
#include <LogCapture.h>

#include <cstring>

#include "ControlFixture.h"

namespace ctltest {
namespace {

constexpr uint32_t kUnhandled = static_cast<uint32_t>(-101);
constexpr uint32_t kUntouched = 0xDEADBEEF;

class RegisterSpaceTest : public ControlTest {
 protected:
  void SetUp() override {
    ControlTest::SetUp();
    tqsim::CameraConfig config = cameraOn(0, "REG-0");
    config.registers[0x0000] = 0x11111111;
    config.registers[0xFFFF] = 0x22222222;
    config.registers[0x0A04] = 1280;
    config.memory[0x0520] = "ModelNameLonger";
    config.memory[0x0100] = std::string(70, 'x');
    config.memory[0x05D0] = std::string("\x01\x02\x03\x01\x2A", 5);
    sim_ = plug(config);
    const int index = enumerate("REG-0");
    ASSERT_GE(index, 0);
    ctrl_ = makeDevice("REG-0", index).GetCtrlChan();
    ASSERT_NE(ctrl_, nullptr);
    ASSERT_EQ(ctrl_->Connect(nullptr, false), 0U);
    tqsim::clearReceivedReports(sim_);
  }

  size_t reports() { return tqsim::receivedReports(sim_).size(); }

  tqsim::CameraId sim_ = tqsim::kNoCamera;
  TqUvcCtrlChan* ctrl_ = nullptr;
};

TEST_F(RegisterSpaceTest, RegisterReadsByAddress) {
  struct Case {
    uint32_t address;
    uint32_t status;
    uint32_t value;
    bool reachesCamera;
  };
  const Case cases[] = {
      {0x1C4, 0, 0, false},                       // capability register
      {0x40000, 0, 0x11111111, true},             // first HID register
      {0x4FFFF, 0, 0x22222222, true},             // last HID register
      {0x40A04, 0, 1280, true},                   // image width
      {0x3FFFF, kUnhandled, kUntouched, false},   // just below the range
      {0x50000, kUnhandled, kUntouched, false},   // just past it
      {0x100000, kUnhandled, kUntouched, false},  // the file is read as a block only
      {0x0, kUnhandled, kUntouched, false},       // GENCP_VERSION
  };
  for (const Case& c : cases) {
    tqsim::clearReceivedReports(sim_);
    uint32_t value = kUntouched;
    EXPECT_EQ(ctrl_->ReadReg(c.address, &value), c.status) << std::hex << c.address;
    EXPECT_EQ(value, c.value) << std::hex << c.address;
    EXPECT_EQ(reports() != 0, c.reachesCamera) << std::hex << c.address;
  }
}

TEST_F(RegisterSpaceTest, RegisterWritesByAddress) {
  struct Case {
    uint32_t address;
    uint32_t status;
    bool reachesCamera;
  };
  const Case cases[] = {
      {0xFFFFF, 0, false},         // the write sink
      {0x40A10, 0, true},          // vertical offset
      {0x1C4, kUnhandled, false},  // capability register is read-only
      {0x100000, kUnhandled, false},
      {0x3FFFF, kUnhandled, false},
  };
  for (const Case& c : cases) {
    tqsim::clearReceivedReports(sim_);
    EXPECT_EQ(ctrl_->WriteReg(c.address, 0x1234), c.status) << std::hex << c.address;
    EXPECT_EQ(reports() != 0, c.reachesCamera) << std::hex << c.address;
  }
  uint32_t stored = 0;
  ASSERT_TRUE(tqsim::readRegister(sim_, 0x0A10, stored));
  EXPECT_EQ(stored, 0x1234U);
}

TEST_F(RegisterSpaceTest, IdentityStringIsTwelveBytesWhateverTheLength) {
  unsigned char buffer[16];
  std::memset(buffer, 0xAA, sizeof buffer);
  EXPECT_EQ(ctrl_->ReadMem(0x44, buffer, 4), 0U);
  // At most 11 characters and a zero, then nothing past 12 bytes.
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer)), "ModelNameLo");
  EXPECT_EQ(buffer[12], 0xAA);
}

TEST_F(RegisterSpaceTest, BlockReadsClampAtSixtyBytes) {
  struct Case {
    uint32_t length;
    size_t written;  // bytes the read writes (the string plus its zero)
    bool clampLogged;
  };
  const Case cases[] = {{100, 60, true}, {60, 60, true}, {59, 59, false}};
  for (const Case& c : cases) {
    tqtest::LogCapture log;
    unsigned char buffer[128];
    std::memset(buffer, 0xAA, sizeof buffer);
    EXPECT_EQ(ctrl_->ReadMem(0x40100, buffer, c.length), 0U);
    EXPECT_EQ(std::strlen(reinterpret_cast<char*>(buffer)), c.written - 1) << c.length;
    EXPECT_EQ(buffer[c.written], 0xAA) << c.length;
    char expected[128];
    std::snprintf(expected, sizeof expected,
                  "  TqUvcReadMem() size is too large, clamping to 60 byte: Adr=00000100 Length=%8.8x",
                  c.length);
    EXPECT_EQ(log.countExact(expected), c.clampLogged ? 1U : 0U) << c.length;
  }
}

TEST_F(RegisterSpaceTest, VersionText) {
  struct Case {
    uint32_t address;
    uint32_t length;
    const char* text;
  };
  const Case cases[] = {
      {0x405D0, 32, "1.2.3.298"}, {0x405D0, 4, "1.2"},  // truncated: the last byte is the terminator
  };
  for (const Case& c : cases) {
    char buffer[32];
    std::memset(buffer, 'Z', sizeof buffer);
    EXPECT_EQ(ctrl_->ReadMem(c.address, reinterpret_cast<unsigned char*>(buffer), c.length), 0U);
    EXPECT_STREQ(buffer, c.text);
    if (c.length < sizeof buffer) {
      EXPECT_EQ(buffer[c.length], 'Z');
    }
  }
}

TEST_F(RegisterSpaceTest, VersionTextOfOtherBytes) {
  // Negative bytes are sign-extended before the shift and the OR.
  ASSERT_TRUE(tqsim::modifyCamera(sim_, [](tqsim::CameraConfig& config) {
    config.memory[0x05D0] = std::string("\xFF\x02\x03\x01\x80", 5);
  }));
  char buffer[32] = {};
  EXPECT_EQ(ctrl_->ReadMem(0x405D0, reinterpret_cast<unsigned char*>(buffer), sizeof buffer), 0U);
  EXPECT_STREQ(buffer, "-1.2.3.-128");

  // The memory read is a string copy: it stops at the first zero byte, so the
  // camera's 01 02 03 00 2A come back as 1.2.3.0.
  ASSERT_TRUE(tqsim::modifyCamera(sim_, [](tqsim::CameraConfig& config) {
    config.memory[0x05D0] = std::string("\x01\x02\x03\x00\x2A", 5);
  }));
  EXPECT_EQ(ctrl_->ReadMem(0x405D0, reinterpret_cast<unsigned char*>(buffer), sizeof buffer), 0U);
  EXPECT_STREQ(buffer, "1.2.3.0");
}

TEST_F(RegisterSpaceTest, UnhandledBlockReadLeavesBufferAlone) {
  tqtest::LogCapture log;
  unsigned char buffer[512];
  std::memset(buffer, 0x5A, sizeof buffer);
  EXPECT_EQ(ctrl_->ReadMem(0x200, buffer, sizeof buffer), 0U);
  for (unsigned char b : buffer) ASSERT_EQ(b, 0x5A);
  EXPECT_EQ(reports(), 0U);
  EXPECT_TRUE(log.contains("  TqUvcReadMem() unhandled Adr=00000200 Length=00000200 [camidx:"));
}

TEST_F(RegisterSpaceTest, DescriptionFileFromItsFirstByte) {
  const std::vector<uint8_t> xml = tqsim::xmlFile(sim_);
  ASSERT_FALSE(xml.empty());
  std::vector<uint8_t> buffer(xml.size() + 16, 0xEE);
  EXPECT_EQ(ctrl_->ReadMem(0x100000, buffer.data(), static_cast<uint32_t>(buffer.size())), 0U);
  EXPECT_TRUE(std::equal(xml.begin(), xml.end(), buffer.begin()));
  EXPECT_EQ(buffer[xml.size()], 0xEE);
}

}  // namespace
}  // namespace ctltest
