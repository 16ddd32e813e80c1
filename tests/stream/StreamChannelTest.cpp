// Streaming into client buffers through the stream channel, against the
// emulated camera: the lock/notify protocol, the geometry read back from the
// camera's registers, and the copy of each frame's region of interest.
#include <gtest/gtest.h>
#include <rklog.h>
#include <tqsim/FramePattern.h>
#include <tqsim/Sim.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "control/TqUvcCtrlChan.h"
#include "control/VexaHID_Interface.h"
#include "pool/TqUvcDevice.h"
#include "pool/TqUvcDiscPkt.h"
#include "stream/TqUvcStrmChan.h"
#include "stream/TqUvcStrmHandler.h"
#include "video/KOR_UVC.h"

namespace {

using namespace std::chrono_literals;

constexpr uint32_t kLocked = TQUVC_LOCKED;
constexpr uint32_t kNBuffers = 4;
constexpr uint8_t kSentinel = 0xCD;
constexpr uint32_t kError = 0x8FFF;

// One call of the data callback as the client saw it.
struct Event {
  uint32_t bufferIndex;
  uint32_t request;
  void* deviceHandle;
  bool hasInfo;
  alignas(8) _tagTqUvcDataBlockInfo info;  // packed record: give its 32-bit fields their alignment
  uint32_t frameWord;                      // the current-frame word at the time of the call
};

// The client: four buffers in a ring, a lock table it locks on request and
// never gives back, and a record of every callback.
class Client {
 public:
  explicit Client(size_t bufferBytes) {
    for (uint32_t i = 0; i < kNBuffers; ++i) {
      buffers_.emplace_back(std::make_unique<uint8_t[]>(bufferBytes));
      memset(buffers_.back().get(), kSentinel, bufferBytes);
      addresses_[i] = reinterpret_cast<uint64_t>(buffers_.back().get());
      sizes_[i] = static_cast<uint32_t>(bufferBytes);
      lockTable_[i] = (i + 1) % kNBuffers;
    }
  }
  void configure(TqUvcDataMemory& memory) {
    memory.CfgBuffers(addresses_, sizes_, kNBuffers);
    memory.CfgLockTable(lockTable_, reinterpret_cast<uint8_t*>(&frameWord_));
  }
  static void callback(uint32_t index, uint32_t request, void* handle, _tagTqUvcDataBlockInfo* info,
                       uint64_t context) {
    auto* self = reinterpret_cast<Client*>(context);
    std::lock_guard<std::mutex> lock(self->mutex_);
    Event e{index, request, handle, info != nullptr, {}, self->frameWord_};
    if (info != nullptr) e.info = *info;
    if (request == TQUVC_REQ_LOCK && index < kNBuffers) self->lockTable_[index] = kLocked;
    self->events_.push_back(e);
    self->changed_.notify_all();
  }
  bool waitForEvents(size_t n, std::chrono::milliseconds timeout = 5s) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return events_.size() >= n; });
  }
  std::vector<Event> events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  const uint8_t* buffer(uint32_t i) const { return buffers_[i].get(); }

 private:
  std::vector<std::unique_ptr<uint8_t[]>> buffers_;
  uint64_t addresses_[kNBuffers] = {};
  uint32_t sizes_[kNBuffers] = {};
  uint32_t lockTable_[kNBuffers] = {};
  uint32_t frameWord_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Event> events_;
};

// Geometry as the camera's registers report it.
struct Geometry {
  uint32_t width, height, offsetX, offsetY, pitch;
};

class StreamChannelTest : public ::testing::Test {
 protected:
  void SetUp() override { tqsim::reset(); }
  void TearDown() override {
    device_.reset();
    TqUvcDeleteHidDevice();
    tqsim::reset();
  }

  // Plugs the camera and builds a device for it the way a scan does; with
  // connect, its control channel is connected.
  void makeDevice(const Geometry& g, uint32_t shortFrameBytes = 0, bool connect = true) {
    tqsim::CameraConfig config = tqsim::defaultCameraConfig();
    config.registers[0x0A04] = g.width;
    config.registers[0x0A08] = g.height;
    config.registers[0x0A0C] = g.offsetX;
    config.registers[0x0A10] = g.offsetY;
    config.registers[0x0708] = g.pitch;
    config.videoFaults.shortFrameBytes = shortFrameBytes;
    std::string error;
    ASSERT_NE(tqsim::plugCamera(config, &error), tqsim::kNoCamera) << error;

    ASSERT_EQ(TqUvcCreateHidDevice(), 0);
    int count = 0;
    ASSERT_EQ(TqUvcEnumerateHidDevice(&count), 0);
    int index = -1;
    ASSERT_EQ(TqUvcGetFirstHidDevice(&index), 0);
    camera_ = index;

    TqUvcDiscPkt pkt;
    _tagTqUvccpDiscData* d = pkt.GetDiscData();
    d->Vid = 0x7A3D;
    d->Pid = 0x203;
    d->HIDCamIndex = static_cast<uint32_t>(index);
    strncpy(d->SerialNr, config.serial.c_str(), sizeof(d->SerialNr) - 1);
    strncpy(d->InterfaceText, "UVC HID Device", sizeof(d->InterfaceText) - 1);
    device_ = std::make_unique<TqUvcDevice>(&pkt);
    if (connect) {
      ASSERT_EQ(device_->GetCtrlChan()->Connect(device_->GetDiscData(), true), 0u);
    }
    chan_ = device_->GetStrmChan();
    ASSERT_NE(chan_, nullptr);
  }

  void* handle() const { return reinterpret_cast<void*>(device_->GetHandle()); }

  std::unique_ptr<TqUvcDevice> device_;
  TqUvcStrmChan* chan_ = nullptr;
  int camera_ = -1;
};

// ---------------------------------------------------------------- geometry

struct CopyCase {
  const char* name;
  Geometry roi;
  uint32_t shortFrameBytes;  // 0: full frames
  size_t bufferBytes;        // 0: roi height x pitch
  int uvcWidth, uvcHeight;   // the UVC size the camera chooses
};

class StreamCopyTest : public StreamChannelTest, public ::testing::WithParamInterface<CopyCase> {};

// Every byte of a buffer: the frame byte it was copied from when that byte
// exists in the frame, the line and the buffer; the client's fill otherwise.
void expectBufferHoldsFrame(const uint8_t* buf, size_t bufBytes, const Geometry& g, size_t frameBytes,
                            size_t uvcLineBytes, uint32_t* frameNumber) {
  uint32_t n = 0;
  ASSERT_TRUE(tqsim::frameNumberOf(buf, bufBytes, &n));
  *frameNumber = n;
  const size_t lineBytes = std::min<size_t>(g.pitch, uvcLineBytes);
  for (size_t p = 0; p < bufBytes; ++p) {
    const size_t r = p / g.pitch, c = p % g.pitch;
    const size_t s = r * uvcLineBytes + c;
    const bool copied = r < g.height && c < lineBytes && s < frameBytes;
    const uint8_t want = copied ? tqsim::framePatternByte(n, s) : kSentinel;
    if (buf[p] != want) {
      ADD_FAILURE() << "byte " << p << " (line " << r << ", column " << c << ", copied " << copied << ") is "
                    << int(buf[p]) << ", want " << int(want);
      return;
    }
  }
}

TEST_P(StreamCopyTest, FillsEachFreeBufferOnceWithLockThenNotifyAndStopsWhenAllAreLocked) {
  const CopyCase& c = GetParam();
  const size_t bufferBytes = c.bufferBytes != 0 ? c.bufferBytes : size_t{c.roi.height} * c.roi.pitch;
  makeDevice(c.roi, c.shortFrameBytes);
  ASSERT_EQ(chan_->Open(0, 0), 0u);
  Client client(bufferBytes);
  client.configure(chan_->GetDataMemory());
  chan_->RegisterDataCallback(&Client::callback, reinterpret_cast<uint64_t>(&client));

  tqtest::LogCapture log;
  ASSERT_EQ(chan_->StreamStart(0), 0u);
  EXPECT_EQ(chan_->GetUvcWidth(), c.uvcWidth);
  EXPECT_EQ(chan_->GetUvcHeight(), c.uvcHeight);
  EXPECT_EQ(chan_->GetUvcLineBytes(), c.uvcWidth * 2);
  EXPECT_EQ(chan_->GetMinBufferSize(), bufferBytes);

  ASSERT_TRUE(client.waitForEvents(2 * kNBuffers)) << "events: " << client.events().size();
  // Every buffer is now held by the client: later frames find nothing to do.
  ASSERT_TRUE(log.waitFor("TqUvcStrmSocketHandler::OnCallback: nothing to do (NrFreeBuffer:0)", 5s));
  EXPECT_EQ(chan_->StreamStop(0), 0u);
  EXPECT_GE(log.count("CaptureThread::ThreadRoutine: CLEANUP cap thread"), 1u);
  EXPECT_EQ(chan_->GetHandler(), nullptr);

  const std::vector<Event> events = client.events();
  ASSERT_EQ(events.size(), 2 * kNBuffers);
  const size_t uvcLineBytes = size_t(c.uvcWidth) * 2;
  const size_t frameBytes = c.shortFrameBytes != 0 ? c.shortFrameBytes : uvcLineBytes * c.uvcHeight;
  uint32_t previousFrame = 0;
  for (uint32_t i = 0; i < kNBuffers; ++i) {
    SCOPED_TRACE(std::string(c.name) + ", buffer " + std::to_string(i));
    const Event& lock = events[2 * i];
    const Event& notify = events[2 * i + 1];
    EXPECT_EQ(lock.bufferIndex, i);
    EXPECT_EQ(lock.request, TQUVC_REQ_LOCK);
    EXPECT_FALSE(lock.hasInfo);
    EXPECT_EQ(lock.deviceHandle, handle());
    EXPECT_EQ(notify.bufferIndex, i);
    EXPECT_EQ(notify.request, TQUVC_REQ_NOTIFY);
    EXPECT_EQ(notify.deviceHandle, handle());
    ASSERT_TRUE(notify.hasInfo);
    // The next buffer was named before this one was filled.
    EXPECT_EQ(notify.frameWord, (i + 1) % kNBuffers);

    const _tagTqUvcDataBlockInfo& info = notify.info;
    const uint64_t blockId = info.BlockId;  // packed: no reference to the field
    EXPECT_EQ(blockId, i + 1u);
    EXPECT_EQ(info.BufferIdx, i);
    EXPECT_EQ(info.LockStat, 2u);
    EXPECT_EQ(info.Flags, 1u);
    EXPECT_EQ(info.BlockIdx, 0u);
    EXPECT_EQ(info.Width, c.roi.width);
    EXPECT_EQ(info.Height, c.roi.height);
    EXPECT_EQ(info.OffsetX, c.roi.offsetX);
    EXPECT_EQ(info.OffsetY, c.roi.offsetY);
    EXPECT_EQ(info.PixelFormat, 0x0210003Bu);
    EXPECT_EQ(info.Reserved3, 1024u);
    EXPECT_EQ(info.DataSize, c.roi.height * c.roi.pitch);
    EXPECT_EQ(info.Valid, c.shortFrameBytes == 0 ? 1u : 0u);
    EXPECT_EQ(info.Incomplete, c.shortFrameBytes == 0 ? 0u : 1u);

    uint32_t frame = 0;
    expectBufferHoldsFrame(client.buffer(i), bufferBytes, c.roi, frameBytes, uvcLineBytes, &frame);
    if (i > 0) {
      EXPECT_GT(frame, previousFrame);
    }
    previousFrame = frame;
  }
  EXPECT_EQ(chan_->Close(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Stream, StreamCopyTest,
    ::testing::Values(CopyCase{"FullFrame", {1280, 960, 4, 2, 2560}, 0, 0, 1280, 960},
                      CopyCase{"RoiNarrowerThanFrame", {600, 400, 20, 40, 1200}, 0, 0, 640, 480},
                      // The camera cannot deliver more than its largest size: the lines and
                      // bytes that exist are copied, the rest of the buffer is left alone.
                      CopyCase{"RoiLargerThanFrame", {2000, 1500, 0, 0, 4000}, 0, 0, 1280, 960},
                      CopyCase{"ShortFrame", {640, 480, 0, 0, 1280}, 1000, 0, 640, 480},
                      CopyCase{"ClientBufferTooSmall", {640, 480, 0, 0, 1280}, 0, 3000, 640, 480}),
    [](const ::testing::TestParamInfo<CopyCase>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------- states

TEST_F(StreamChannelTest, OpenNeedsAConnectedControlChannelAndRefusesASecondOpen) {
  makeDevice({640, 480, 0, 0, 1280}, 0, false);
  tqtest::LogCapture log;
  EXPECT_EQ(chan_->Open(0, 0), kError);
  EXPECT_EQ(log.countExact("TqUvcStrmChan::control channel not open", RKLOG_DEBUG), 1u);
  EXPECT_FALSE(chan_->IsOpened());

  ASSERT_EQ(device_->GetCtrlChan()->Connect(device_->GetDiscData(), true), 0u);
  EXPECT_EQ(chan_->Open(0, 0), 0u);
  EXPECT_EQ(TqUvcIsOpenUvcDevice(camera_), 1);
  EXPECT_EQ(chan_->Open(0, 0), kError);
  EXPECT_EQ(log.countExact("Stream channel already connected, skip", RKLOG_DEBUG), 1u);
  EXPECT_TRUE(chan_->IsOpened());
}

TEST_F(StreamChannelTest, StartAndStopAreIdempotentAndCloseEndsTheCapture) {
  makeDevice({640, 480, 0, 0, 1280});
  ASSERT_EQ(chan_->Open(0, 0), 0u);
  Client client(640 * 480 * 2);
  client.configure(chan_->GetDataMemory());
  tqtest::LogCapture log;

  EXPECT_EQ(chan_->StreamStop(0), kError);
  EXPECT_EQ(log.countExact("TqUvcStrmChan::StreamStop: stream already stopped", RKLOG_TRACE), 1u);

  EXPECT_EQ(chan_->StreamStart(0), 0u);
  TqUvcStrmHandler* handler = chan_->GetHandler();
  ASSERT_NE(handler, nullptr);
  EXPECT_EQ(chan_->StreamStart(0), 0u);
  EXPECT_EQ(chan_->GetHandler(), handler);
  EXPECT_EQ(log.count("TqUvcStrmChan::StreamStart: read back: wxh = 640x480 offset: 0,0"), 1u);
  EXPECT_EQ(log.count("TqUvcStrmChan::StreamStart: start uvc aquisition"), 1u);
  EXPECT_EQ(chan_->StreamLockTableAcquireDmaMutex(), 0u);
  EXPECT_EQ(chan_->StreamLockTableReleaseDmaMutex(), 0u);

  EXPECT_EQ(chan_->StreamStop(0), 0u);
  EXPECT_EQ(chan_->GetHandler(), nullptr);
  EXPECT_FALSE(chan_->IsStarted());
  EXPECT_EQ(log.count("~TqUvcStrmSocketHandler:: [end]"), 1u);
  EXPECT_EQ(chan_->StreamStop(0), kError);

  // A frame that comes after the stop finds no handler and leaves no trace.
  log.clear();
  char frame[16] = {};
  LocalNewBufferCallBack(frame, sizeof frame, device_.get());
  LocalNewBufferCallBack(frame, sizeof frame, nullptr);
  EXPECT_EQ(log.count("OnCallback"), 0u);

  EXPECT_EQ(chan_->Close(), 0u);
  EXPECT_EQ(log.countExact("TqUvcStrmChan::Close(): stream channel closed", RKLOG_INFO), 1u);
  EXPECT_EQ(TqUvcIsOpenUvcDevice(camera_), 0);
  EXPECT_EQ(capture_thread[camera_], nullptr);
  EXPECT_EQ(chan_->GetDataMemory().GetNrBuffers(), 0u);
  EXPECT_EQ(chan_->Close(), 0u);
  EXPECT_EQ(log.countExact("TqUvcStrmChan::Close: stream channel already closed, skip close", RKLOG_TRACE),
            1u);
}

TEST_F(StreamChannelTest, WithoutADataCallbackFramesAreStillCopied) {
  makeDevice({640, 480, 0, 0, 1280});
  ASSERT_EQ(chan_->Open(0, 0), 0u);
  Client client(640 * 480 * 2);
  client.configure(chan_->GetDataMemory());
  tqtest::LogCapture log;
  ASSERT_EQ(chan_->StreamStart(0), 0u);
  // Nobody locks a buffer, so the ring goes round: buffer 0 comes again.
  ASSERT_TRUE(log.waitFor("TqUvcStrmSocketHandler::OnCallback: NotifyData() ActualBufferIdx= 3 valid=1", 5s));
  EXPECT_EQ(chan_->StreamStop(0), 0u);
  EXPECT_EQ(log.count("LockData::"), 0u);
  EXPECT_EQ(log.count("NotifyData buffer["), 0u);
  EXPECT_TRUE(client.events().empty());
  for (uint32_t i = 0; i < kNBuffers; ++i) {
    uint32_t frame = 0;
    expectBufferHoldsFrame(client.buffer(i), 640 * 480 * 2, {640, 480, 0, 0, 1280}, 640 * 480 * 2, 1280,
                           &frame);
  }
}

}  // namespace
