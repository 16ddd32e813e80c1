// The control channel's busy retry. A HID status is one byte, so no camera can
// answer 0x8007: this binary links its own register space, which answers from
// a script, in place of the library's.
#include <LogCapture.h>

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
  int calls = 0;
  std::vector<unsigned short> requestIds;
};
Script script;

int nextAnswer(unsigned short requestId) {
  std::lock_guard<std::mutex> lock(script.mutex);
  ++script.calls;
  script.requestIds.push_back(requestId);
  if (script.answers.empty()) return 0;
  const int answer = script.answers.front();
  script.answers.pop_front();
  return answer;
}

}  // namespace

int TqUvcReadReg4(unsigned int /*camIndex*/, unsigned int /*address*/, unsigned int* value,
                  unsigned short requestId, unsigned int /*timeout*/) {
  *value = 42;
  return nextAnswer(requestId);
}

int TqUvcWriteReg4(unsigned int /*camIndex*/, unsigned int /*address*/, unsigned int /*value*/,
                   unsigned short requestId, unsigned int /*timeout*/) {
  return nextAnswer(requestId);
}

int TqUvcReadMem(unsigned int /*camIndex*/, unsigned int /*address*/, char* /*buffer*/, int /*length*/,
                 unsigned short& requestId, unsigned int /*timeout*/, unsigned int /*unused*/) {
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
    script.calls = 0;
    script.requestIds.clear();
  }
  static std::string busyLine(const char* op, int remaining) {
    return std::string("TqUvcCtrlChan::") + op +
           " device is busy: 0x40a04 (return code=0x8007, try another write (" + std::to_string(remaining) +
           "))";
  }

  TqUvcCtrlChan* ctrl_ = nullptr;
};

struct Case {
  const char* name;
  bool write;
  std::vector<int> answers;
  uint32_t result;
  int calls;
  std::vector<int> busyLines;  // remaining tries logged, in order
  bool errorLine;
};

int calls() {
  std::lock_guard<std::mutex> lock(script.mutex);
  return script.calls;
}

std::vector<unsigned short> requestIds() {
  std::lock_guard<std::mutex> lock(script.mutex);
  return script.requestIds;
}

TEST_F(BusyRetryTest, RetriesWhileBusy) {
  const Case cases[] = {
      {"read busy twice then ok", false, {kBusy, kBusy}, 0, 3, {3, 2}, false},
      {"write busy twice then ok", true, {kBusy, kBusy}, 0, 3, {3, 2}, false},
      {"busy in the low 16 bits", false, {0x18007}, 0, 2, {3}, false},
      {"read exhausted", false, {kBusy, kBusy, 0x18007}, 0x18007, 3, {3, 2, 1}, false},
      {"write exhausted", true, {kBusy, kBusy, kBusy}, kBusy, 3, {3, 2, 1}, false},
      {"busy then other failure", false, {kBusy, 5}, 5, 2, {3}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    answer(c.answers);
    tqtest::LogCapture log;
    uint32_t value = 0;
    const uint32_t rc = c.write ? ctrl_->WriteReg(0x40A04, 1) : ctrl_->ReadReg(0x40A04, &value);
    EXPECT_EQ(rc, c.result);
    EXPECT_EQ(calls(), c.calls);
    const char* op = c.write ? "WriteReg" : "ReadReg";
    size_t busy = 0;
    for (const auto& line : log.lines()) {
      if (line.text.find("device is busy") == std::string::npos) continue;
      ASSERT_LT(busy, c.busyLines.size());
      EXPECT_EQ(line.text, busyLine(op, c.busyLines[busy]));
      ++busy;
    }
    EXPECT_EQ(busy, c.busyLines.size());
    EXPECT_EQ(log.contains(c.write ? "WriteReg error writing to adr" : "ReadReg error reading from adr"),
              c.errorLine);
    // Every call carries the next request id.
    const auto ids = requestIds();
    for (size_t i = 1; i < ids.size(); ++i) EXPECT_EQ(ids[i], static_cast<unsigned short>(ids[i - 1] + 1));
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
  ASSERT_EQ(other.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(other.get(), 0U);
}

}  // namespace
}  // namespace ctltest
