// The stream channel against the emulated camera: lock/notify protocol,
// geometry from the camera's registers, the copy, the client's DMA mutex.
#include <gtest/gtest.h>
#include <tqsim/FramePattern.h>
#include <tqsim/Sim.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "ControlFixture.h"
#include "control/VexaHID_Interface.h"
#include "stream/TqUvcStrmChan.h"
#include "video/KOR_UVC.h"

namespace {

using namespace std::chrono_literals;
constexpr uint32_t kN = 4;  // client buffers
constexpr uint8_t kFill = 0xCD;
constexpr uint32_t kError = 0x8FFF;

struct Event {
  uint64_t index, request, frameWord, hasInfo;  // frameWord: the current-frame word during the call
  void* handle;
  alignas(8) _tagTqUvcDataBlockInfo info;  // packed record: give its fields their alignment
};

// kN buffers in a ring, locked on request; gives `giveBacks` notified buffers back and
// keeps `hold` out of the ring once notified. Read only after the capture thread joined.
class Client {
 public:
  // `misalign`: each buffer starts that many bytes past an allocation.
  explicit Client(size_t bytes, int hold = -1, int giveBacks = 0, size_t misalign = 0)
      : hold_(hold), giveBacks_(giveBacks), misalign_(misalign) {
    for (uint32_t i = 0; i < kN; ++i) {
      buffers_.emplace_back(bytes + misalign, kFill);
      addresses_[i] = reinterpret_cast<uint64_t>(buffers_[i].data() + misalign);
      sizes_[i] = static_cast<uint32_t>(bytes);
      words_[i] = (i + 1) % kN;
    }
  }
  void configure(TqUvcStrmChan* chan) {
    chan->GetDataMemory().CfgBuffers(addresses_, sizes_, kN);
    chan->GetDataMemory().CfgLockTable(words_, reinterpret_cast<uint8_t*>(&frameWord_));
    chan->RegisterDataCallback(&Client::callback, reinterpret_cast<uint64_t>(this));
  }
  static void callback(uint32_t index, uint32_t request, void* handle, _tagTqUvcDataBlockInfo* info,
                       uint64_t context) {
    auto* self = reinterpret_cast<Client*>(context);
    self->events.push_back({index, request, self->frameWord_, info != nullptr, handle, {}});
    if (info != nullptr) self->events.back().info = *info;
    if (request == TQUVC_REQ_LOCK) self->words_[index] = TQUVC_LOCKED;
    if (request == TQUVC_REQ_NOTIFY && self->giveBacks_ > 0) self->giveBack(index);
  }
  const uint8_t* buffer(uint32_t i) const { return buffers_[i].data() + misalign_; }
  std::vector<Event> events;
  std::vector<uint8_t> heldCopy;  // the held buffer as it was notified

 private:
  uint32_t next(uint32_t i) const {
    uint32_t n = (i + 1) % kN;
    return heldCopy.empty() || int(n) != hold_ ? n : (n + 1) % kN;
  }
  void giveBack(uint32_t i) {
    const uint32_t pred = (i + kN - 1) % kN;
    if (int(i) != hold_) words_[i] = next(i), --giveBacks_;
    if (int(i) != hold_ || !heldCopy.empty()) return;
    heldCopy.assign(buffer(i), buffer(i) + buffers_[i].size() - misalign_);
    if (words_[pred] != TQUVC_LOCKED) words_[pred] = next(pred);
  }
  int hold_, giveBacks_;
  size_t misalign_;
  std::vector<std::vector<uint8_t>> buffers_;
  uint64_t addresses_[kN] = {};
  uint32_t sizes_[kN] = {};
  uint32_t words_[kN] = {};
  uint32_t frameWord_ = 0;
};

struct Geometry {  // as the camera's registers report it
  uint32_t width, height, offsetX, offsetY, pitch;
};

class StreamChannelTest : public ctltest::ControlTest {
 protected:
  // Plugs the camera and builds its device the way a scan does.
  void makeDevice(const Geometry& g, uint32_t shortFrameBytes = 0, bool connect = true,
                  const tqsim::FrameSize* largest = nullptr) {
    tqsim::CameraConfig config = tqsim::defaultCameraConfig();
    if (largest != nullptr) config.video.sizes.insert(config.video.sizes.begin(), *largest);
    const uint32_t addresses[] = {0x0A04, 0x0A08, 0x0A0C, 0x0A10, 0x0708};
    const uint32_t values[] = {g.width, g.height, g.offsetX, g.offsetY, g.pitch};
    for (int i = 0; i < 5; ++i) config.registers[addresses[i]] = values[i];
    config.videoFaults.shortFrameBytes = shortFrameBytes;
    device_ = &deviceFor(config);
    camera_ = static_cast<int>(device_->GetDiscData()->HIDCamIndex);
    if (connect) {
      ASSERT_EQ(device_->GetCtrlChan()->Connect(device_->GetDiscData(), true), 0u);
    }
    chan_ = device_->GetStrmChan();
  }
  TqUvcDevice* device_ = nullptr;
  TqUvcStrmChan* chan_ = nullptr;
  int camera_ = -1;
};

// Every byte of a buffer is the frame byte it was copied from when that byte
// exists in the frame, the line and the buffer, and the client's fill otherwise.
void expectFrame(const uint8_t* buf, size_t bufBytes, const Geometry& g, size_t frameBytes, size_t uvcLine,
                 uint32_t* frame) {
  ASSERT_TRUE(tqsim::frameNumberOf(buf, bufBytes, frame));
  for (size_t p = 0; p < bufBytes; ++p) {
    const size_t r = p / g.pitch, c = p % g.pitch, s = r * uvcLine + c;
    const bool copied = r < g.height && c < std::min<size_t>(g.pitch, uvcLine) && s < frameBytes;
    const uint8_t want = copied ? tqsim::framePatternByte(*frame, s) : kFill;
    ASSERT_EQ(buf[p], want) << "byte " << p << " (line " << r << ", column " << c << ")";
  }
}

TEST_F(StreamChannelTest, FillsEachFreeBufferOnceWithLockThenNotifyAndStopsWhenAllAreLocked) {
  struct Case {
    const char* name;
    Geometry roi;
    uint32_t shortFrameBytes;  // 0: full frames
    size_t bufferBytes;        // 0: roi height x pitch
    uint32_t uvcWidth, uvcHeight;
    size_t misalign = 0;  // client buffers start this far past 16-byte alignment
  } const cases[] = {
      {"full frame", {1280, 960, 4, 2, 2560}, 0, 0, 1280, 960},
      {"roi narrower than the frame", {600, 400, 20, 40, 1200}, 0, 0, 640, 480},
      {"roi larger than the largest frame", {2000, 1500, 0, 0, 4000}, 0, 0, 1280, 960},
      {"short frame", {640, 480, 0, 0, 1280}, 1000, 0, 640, 480},
      {"client buffer too small", {640, 480, 0, 0, 1280}, 0, 3000, 640, 480},
      // Large enough for the non-temporal copy: its unaligned head and tail.
      {"large frame into unaligned buffers", {1920, 1080, 0, 0, 3840}, 0, 0, 1920, 1080, 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TearDown();
    SetUp();
    const size_t bytes = c.bufferBytes != 0 ? c.bufferBytes : size_t{c.roi.height} * c.roi.pitch;
    const tqsim::FrameSize fullHd{1920, 1080, tqsim::IntervalKind::Discrete, {{1, 30}}};
    makeDevice(c.roi, c.shortFrameBytes, true, c.uvcWidth == 1920 ? &fullHd : nullptr);
    ASSERT_EQ(chan_->Open(0, 0), 0u);
    Client client(bytes, -1, 0, c.misalign);
    client.configure(chan_);
    tqtest::LogCapture log;
    ASSERT_EQ(chan_->StreamStart(0), 0u);
    ASSERT_TRUE(log.waitFor("TqUvcStrmSocketHandler::OnCallback: nothing to do (NrFreeBuffer:0)", 5s));
    EXPECT_EQ(chan_->StreamStop(0), 0u);

    const std::vector<Event>& events = client.events;
    ASSERT_EQ(events.size(), 2 * kN);
    const size_t uvcLine = size_t{c.uvcWidth} * 2;
    const size_t frameBytes = c.shortFrameBytes != 0 ? c.shortFrameBytes : uvcLine * c.uvcHeight;
    uint32_t previous = 0;
    for (uint32_t i = 0; i < kN; ++i) {
      // Lock request without info, then the notification; the next buffer
      // is named (current-frame word) before this one is notified.
      const Event &lock = events[2 * i], &notify = events[2 * i + 1];
      const _tagTqUvcDataBlockInfo& info = notify.info;
      const bool full = c.shortFrameBytes == 0;
      EXPECT_EQ(
          (std::vector<uint64_t>{lock.index, lock.request, lock.hasInfo, notify.index, notify.request,
                                 notify.hasInfo, notify.frameWord, info.BlockId, info.BufferIdx}),
          (std::vector<uint64_t>{i, TQUVC_REQ_LOCK, 0, i, TQUVC_REQ_NOTIFY, 1, (i + 1) % kN, i + 1, i}));
      EXPECT_EQ((std::vector<uint32_t>{info.Width, info.Height, info.OffsetX, info.OffsetY, info.DataSize,
                                       info.Valid, info.Incomplete}),
                (std::vector<uint32_t>{c.roi.width, c.roi.height, c.roi.offsetX, c.roi.offsetY,
                                       c.roi.height * c.roi.pitch, full ? 1u : 0u, full ? 0u : 1u}));
      EXPECT_EQ(notify.handle, reinterpret_cast<void*>(device_->GetHandle()));
      uint32_t frame = 0;
      expectFrame(client.buffer(i), bytes, c.roi, frameBytes, uvcLine, &frame);
      EXPECT_TRUE(i == 0 || frame > previous);
      previous = frame;
    }
    EXPECT_EQ(chan_->Close(), 0u);
  }
}

// The frame goes into the buffer named before it came, so a held buffer stays
// untouched only when the client keeps it LOCKED and links its ring past it.
TEST_F(StreamChannelTest, ABufferHeldOutOfTheRingIsNeverWrittenAgain) {
  makeDevice({640, 480, 0, 0, 1280});
  ASSERT_EQ(chan_->Open(0, 0), 0u);
  Client client(640 * 480 * 2, 1, 10);  // three rounds of the three others after buffer 1 was kept
  client.configure(chan_);
  tqtest::LogCapture log;
  ASSERT_EQ(chan_->StreamStart(0), 0u);
  ASSERT_TRUE(log.waitFor("TqUvcStrmSocketHandler::OnCallback: nothing to do (NrFreeBuffer:0)", 5s));
  EXPECT_EQ(chan_->StreamStop(0), 0u);
  ASSERT_EQ(client.events.size(), 2u * (2 + 9 + 3));
  for (size_t e = 4; e < client.events.size(); ++e) EXPECT_NE(client.events[e].index, 1u) << "event " << e;
  ASSERT_EQ(client.heldCopy.size(), 640u * 480 * 2);
  EXPECT_EQ(memcmp(client.heldCopy.data(), client.buffer(1), client.heldCopy.size()), 0);
  EXPECT_EQ(chan_->Close(), 0u);
}

TEST_F(StreamChannelTest, StateOperationsRefuseOutOfOrderCallsAndCloseEndsTheCapture) {
  makeDevice({640, 480, 0, 0, 1280}, 0, false);
  tqtest::LogCapture log;
  EXPECT_EQ(chan_->Open(0, 0), kError);
  EXPECT_EQ(log.countExact("TqUvcStrmChan::control channel not open", RKLOG_DEBUG), 1u);
  ASSERT_EQ(device_->GetCtrlChan()->Connect(device_->GetDiscData(), true), 0u);
  EXPECT_EQ(chan_->Open(0, 0), 0u);
  EXPECT_EQ(chan_->Open(0, 0), kError);
  EXPECT_EQ(log.countExact("Stream channel already connected, skip", RKLOG_DEBUG), 1u);
  EXPECT_EQ(chan_->StreamStop(0), kError);
  EXPECT_EQ(log.countExact("TqUvcStrmChan::StreamStop: stream already stopped", RKLOG_TRACE), 1u);

  // No data callback: frames are still copied, the ring goes round.
  Client client(640 * 480 * 2);
  client.configure(chan_);
  chan_->RegisterDataCallback(nullptr, 0);
  EXPECT_EQ(chan_->StreamStart(0), 0u);
  EXPECT_EQ(chan_->StreamStart(0), 0u);
  EXPECT_EQ(log.count("TqUvcStrmChan::StreamStart: read back: wxh = 640x480 offset: 0,0"), 1u);
  ASSERT_TRUE(log.waitFor("TqUvcStrmSocketHandler::OnCallback: NotifyData() ActualBufferIdx= 3 valid=1", 5s));
  EXPECT_EQ(chan_->StreamStop(0), 0u);
  EXPECT_GE(log.count("CaptureThread::ThreadRoutine: CLEANUP cap thread"), 1u);
  EXPECT_EQ(log.count("LockData::"), 0u);
  uint32_t frame = 0;
  expectFrame(client.buffer(3), 640 * 480 * 2, {640, 480, 0, 0, 1280}, 640 * 480 * 2, 1280, &frame);

  EXPECT_EQ(chan_->Close(), 0u);
  EXPECT_EQ(TqUvcIsOpenUvcDevice(camera_), 0);
  EXPECT_EQ(capture_thread[camera_], nullptr);
}

// A hold outlives StreamStop and still excludes others; client calls racing stops never
// reach a handler being deleted (ASan/TSan runs).
TEST_F(StreamChannelTest, DmaMutexCallsAreSafeAcrossStops) {
  makeDevice({640, 480, 0, 0, 1280});
  ASSERT_EQ(chan_->Open(0, 0), 0u);
  ASSERT_EQ(chan_->StreamStart(0), 0u);
  tqtest::LogCapture log;
  std::promise<void> held, stopped;
  std::thread holder([&] {
    EXPECT_EQ(chan_->StreamLockTableAcquireDmaMutex() + chan_->StreamLockTableAcquireDmaMutex(), 0u);
    held.set_value();
    stopped.get_future().wait();
    EXPECT_EQ(chan_->StreamLockTableReleaseDmaMutex() + chan_->StreamLockTableReleaseDmaMutex(), 0u);
  });
  held.get_future().wait();
  EXPECT_EQ(chan_->StreamStop(0), 0u);
  stopped.set_value();
  holder.join();

  std::atomic<bool> done{false};
  std::vector<std::thread> clients;
  for (int t = 0; t < 2; ++t)
    clients.emplace_back([&] {
      for (int i = 0; !done || i < 300; ++i) {
        EXPECT_EQ(chan_->StreamLockTableAcquireDmaMutex() + chan_->StreamLockTableReleaseDmaMutex(), 0u);
        if (i % 50 == 0) chan_->StreamStart(0);
      }
    });
  for (int cycle = 0; cycle < 4; ++cycle) {
    EXPECT_EQ(chan_->StreamStart(0), 0u);
    EXPECT_EQ(chan_->StreamStop(0), 0u);
  }
  done = true;
  for (std::thread& t : clients) t.join();
  chan_->StreamStop(0);
  EXPECT_EQ(log.count("", RKLOG_ERROR), 0u);  // e.g. "UVC:Dma" deleted while held
  EXPECT_EQ(chan_->Close(), 0u);
}

using tqtest::openDescriptors;

// The video node moved after the scan: close still ends the channel, frees what the
// failed UVC open left behind, and the channel opens again on the right node.
TEST_F(StreamChannelTest, AChannelWhoseVideoOpenFailedClosesAndOpensAgain) {
  makeDevice({640, 480, 0, 0, 1280});
  tqsim::CameraConfig config;
  ASSERT_TRUE(tqsim::cameraConfig(tqsim::cameras().front(), config));
  const int oldVideo = config.videoNumber;
  const size_t before = openDescriptors();
  ASSERT_TRUE(tqsim::modifyCamera(tqsim::cameras().front(), [&](tqsim::CameraConfig& c) {
    c.videoNumber = oldVideo + 2;
    c.metadataVideoNumber = oldVideo + 3;
  }));
  Client client(640 * 480 * 2);
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    tqtest::LogCapture log;
    EXPECT_EQ(chan_->Open(0, 0), 0u);  // the UVC result is not the channel's
    EXPECT_TRUE(log.contains("TqUvcOpenUvcDevice:: OpenStreaming error", RKLOG_ERROR));
    EXPECT_EQ(TqUvcIsOpenUvcDevice(camera_), 0);
    client.configure(chan_);
    EXPECT_EQ(chan_->StreamStart(0), 0u);  // a capture thread that finds no node
    EXPECT_EQ(chan_->StreamStop(0), 0u);
    EXPECT_EQ(chan_->Close(), 0u);
    EXPECT_EQ(log.countExact("TqUvcStrmChan::Close: UvcDevice already closed, skip close", RKLOG_TRACE), 1u);
    EXPECT_EQ(capture_thread[camera_], nullptr);
    EXPECT_EQ(openDescriptors(), before);
  }
  // Back on the node the pool knows: the same channel streams again.
  ASSERT_TRUE(tqsim::modifyCamera(tqsim::cameras().front(), [&](tqsim::CameraConfig& c) {
    c.videoNumber = oldVideo;
    c.metadataVideoNumber = oldVideo + 1;
  }));
  tqtest::LogCapture log;
  ASSERT_EQ(chan_->Open(0, 0), 0u);
  EXPECT_EQ(TqUvcIsOpenUvcDevice(camera_), 1);
  client.configure(chan_);
  ASSERT_EQ(chan_->StreamStart(0), 0u);
  EXPECT_TRUE(log.waitFor("TqUvcStrmSocketHandler::OnCallback: NotifyData()", 5s));
  EXPECT_EQ(chan_->StreamStop(0), 0u);
  EXPECT_EQ(chan_->Close(), 0u);
  EXPECT_EQ(openDescriptors(), before);
}

// A stop or close from the data callback while another thread's stop or close joins the
// capture thread must not wait for that thread.
TEST_F(StreamChannelTest, AStopFromTheCallbackDuringAnotherThreadsStopDoesNotDeadlock) {
  struct Racer {
    TqUvcStrmChan* chan = nullptr;
    bool callbackCloses = false;
    tqtest::LogCapture* log = nullptr;
    std::atomic<bool> fired{false};
    std::promise<void> inCallback;
    std::atomic<uint32_t> result{0};
    static void callback(uint32_t, uint32_t, void*, _tagTqUvcDataBlockInfo*, uint64_t context) {
      auto* self = reinterpret_cast<Racer*>(context);
      if (self->fired.exchange(true)) return;
      self->inCallback.set_value();
      // The other thread is in the capture object's close, holding the
      // channel's lock and about to join this thread.
      self->log->waitFor("CaptureThread::close()", 5s);
      self->result = self->callbackCloses ? self->chan->Close() : self->chan->StreamStop(0);
    }
  };
  makeDevice({640, 480, 0, 0, 1280});
  Client client(640 * 480 * 2);
  for (int round = 0; round < 8; ++round) {
    const bool otherCloses = round % 2 != 0;
    const bool callbackCloses = round % 4 >= 2;
    SCOPED_TRACE(std::string(otherCloses ? "Close" : "StreamStop") + " on another thread, " +
                 (callbackCloses ? "Close" : "StreamStop") + " in the callback");
    ASSERT_EQ(chan_->Open(0, 0), 0u);
    client.configure(chan_);
    tqtest::LogCapture log;
    Racer racer;
    racer.chan = chan_;
    racer.callbackCloses = callbackCloses;
    racer.log = &log;
    chan_->RegisterDataCallback(&Racer::callback, reinterpret_cast<uint64_t>(&racer));
    ASSERT_EQ(chan_->StreamStart(0), 0u);
    ASSERT_EQ(racer.inCallback.get_future().wait_for(5s), std::future_status::ready);
    std::packaged_task<uint32_t()> stop([&] { return otherCloses ? chan_->Close() : chan_->StreamStop(0); });
    std::future<uint32_t> stopped = stop.get_future();
    std::thread other(std::move(stop));
    if (stopped.wait_for(10s) != std::future_status::ready) {
      std::fprintf(stderr,
                   "deadlock: the stopping thread waits for the capture thread, which waits for it\n");
      std::abort();
    }
    other.join();
    EXPECT_EQ(stopped.get(), 0u);
    EXPECT_EQ(racer.result.load(), kError);
    EXPECT_EQ(chan_->StreamStop(0), otherCloses ? 0u : kError);  // a close leaves the stream started
    EXPECT_FALSE(chan_->IsStarted());
    EXPECT_EQ(chan_->Close(), 0u);
    EXPECT_FALSE(chan_->IsOpened());
    EXPECT_EQ(capture_thread[camera_], nullptr);
  }
}

}  // namespace
