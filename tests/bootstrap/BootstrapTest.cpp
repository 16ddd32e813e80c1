// Description file, manifest entry, capabilities and nickname of a device on
// the emulated camera.
#include <rklog.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "DeviceFixture.h"
#include "control/TqUvcBootstrap.h"
#include "control/TqUvcCtrlChan.h"

namespace bstest {
namespace {

std::vector<uint8_t> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string hex8(uint32_t value) {
  char text[9];
  std::snprintf(text, sizeof(text), "%8.8x", value);
  return text;
}

class BootstrapTest : public DeviceTest {
 protected:
  void configure(tqsim::CameraConfig& config) override { config.memory[0x520] = "Cam 1"; }

  TqUvcBootstrap& bootstrap() { return *dev_->GetBootstrap(); }

  // The manifest entry's path for the connected device.
  std::string manifestPath() {
    char path[256] = {};
    EXPECT_EQ(bootstrap().GetManifestFileData(0, nullptr, nullptr, path, sizeof(path), nullptr, 0, nullptr,
                                              nullptr, nullptr),
              0u);
    return path;
  }
};

TEST_F(BootstrapTest, ManifestEntryNamesTheCamerasFileByModelVersionAndHash) {
  connect();
  uint32_t version = 0;
  uint32_t address = 0;
  uint32_t data0 = 7;
  uint32_t data1 = 7;
  char path[256] = {};
  uint8_t secPath[16] = {'x'};
  char sha[41] = {};
  ASSERT_EQ(bootstrap().GetManifestFileData(0, &version, &address, path, sizeof(path), secPath,
                                            sizeof(secPath), &data0, &data1, sha),
            0u);

  const std::string hash = shaText(sim_);
  const auto size = static_cast<uint32_t>(tqsim::xmlFile(sim_).size());
  EXPECT_EQ(std::string(path), "local:TQ_Cam_1_1.0.05_" + hash + ".xml;00100000;" + hex8(size));
  EXPECT_EQ(std::string(sha), hash);
  EXPECT_EQ(version, 0x04014104u);
  EXPECT_EQ(address, 0x100000u);
  EXPECT_EQ(secPath[0], 0);
  EXPECT_EQ(data0, 0u);
  EXPECT_EQ(data1, 0u);

  uint32_t count = 0;
  EXPECT_EQ(bootstrap().GetNrManifestFile(&count), 0u);
  EXPECT_EQ(count, 1u);
}

TEST_F(BootstrapTest, OnlyEntryZeroIsServedAndOnlyStrayQueriesWarn) {
  connect();
  char path[256];
  char sha[41];
  struct Case {
    uint32_t which;
    bool withOutputs;
    bool warns;
  };
  const Case cases[] = {{1, true, false},    {64, true, false},   {65, true, true},   {999, true, true},
                        {1000, true, false}, {1063, true, false}, {1064, true, true}, {0, false, false}};
  for (const Case& c : cases) {
    log_.clear();
    EXPECT_EQ(bootstrap().GetManifestFileData(c.which, nullptr, nullptr, c.withOutputs ? path : nullptr,
                                              sizeof(path), nullptr, 0, nullptr, nullptr,
                                              c.withOutputs ? sha : nullptr),
              0x8001u)
        << c.which;
    EXPECT_EQ(log_.contains("Manifest query invalid", RKLOG_WARNING), c.warns) << c.which;
  }
}

class ModelNameTest : public DeviceTest,
                      public ::testing::WithParamInterface<std::pair<const char*, const char*>> {
 protected:
  void configure(tqsim::CameraConfig& config) override { config.memory[0x520] = GetParam().first; }
};

TEST_P(ModelNameTest, ManifestPathUsesTheCleanedModelName) {
  connect();
  char path[256] = {};
  ASSERT_EQ(dev_->GetBootstrap()->GetManifestFileData(0, nullptr, nullptr, path, sizeof(path), nullptr, 0,
                                                      nullptr, nullptr, nullptr),
            0u);
  EXPECT_EQ(
      std::string(path).rfind(std::string("local:TQ_") + GetParam().second + "_1.0.05_" + shaText(sim_), 0),
      0u)
      << path;
}

INSTANTIATE_TEST_SUITE_P(Names, ModelNameTest,
                         ::testing::Values(std::make_pair("Cam 1", "Cam_1"),
                                           std::make_pair("A/b:c*d", "A.b.c.d"),
                                           std::make_pair("", "TarquelUVC")));

TEST_F(BootstrapTest, ManifestPathDownloadsTheFileOnceIntoTheCache) {
  connect();
  const std::string location = manifestPath();
  const std::string expectedPath = cacheDir() + location.substr(6, location.find(';') - 6);

  char out[256] = {};
  ASSERT_EQ(bootstrap().ResolveXMLLocation(location.c_str(), reinterpret_cast<uint8_t*>(out), sizeof(out), 2),
            0u);
  EXPECT_EQ(std::string(out), expectedPath);
  EXPECT_STREQ(bootstrap().GetFilePath(), expectedPath.c_str());

  // Whole words are read: the file is padded with zeros to a multiple of 4.
  std::vector<uint8_t> expected = tqsim::xmlFile(sim_);
  expected.resize((expected.size() + 3) / 4 * 4, 0);
  EXPECT_EQ(readFile(expectedPath), expected);

  tqsim::clearReceivedReports(sim_);
  log_.clear();
  std::fill(std::begin(out), std::end(out), '\0');
  ASSERT_EQ(bootstrap().ResolveXMLLocation(location.c_str(), reinterpret_cast<uint8_t*>(out), sizeof(out), 2),
            0u);
  EXPECT_EQ(std::string(out), expectedPath);
  EXPECT_TRUE(tqsim::receivedReports(sim_).empty());
  EXPECT_TRUE(log_.contains("GetXMLFile: File already available, don't download again"));
}

TEST_F(BootstrapTest, LocationsAreResolvedByTheirPrefix) {
  connect();
  struct Case {
    const char* location;
    uint32_t flags;
    uint32_t status;
    std::string out;  // what the caller's buffer holds afterwards
  };
  const std::string keptPath = cacheDir() + "kept.txt";
  const std::vector<Case> cases = {
      {"LOCAL:upper.xml;100000;10", 2, 0, cacheDir() + "upper.xml"},
      {"local:kept.txt;100000;10", 3, 0, keptPath},
      {"file:/opt/cam/desc.XML", 2, 0, "/opt/cam/desc.XML"},
      {"file:/opt/cam/desc.zip", 2, 0, "/opt/cam/desc.XML"},  // the path stored before
      {"file:/opt/cam/desc.txt", 2, 0x8FFF, "-"},
      {"file:", 2, 0, "-"},
      {"http://example.invalid/desc.xml", 2, 0x8001, "-"},
      {"HTTP:x", 2, 0x8001, "-"},
      {"ftp:x", 2, 0x8FFF, "-"},
      {"", 2, 0x8FFF, "-"},
  };
  for (const Case& c : cases) {
    char out[256] = "-";
    EXPECT_EQ(
        bootstrap().ResolveXMLLocation(c.location, reinterpret_cast<uint8_t*>(out), sizeof(out), c.flags),
        c.status)
        << c.location;
    EXPECT_EQ(std::string(out), c.out) << c.location;
  }
  EXPECT_TRUE(log_.contains("GetXMLFile: Error, Webbased XML location not yet supported", RKLOG_FATAL));
  EXPECT_TRUE(log_.contains("GetXMLFile: Fatal, unknown XML location!", RKLOG_FATAL));
  EXPECT_TRUE(log_.contains("LoadXMLFileFromCamera: Unknown extension", RKLOG_FATAL));
  EXPECT_TRUE(std::filesystem::exists(keptPath));
}

TEST_F(BootstrapTest, SizeIsRaisedToWholeWords) {
  connect();
  char out[256] = {};
  ASSERT_EQ(bootstrap().ResolveXMLLocation("local:odd.xml;100000;3e9", reinterpret_cast<uint8_t*>(out),
                                           sizeof(out), 2),
            0u);
  EXPECT_TRUE(log_.contains("GetXMLFile: Address=0x00100000, Size=1001-1004"));
  EXPECT_EQ(std::filesystem::file_size(cacheDir() + "odd.xml"), 1004u);
}

TEST_F(BootstrapTest, NamesThatWouldLeaveTheCacheAreRefused) {
  connect();
  const std::string outside = tempDir() + "/escaped.xml";
  const std::string locations[] = {"local:../escaped.xml;100000;10", "local:" + outside + ";100000;10",
                                   "local:sub/x.xml;100000;10", "local:..;100000;10"};
  for (const std::string& location : locations) {
    log_.clear();
    char out[256] = "-";
    EXPECT_EQ(
        bootstrap().ResolveXMLLocation(location.c_str(), reinterpret_cast<uint8_t*>(out), sizeof(out), 2),
        0x8001u)
        << location;
    EXPECT_STREQ(out, "-");
    EXPECT_TRUE(log_.contains("leaves the cache directory", RKLOG_ERROR)) << location;
  }
  EXPECT_FALSE(std::filesystem::exists(outside));
  EXPECT_TRUE(std::filesystem::is_empty(cacheDir()));
}

TEST_F(BootstrapTest, CamerasUrlRegistersAreEmpty) {
  connect();
  for (uint32_t which : {1u, 2u}) {
    char out[64] = "untouched";
    EXPECT_EQ(bootstrap().GetXMLFile(which, reinterpret_cast<uint8_t*>(out), sizeof(out), 0), 0u);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(bootstrap().GetXMLFile(which, reinterpret_cast<uint8_t*>(out), sizeof(out), 2), 0x8FFFu);
  }
  EXPECT_TRUE(log_.contains("GetXMLFile: Fatal, unknown XML location!", RKLOG_FATAL));
}

TEST_F(BootstrapTest, DownloadWritesExactlyWhatTheCameraServes) {
  connect();
  const std::vector<uint8_t> xml = tqsim::xmlFile(sim_);
  const std::string path = cacheDir() + "direct.xml";
  std::vector<uint8_t> pathText(path.begin(), path.end());
  pathText.push_back(0);
  ASSERT_EQ(bootstrap().LoadXMLFileFromCamera(pathText.data(), 0x100000, static_cast<uint32_t>(xml.size())),
            0u);
  EXPECT_EQ(readFile(path), xml);
  EXPECT_TRUE(log_.contains("Successfully downloaded XML from camera to file"));

  const std::string badPath = cacheDir() + "missing-dir/x.xml";
  std::vector<uint8_t> badText(badPath.begin(), badPath.end());
  badText.push_back(0);
  EXPECT_EQ(bootstrap().LoadXMLFileFromCamera(badText.data(), 0x100000, 16), 0u);
  EXPECT_TRUE(log_.contains("LoadXMLFileFromCamera: Could not create new file", RKLOG_ERROR));
  EXPECT_EQ(bootstrap().LoadXMLFileFromCamera(nullptr, 0x100000, 16), 0x8FFFu);
}

TEST_F(BootstrapTest, CapabilitiesAreNoneAndTheNicknameIsRefused) {
  connect();
  uint32_t capabilities = 0xFFFFFFFF;
  EXPECT_EQ(bootstrap().GetDevCapabilty(&capabilities), 0u);
  EXPECT_EQ(capabilities, 0u);
  EXPECT_TRUE(log_.contains("TqUvcBootstrap::GetDevCapabilty()", RKLOG_INFO));
  EXPECT_EQ(log_.countExact("  MessageChannelSupported     : NO", RKLOG_INFO), 1u);
  EXPECT_EQ(log_.countExact("  StringEncoding              : 0", RKLOG_INFO), 1u);

  uint8_t nick[] = "a nickname longer than sixteen";
  EXPECT_EQ(bootstrap().SetNick(nick), 0x8008u);
  EXPECT_EQ(bootstrap().SetNick(nullptr), 0x8008u);
}

}  // namespace
}  // namespace bstest
