#include <gtest/gtest.h>
#include <rkosdep.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <tuple>

#include "TestEnv.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

using tqtest::waitUntil;

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
  EXPECT_GE(Clock::now() - start, 60ms);

  // Manual reset: stays signalled for every waiter until reset.
  EXPECT_EQ(RkOsSetEvent(&ev), 0);
  EXPECT_EQ(RkOsWaitForEvent(&ev, 0), 0);
  EXPECT_EQ(RkOsWaitForEvent(&ev, 10), 0);
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
  EXPECT_LT(Clock::now() - start, 5000ms);
  RkOsDestroyEvent(&ev);
}

struct Body {
  std::atomic<bool> running{false}, release{false};
  RkOsEvent* event = nullptr;
};

// Ignores its exit request: waits on its event, or without one spins where it cannot be cancelled.
void* ignoringBody(void* arg) {
  auto* b = static_cast<Body*>(arg);
  b->running = true;
  if (b->event) RkOsWaitForEvent(b->event, RKOS_INFINITE);
  while (!b->release.load()) {
  }
  return nullptr;
}

TEST(OsdepThread, TerminateEndsBodiesThatIgnoreExitInBoundedTime) {
  RkOsEvent ev;
  RkOsInvalidateEvent(&ev);
  // Static: the stubborn thread is only detached and may outlive this test's frame.
  static Body bodies[2];
  bodies[0].event = &ev;
  for (int i = 0; i < 2; ++i) {
    Body& body = bodies[i];
    RkOsThread t;
    RkOsInvalidateThread(&t, "ignores exit");
    ASSERT_EQ(RkOsCreateThread(&t, ignoringBody, &body), 0);
    ASSERT_TRUE(waitUntil([&] { return body.running.load(); }));
    EXPECT_EQ(RkOsWaitForThread(&t, 30), 1);
    auto start = Clock::now();
    EXPECT_EQ(RkOsTerminateThread(&t), i) << "body " << i;  // 1: only detached
    RkOsDestroyThread(&t);
    EXPECT_LT(Clock::now() - start, 3000ms) << "body " << i;
    body.release = true;
  }
  // The cancelled event waiter gave the event's mutex back.
  EXPECT_EQ(RkOsSetEvent(&ev), 0);
  EXPECT_EQ(RkOsWaitForEvent(&ev, 0), 0);
  RkOsDestroyEvent(&ev);
}

TEST(OsdepEnv, IniAndCachePathsFollowEnvironment) {
  tqtest::TestEnv env;
  // TQ_INI_FILE/TQ_XML_CACHE, XDG_*_HOME, the ini file, the cache directory (always with its '/').
  const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
      {"/etc/own.ini", "/x", "/etc/own.ini", "/own/cache/"},
      {nullptr, "/x", "/x/tarquel/tarquel.ini", "/x/tarquel/xml/"},
      {nullptr, nullptr, "/h/.config/tarquel/tarquel.ini", "/h/.cache/tarquel/xml/"},
      {"", "relative", "/h/.config/tarquel/tarquel.ini", "/h/.cache/tarquel/xml/"},
  };
  env.set("HOME", "/h");
  for (const auto& [own, xdg, ini, cache] : cases) {
    env.set("TQ_INI_FILE", own);
    env.set("TQ_XML_CACHE", own && *own ? "/own/cache" : own);
    env.set("XDG_CONFIG_HOME", xdg);
    env.set("XDG_CACHE_HOME", xdg);
    EXPECT_STREQ(RkOsGetCorvaleIniFile(), ini);
    EXPECT_STREQ(RkOsGetCorvaleXmlCachePath(0), cache);
  }
}

// Callers free an object when the decrement answers 0: both answer the new value.
TEST(OsdepAtomic, AnswerTheNewValue) {
  volatile int32_t counter = 0;
  EXPECT_EQ(ivAtomicInc32(&counter), 1);
  EXPECT_EQ(ivAtomicInc32(&counter), 2);
  EXPECT_EQ(ivAtomicDec32(&counter), 1);
  EXPECT_EQ(ivAtomicDec32(&counter), 0);
  EXPECT_EQ(ivAtomicInc32(nullptr), 0);
}

}  // namespace
