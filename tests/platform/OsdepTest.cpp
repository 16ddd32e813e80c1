#include <fcntl.h>
#include <gtest/gtest.h>
#include <rkosdep.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "TestEnv.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

template <typename Pred>
bool waitUntil(Pred pred, std::chrono::milliseconds timeout = 5s) {
  auto deadline = Clock::now() + timeout;
  while (!pred()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

long long msSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

TEST(OsdepCriticalSection, RecursiveOwnerBlocksOthersUntilFullyLeft) {
  RkOsCriticalSection cs;
  RkOsInitializeCriticalSection(&cs, "Test:Lock:with a rather long name beyond the field");
  EXPECT_EQ(std::string(cs.name).size(), sizeof(cs.name) - 1);
  RkOsEnterCriticalSection(&cs);
  RkOsEnterCriticalSection(&cs);
  std::atomic<bool> otherIn{false};
  std::thread other([&] {
    RkOsEnterCriticalSection(&cs);
    otherIn = true;
    RkOsLeaveCriticalSection(&cs);
  });
  RkOsLeaveCriticalSection(&cs);
  EXPECT_FALSE(waitUntil([&] { return otherIn.load(); }, 100ms)) << "entered a lock still held once";
  RkOsLeaveCriticalSection(&cs);
  EXPECT_TRUE(waitUntil([&] { return otherIn.load(); }));
  other.join();
  RkOsDeleteCriticalSection(&cs);
  RkOsDeleteCriticalSection(&cs);
  EXPECT_EQ(cs.initialized, 0);
}

TEST(OsdepCriticalSection, MisuseIsReportedNotFatal) {
  tqtest::LogCapture cap;
  RkOsCriticalSection cs{};
  RkOsEnterCriticalSection(&cs);  // never initialised
  RkOsEnterCriticalSection(nullptr);
  EXPECT_EQ(cap.count("not initialised", RKLOG_ERROR), 2u);
  RkOsInitializeCriticalSection(&cs, nullptr);
  RkOsEnterCriticalSection(&cs);
  RkOsDeleteCriticalSection(&cs);  // still held: refused, lock stays usable
  EXPECT_EQ(cs.initialized, 1);
  EXPECT_TRUE(cap.contains("is still held", RKLOG_ERROR));
  RkOsLeaveCriticalSection(&cs);
  RkOsDeleteCriticalSection(&cs);
  EXPECT_EQ(cs.initialized, 0);
}

TEST(OsdepEvent, WaitResults) {
  RkOsEvent ev;
  RkOsInvalidateEvent(&ev);
  EXPECT_EQ(RkOsWaitForEvent(&ev, 0), 1);  // poll, not signalled

  auto start = Clock::now();
  EXPECT_EQ(RkOsWaitForEvent(&ev, 60), 1);
  EXPECT_GE(msSince(start), 60);

  // Manual reset: stays signalled for every waiter until reset.
  EXPECT_EQ(RkOsSetEvent(&ev), 0);
  EXPECT_EQ(RkOsWaitForEvent(&ev, 0), 0);
  EXPECT_EQ(RkOsWaitForEvent(&ev, 10), 0);
  EXPECT_EQ(RkOsWaitForEvent(&ev, RKOS_INFINITE), 0);
  EXPECT_EQ(RkOsResetEvent(&ev), 0);
  EXPECT_EQ(RkOsWaitForEvent(&ev, 0), 1);

  // Signalled from another thread while waiting, both timed and unbounded.
  for (uint32_t timeout : {uint32_t{10000}, RKOS_INFINITE}) {
    RkOsResetEvent(&ev);
    std::atomic<int> result{-2};
    std::atomic<bool> waiting{false};
    std::thread waiter([&] {
      waiting = true;
      result = RkOsWaitForEvent(&ev, timeout);
    });
    EXPECT_TRUE(waitUntil([&] { return waiting.load(); }));
    start = Clock::now();
    RkOsSetEvent(&ev);
    waiter.join();
    EXPECT_EQ(result, 0);
    EXPECT_LT(msSince(start), 5000);
  }

  RkOsDestroyEvent(&ev);
  RkOsDestroyEvent(&ev);
  EXPECT_EQ(RkOsSetEvent(&ev), -1);
  EXPECT_EQ(RkOsResetEvent(&ev), -1);
  EXPECT_EQ(RkOsWaitForEvent(&ev, 0), -1);
  EXPECT_EQ(RkOsWaitForEvent(nullptr, 0), -1);
}

struct Body {
  std::atomic<bool> running{false};
  std::atomic<bool> exitRequested{false};
  std::atomic<bool> release{false};
  RkOsEvent* event = nullptr;
};

void* quickBody(void* arg) {
  static_cast<Body*>(arg)->running = true;
  return arg;
}

// Sleeps in a loop and never looks at its exit request.
void* sleepyBody(void* arg) {
  static_cast<Body*>(arg)->running = true;
  for (;;) RkOsSleep(10);
  return nullptr;
}

void* eventBody(void* arg) {
  auto* b = static_cast<Body*>(arg);
  b->running = true;
  RkOsWaitForEvent(b->event, RKOS_INFINITE);
  return nullptr;
}

// Spins without a cancellation point until released.
void* stubbornBody(void* arg) {
  auto* b = static_cast<Body*>(arg);
  b->running = true;
  while (!b->release.load()) {
  }
  return nullptr;
}

TEST(OsdepThread, BodyThatEndsIsJoined) {
  RkOsThread t;
  RkOsInvalidateThread(&t, "quick");
  EXPECT_EQ(RkOsWaitForThread(&t, 0), 0);  // nothing started
  EXPECT_EQ(RkOsTerminateThread(&t), 0);
  Body body;
  ASSERT_EQ(RkOsCreateThread(&t, quickBody, &body), 0);
  EXPECT_EQ(RkOsCreateThread(&t, quickBody, &body), EBUSY);
  EXPECT_EQ(RkOsWaitForThread(&t, 5000), 0);
  EXPECT_TRUE(body.running);
  EXPECT_EQ(t.finished, 1);
  RkOsDestroyThread(&t);
  RkOsDestroyThread(&t);
  EXPECT_EQ(t.started, 0);
  // The object can be used again.
  ASSERT_EQ(RkOsCreateThread(&t, quickBody, &body), 0);
  EXPECT_EQ(RkOsWaitForThread(&t, RKOS_INFINITE), 0);
  RkOsDestroyThread(&t);
}

TEST(OsdepThread, TerminateEndsBodiesBlockedAtCancellationPoints) {
  RkOsEvent ev;
  RkOsInvalidateEvent(&ev);
  for (RkOsThreadFn fn : {sleepyBody, eventBody}) {
    RkOsThread t;
    RkOsInvalidateThread(&t, "ignores exit");
    Body body;
    body.event = &ev;
    ASSERT_EQ(RkOsCreateThread(&t, fn, &body), 0);
    ASSERT_TRUE(waitUntil([&] { return body.running.load(); }));
    EXPECT_EQ(RkOsWaitForThread(&t, 30), 1);
    auto start = Clock::now();
    EXPECT_EQ(RkOsTerminateThread(&t), 0);
    EXPECT_LT(msSince(start), 2000);
    EXPECT_EQ(RkOsWaitForThread(&t, 0), 0);
    RkOsDestroyThread(&t);
  }
  // The cancelled event waiter gave the event's mutex back.
  EXPECT_EQ(RkOsSetEvent(&ev), 0);
  EXPECT_EQ(RkOsWaitForEvent(&ev, 0), 0);
  RkOsDestroyEvent(&ev);
}

TEST(OsdepThread, UncancellableBodyIsDetachedNotWaitedFor) {
  Body body;
  {
    RkOsThread t;
    RkOsInvalidateThread(&t, "stubborn");
    ASSERT_EQ(RkOsCreateThread(&t, stubbornBody, &body), 0);
    ASSERT_TRUE(waitUntil([&] { return body.running.load(); }));
    auto start = Clock::now();
    EXPECT_EQ(RkOsTerminateThread(&t), 1);
    RkOsDestroyThread(&t);
    EXPECT_LT(msSince(start), 3000);
    EXPECT_EQ(t.started, 0);
  }
  // The object is gone; the detached thread must end without touching it.
  body.release = true;
  RkOsThread probe;
  RkOsInvalidateThread(&probe, "probe");
  Body quick;
  ASSERT_EQ(RkOsCreateThread(&probe, quickBody, &quick), 0);
  EXPECT_EQ(RkOsWaitForThread(&probe, 5000), 0);
  RkOsDestroyThread(&probe);
}

TEST(OsdepClock, TicksAdvanceAcrossSleep) {
  uint32_t ms0 = RkOsGetTickCount();
  uint64_t us0 = RkOsGetTickCountPrecise();
  RkOsSleep(25);
  uint32_t ms1 = RkOsGetTickCount();
  uint64_t us1 = RkOsGetTickCountPrecise();
  EXPECT_GE(uint32_t(ms1 - ms0), 25u);
  EXPECT_GE(us1 - us0, 25000u);
  EXPECT_LT(us1 - us0, 5000000u);
  EXPECT_LE(uint64_t(ms1 - ms0), (us1 - us0) / 1000 + 1);
}

int sign(int v) { return (v > 0) - (v < 0); }

TEST(OsdepStrings, CaseInsensitiveCompares) {
  struct Case {
    const char* a;
    const char* b;
    size_t n;
    int full;
    int prefix;
  } cases[] = {
      {"Tq.Uvc", "tq.uvc", 99, 0, 0},
      {"abc", "ABD", 2, -1, 0},
      {"abc", "ab", 99, 1, 1},
      {"ab", "abc", 2, -1, 0},
      {"", "", 0, 0, 0},
      {nullptr, nullptr, 5, 0, 0},
      {nullptr, "a", 5, -1, -1},
      {"a", nullptr, 5, 1, 1},
      {"\xC4x", "\xE4x", 5, -1, -1},  // beyond ASCII: no folding, bytes unsigned
      {"[", "a", 5, -1, -1},          // '[' sorts before letters whatever the case
  };
  for (const Case& c : cases) {
    EXPECT_EQ(sign(RkOsStricmp(c.a, c.b)), c.full) << (c.a ? c.a : "null") << " vs " << (c.b ? c.b : "null");
    EXPECT_EQ(sign(RkOsStrnicmp(c.a, c.b, c.n)), c.prefix) << (c.a ? c.a : "null") << " n=" << c.n;
  }
}

class OsdepEnv : public ::testing::Test {
 protected:
  void set(const char* name, const char* value) { env_.set(name, value); }
  tqtest::TestEnv env_;
  const fs::path& dir_ = env_.dir();
};

TEST_F(OsdepEnv, IniAndCachePathsFollowEnvironment) {
  struct Case {
    const char* own;
    const char* xdg;
    const char* home;
    const char* ini;
    const char* cache;
  } cases[] = {
      {"/etc/own.ini", "/x", "/h", "/etc/own.ini", "/own/cache/"},
      {nullptr, "/x", "/h", "/x/tarquel/tarquel.ini", "/x/tarquel/xml/"},
      {nullptr, nullptr, "/h", "/h/.config/tarquel/tarquel.ini", "/h/.cache/tarquel/xml/"},
      {nullptr, "relative", "/h", "/h/.config/tarquel/tarquel.ini", "/h/.cache/tarquel/xml/"},
      {"", "", "/h", "/h/.config/tarquel/tarquel.ini", "/h/.cache/tarquel/xml/"},
  };
  for (const Case& c : cases) {
    set("TQ_INI_FILE", c.own);
    set("TQ_XML_CACHE", c.own && *c.own ? "/own/cache" : c.own);
    set("XDG_CONFIG_HOME", c.xdg);
    set("XDG_CACHE_HOME", c.xdg);
    set("HOME", c.home);
    EXPECT_STREQ(RkOsGetCorvaleIniFile(), c.ini);
    EXPECT_STREQ(RkOsGetCorvaleXmlCachePath(0), c.cache);
  }
}

TEST_F(OsdepEnv, CacheDirectoryIsCreatedWithParents) {
  set("TQ_XML_CACHE", nullptr);
  set("XDG_CACHE_HOME", (dir_ / "deep" / "cache").c_str());
  std::string path = RkOsGetCorvaleXmlCachePath(0);
  EXPECT_FALSE(fs::exists(path));
  path = RkOsGetCorvaleXmlCachePath(1);
  EXPECT_EQ(path, (dir_ / "deep/cache/tarquel/xml/").string());
  EXPECT_TRUE(fs::is_directory(path));
  EXPECT_STREQ(RkOsGetCorvaleXmlCachePath(1), path.c_str());  // existing is fine

  tqtest::LogCapture cap;
  std::ofstream(dir_ / "blocker") << "x";
  set("TQ_XML_CACHE", (dir_ / "blocker" / "sub").c_str());
  EXPECT_STREQ(RkOsGetCorvaleXmlCachePath(1), (dir_ / "blocker/sub/").c_str());
  EXPECT_TRUE(cap.contains("cannot create", RKLOG_WARNING));
}

TEST_F(OsdepEnv, FileModificationTime) {
  fs::path file = dir_ / "a.ini";
  EXPECT_EQ(RkOsGetFileModificationTime(file.c_str()), 0u);
  EXPECT_EQ(RkOsGetFileModificationTime(nullptr), 0u);
  std::ofstream(file) << "[x]\n";
  struct timespec times[2] = {{1000, 5}, {1700000000, 123456789}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  EXPECT_EQ(RkOsGetFileModificationTime(file.c_str()), 1700000000123456789ull);
}

volatile sig_atomic_t trapCount = 0;

TEST_F(OsdepEnv, DebugBreakLogsAndTrapsOnlyWhenAsked) {
  struct sigaction sa {
  }, old{};
  sa.sa_handler = [](int) { trapCount = trapCount + 1; };
  sigaction(SIGTRAP, &sa, &old);
  tqtest::LogCapture cap;
  trapCount = 0;
  set("TQ_DEBUG_BREAK", nullptr);
  tqDebugBreak("should not happen! let qz know about it!");
  EXPECT_EQ(trapCount, 0);  // no debugger runs the test suite
  set("TQ_DEBUG_BREAK", "1");
  tqDebugBreak("second");
  EXPECT_EQ(trapCount, 1);
  sigaction(SIGTRAP, &old, nullptr);
  auto lines = cap.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].source, "OSDEP");
  EXPECT_EQ(lines[0].level, unsigned(RKLOG_ERROR));
  EXPECT_EQ(lines[0].text, "should not happen! let qz know about it!");
}

TEST(OsdepAtomic, IncrementsAndDecrementsUnderContention) {
  volatile int32_t counter = 0;
  constexpr int kThreads = 8, kOps = 20000;
  std::vector<std::vector<int32_t>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      seen[t].reserve(kOps);
      for (int i = 0; i < kOps; ++i) seen[t].push_back(ivAtomicInc32(&counter));
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(counter, kThreads * kOps);
  // Every increment reported a distinct new value: none was lost or shared.
  std::set<int32_t> all;
  for (auto& v : seen) all.insert(v.begin(), v.end());
  EXPECT_EQ(all.size(), size_t(kThreads * kOps));
  EXPECT_EQ(*all.begin(), 1);
  threads.clear();
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < kOps; ++i) ivAtomicDec32(&counter);
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(counter, 0);
  EXPECT_EQ(ivAtomicDec32(&counter), -1);
  EXPECT_EQ(ivAtomicInc32(nullptr), 0);
}

}  // namespace
