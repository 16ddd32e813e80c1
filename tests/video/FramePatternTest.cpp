// The test pattern must expose the faults a frame path makes: a wrong frame,
// a shifted or torn copy, a zero-filled buffer.
#include <gtest/gtest.h>
#include <tqsim/FramePattern.h>

#include <algorithm>
#include <functional>
#include <vector>

namespace {

TEST(FramePatternTest, VerifyFindsTheFirstWrongByteOfDamagedFrames) {
  constexpr size_t kSize = 320 * 240 * 2;
  std::vector<uint8_t> frame(kSize);
  tqsim::fillFrame(frame.data(), kSize, 41);
  uint32_t number = 0;
  size_t bad = 1;
  ASSERT_TRUE(tqsim::verifyFrame(frame.data(), kSize, &number, &bad));
  EXPECT_EQ(number, 41u);

  std::vector<uint8_t> other(kSize);
  tqsim::fillFrame(other.data(), kSize, 42);
  struct Case {
    const char* name;
    std::function<void(std::vector<uint8_t>&)> damage;
    size_t firstBad;
  };
  const std::vector<Case> cases = {
      {"one byte flipped", [](auto& f) { f[5000] ^= 1; }, 5000},
      {"last byte", [](auto& f) { f[kSize - 1] ^= 0x80; }, kSize - 1},
      {"zero filled", [](auto& f) { std::fill(f.begin(), f.end(), 0); }, 0},
      {"tail of the next frame",
       [&](auto& f) { std::copy(other.begin() + 100000, other.end(), f.begin() + 100000); }, 100000},
      {"shifted by one line", [](auto& f) { std::copy(f.begin() + 640, f.end(), f.begin() + 8); }, 8},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<uint8_t> damaged = frame;
    c.damage(damaged);
    EXPECT_FALSE(tqsim::verifyFrame(damaged.data(), kSize, nullptr, &bad));
    EXPECT_EQ(bad, c.firstBad);
  }
  EXPECT_FALSE(tqsim::verifyFrame(frame.data(), 7));
  EXPECT_FALSE(tqsim::verifyFrame(nullptr, kSize));
}

}  // namespace
