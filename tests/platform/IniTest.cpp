#include <gtest/gtest.h>
#include <rkini.h>

#include <fstream>
#include <memory>
#include <string>
#include <tuple>

#include "TestEnv.h"

namespace {

struct IniCloser {
  void operator()(RkIni* ini) const { RkIniClose(ini); }
};
using IniPtr = std::unique_ptr<RkIni, IniCloser>;

class IniTest : public ::testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& text) {
    std::string path = (env_.dir() / name).string();
    std::ofstream(path) << text;
    return path;
  }
  tqtest::TestEnv env_;
};

TEST_F(IniTest, IntegerFormatsCaseAndDefaults) {
  IniPtr ini(RkIniOpen(nullptr));
  EXPECT_EQ(RkIniLoad(ini.get(), (env_.dir() / "missing.ini").c_str()), 0);
  EXPECT_EQ(RkIniGetInteger(ini.get(), "Tq.Uvc", "Timeout", -1, 1), -1);  // no file, defaults
  std::string path = write("a.ini",
                           "; comment\n"
                           "[Tq.Uvc]\n"
                           "Timeout = 6000\n"
                           "Negative=-42\n"
                           "Hex = 0x1F\n"
                           "Garbage = 12abc\n");
  ASSERT_EQ(RkIniLoad(ini.get(), path.c_str()), 1);
  const std::tuple<const char*, const char*, int, long> cases[] = {
      {"Tq.Uvc", "Timeout", 1, 6000}, {"TQ.UVC", "timeout", 0, 6000}, {"Tq.Uvc", "Negative", 0, -42},
      {"Tq.Uvc", "Hex", 1, 0x1F},     {"Tq.Uvc", "Hex", 0, -1},  // hex only when asked for
      {"Tq.Uvc", "Garbage", 1, -1},   {"Tq.Uvc", "Missing", 1, -1},   {"Nowhere", "Timeout", 1, -1},
  };
  for (const auto& [section, key, flags, expected] : cases)
    EXPECT_EQ(RkIniGetInteger(ini.get(), section, key, -1, flags), expected)
        << section << "/" << key << " flags " << flags;
}

TEST_F(IniTest, CommentCharactersAreThoseGiven) {
  std::string path = write("bang.ini", "! bang comment\n[S]\nA = 5 ! why\n");
  IniPtr bang(RkIniOpen("!"));
  ASSERT_EQ(RkIniLoad(bang.get(), path.c_str()), 1);
  EXPECT_EQ(RkIniGetInteger(bang.get(), "S", "A", -1, 1), 5);
  IniPtr plain(RkIniOpen(nullptr));
  EXPECT_EQ(RkIniLoad(plain.get(), path.c_str()), 0);  // "!" lines are no comments there
}

}  // namespace
