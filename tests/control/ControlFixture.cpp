#include "ControlFixture.h"

#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "control/VexaHID_Interface.h"
#include "pool/TqUvcDiscPkt.h"

namespace ctltest {
namespace {

// Points the ini file and the cache at a temporary directory before any test
// reads them, and removes it at the end.
class TempDirEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    std::filesystem::create_directories(cacheDir());
    setenv("TQ_XML_CACHE", cacheDir().c_str(), 1);
    setenv("TQ_INI_FILE", (tempDir() + "/tarquel.ini").c_str(), 1);
    writeIni(false);
  }
  void TearDown() override { std::filesystem::remove_all(tempDir()); }
};

[[maybe_unused]] const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new TempDirEnvironment);

}  // namespace

const std::string& tempDir() {
  static const std::string dir = [] {
    char pattern[] = "/tmp/tq-control-XXXXXX";
    return std::string(mkdtemp(pattern) != nullptr ? pattern : "/tmp/tq-control");
  }();
  return dir;
}

const std::string& cacheDir() {
  static const std::string dir = tempDir() + "/xml/";
  return dir;
}

void writeIni(bool autoConnect) {
  std::ofstream ini(tempDir() + "/tarquel.ini", std::ios::trunc);
  ini << "[MISC.Options]\nMISC.AutoConnect=" << (autoConnect ? 1 : 0) << "\n";
}

void ControlTest::SetUp() {
  tqsim::reset();
  ASSERT_EQ(TqUvcCreateHidDevice(), 0);
}

void ControlTest::TearDown() {
  devices_.clear();
  TqUvcDeleteHidDevice();
  tqsim::reset();
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(cacheDir(), ignored))
    std::filesystem::remove_all(entry.path(), ignored);
}

int ControlTest::enumerate(const std::string& serial) {
  int count = 0;
  if (TqUvcEnumerateHidDevice(&count) != 0) return -1;
  int found = -1;
  for (int index = -1, rc = TqUvcGetFirstHidDevice(&index); rc == 0; rc = TqUvcGetNextHidDevice(&index)) {
    char text[64] = {};
    TqUvcGetSerialNumberHidDevice(index, text, sizeof text);
    if (serial == text) found = index;
  }
  return found;
}

TqUvcDevice& ControlTest::makeDevice(const std::string& serial, int camIndex, const char* interfaceText) {
  TqUvcDiscPkt pkt;
  _tagTqUvccpDiscData* disc = pkt.GetDiscData();
  disc->Vid = 0x7A3D;
  disc->Pid = 0x0203;
  disc->HIDCamIndex = static_cast<uint32_t>(camIndex);
  std::strncpy(disc->SerialNr, serial.c_str(), sizeof disc->SerialNr - 1);
  std::strncpy(disc->InterfaceText, interfaceText, sizeof disc->InterfaceText - 1);
  devices_.push_back(std::make_unique<TqUvcDevice>(&pkt));
  return *devices_.back();
}

TqUvcDevice& ControlTest::deviceFor(const tqsim::CameraConfig& config) {
  sim_ = plug(config);
  const int index = enumerate(config.serial);
  EXPECT_GE(index, 0);
  return makeDevice(config.serial, index);
}

void DeviceTest::SetUp() {
  ControlTest::SetUp();
  tqsim::CameraConfig config = cameraOn(0, "BOOT-SN-7");
  configure(config);
  writeIni(autoConnect());
  dev_ = &deviceFor(config);
}

}  // namespace ctltest
