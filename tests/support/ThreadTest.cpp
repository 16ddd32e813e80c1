#include <gtest/gtest.h>
#include <pthread.h>
#include <rklog.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "LogCapture.h"
#include "TestUtil.h"
#include "support/TqUvcThread.h"

namespace {

using tqtest::waitUntil;

class Worker : public TqUvcThread {
 public:
  explicit Worker(const char* name) : TqUvcThread(name) {}
  ~Worker() override { Stop(5000); }
  int Start() { return StartThread(nullptr); }
  int Execute(void*) override {
    struct Leave {
      std::atomic<bool>& flag;
      ~Leave() { flag = false; }  // also when a forced end unwinds the stack
    } leave{inBody};
    inBody = true;
    // Cancelled only here, outside libc calls: a cancel inside a sanitizer wrapper gives false reports.
    while (!honourExit || !ExitRequested()) {
      const timespec pause{0, 1000000};
      syscall(SYS_nanosleep, &pause, nullptr);
      pthread_testcancel();
    }
    return 0;
  }
  std::atomic<bool> inBody{false}, honourExit{true};
};

// One object throughout: the honouring run also checks a fresh start after a forced end.
TEST(SupportThread, StopTerminatesAStubbornBodyAfterTheTimeOutAndEndsAnHonouringOneInTime) {
  tqtest::LogCapture log;
  Worker thread("Worker");
  EXPECT_EQ(thread.Stop(10000), 0);  // never started: nothing to do, nothing logged
  EXPECT_TRUE(log.lines().empty());
  for (const bool honour : {false, true}) {
    SCOPED_TRACE(honour);
    thread.honourExit = honour;
    ASSERT_EQ(thread.Start(), 0);
    ASSERT_TRUE(waitUntil([&] { return thread.inBody.load(); }));
    EXPECT_EQ(thread.Stop(honour ? 5000 : 100) != 0, !honour);
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_FALSE(thread.inBody);  // returned or unwound: gone either way
  }
  EXPECT_EQ(log.count("TqUvcThread::Stop: thread \"Worker\" stopped in ", RKLOG_DEBUG), 1u);
  ASSERT_EQ(log.count("needed to terminate", RKLOG_ERROR), 1u);
  const std::string text = log.lines().front().text;
  int ms = -1;
  EXPECT_EQ(sscanf(text.c_str(),
                   "TqUvcThread::Stop: needed to terminate Worker thread (after %d ms) [handle:%*p]", &ms),
            1)
      << text;
  EXPECT_GE(ms, 100);
}

}  // namespace
