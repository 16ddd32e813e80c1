#include <gtest/gtest.h>
#include <pthread.h>
#include <rklog.h>
#include <rkosdep.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "support/TqUvcThread.h"

namespace {

using namespace std::chrono_literals;

template <typename Pred>
bool waitUntil(Pred pred, std::chrono::milliseconds timeout = 5s) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

// Observes the body from outside; lives longer than the thread object.
struct Probe {
  std::atomic<int> setups{0};
  std::atomic<int> runs{0};
  std::atomic<void*> arg{nullptr};
  std::atomic<bool> inBody{false};
  std::atomic<bool> unwound{false};
};

class WorkerThread : public TqUvcThread {
 public:
  WorkerThread(const char* name, Probe& probe, bool honourExit)
      : TqUvcThread(name), probe_(probe), honourExit_(honourExit) {}
  ~WorkerThread() override { Stop(5000); }

  int Start(void* arg) { return StartThread(arg); }

  void Setup() override { probe_.setups++; }

  int Execute(void* arg) override {
    struct UnwindMark {
      Probe& p;
      ~UnwindMark() { p.unwound = true; }
    } mark{probe_};
    probe_.arg = arg;
    probe_.runs++;
    probe_.inBody = true;
    // The only cancellation point is pthread_testcancel, outside any libc call
    // the sanitizers wrap: a thread cancelled inside one of their wrappers leaves
    // their runtimes confused and the reports they make then are false.
    while (!honourExit_ || !ExitRequested()) {
      const timespec pause{0, 1000000};
      syscall(SYS_nanosleep, &pause, nullptr);
      pthread_testcancel();
    }
    probe_.inBody = false;
    return 0;
  }

 private:
  Probe& probe_;
  const bool honourExit_;
};

TEST(SupportThread, StopOnANeverStartedObjectDoesNothing) {
  tqtest::LogCapture log;
  Probe probe;
  {
    WorkerThread thread(nullptr, probe, true);
    EXPECT_STREQ(thread.Name(), "TqUvc::");
    EXPECT_FALSE(thread.ExitRequested());
    EXPECT_EQ(thread.Stop(10000), 0);
    EXPECT_EQ(thread.Stop(0), 0);
    WorkerThread longName("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789", probe, true);
    EXPECT_STREQ(longName.Name(), "ABCDEFGHIJKLMNOPQRSTUVWXYZ01234");
  }
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(probe.runs, 0);
}

TEST(SupportThread, BodyHonouringTheExitEventStopsInTimeAndCanRunAgain) {
  tqtest::LogCapture log;
  Probe probe;
  WorkerThread thread("Honour", probe, true);
  int token = 0;
  for (int run = 1; run <= 2; ++run) {
    SCOPED_TRACE(run);
    ASSERT_EQ(thread.Start(&token), 0);
    EXPECT_TRUE(thread.IsRunning());
    ASSERT_TRUE(waitUntil([&] { return probe.runs == run && probe.inBody; }));
    EXPECT_EQ(probe.setups, run);
    EXPECT_EQ(probe.arg, &token);

    EXPECT_EQ(thread.Stop(5000), 0);
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_FALSE(probe.inBody);
    EXPECT_EQ(log.count("TqUvcThread::Stop: thread \"Honour\" stopped in ", RKLOG_DEBUG),
              static_cast<size_t>(run));
  }
  EXPECT_EQ(log.count("needed to terminate"), 0u);
  EXPECT_EQ(thread.Stop(5000), 0);
  EXPECT_EQ(log.count("TqUvcThread::Stop"), 2u);
}

TEST(SupportThread, BodyIgnoringTheExitEventIsTerminatedAfterTheTimeout) {
  tqtest::LogCapture log;
  Probe probe;
  WorkerThread thread("Stubborn", probe, false);
  ASSERT_EQ(thread.Start(nullptr), 0);
  ASSERT_TRUE(waitUntil([&] { return probe.inBody.load(); }));

  EXPECT_NE(thread.Stop(100), 0);
  EXPECT_FALSE(thread.IsRunning());
  // The forced end unwinds the body's stack rather than leaving it running.
  EXPECT_TRUE(waitUntil([&] { return probe.unwound.load(); }));

  std::vector<tqtest::LogLine> errors;
  for (const auto& l : log.lines())
    if (l.level == RKLOG_ERROR && l.source == "UVC") errors.push_back(l);
  ASSERT_EQ(errors.size(), 1u);
  int ms = -1;
  void* handle = nullptr;
  ASSERT_EQ(sscanf(errors[0].text.c_str(),
                   "TqUvcThread::Stop: needed to terminate Stubborn thread (after %d ms) [handle:%p]", &ms,
                   &handle),
            2)
      << errors[0].text;
  EXPECT_GE(ms, 100);
  EXPECT_EQ(log.count("stopped in"), 0u);
}

}  // namespace
