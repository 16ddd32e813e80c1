// The message channel's refusals: these cameras have no event registers.
#include <rklog.h>

#include "DeviceFixture.h"
#include "control/TqUvcMsgChan.h"

namespace bstest {
namespace {

using MsgChanTest = DeviceTest;

TEST_F(MsgChanTest, OpenIsRefusedWithoutConnectionAndWithoutEventRegisters) {
  TqUvcMsgChan& chan = *dev_->GetMsgChan();
  EXPECT_EQ(chan.Open(), 0x8FFFu);
  EXPECT_EQ(log_.countExact("TqUvcMsgChan::open: control channel not connected", RKLOG_DEBUG), 1u);

  connect();
  EXPECT_EQ(chan.Open(), 0x8FFFu);
  EXPECT_EQ(log_.countExact("TqUvcMsgChan::open: EIRM not available (by cap register)", RKLOG_DEBUG), 1u);
  EXPECT_FALSE(chan.IsConnected());

  EXPECT_EQ(chan.Close(), 0u);
  EXPECT_EQ(log_.countExact("TqUvcMsgChan::Close: message channel already closed, skip close", RKLOG_TRACE),
            1u);
}

TEST_F(MsgChanTest, DisableEventsNeedsAConnectedChannel) {
  connect();
  tqsim::clearReceivedReports(sim_);
  EXPECT_EQ(dev_->GetMsgChan()->DisableEvents(), static_cast<uint32_t>(-1));
  EXPECT_EQ(log_.countExact("Error writing to ADR_EIRM_CONTROL register: MsgChan not connected", RKLOG_ERROR),
            1u);
  EXPECT_TRUE(tqsim::receivedReports(sim_).empty());
}

TEST_F(MsgChanTest, AnyCallbackIsAccepted) {
  EXPECT_EQ(dev_->GetMsgChan()->RegisterMsgCallback(nullptr, 0, 0), 0u);
  EXPECT_EQ(dev_->GetMsgChan()->RegisterMsgCallback(
                [](_tagTqUvcEventInfo*, unsigned char*, uint32_t, void*, uint64_t) {}, 42, 2),
            0u);
}

}  // namespace
}  // namespace bstest
