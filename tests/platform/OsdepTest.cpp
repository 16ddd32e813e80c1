#include <gtest/gtest.h>
#include <rkosdep.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>
#include <vector>

#include "TestEnv.h"

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
  RkOsInitializeCriticalSection(&cs, "Test:Lock");
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
  EXPECT_EQ(RkOsWaitForEvent(&ev, RKOS_INFINITE), 0);
  EXPECT_EQ(RkOsResetEvent(&ev), 0);
  EXPECT_EQ(RkOsWaitForEvent(&ev, 0), 1);

  // Signalled from another thread while waiting.
  std::atomic<int> result{-2};
  std::atomic<bool> waiting{false};
  std::thread waiter([&] {
    waiting = true;
    result = RkOsWaitForEvent(&ev, 10000);
  });
  EXPECT_TRUE(waitUntil([&] { return waiting.load(); }));
  start = Clock::now();
  RkOsSetEvent(&ev);
  waiter.join();
  EXPECT_EQ(result, 0);
  EXPECT_LT(msSince(start), 5000);
  RkOsDestroyEvent(&ev);
}

// Thread bodies that never look at their exit request.
struct Body {
  std::atomic<bool> running{false};
  std::atomic<bool> release{false};
  RkOsEvent* event = nullptr;
};

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

TEST(OsdepThread, TerminateEndsBodiesThatIgnoreExitInBoundedTime) {
  RkOsEvent ev;
  RkOsInvalidateEvent(&ev);
  // Static: the stubborn thread is only detached and may outlive this test's frame.
  static Body bodies[2];
  const std::pair<RkOsThreadFn, int> cases[] = {{eventBody, 0}, {stubbornBody, 1}};
  for (size_t i = 0; i < 2; ++i) {
    Body& body = bodies[i];
    body.event = &ev;
    RkOsThread t;
    RkOsInvalidateThread(&t, "ignores exit");
    ASSERT_EQ(RkOsCreateThread(&t, cases[i].first, &body), 0);
    ASSERT_TRUE(waitUntil([&] { return body.running.load(); }));
    EXPECT_EQ(RkOsWaitForThread(&t, 30), 1);
    auto start = Clock::now();
    EXPECT_EQ(RkOsTerminateThread(&t), cases[i].second) << "body " << i;
    RkOsDestroyThread(&t);
    EXPECT_LT(msSince(start), 3000) << "body " << i;
    EXPECT_EQ(t.started, 0);
    body.release = true;
  }
  // The cancelled event waiter gave the event's mutex back.
  EXPECT_EQ(RkOsSetEvent(&ev), 0);
  EXPECT_EQ(RkOsWaitForEvent(&ev, 0), 0);
  RkOsDestroyEvent(&ev);
}

TEST(OsdepEnv, IniAndCachePathsFollowEnvironment) {
  tqtest::TestEnv env;
  struct Case {
    const char* own;
    const char* xdg;
    const char* ini;
    const char* cache;
  } cases[] = {
      {"/etc/own.ini", "/x", "/etc/own.ini", "/own/cache/"},
      {nullptr, "/x", "/x/tarquel/tarquel.ini", "/x/tarquel/xml/"},
      {nullptr, nullptr, "/h/.config/tarquel/tarquel.ini", "/h/.cache/tarquel/xml/"},
      {"", "relative", "/h/.config/tarquel/tarquel.ini", "/h/.cache/tarquel/xml/"},
  };
  env.set("HOME", "/h");
  for (const Case& c : cases) {
    env.set("TQ_INI_FILE", c.own);
    env.set("TQ_XML_CACHE", c.own && *c.own ? "/own/cache" : c.own);
    env.set("XDG_CONFIG_HOME", c.xdg);
    env.set("XDG_CACHE_HOME", c.xdg);
    EXPECT_STREQ(RkOsGetCorvaleIniFile(), c.ini);
    EXPECT_STREQ(RkOsGetCorvaleXmlCachePath(0), c.cache);
  }
  // Asked to, the cache directory is created with its parents.
  env.set("TQ_XML_CACHE", (env.dir() / "deep/cache").c_str());
  EXPECT_STREQ(RkOsGetCorvaleXmlCachePath(1), (env.dir() / "deep/cache/").c_str());
  EXPECT_TRUE(std::filesystem::is_directory(env.dir() / "deep/cache"));
}

TEST(OsdepAtomic, IncrementsAndDecrementsUnderContention) {
  volatile int32_t counter = 0;
  constexpr int kThreads = 8, kOps = 20000;
  std::vector<std::vector<int32_t>> seen(kThreads);
  auto onAllThreads = [&](auto body) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(body, t);
    for (auto& th : threads) th.join();
  };
  onAllThreads([&](int t) {
    for (int i = 0; i < kOps; ++i) seen[t].push_back(ivAtomicInc32(&counter));
  });
  EXPECT_EQ(counter, kThreads * kOps);
  // Every increment reported a distinct new value: none was lost or shared.
  std::set<int32_t> all;
  for (auto& v : seen) all.insert(v.begin(), v.end());
  EXPECT_EQ(all.size(), size_t(kThreads * kOps));
  onAllThreads([&](int) {
    for (int i = 0; i < kOps; ++i) ivAtomicDec32(&counter);
  });
  EXPECT_EQ(counter, 0);
}

}  // namespace
