// The control channel's busy retry. A HID status is one byte, so no camera can
// answer 0x8007: this binary links its own register space, which answers from
// a script, in place of the library's.
#include <chrono>
#include <deque>
#include <future>
#include <mutex>

#include "ControlFixture.h"
#include "control/TqUvcRegSpace.h"

namespace {

struct Script {
  std::mutex mutex;
  std::deque<int> answers;  // then 0
  std::vector<unsigned short> requestIds;
} script;

int nextAnswer(unsigned short requestId) {
  std::lock_guard<std::mutex> lock(script.mutex);
  script.requestIds.push_back(requestId);
  if (script.answers.empty()) return 0;
  const int answer = script.answers.front();
  script.answers.pop_front();
  return answer;
}

}  // namespace

int TqUvcReadReg4(unsigned int, unsigned int, unsigned int* value, unsigned short requestId, unsigned int) {
  *value = 42;
  return nextAnswer(requestId);
}
int TqUvcWriteReg4(unsigned int, unsigned int, unsigned int, unsigned short requestId, unsigned int) {
  return nextAnswer(requestId);
}
int TqUvcReadMem(unsigned int, unsigned int, char*, int, unsigned short& requestId, unsigned int,
                 unsigned int) {
  nextAnswer(requestId);
  return 0;
}

namespace ctltest {
namespace {

constexpr int kBusy = 0x8007;

class BusyRetryTest : public ControlTest {
 protected:
  void SetUp() override {
    ControlTest::SetUp();
    answer({});
    ctrl_ = deviceFor(cameraOn(0, "BUSY")).GetCtrlChan();
    ASSERT_EQ(ctrl_->Connect(nullptr, false), 0U);
  }
  static void answer(const std::vector<int>& answers) {
    std::lock_guard<std::mutex> lock(script.mutex);
    script.answers.assign(answers.begin(), answers.end());
    script.requestIds.clear();
  }
  TqUvcCtrlChan* ctrl_ = nullptr;
};

TEST_F(BusyRetryTest, RetriesWhileBusy) {
  struct Case {
    bool write;
    std::vector<int> answers;
    uint32_t result;
    std::vector<int> busyLines;  // remaining tries logged, in order
    bool errorLine;
  };
  const Case cases[] = {
      {false, {kBusy, kBusy}, 0, {3, 2}, false},
      {true, {kBusy, kBusy}, 0, {3, 2}, false},
      {false, {0x18007}, 0, {3}, false},  // busy in the low 16 bits
      {false, {kBusy, kBusy, 0x18007}, 0x18007, {3, 2, 1}, false},
      {true, {kBusy, kBusy, kBusy}, kBusy, {3, 2, 1}, false},
      {false, {kBusy, 5}, 5, {3}, true},
  };
  for (const Case& c : cases) {
    answer(c.answers);
    log_.clear();
    uint32_t value = 0;
    EXPECT_EQ(c.write ? ctrl_->WriteReg(0x40A04, 1) : ctrl_->ReadReg(0x40A04, &value), c.result);
    const auto ids = script.requestIds;                                  // the calls are over
    EXPECT_EQ(ids.size(), std::min<size_t>(c.busyLines.size() + 1, 3));  // three calls at most
    for (size_t i = 1; i < ids.size(); ++i) EXPECT_EQ(ids[i], static_cast<unsigned short>(ids[i - 1] + 1));
    std::vector<std::string> busy;
    for (const auto& line : log_.lines())
      if (line.text.find("device is busy") != std::string::npos) busy.push_back(line.text);
    ASSERT_EQ(busy.size(), c.busyLines.size());
    for (size_t i = 0; i < busy.size(); ++i)
      EXPECT_EQ(busy[i], std::string("TqUvcCtrlChan::") + (c.write ? "WriteReg" : "ReadReg") +
                             " device is busy: 0x40a04 (return code=0x8007, try another write (" +
                             std::to_string(c.busyLines[i]) + "))");
    EXPECT_EQ(log_.contains("error reading from adr") || log_.contains("error writing to adr"), c.errorLine);
  }
}

// A request that got through after a busy answer gives the channel back: a
// second thread's request must not wait for ever on the request lock.
TEST_F(BusyRetryTest, RetriedRequestLeavesTheChannelToOtherThreads) {
  answer({kBusy, kBusy});
  uint32_t value = 0;
  ASSERT_EQ(ctrl_->ReadReg(0x40A04, &value), 0U);
  auto other = std::async(std::launch::async, [this] {
    uint32_t v = 0;
    return ctrl_->ReadReg(0x40A04, &v);
  });
  ASSERT_EQ(other.wait_for(kWait), std::future_status::ready);
  EXPECT_EQ(other.get(), 0U);
}

}  // namespace
}  // namespace ctltest
