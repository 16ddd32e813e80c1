// Description file and manifest entry of a device on the emulated camera, and
// the message channel's refusals.
#include <rklog.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "ControlFixture.h"
#include "control/TqUvcBootstrap.h"
#include "control/TqUvcMsgChan.h"

namespace ctltest {
namespace {

std::vector<uint8_t> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class BootstrapTest : public DeviceTest {
 protected:
  TqUvcBootstrap& bootstrap() { return *dev_->GetBootstrap(); }
  uint32_t resolve(const std::string& location, char (&out)[256], uint32_t flags = 2) {
    return bootstrap().ResolveXMLLocation(location.c_str(), reinterpret_cast<uint8_t*>(out), sizeof out,
                                          flags);
  }
};

TEST_F(BootstrapTest, ManifestEntryIsDownloadedOnceIntoTheCache) {
  const std::pair<const char*, const char*> models[] = {
      {"Cam 1", "Cam_1"}, {"A/b:c*d", "A.b.c.d"}, {"X-(M)", "X..M."}, {"", "TarquelUVC"}};
  for (const auto& [model, cleaned] : models) {
    SCOPED_TRACE(model);
    ASSERT_TRUE(tqsim::modifyCamera(sim_, [&](tqsim::CameraConfig& c) { c.memory[0x520] = model; }));
    connect();
    const std::vector<uint8_t> xml = tqsim::xmlFile(sim_);
    char size[9];
    std::snprintf(size, sizeof size, "%8.8x", static_cast<unsigned>(xml.size()));
    uint32_t version = 0;
    uint32_t address = 0;
    char location[256] = {};
    char sha[41] = {};
    ASSERT_EQ(bootstrap().GetManifestFileData(0, &version, &address, location, sizeof location, nullptr, 0,
                                              nullptr, nullptr, sha),
              0U);
    const std::string name = std::string("TQ_") + cleaned + "_1.0.05_" + shaText(sim_) + ".xml";
    EXPECT_EQ(std::string(location), "local:" + name + ";00100000;" + size);
    EXPECT_EQ(std::string(sha), shaText(sim_));
    EXPECT_EQ(version, 0x04014104U);
    EXPECT_EQ(address, 0x100000U);

    char out[256] = {};
    ASSERT_EQ(resolve(location, out), 0U);
    EXPECT_EQ(std::string(out), cacheDir() + name);
    // Whole words are read: the file is padded with zeros to a multiple of 4.
    std::vector<uint8_t> expected = xml;
    expected.resize((expected.size() + 3) / 4 * 4, 0);
    EXPECT_EQ(readFile(out), expected);

    // The cached file is trusted by name and not fetched again.
    tqsim::clearReceivedReports(sim_);
    ASSERT_EQ(resolve(location, out), 0U);
    EXPECT_TRUE(tqsim::receivedReports(sim_).empty());
    ASSERT_EQ(chan().Disconnect(nullptr, false), 0U);
  }
}

TEST_F(BootstrapTest, LocationsAreResolvedByTheirPrefix) {
  connect();
  const std::pair<const char*, uint32_t> cases[] = {{"LOCAL:upper.xml;100000;10", 0},
                                                    {"file:/opt/cam/desc.XML", 0},
                                                    {"file:/opt/cam/desc.txt", 0x8FFF},
                                                    {"http://example.invalid/d.xml", 0x8001},
                                                    {"HTTP:x", 0x8001},
                                                    {"ftp:x", 0x8FFF},
                                                    {"", 0x8FFF}};
  for (const auto& [location, status] : cases) {
    char out[256] = "-";
    EXPECT_EQ(resolve(location, out), status) << location;
  }
  EXPECT_TRUE(std::filesystem::exists(cacheDir() + "upper.xml"));
  EXPECT_TRUE(log_.contains("GetXMLFile: Error, Webbased XML location not yet supported", RKLOG_FATAL));

  // The size is raised to whole words.
  char out[256] = {};
  ASSERT_EQ(resolve("local:odd.xml;100000;3e9", out), 0U);
  EXPECT_TRUE(log_.contains("GetXMLFile: Address=0x00100000, Size=1001-1004"));
  EXPECT_EQ(std::filesystem::file_size(cacheDir() + "odd.xml"), 1004U);
}

TEST_F(BootstrapTest, NamesThatWouldLeaveTheCacheAreRefused) {
  connect();
  const std::string outside = tempDir() + "/escaped.xml";
  for (const std::string& name : {std::string("../escaped.xml"), outside, std::string("sub/x.xml"),
                                  std::string(".."), std::string("."), std::string()}) {
    log_.clear();
    char out[256] = "-";
    EXPECT_EQ(resolve("local:" + name + ";100000;10", out), 0x8001U) << name;
    EXPECT_STREQ(out, "-");
    EXPECT_TRUE(log_.contains("leaves the cache directory", RKLOG_ERROR)) << name;
  }
  EXPECT_FALSE(std::filesystem::exists(outside));
  EXPECT_TRUE(std::filesystem::is_empty(cacheDir()));
}

TEST_F(BootstrapTest, MessageChannelRefuses) {
  TqUvcMsgChan& msg = *dev_->GetMsgChan();
  EXPECT_EQ(msg.Open(), 0x8FFFU);
  EXPECT_EQ(log_.countExact("TqUvcMsgChan::open: control channel not connected", RKLOG_DEBUG), 1U);
  connect();
  EXPECT_EQ(msg.Open(), 0x8FFFU);
  EXPECT_EQ(log_.countExact("TqUvcMsgChan::open: EIRM not available (by cap register)", RKLOG_DEBUG), 1U);
  EXPECT_EQ(msg.Close(), 0U);
  tqsim::clearReceivedReports(sim_);
  EXPECT_EQ(msg.DisableEvents(), static_cast<uint32_t>(-1));
  EXPECT_TRUE(tqsim::receivedReports(sim_).empty());
  EXPECT_EQ(msg.RegisterMsgCallback(nullptr, 0, 0), 0U);
}

}  // namespace
}  // namespace ctltest
