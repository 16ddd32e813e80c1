// Ini files through libtq.tarquel.ini. The first byte picks the comment
// characters, the rest is the file. Every section/key pair the text seems to
// name is read back, plus the library's own settings.
#include <rkini.h>

#include <string>
#include <utility>
#include <vector>

#include "FuzzSupport.h"

namespace {

const char* const kCommentChars[] = {nullptr, ";#", "!", "", "=[", ";"};
constexpr size_t kCommentCount = sizeof kCommentChars / sizeof kCommentChars[0];
constexpr long kDefault = -0x5EED;

std::string trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t' || s[b] == '\r')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\r')) --e;
  return s.substr(b, e - b);
}

// Loose reading of [section] and key=value / key:value lines: names to ask for,
// not a second parser.
std::vector<std::pair<std::string, std::string>> namesIn(const std::string& text) {
  std::vector<std::pair<std::string, std::string>> names = {
      {"Tq.Uvc", "CheckConnectionStatus"}, {"MISC.Options", "MISC.AutoConnect"}, {"Tq.Uvc", "TEST_CASE"}};
  std::string section;
  size_t pos = 0;
  while (pos < text.size() && names.size() < 64) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    const std::string line = trim(text.substr(pos, end - pos));
    pos = end + 1;
    if (!line.empty() && line[0] == '[') {
      section = line.substr(1, line.find(']') == std::string::npos ? std::string::npos : line.find(']') - 1);
      continue;
    }
    const size_t sep = line.find_first_of("=:");
    if (sep != std::string::npos) names.emplace_back(section, trim(line.substr(0, sep)));
  }
  return names;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const char* comments = kCommentChars[in.byte() % kCommentCount];
  const std::string text = in.rest();
  if (!fuzz::writeScratch(text.data(), text.size())) fuzz::fail("cannot write the scratch file");

  RkIniHandle ini = RkIniOpen(comments);
  if (ini == nullptr) fuzz::fail("RkIniOpen failed");
  const bool loaded = RkIniLoad(ini, fuzz::scratchFile().c_str()) != 0;

  const auto names = namesIn(text);
  std::vector<long> values;
  for (const auto& [section, key] : names) {
    const long hex = RkIniGetInteger(ini, section.c_str(), key.c_str(), kDefault, 1);
    const long dec = RkIniGetInteger(ini, section.c_str(), key.c_str(), kDefault, 0);
    if (!loaded && (hex != kDefault || dec != kDefault)) fuzz::fail("a value without a loaded file");
    values.push_back(hex);
  }
  if (RkIniGetInteger(ini, nullptr, "x", kDefault, 1) != kDefault && !loaded)
    fuzz::fail("a value without a loaded file");
  if (RkIniGetInteger(ini, "x", nullptr, kDefault, 1) != kDefault) fuzz::fail("a value for a null key");

  // A failed load keeps what the object held.
  if (RkIniLoad(ini, (fuzz::scratchFile() + ".missing").c_str()) != 0) fuzz::fail("missing file loaded");
  for (size_t i = 0; i < names.size(); ++i) {
    if (RkIniGetInteger(ini, names[i].first.c_str(), names[i].second.c_str(), kDefault, 1) != values[i])
      fuzz::fail("a failed load changed the content");
  }
  RkIniClose(ini);
  return 0;
}
