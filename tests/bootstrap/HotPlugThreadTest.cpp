// The hot-plug body, run on a platform thread the test starts itself (the
// library never starts it): its poll rhythm, the trigger, and what it does
// when the camera goes away and comes back.
#include <rklog.h>
#include <rkosdep.h>

#include <atomic>
#include <chrono>
#include <string_view>

#include "DeviceFixture.h"
#include "control/TqUvcCtrlChan.h"
#include "control/TqUvcHotPlugThread.h"

namespace bstest {
namespace {

using namespace std::chrono_literals;

constexpr std::string_view kCheckDone = "TqUvcCtrlChan::CheckAvailability result:";

// Runs the channel's hot-plug body on its own platform thread until stop().
class BodyRunner {
 public:
  explicit BodyRunner(TqUvcCtrlChan& chan) : chan_(chan) {
    RkOsInvalidateThread(&thread_, "hotplug-test");
    started_ = RkOsCreateThread(&thread_, &BodyRunner::run, this) == 0;
  }
  ~BodyRunner() { stop(); }
  BodyRunner(const BodyRunner&) = delete;
  BodyRunner& operator=(const BodyRunner&) = delete;

  bool started() const { return started_; }
  // True when the body ended within the time-out.
  bool stop() {
    if (!started_) return true;
    chan_.HotPlugThread().RequestExit();
    const bool ended = RkOsWaitForThread(&thread_, 5000) == 0;
    RkOsDestroyThread(&thread_);
    started_ = false;
    return ended;
  }

 private:
  static void* run(void* self) {
    auto* runner = static_cast<BodyRunner*>(self);
    runner->chan_.HotPlugThread().Execute(&runner->chan_);
    return nullptr;
  }

  TqUvcCtrlChan& chan_;
  RkOsThread thread_{};
  bool started_ = false;
};

class HotPlugTest : public DeviceTest {
 protected:
  TqUvcCtrlChan& chan() { return *dev_->GetCtrlChan(); }
  TqUvcHotPlugThread& hotPlug() { return chan().HotPlugThread(); }
  size_t checks() const { return log_.count(kCheckDone); }
};

class AutoConnectTest : public HotPlugTest {
 protected:
  bool autoConnect() const override { return true; }
};

TEST_F(HotPlugTest, HealthyConnectionIsCheckedEverySixthPoll) {
  connect();
  ASSERT_FALSE(hotPlug().Triggered());
  log_.clear();
  const auto start = std::chrono::steady_clock::now();
  BodyRunner body(chan());
  ASSERT_TRUE(body.started());
  ASSERT_TRUE(waitUntil([&] { return checks() > 0; }, 5s));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  // Polls 1..6 at 0, 0.5, ... 2.5 s: the first check comes with the sixth.
  EXPECT_GE(elapsed, 2300ms);
  EXPECT_EQ(checks(), 1u);
  EXPECT_TRUE(waitUntil([&] { return hotPlug().ConnectionGood(); }, 1s));
  EXPECT_TRUE(body.stop());
  EXPECT_TRUE(log_.contains("TqUvcHotPlugThread:: thread received exit event, exit"));
  EXPECT_TRUE(log_.contains("TqUvcHotPlugThread:: thread stop"));
}

TEST_F(HotPlugTest, TriggerMakesEveryPollCheck) {
  connect();
  hotPlug().SetTrigger();
  log_.clear();
  BodyRunner body(chan());
  ASSERT_TRUE(body.started());
  // Three checks by the third poll (1 s); without the trigger the first would
  // come at 2.5 s.
  EXPECT_TRUE(waitUntil([&] { return checks() >= 3; }, 2000ms)) << checks();
  EXPECT_TRUE(hotPlug().Triggered());
  EXPECT_TRUE(body.stop());
}

TEST_F(HotPlugTest, WithoutAutoConnectUnplugOnlyClearsConnectionGood) {
  // Not linked: every availability check opens the camera's HID function.
  BodyRunner body(chan());
  ASSERT_TRUE(body.started());
  ASSERT_TRUE(waitUntil([&] { return hotPlug().ConnectionGood(); }, 2s));

  ASSERT_TRUE(tqsim::unplugCamera(sim_));
  EXPECT_TRUE(waitUntil([&] { return !hotPlug().ConnectionGood(); }, 3s));
  EXPECT_TRUE(log_.waitFor("TqUvcHotPlugThread Device available:no (try:2)", 3s));

  ASSERT_TRUE(tqsim::replugCamera(sim_));
  EXPECT_TRUE(log_.waitFor("TqUvcHotPlugThread connection available again", 3s));
  // The line comes just before the flag is set.
  EXPECT_TRUE(waitUntil([&] { return hotPlug().ConnectionGood(); }, 1s));
  EXPECT_TRUE(body.stop());
  EXPECT_FALSE(log_.contains("TqUvcHotPlugThread try to reconnect..."));
  EXPECT_FALSE(chan().IsConnected());
}

TEST_F(AutoConnectTest, CameraThatComesBackIsReconnectedButTheMessageChannelRefuses) {
  ASSERT_TRUE(dev_->AutoConnect());
  ASSERT_TRUE(tqsim::unplugCamera(sim_));
  BodyRunner body(chan());
  ASSERT_TRUE(body.started());
  ASSERT_TRUE(log_.waitFor("TqUvcHotPlugThread cannot re-established the connection", 3s));
  EXPECT_FALSE(hotPlug().ConnectionGood());

  ASSERT_TRUE(tqsim::replugCamera(sim_));
  ASSERT_TRUE(log_.waitFor("TqUvcHotPlugThread connection re-established", 3s));
  ASSERT_TRUE(log_.waitFor("TqUvcHotPlugThread: cannot open message channel", 1s));
  EXPECT_TRUE(chan().IsConnected());
  EXPECT_TRUE(log_.contains("TqUvcCtrlChan::ReConnect()", RKLOG_DEBUG));
  EXPECT_TRUE(log_.contains("TqUvcMsgChan::open: EIRM not available (by cap register)"));
  EXPECT_TRUE(body.stop());
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
    if (std::string_view(record->text).find("CheckAvailability result: is not available") !=
            std::string_view::npos &&
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
  EXPECT_EQ(checks(), 1u);
  EXPECT_FALSE(log_.contains("TqUvcHotPlugThread try to reconnect..."));
  EXPECT_FALSE(hotPlug().ConnectionGood());
  EXPECT_EQ(log_.countExact("TqUvcHotPlugThread:: thread stop"), 1u);
}

}  // namespace
}  // namespace bstest
