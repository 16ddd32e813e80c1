#include <gtest/gtest.h>
#include <rkini.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "TestEnv.h"

namespace fs = std::filesystem;

namespace {

struct IniCloser {
  void operator()(RkIni* ini) const { RkIniClose(ini); }
};
using IniPtr = std::unique_ptr<RkIni, IniCloser>;

class IniTest : public ::testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& text) {
    fs::path p = env_.dir() / name;
    std::ofstream(p) << text;
    return p.string();
  }
  tqtest::TestEnv env_;
  const fs::path& dir_ = env_.dir();
};

TEST_F(IniTest, ValuesFormatsAndCase) {
  IniPtr ini(RkIniOpen(nullptr));
  ASSERT_TRUE(ini);
  std::string path = write("a.ini",
                           "; comment\n"
                           "# another comment\n"
                           "top = 3\n"
                           "[Tq.Uvc]\n"
                           "AcquisitionTimeout = 6000\n"
                           "Negative=-42\n"
                           "Hex = 0x1F\n"
                           "HexUpper = 0XfF\n"
                           "NegHex = -0x10\n"
                           "Spaces   =   17   \r\n"
                           "Trailing = 12 ; note\n"
                           "Hashed = 13 # note\n"
                           "Garbage = 12abc\n"
                           "Empty =\n"
                           "Huge = 99999999999999999999\n"
                           "Max = 9223372036854775807\n"
                           "Min = -9223372036854775808\n"
                           "Twice = 1\n"
                           "Colon: 5\n"
                           "Octalish = 010\n"
                           "    Indented = 8\n"
                           "AKeyThatIsLongerThanTheParserKeepsOfAnyNameAtAll_X = 9\n"
                           "[MISC.Options]\n"
                           "MISC.AutoConnect=1\n"
                           "[tq.uvc]\n"
                           "twice = 2\n");
  ASSERT_EQ(RkIniLoad(ini.get(), path.c_str()), 1);
  struct Case {
    const char* section;
    const char* key;
    int flags;
    long expected;
  } cases[] = {
      {"Tq.Uvc", "AcquisitionTimeout", 1, 6000},
      {"TQ.UVC", "acquisitiontimeout", 0, 6000},
      {"Tq.Uvc", "Negative", 0, -42},
      {"Tq.Uvc", "Hex", 1, 0x1F},
      {"Tq.Uvc", "Hex", 0, -1},  // hex only when asked for
      {"Tq.Uvc", "HexUpper", 1, 0xFF},
      {"Tq.Uvc", "NegHex", 1, -16},
      {"Tq.Uvc", "Spaces", 1, 17},
      {"Tq.Uvc", "Trailing", 1, 12},
      {"Tq.Uvc", "Hashed", 1, 13},
      {"Tq.Uvc", "Garbage", 1, -1},
      {"Tq.Uvc", "Empty", 1, -1},
      {"Tq.Uvc", "Huge", 1, -1},
      {"Tq.Uvc", "Max", 1, LONG_MAX},
      {"Tq.Uvc", "Min", 1, LONG_MIN},
      {"Tq.Uvc", "Twice", 1, 2},  // a section may come back; the later value wins
      {"Tq.Uvc", "Colon", 1, 5},
      {"Tq.Uvc", "Octalish", 1, 10},
      {"Tq.Uvc", "Indented", 1, 8},
      {"Tq.Uvc", "akeythatislongerthantheparserkeepsofanynameatall_x", 1, 9},
      {"Tq.Uvc", "Octalish", 0, 10},  // not swallowed as a multi-line value
      {"Tq.Uvc", "Missing", 1, -1},
      {"misc.options", "MISC.AUTOCONNECT", 1, 1},
      {"Nowhere", "AcquisitionTimeout", 1, -1},
      {"", "top", 1, 3},
      {nullptr, "top", 1, 3},
      {"Tq.Uvc", nullptr, 1, -1},
  };
  for (const Case& c : cases)
    EXPECT_EQ(RkIniGetInteger(ini.get(), c.section, c.key, -1, c.flags), c.expected)
        << (c.section ? c.section : "null") << "/" << (c.key ? c.key : "null") << " flags " << c.flags;
}

TEST_F(IniTest, ReloadReplacesAndFailureKeepsContent) {
  IniPtr ini(RkIniOpen(";"));
  std::string first = write("first.ini", "[S]\nA=1\nB=2\n");
  std::string second = write("second.ini", "[S]\nA=10\n");
  std::string broken = write("broken.ini", "[S]\nA=99\nthis line has no separator\n");
  EXPECT_EQ(RkIniGetInteger(ini.get(), "S", "A", 7, 1), 7);  // nothing loaded yet
  ASSERT_EQ(RkIniLoad(ini.get(), first.c_str()), 1);
  ASSERT_EQ(RkIniLoad(ini.get(), second.c_str()), 1);
  EXPECT_EQ(RkIniGetInteger(ini.get(), "S", "A", 7, 1), 10);
  EXPECT_EQ(RkIniGetInteger(ini.get(), "S", "B", 7, 1), 7);  // gone with the old file
  EXPECT_EQ(RkIniLoad(ini.get(), broken.c_str()), 0);
  EXPECT_EQ(RkIniLoad(ini.get(), (dir_ / "missing.ini").c_str()), 0);
  EXPECT_EQ(RkIniLoad(ini.get(), dir_.c_str()), 0);  // a directory is no file
  EXPECT_EQ(RkIniGetInteger(ini.get(), "S", "A", 7, 1), 10);
  std::string empty = write("empty.ini", "");
  EXPECT_EQ(RkIniLoad(ini.get(), empty.c_str()), 1);
  EXPECT_EQ(RkIniGetInteger(ini.get(), "S", "A", 7, 1), 7);
}

TEST_F(IniTest, CommentCharactersAreThoseGiven) {
  std::string text = "! bang comment\n[S]\nA = 5 ! why\n" + std::string("!") + std::string(300, 'c') + "\n";
  std::string path = write("bang.ini", text);
  IniPtr bang(RkIniOpen("!"));
  ASSERT_EQ(RkIniLoad(bang.get(), path.c_str()), 1);
  EXPECT_EQ(RkIniGetInteger(bang.get(), "S", "A", -1, 1), 5);
  IniPtr plain(RkIniOpen(nullptr));
  EXPECT_EQ(RkIniLoad(plain.get(), path.c_str()), 0);  // "!" lines are no comments there

  std::string longValue = write("long.ini", "[S]\nA = " + std::string(250, '1') + "\n");
  EXPECT_EQ(RkIniLoad(plain.get(), longValue.c_str()), 0);
}

TEST(IniHandle, NullIsHarmless) {
  EXPECT_EQ(RkIniGetInteger(nullptr, "S", "A", 42, 1), 42);
  EXPECT_EQ(RkIniLoad(nullptr, "/nonexistent"), 0);
  IniPtr ini(RkIniOpen(""));
  EXPECT_EQ(RkIniLoad(ini.get(), nullptr), 0);
  RkIniClose(nullptr);
}

}  // namespace
