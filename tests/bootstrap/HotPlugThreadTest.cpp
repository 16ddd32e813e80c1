// The hot-plug body on a thread of the test's own (the library never starts it). Polls are
// at least 500 ms apart, so only lower time bounds are tight.
#include <rklog.h>

#include <atomic>
#include <chrono>
#include <string_view>
#include <thread>

#include "ControlFixture.h"
#include "control/TqUvcHotPlugThread.h"

namespace ctltest {
namespace {

using namespace std::chrono_literals;

class HotPlugTest : public DeviceTest {
 protected:
  TqUvcHotPlugThread& hotPlug() { return chan().HotPlugThread(); }
  size_t checks() const { return log_.count("TqUvcCtrlChan::CheckAvailability result:"); }
  void start() {
    body_ = std::thread([this] { hotPlug().Execute(&chan()); });
  }
  void stop() {
    hotPlug().RequestExit();
    if (body_.joinable()) body_.join();
  }
  // Time from the body's start until n checks were made.
  std::chrono::steady_clock::duration untilChecks(size_t n) {
    log_.clear();
    const auto begin = std::chrono::steady_clock::now();
    start();
    EXPECT_TRUE(waitUntil([&] { return checks() >= n; })) << checks();
    return std::chrono::steady_clock::now() - begin;
  }
  void TearDown() override {
    stop();
    DeviceTest::TearDown();
  }
  std::thread body_;
};

class AutoConnectTest : public HotPlugTest {
 protected:
  bool autoConnect() const override { return true; }
};

TEST_F(HotPlugTest, HealthyConnectionIsCheckedEverySixthPoll) {
  connect();
  // Polls 1..6 come at least 0, 0.5, ... 2.5 s after the start.
  EXPECT_GE(untilChecks(1), 2400ms);
  EXPECT_EQ(checks(), 1U);
  EXPECT_TRUE(waitUntil([&] { return hotPlug().ConnectionGood(); }));
  stop();
  EXPECT_TRUE(log_.contains("TqUvcHotPlugThread:: thread stop"));
}

TEST_F(HotPlugTest, TriggerMakesEveryPollCheck) {
  connect();
  hotPlug().SetTrigger();
  // Without the trigger the second check could not come before 5.5 s.
  EXPECT_LT(untilChecks(2), 5000ms);
  EXPECT_TRUE(hotPlug().Triggered());
}

TEST_F(HotPlugTest, WithoutAutoConnectUnplugOnlyClearsConnectionGood) {
  untilChecks(1);  // not connected: every poll checks
  ASSERT_TRUE(waitUntil([&] { return hotPlug().ConnectionGood(); }));
  ASSERT_TRUE(tqsim::unplugCamera(sim_));
  EXPECT_TRUE(waitUntil([&] { return !hotPlug().ConnectionGood(); }));
  ASSERT_TRUE(tqsim::replugCamera(sim_));
  EXPECT_TRUE(log_.waitFor("TqUvcHotPlugThread connection available again", kWait));
  EXPECT_TRUE(waitUntil([&] { return hotPlug().ConnectionGood(); }));
  stop();
  EXPECT_FALSE(log_.contains("TqUvcHotPlugThread try to reconnect..."));
  EXPECT_FALSE(chan().IsConnected());
}

TEST_F(AutoConnectTest, CameraThatComesBackIsReconnectedButTheMessageChannelRefuses) {
  ASSERT_TRUE(tqsim::unplugCamera(sim_));
  untilChecks(1);
  ASSERT_TRUE(log_.waitFor("TqUvcHotPlugThread cannot re-established the connection", kWait));
  EXPECT_FALSE(hotPlug().ConnectionGood());
  ASSERT_TRUE(tqsim::replugCamera(sim_));
  ASSERT_TRUE(log_.waitFor("TqUvcHotPlugThread connection re-established", kWait));
  ASSERT_TRUE(log_.waitFor("TqUvcHotPlugThread: cannot open message channel", kWait));
  EXPECT_TRUE(chan().IsConnected());
  EXPECT_TRUE(log_.contains("TqUvcCtrlChan::ReConnect()", RKLOG_DEBUG));
  stop();
  // A reconnect clears the flag; only a later good check sets it again.
  EXPECT_FALSE(hotPlug().ConnectionGood());
}

// Ends the body from inside its first failed availability check, so the exit
// request lands in the retries.
struct ExitOnFailedCheck {
  TqUvcHotPlugThread* thread = nullptr;
  std::atomic<bool> fired{false};
  static void sink(void* ctx, const rklog_Record* record) {
    auto* self = static_cast<ExitOnFailedCheck*>(ctx);
    if (std::string_view(record->text).find("result: is not available") != std::string_view::npos &&
        !self->fired.exchange(true))
      self->thread->RequestExit();
  }
};

TEST_F(AutoConnectTest, StopDuringTheRetriesEndsWithoutReconnect) {
  ASSERT_TRUE(tqsim::unplugCamera(sim_));
  ExitOnFailedCheck trap;
  trap.thread = &hotPlug();
  const int sinkId = rklog_AddSink(&ExitOnFailedCheck::sink, &trap);
  ASSERT_GT(sinkId, 0);
  EXPECT_EQ(hotPlug().Execute(&chan()), 0);
  rklog_RemoveSink(sinkId);
  EXPECT_TRUE(trap.fired);
  EXPECT_EQ(checks(), 1U);
  EXPECT_FALSE(log_.contains("TqUvcHotPlugThread try to reconnect..."));
  EXPECT_EQ(log_.countExact("TqUvcHotPlugThread:: thread stop"), 1U);
}

}  // namespace
}  // namespace ctltest
