// The choice of the next buffer from the client's lock table, without a camera.
#include <gtest/gtest.h>
#include <rklog.h>

#include <cstring>
#include <vector>

#include "LogCapture.h"
#include "stream/TqUvcDataMemory.h"

namespace {

constexpr uint32_t L = TQUVC_LOCKED;
constexpr uint32_t kUntouched = 0xEEEEEEEE;

struct NextIndexCase {
  const char* name;
  std::vector<uint32_t> lockTable;  // empty: no lock table configured
  uint32_t nBuffers;
  std::vector<uint32_t> expected;  // results of successive calls from index 0
  uint32_t frameWord;              // current-frame word afterwards
  const char* fatal;               // a Fatal line that must appear, or null
};

TEST(DataMemory, NextIndexFollowsTheRingAndSearchesPastLockedBuffers) {
  const NextIndexCase cases[] = {
      {"ring", {1, 2, 0}, 3, {1, 2, 0}, 0, nullptr},
      {"skips locked", {L, L, 0}, 3, {2}, 2, nullptr},
      {"search wraps", {L, 0, L}, 3, {1}, 1, nullptr},
      {"all locked", {L, L, L}, 3, {0, 0}, 0, "Fatal: cannot find a free entry! Keep current idx!"},
      {"one locked buffer", {L}, 1, {0}, 0, "cannot find a free entry! Keep current idx!"},
      {"ring word out of range", {7, 2, 3, 0}, 4, {7, 7}, 7, "Fatal: index out of range (CurrIdx=7)!"},
      {"next buffer locked", {1, L}, 2, {1}, 1, "new index points to a locked buffer (CurrIdx=1)!"},
      {"next word unknown", {1, 9}, 2, {1}, 1, "new index points to a unknown buffer (CurrIdx=1)!"},
      {"no lock table", {}, 3, {1, 2, 0, 1}, kUntouched, nullptr},
      {"no buffers", {}, 0, {0, 0}, kUntouched, "index out of range (CurrIdx=0)"},
      {"no buffers, lock table", {0}, 0, {0}, kUntouched, "index out of range (CurrIdx=0)"},
  };
  for (const NextIndexCase& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<uint64_t> addresses(c.nBuffers + 1, 0x1000);
    std::vector<uint32_t> sizes(c.nBuffers + 1, 64);
    std::vector<uint32_t> table = c.lockTable;
    uint8_t frameWordBytes[5] = {0, 0xEE, 0xEE, 0xEE, 0xEE};  // a client may pack the word unaligned
    TqUvcDataMemory memory;
    memory.CfgBuffers(addresses.data(), sizes.data(), c.nBuffers);
    if (!table.empty()) memory.CfgLockTable(table.data(), frameWordBytes + 1);
    tqtest::LogCapture log;
    for (uint32_t want : c.expected) EXPECT_EQ(memory.GetNextBufferIndex(), want);

    uint32_t word = 0;
    memcpy(&word, frameWordBytes + 1, sizeof(word));
    EXPECT_EQ(word, c.frameWord);
    EXPECT_EQ(frameWordBytes[0], 0);
    EXPECT_EQ(log.count(c.fatal != nullptr ? c.fatal : "", RKLOG_FATAL) > 0, c.fatal != nullptr);
    EXPECT_EQ(table, c.lockTable);  // the library only reads the lock table
  }
}

TEST(DataMemory, LookupsAreBoundedAndDestroyForgetsTheTablesButNotTheIndex) {
  uint64_t addresses[] = {0x1000, 0x2000};
  uint32_t sizes[] = {100, 50};
  uint32_t table[] = {1, L};
  uint32_t frameWord = 0;
  TqUvcDataMemory memory;
  memory.CfgBuffers(addresses, sizes, 2);
  memory.CfgLockTable(table, reinterpret_cast<uint8_t*>(&frameWord));
  EXPECT_EQ(memory.GetAtIndex(2) + memory.GetBufferSize(2), 0u);
  EXPECT_EQ(memory.GetNrFreeBuffer(), 1u);
  EXPECT_EQ(memory.GetNextBufferIndex(), 1u);
  EXPECT_EQ(memory.Destroy(), 0u);
  EXPECT_EQ(memory.GetCurrentIndex(), 1u);
  EXPECT_EQ(memory.GetAtIndex(0), 0u);
  EXPECT_EQ(memory.GetNrFreeBuffer(), 0u);
}

}  // namespace
