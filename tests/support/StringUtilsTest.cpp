#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "LogCapture.h"
#include "support/StringUtils.h"

namespace {

constexpr const char* kBreakText = "should not happen! let qz know about it!";

TEST(SupportStrings, SafeStrCpyCopiesBoundedAndNeverWritesPastMaxlen) {
  struct Case {
    const char* src;
    size_t maxlen;
    const char* expected;
    bool breaks;
  };
  const Case cases[] = {
      {"abcdef", 4, "abc", false},                         // cut, terminated at maxlen - 1
      {"abcd", 4, "abc", false},                           // exactly maxlen characters still needs the cut
      {"abc", 4, "abc", false},                            // fits with its terminator
      {"", 4, "", false},          {"ab", 2, "a", false},  // smallest useful buffer
      {"abcdef", 1, "", true},                             // no room for a character: empty and a break
      {nullptr, 8, "", true},                              // null source: empty and a break
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.src ? c.src : "(null)") + " / " + std::to_string(c.maxlen));
    tqtest::LogCapture log;
    char buf[16];
    memset(buf, 'X', sizeof(buf));
    rk::SafeStrCpy(buf, c.src, c.maxlen);
    EXPECT_STREQ(buf, c.expected);
    for (size_t i = c.maxlen; i < sizeof(buf); ++i) ASSERT_EQ(buf[i], 'X') << "written past maxlen at " << i;
    EXPECT_EQ(log.count(kBreakText), c.breaks ? 1u : 0u);
  }
}

TEST(SupportStrings, SafeStrCpyWithoutDestinationOnlyBreaks) {
  tqtest::LogCapture log;
  char buf[4] = {'X', 'X', 'X', 'X'};
  rk::SafeStrCpy(buf, "abc", 0);
  EXPECT_EQ(buf[0], 'X');
  rk::SafeStrCpy(nullptr, "abc", 4);
  EXPECT_EQ(log.count(kBreakText), 2u);
}

TEST(SupportStrings, CacheFileNamesKeepOnlySafeCharacters) {
  struct Case {
    std::string in;
    std::string expected;
  };
  const Case cases[] = {
      {"a/b:c d", "a.b.c d"},
      {"Az09 _~", "Az09 _~"},
      {"../x\\y*?", "...x.y.."},
      {"\xc3\xa4\t", "..."},  // bytes above 0x7f and control characters
      {"", ""},
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
  struct Case {
    const char* text;
    bool own;
  };
  const Case cases[] = {
      {"KOR GmbH", true},   {"made by Kormand Sensor Works Ltd", true},
      {"xKOR GmbHx", true}, {"kor gmbh", false},
      {"KOR Gmb", false},   {"Kormand Sensor", false},
      {"", false},          {nullptr, false},
  };
  for (const auto& c : cases) EXPECT_EQ(IsOwnDevice(c.text), c.own) << (c.text ? c.text : "(null)");
}

}  // namespace
