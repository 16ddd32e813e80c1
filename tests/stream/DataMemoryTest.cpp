// The choice of the next buffer from the client's lock table, without a camera.
#include <gtest/gtest.h>
#include <rklog.h>

#include <cstring>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "stream/TqUvcDataMemory.h"

namespace {

constexpr uint32_t L = TQUVC_LOCKED;

struct NextIndexCase {
  const char* name;
  std::vector<uint32_t> lockTable;  // empty: no lock table configured
  uint32_t nBuffers;
  std::vector<uint32_t> expected;  // results of successive calls from index 0
  uint32_t frameWord;              // current-frame word afterwards
  const char* fatal;               // a Fatal line that must appear, or null
};

class NextIndexTest : public ::testing::TestWithParam<NextIndexCase> {};

TEST_P(NextIndexTest, FollowsTheRingAndSearchesPastLockedBuffers) {
  const NextIndexCase& c = GetParam();
  std::vector<uint64_t> addresses(c.nBuffers + 1, 0x1000);
  std::vector<uint32_t> sizes(c.nBuffers + 1, 64);
  std::vector<uint32_t> table = c.lockTable;
  // The word sits at an odd address, as a client may pack it.
  uint8_t frameWordBytes[5] = {0, 0xEE, 0xEE, 0xEE, 0xEE};

  TqUvcDataMemory memory;
  memory.CfgBuffers(addresses.data(), sizes.data(), c.nBuffers);
  if (!table.empty()) memory.CfgLockTable(table.data(), frameWordBytes + 1);
  tqtest::LogCapture log;
  for (size_t i = 0; i < c.expected.size(); ++i)
    EXPECT_EQ(memory.GetNextBufferIndex(), c.expected[i]) << c.name << " call " << i;
  EXPECT_EQ(memory.GetCurrentIndex(), c.expected.back());

  uint32_t word = 0;
  memcpy(&word, frameWordBytes + 1, sizeof(word));
  EXPECT_EQ(word, c.frameWord) << c.name;
  EXPECT_EQ(frameWordBytes[0], 0) << c.name;
  if (c.fatal != nullptr)
    EXPECT_TRUE(log.contains(c.fatal, RKLOG_FATAL)) << c.name;
  else
    EXPECT_EQ(log.count("", RKLOG_FATAL), 0u) << c.name;
  // The library only reads the lock table.
  EXPECT_EQ(table, c.lockTable) << c.name;
}

constexpr uint32_t kUntouched = 0xEEEEEEEE;

INSTANTIATE_TEST_SUITE_P(
    DataMemory, NextIndexTest,
    ::testing::Values(
        NextIndexCase{"ring", {1, 2, 0}, 3, {1, 2, 0}, 0, nullptr},
        NextIndexCase{"skips locked", {L, L, 0}, 3, {2}, 2, nullptr},
        NextIndexCase{"search wraps", {L, 0, L}, 3, {1}, 1, nullptr},
        NextIndexCase{"all locked",
                      {L, L, L},
                      3,
                      {0, 0},
                      0,
                      "GetNextBufferIndex:: Fatal: cannot find a free entry! Keep current idx!"},
        NextIndexCase{"one locked buffer", {L}, 1, {0}, 0, "cannot find a free entry! Keep current idx!"},
        NextIndexCase{"ring word out of range",
                      {7, 2, 3, 0},
                      4,
                      {7, 7},
                      7,
                      "GetNextBufferIndex:: Fatal: index out of range (CurrIdx=7)!"},
        NextIndexCase{
            "next buffer locked", {1, L}, 2, {1}, 1, "new index points to a locked buffer (CurrIdx=1)!"},
        NextIndexCase{
            "next word unknown", {1, 9}, 2, {1}, 1, "new index points to a unknown buffer (CurrIdx=1)!"},
        NextIndexCase{"no lock table", {}, 3, {1, 2, 0, 1}, kUntouched, nullptr},
        NextIndexCase{"no buffers", {}, 0, {0, 0}, kUntouched, "index out of range (CurrIdx=0)"},
        NextIndexCase{"no buffers, lock table", {0}, 0, {0}, kUntouched, "index out of range (CurrIdx=0)"}),
    [](const ::testing::TestParamInfo<NextIndexCase>& info) {
      std::string name = info.param.name;
      for (char& ch : name)
        if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
      return name;
    });

TEST(DataMemory, BufferLookupsAreBoundedAndDestroyForgetsTheTablesButNotTheIndex) {
  std::vector<uint64_t> addresses = {0x1000, 0x2000};
  std::vector<uint32_t> sizes = {100, 50};
  std::vector<uint32_t> table = {1, L};
  uint32_t frameWord = 0;
  TqUvcDataMemory memory;
  EXPECT_EQ(memory.GetAtIndex(0), 0u);
  EXPECT_EQ(memory.GetBufferSize(0), 0u);
  EXPECT_EQ(memory.GetNrFreeBuffer(), 0u);

  memory.CfgBuffers(addresses.data(), sizes.data(), 2);
  memory.CfgLockTable(table.data(), reinterpret_cast<uint8_t*>(&frameWord));
  EXPECT_EQ(memory.GetAtIndex(1), 0x2000u);
  EXPECT_EQ(memory.GetAtIndex(2), 0u);
  EXPECT_EQ(memory.GetBufferSize(0), 100u);
  EXPECT_EQ(memory.GetBufferSize(2), 0u);
  EXPECT_EQ(memory.GetNrFreeBuffer(), 1u);

  _tagTqUvcBufDimension dim{};
  dim.LineIncrement = 2560;
  dim.Reserved[27] = 9;
  memory.CfgBufferDim(&dim);
  EXPECT_EQ(memcmp(&memory.GetBufDimension(), &dim, sizeof(dim)), 0);

  EXPECT_EQ(memory.GetNextBufferIndex(), 1u);
  EXPECT_EQ(memory.Destroy(), 0u);
  EXPECT_EQ(memory.GetCurrentIndex(), 1u);
  EXPECT_EQ(memory.GetNrBuffers(), 0u);
  EXPECT_EQ(memory.GetAtIndex(0), 0u);
  EXPECT_EQ(memory.GetNrFreeBuffer(), 0u);
  EXPECT_EQ(memory.GetBufDimension().LineIncrement, 0u);
  EXPECT_EQ(memory.CfgBufferDim(nullptr), 0u);
}

}  // namespace
