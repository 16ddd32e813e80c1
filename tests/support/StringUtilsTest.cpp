#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "LogCapture.h"
#include "support/StringUtils.h"

namespace {

TEST(SupportStrings, SafeStrCpyCopiesBoundedAndNeverWritesPastMaxlen) {
  const struct {
    const char* src;
    size_t maxlen;
    const char* expected;  // null: dst must stay untouched
    bool breaks;
  } cases[] = {
      {"abcdef", 4, "abc", false}, {"abcd", 4, "abc", false}, {"abc", 4, "abc", false},
      {"ab", 2, "a", false},       {"abcdef", 1, "", true},   {nullptr, 8, "", true},
      {"abc", 0, nullptr, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.src ? c.src : "(null)") + " / " + std::to_string(c.maxlen));
    tqtest::LogCapture log;
    char buf[16];
    memset(buf, 'X', sizeof(buf));
    rk::SafeStrCpy(buf, c.src, c.maxlen);
    if (c.expected) {
      EXPECT_STREQ(buf, c.expected);
    }
    for (size_t i = c.maxlen; i < sizeof(buf); ++i) ASSERT_EQ(buf[i], 'X') << "written at " << i;
    EXPECT_EQ(log.count("should not happen! let qz know about it!"), c.breaks ? 1u : 0u);
  }
}

TEST(SupportStrings, CacheFileNamesKeepOnlySafeCharacters) {
  const struct {
    std::string in, expected;
  } cases[] = {
      {"a/b:c d", "a.b.c d"},
      {"Az09 _~", "Az09 _~"},
      {"../x\\y*", "...x.y."},
      {"\xc3\xa4\t", "..."},  // bytes above 0x7f and control characters
  };
  for (const auto& c : cases) {
    std::string s = c.in;
    rk::ReplaceInvalidFileNameChars(s);
    EXPECT_EQ(s, c.expected) << c.in;
  }

  // The way cache names are built: blanks to '_' first, then the rest.
  std::string name = "KOR GmbH: Cam/1";
  rk::ReplaceChar(name, ' ', '_');
  rk::ReplaceInvalidFileNameChars(name);
  EXPECT_EQ(name, "KOR_GmbH._Cam.1");
}

TEST(SupportStrings, IsOwnDeviceMatchesMakersCaseSensitively) {
  EXPECT_TRUE(IsOwnDevice("KOR GmbH"));
  EXPECT_TRUE(IsOwnDevice("made by Kormand Sensor Works Ltd"));
  EXPECT_FALSE(IsOwnDevice("kor gmbh"));
  EXPECT_FALSE(IsOwnDevice("Kormand Sensor"));
  EXPECT_FALSE(IsOwnDevice(nullptr));
}

}  // namespace
