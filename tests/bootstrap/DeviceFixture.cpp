#include "DeviceFixture.h"

#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "control/TqUvcCtrlChan.h"
#include "control/VexaHID_Interface.h"
#include "pool/TqUvcDiscPkt.h"
#include "support/StringUtils.h"

namespace bstest {

namespace {

constexpr const char* kSerial = "BOOT-SN-7";

std::string makeTempDir() {
  char pattern[] = "/tmp/tq-bootstrap-XXXXXX";
  const char* dir = mkdtemp(pattern);
  return dir != nullptr ? std::string(dir) : std::string("/tmp");
}

// Points the ini file and the cache at the temporary directory before any
// test reads them, and removes it at the end.
class TempDirEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    std::filesystem::create_directories(cacheDir());
    setenv("TQ_XML_CACHE", cacheDir().c_str(), 1);
    setenv("TQ_INI_FILE", (tempDir() + "/tarquel.ini").c_str(), 1);
    writeIni(false);
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(tempDir(), ignored);
  }
};

[[maybe_unused]] const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new TempDirEnvironment);

}  // namespace

const std::string& tempDir() {
  static const std::string dir = makeTempDir();
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

bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!pred()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::string shaText(tqsim::CameraId id) {
  std::string text;
  char digits[3];
  for (uint8_t b : tqsim::xmlSha1(id)) {
    std::snprintf(digits, sizeof(digits), "%02x", b);
    text += digits;
  }
  return text;
}

void DeviceTest::SetUp() {
  tqsim::reset();
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.serial = kSerial;
  configure(config);
  std::string error;
  sim_ = tqsim::plugCamera(config, &error);
  ASSERT_NE(sim_, tqsim::kNoCamera) << error;

  writeIni(autoConnect());
  ASSERT_EQ(TqUvcCreateHidDevice(), 0);
  int count = 0;
  ASSERT_EQ(TqUvcEnumerateHidDevice(&count), 0);
  int index = -1;
  ASSERT_EQ(TqUvcGetFirstHidDevice(&index), 0);

  TqUvcDiscPkt pkt;
  _tagTqUvccpDiscData* data = pkt.GetDiscData();
  data->Vid = 0x7A3D;
  data->Pid = 0x203;
  data->HIDCamIndex = static_cast<uint32_t>(index);
  rk::SafeStrCpy(data->SerialNr, kSerial, sizeof(data->SerialNr));
  rk::SafeStrCpy(data->InterfaceText, "UVC HID Device", sizeof(data->InterfaceText));
  dev_ = std::make_unique<TqUvcDevice>(&pkt);
}

void DeviceTest::TearDown() {
  dev_.reset();
  TqUvcDeleteHidDevice();
  tqsim::reset();
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(cacheDir(), ignored))
    std::filesystem::remove_all(entry.path(), ignored);
}

void DeviceTest::connect() { ASSERT_EQ(dev_->GetCtrlChan()->Connect(dev_->GetDiscData(), true), 0u); }

}  // namespace bstest
