// The USB camera through its USB/IP link, with the test in vhci_hcd's place:
// enumeration, the HID command path and feature read, probe/commit and
// frames on the bulk endpoint, unlinks and USB-level faults.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <tqsim/FramePattern.h>
#include <tqsim/Sim.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <set>
#include <thread>

#include "Camera.h"
#include "ServeLoop.h"
#include "UsbCamera.h"
#include "UsbIp.h"

namespace {

using namespace tqsim::usb;

struct Ret {
  uint32_t command = 0;
  uint32_t seqnum = 0;
  int32_t status = 0;
  std::vector<uint8_t> data;
};

// The device on one end of a socketpair, served by the real loop in a thread;
// the test plays the host on the other end.
class Link {
 public:
  explicit Link(tqsim::CameraConfig config = tqsim::defaultCameraConfig(), UsbFaults faults = {})
      : camera_(std::make_shared<tqsim::Camera>(1, std::move(config))) {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    host_ = ends[1];
    stop_ = ::eventfd(0, EFD_CLOEXEC);
    UsbCamera::Options options{Functions{}, camera_->config().serial, std::move(faults)};
    device_ = std::make_unique<UsbCamera>(camera_, options, ends[0]);
    thread_ = std::thread([this] { end_ = serveDevices({device_.get()}, stop_, [] { return false; }); });
  }
  ~Link() {
    const uint64_t one = 1;
    EXPECT_EQ(::write(stop_, &one, sizeof one), static_cast<ssize_t>(sizeof one));
    thread_.join();
    ::close(stop_);
    ::close(host_);
  }

  tqsim::Camera& camera() { return *camera_; }
  const LoopEnd& end() const { return end_; }  // after the link ended
  void join() {
    thread_.join();
    thread_ = std::thread([] {});
  }

  uint32_t submit(uint32_t direction, uint32_t endpoint, uint32_t length, const uint8_t setup[8] = nullptr,
                  const std::vector<uint8_t>& data = {}) {
    const uint32_t seqnum = next_++;
    sendRaw(encodeCmdSubmit(seqnum, direction, endpoint, length, setup, data));
    return seqnum;
  }
  uint32_t unlink(uint32_t target) {
    const uint32_t seqnum = next_++;
    sendRaw(encodeCmdUnlink(seqnum, target));
    return seqnum;
  }
  // A device that went away shows in the next receive, not here.
  void sendRaw(const std::vector<uint8_t>& bytes) {
    [[maybe_unused]] const ssize_t n = ::send(host_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }

  // The next answer; command 0 on time-out or end of file.
  Ret receive(int timeoutMs = 3000) {
    Ret ret;
    uint8_t header[kHeaderSize];
    if (!readAll(header, sizeof header, timeoutMs)) return ret;
    ret.command = readBe32(header);
    ret.seqnum = readBe32(header + 4);
    ret.status = static_cast<int32_t>(readBe32(header + 20));
    const uint32_t length = readBe32(header + 24);
    if (ret.command == kRetSubmit && pendingIn_.count(ret.seqnum) != 0) {
      ret.data.resize(length);
      if (!readAll(ret.data.data(), length, timeoutMs)) ret.command = 0;
    }
    pendingIn_.erase(ret.seqnum);
    return ret;
  }

  // A control transfer answered at once; IN data, or the status.
  Ret control(uint8_t type, uint8_t request, uint16_t value, uint16_t index, uint16_t length,
              const std::vector<uint8_t>& out = {}) {
    const uint8_t setup[8] = {type,
                              request,
                              static_cast<uint8_t>(value),
                              static_cast<uint8_t>(value >> 8),
                              static_cast<uint8_t>(index),
                              static_cast<uint8_t>(index >> 8),
                              static_cast<uint8_t>(length),
                              static_cast<uint8_t>(length >> 8)};
    const bool in = (type & 0x80) != 0;
    const uint32_t seqnum = submitIn(in, 0, length, setup, out);
    Ret ret = receive();
    EXPECT_EQ(ret.seqnum, seqnum);
    return ret;
  }
  uint32_t submitIn(bool in, uint32_t endpoint, uint32_t length, const uint8_t setup[8] = nullptr,
                    const std::vector<uint8_t>& out = {}) {
    const uint32_t seqnum = submit(in ? kDirIn : kDirOut, endpoint, length, setup, out);
    if (in) pendingIn_.insert(seqnum);
    return seqnum;
  }

  std::vector<uint8_t> descriptor(uint8_t type, uint8_t index, uint16_t length = 4096) {
    return control(0x80, 6, static_cast<uint16_t>(type << 8 | index), 0, length).data;
  }
  void configure() { ASSERT_EQ(control(0x00, 9, 1, 0, 0).status, 0); }

  // One complete frame from the bulk endpoint, keeping `depth` transfers queued
  // as uvcvideo does. Returns the payload headers' flags in *flags.
  std::vector<uint8_t> frame(std::vector<uint8_t>* flags = nullptr, size_t depth = 5) {
    std::vector<uint8_t> data;
    while (queued_ < depth) {
      submitIn(true, 1, kMaxPayload);
      ++queued_;
    }
    for (;;) {
      Ret ret = receive();
      if (ret.command != kRetSubmit || ret.data.size() < 2) return {};
      --queued_;
      submitIn(true, 1, kMaxPayload);
      ++queued_;
      if (flags) flags->push_back(ret.data[1]);
      data.insert(data.end(), ret.data.begin() + ret.data[0], ret.data.end());
      if ((ret.data[1] & 0x02) != 0) return data;
    }
  }

 private:
  bool readAll(uint8_t* data, size_t length, int timeoutMs) {
    size_t done = 0;
    while (done < length) {
      pollfd p{host_, POLLIN, 0};
      if (::poll(&p, 1, timeoutMs) != 1) return false;
      const ssize_t n = ::read(host_, data + done, length - done);
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }

  std::shared_ptr<tqsim::Camera> camera_;
  int host_ = -1;
  int stop_ = -1;
  std::unique_ptr<UsbCamera> device_;
  std::thread thread_;
  LoopEnd end_;
  uint32_t next_ = 1;
  size_t queued_ = 0;
  std::set<uint32_t> pendingIn_;
};

uint16_t le16(const std::vector<uint8_t>& d, size_t at) {
  return static_cast<uint16_t>(d[at] | d[at + 1] << 8);
}
uint32_t le32(const std::vector<uint8_t>& d, size_t at) {
  return le16(d, at) | (uint32_t{le16(d, at + 2)} << 16);
}

std::string ascii(const std::vector<uint8_t>& string) {
  std::string out;
  for (size_t i = 2; i + 1 < string.size(); i += 2) out += static_cast<char>(string[i]);
  return out;
}

TEST(UsbCamera, EnumeratesAsTheReferenceCamera) {
  Link link;
  const std::vector<uint8_t> device = link.descriptor(1, 0, 64);
  ASSERT_EQ(device.size(), 18u);
  EXPECT_EQ(le16(device, 2), 0x0200);  // USB 2.0
  EXPECT_EQ((std::vector<uint8_t>{device[4], device[5], device[6]}), (std::vector<uint8_t>{0xEF, 2, 1}));
  EXPECT_EQ(le16(device, 8), 0x7A3D);
  EXPECT_EQ(le16(device, 10), 0x0203);
  EXPECT_EQ(le16(device, 12), 0x0100);
  EXPECT_EQ(ascii(link.descriptor(3, device[14])), "Emu Vendor");
  EXPECT_EQ(ascii(link.descriptor(3, device[15])), "Emu Camera");
  EXPECT_EQ(ascii(link.descriptor(3, device[16])), "CAM-SN-0042");

  // The kernel reads the first 9 bytes, then the whole configuration.
  const std::vector<uint8_t> head = link.descriptor(2, 0, 9);
  ASSERT_EQ(head.size(), 9u);
  const std::vector<uint8_t> config = link.descriptor(2, 0, le16(head, 2));
  ASSERT_EQ(config.size(), le16(head, 2));
  EXPECT_EQ(config[4], 3);     // interfaces
  EXPECT_EQ(config[7], 0x80);  // bus powered
  EXPECT_EQ(config[8], 250);   // 500 mA

  // Walk every descriptor: lengths chain up, and the pieces the drivers bind
  // to are there.
  std::vector<std::vector<uint8_t>> interfaces;
  std::vector<std::vector<uint8_t>> endpoints;
  std::vector<std::pair<uint16_t, uint16_t>> sizes;
  std::vector<uint32_t> firstIntervals;
  size_t at = 0;
  for (; at < config.size(); at += config[at]) {
    ASSERT_GE(config[at], 2u);
    ASSERT_LE(at + config[at], config.size());
    const std::vector<uint8_t> d(config.begin() + at, config.begin() + at + config[at]);
    if (d[1] == 0x04) interfaces.push_back(d);
    if (d[1] == 0x05) endpoints.push_back(d);
    if (d[1] == 0x0B) {
      EXPECT_EQ((std::vector<uint8_t>{d[2], d[3], d[4], d[5]}), (std::vector<uint8_t>{0, 2, 0x0E, 3}));
    }
    if (d[1] == 0x24 && d[2] == 0x05) {
      sizes.emplace_back(le16(d, 5), le16(d, 7));
      EXPECT_EQ(le32(d, 17), uint32_t{le16(d, 5)} * le16(d, 7) * 2);
      firstIntervals.push_back(le32(d, 26));
    }
  }
  EXPECT_EQ(at, config.size());
  ASSERT_EQ(interfaces.size(), 3u);
  EXPECT_EQ((std::vector<uint8_t>{interfaces[0][5], interfaces[0][6], interfaces[0][4]}),
            (std::vector<uint8_t>{0x0E, 1, 0}));
  EXPECT_EQ((std::vector<uint8_t>{interfaces[1][5], interfaces[1][6], interfaces[1][4]}),
            (std::vector<uint8_t>{0x0E, 2, 1}));
  EXPECT_EQ((std::vector<uint8_t>{interfaces[2][2], interfaces[2][5], interfaces[2][6], interfaces[2][4]}),
            (std::vector<uint8_t>{2, 3, 0, 2}));
  ASSERT_EQ(endpoints.size(), 3u);
  EXPECT_EQ((std::vector<uint8_t>{endpoints[0][2], endpoints[0][3]}), (std::vector<uint8_t>{0x81, 2}));
  EXPECT_EQ(le16(endpoints[0], 4), 512);
  EXPECT_EQ((std::vector<uint8_t>{endpoints[1][2], endpoints[1][3]}), (std::vector<uint8_t>{0x82, 3}));
  EXPECT_EQ((std::vector<uint8_t>{endpoints[2][2], endpoints[2][3]}), (std::vector<uint8_t>{0x02, 3}));
  EXPECT_EQ(sizes, (std::vector<std::pair<uint16_t, uint16_t>>{{1280, 960}, {640, 480}, {320, 240}}));
  EXPECT_EQ(firstIntervals, (std::vector<uint32_t>{333333, 333333, 333333}));

  // Requests a high-speed device does not support stall instead of hanging.
  EXPECT_EQ(link.control(0x80, 6, 0x0F00, 0, 5).status, kStatusStall);  // BOS
  EXPECT_EQ(link.control(0x00, 11, 1, 1, 0).status, kStatusStall);      // alternate setting 1
}

// Requests the kernel never sends but a USB 2.0 / UVC 1.1 host may: the
// full-speed configuration the qualifier promises, status of what does not
// exist, and the probe control's resolution.
TEST(UsbCamera, AnswersWhatItsDescriptorsPromise) {
  Link link;
  EXPECT_EQ(link.control(0x81, 0, 0, 0, 2).status, kStatusStall) << "interface status before configuring";
  EXPECT_EQ(link.control(0x82, 0, 0, 0x81, 2).status, kStatusStall) << "endpoint status before configuring";
  EXPECT_EQ(link.control(0x82, 0, 0, 0x80, 2).data, (std::vector<uint8_t>{0, 0})) << "endpoint 0";
  link.configure();
  EXPECT_EQ(link.control(0x81, 0, 0, 2, 2).data, (std::vector<uint8_t>{0, 0}));
  EXPECT_EQ(link.control(0x81, 0, 0, 3, 2).status, kStatusStall) << "interface 3";
  EXPECT_EQ(link.control(0x82, 0, 0, 0x81, 2).data, (std::vector<uint8_t>{0, 0}));
  EXPECT_EQ(link.control(0x82, 0, 0, 0x83, 2).status, kStatusStall) << "endpoint 0x83";

  const std::vector<uint8_t> high = link.descriptor(2, 0);
  const std::vector<uint8_t> full = link.descriptor(7, 0);
  ASSERT_EQ(full.size(), high.size());
  EXPECT_EQ(full[1], 7);
  std::vector<std::vector<uint8_t>> endpoints;
  for (size_t at = 0; at + 1 < full.size(); at += full[at]) {
    if (full[at + 1] == 0x05) endpoints.emplace_back(full.begin() + at, full.begin() + at + full[at]);
  }
  ASSERT_EQ(endpoints.size(), 3u);
  EXPECT_EQ(le16(endpoints[0], 4), 64) << "bulk packets at full speed";
  EXPECT_EQ(endpoints[1][6], 1) << "interrupt IN every 1 ms";
  EXPECT_EQ(endpoints[2][6], 1) << "interrupt OUT every 1 ms";

  const Ret res = link.control(0xA1, 0x84, 1 << 8, 1, 34);  // GET_RES of the probe control
  EXPECT_EQ(res.status, 0);
  EXPECT_EQ(res.data, std::vector<uint8_t>(34, 0));
}

// A camera split over two devices (the video-serial fault) numbers each
// device's interfaces from 0, and only the video device announces an IAD.
TEST(UsbCamera, SplitLayoutsNumberTheirInterfacesFromZero) {
  struct Case {
    Functions functions;
    uint8_t deviceClass;
    std::vector<std::pair<uint8_t, uint8_t>> interfaces;  // number, class
  } cases[] = {
      {{true, true}, 0xEF, {{0, 0x0E}, {1, 0x0E}, {2, 0x03}}},
      {{false, true}, 0x00, {{0, 0x03}}},
      {{true, false}, 0xEF, {{0, 0x0E}, {1, 0x0E}}},
  };
  const tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  for (const Case& c : cases) {
    const std::vector<uint8_t> device = deviceDescriptor(config, c.functions);
    EXPECT_EQ(device[4], c.deviceClass);
    const std::vector<uint8_t> configuration = configurationDescriptor(config, c.functions);
    EXPECT_EQ(le16(configuration, 2), configuration.size());
    EXPECT_EQ(configuration[4], c.interfaces.size());
    std::vector<std::pair<uint8_t, uint8_t>> found;
    for (size_t at = 0; at + 1 < configuration.size(); at += configuration[at]) {
      if (configuration[at + 1] == 0x04) found.emplace_back(configuration[at + 2], configuration[at + 5]);
    }
    EXPECT_EQ(found, c.interfaces);
  }
}

// A frame descriptor's length is one byte: a size with more intervals than
// fit lists the first ones and the chain stays intact; the bit rates of a
// continuous range come from its min and max, not its step.
TEST(UsbCamera, FrameDescriptorsFitTheirLengthByte) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  tqsim::FrameSize many{320, 240, tqsim::IntervalKind::Discrete, {}};
  for (uint32_t rate = 60; rate >= 1; --rate) many.intervals.push_back({1, rate});
  const tqsim::FrameSize range{640, 480, tqsim::IntervalKind::Continuous, {{1, 30}, {1, 5}, {1, 1000}}};
  config.video.sizes = {many, range};
  const std::vector<uint8_t> configuration = configurationDescriptor(config, Functions{});
  ASSERT_EQ(le16(configuration, 2), configuration.size());
  std::vector<std::vector<uint8_t>> frames;
  size_t at = 0;
  for (; at < configuration.size(); at += configuration[at]) {
    ASSERT_GE(configuration[at], 2u) << "at byte " << at;
    ASSERT_LE(at + configuration[at], configuration.size());
    if (configuration[at + 1] == 0x24 && configuration[at + 2] == 0x05)
      frames.emplace_back(configuration.begin() + at, configuration.begin() + at + configuration[at]);
  }
  EXPECT_EQ(at, configuration.size());
  ASSERT_EQ(frames.size(), 2u);

  EXPECT_EQ(frames[0].size(), 26u + 4 * 57);
  EXPECT_EQ(frames[0][25], 57);  // bFrameIntervalType
  EXPECT_EQ(le32(frames[0], 26), 10000000u / 60 + 1);
  EXPECT_EQ(le32(frames[0], 26 + 4 * 56), 10000000u / 4);

  const uint32_t bitsPerFrame = 640 * 480 * 2 * 8;
  EXPECT_EQ(frames[1].size(), 38u);
  EXPECT_EQ(frames[1][25], 0);                       // continuous
  EXPECT_EQ(le32(frames[1], 9), bitsPerFrame * 5u);  // dwMinBitRate at the longest interval
  EXPECT_EQ(le32(frames[1], 13), uint64_t{bitsPerFrame} * 10000000 / 333333);  // dwMaxBitRate at the shortest
}

TEST(UsbCamera, HidCommandsAnswerOnTheInterruptEndpoint) {
  Link link;
  link.configure();
  EXPECT_EQ(link.control(0x21, 0x0A, 0, 2, 0).status, 0);  // SET_IDLE
  const std::vector<uint8_t> report = link.control(0x81, 6, 0x2200, 2, 4096).data;
  EXPECT_EQ(report, hidReportDescriptor());

  const uint32_t in = link.submitIn(true, 2, 64);
  // Register read of the width: 8 bytes through the interrupt OUT endpoint.
  link.submitIn(false, 2, 8, nullptr, {0x01, 0x5C, 0x00, 0x04, 0x0A, 0, 0, 0});
  Ret out = link.receive();
  EXPECT_EQ(out.status, 0);
  Ret answer = link.receive();
  ASSERT_EQ(answer.seqnum, in);
  ASSERT_EQ(answer.data.size(), 64u);
  EXPECT_EQ(answer.data[0], 1);
  EXPECT_EQ(answer.data[1], 0x5C);
  EXPECT_EQ(le32(answer.data, 5), 1280u);

  // The same command as a SET_REPORT on endpoint 0 (hidraw without an OUT
  // endpoint would send it so); the answer waits for the next IN transfer.
  EXPECT_EQ(link.control(0x21, 0x09, 0x0201, 2, 6, {0x01, 0x5C, 0x00, 0x40, 0x05, 0}).status, 0);
  link.submitIn(true, 2, 64);
  answer = link.receive();
  ASSERT_EQ(answer.data.size(), 64u);
  EXPECT_EQ(std::string(answer.data.begin() + 3, answer.data.begin() + 10), "Emu UVC");
  EXPECT_EQ(link.camera().receivedReports().size(), 2u);

  // An unlinked transfer is never answered; one already answered unlinks with 0.
  const uint32_t parked = link.submitIn(true, 2, 64);
  const uint32_t unlinkSeq = link.unlink(parked);
  Ret unlinked = link.receive();
  EXPECT_EQ(unlinked.command, kRetUnlink);
  EXPECT_EQ(unlinked.seqnum, unlinkSeq);
  EXPECT_EQ(unlinked.status, kStatusUnlinked);
  link.unlink(in);
  EXPECT_EQ(link.receive().status, kStatusOk);
  // The next answer goes to a live transfer, never to the unlinked one.
  const uint32_t fresh = link.submitIn(true, 2, 64);
  link.submitIn(false, 2, 8, nullptr, {0x01, 0x5C, 0x00, 0x08, 0x0A, 0, 0, 0});
  link.receive();
  EXPECT_EQ(link.receive().seqnum, fresh);
}

TEST(UsbCamera, FeatureReadCarriesFileDataFromByteZero) {
  struct Case {
    UsbFaults faults;
    size_t bytes;
  };
  UsbFaults shortFeature;
  shortFeature.shortFeatureBytes = 512;
  for (const Case& c : {Case{{}, 1024}, Case{shortFeature, 512}}) {
    Link link(tqsim::defaultCameraConfig(), c.faults);
    link.configure();
    const std::vector<uint8_t> xml = link.camera().xmlFile();
    link.submitIn(false, 2, 6, nullptr, {0x01, 0x4E, 0x00, 0x01, 0x00, 0x00});  // chunk 1
    link.receive();
    const Ret feature = link.control(0xA1, 0x01, 0x0301, 2, 1024);
    ASSERT_EQ(feature.data.size(), c.bytes);
    EXPECT_TRUE(std::equal(feature.data.begin(), feature.data.end(), xml.begin() + 1024));
  }
  tqsim::CameraConfig failing = tqsim::defaultCameraConfig();
  failing.hidFaults.featureFails = true;
  Link link(failing);
  link.configure();
  EXPECT_EQ(link.control(0xA1, 0x01, 0x0301, 2, 1024).status, kStatusStall);
}

TEST(UsbCamera, LateAnswerWaitsForItsTime) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.hidFaults.lateAnswerMs = 200;
  Link link(config);
  link.configure();
  link.submitIn(true, 2, 64);
  const auto sent = std::chrono::steady_clock::now();
  link.submitIn(false, 2, 8, nullptr, {0x01, 0x5C, 0x00, 0x50, 0x06, 0, 0, 0});
  link.receive();
  const Ret answer = link.receive();
  EXPECT_EQ(answer.data.size(), 64u);
  EXPECT_GE(std::chrono::steady_clock::now() - sent, std::chrono::milliseconds(200));
}

// Probe and commit as uvcvideo does them, then whole frames off the bulk
// endpoint: pattern intact, FID toggling per frame, EOF on each last payload.
TEST(UsbCamera, StreamsCommittedFramesWithPayloadHeaders) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.video.sizes[2].intervals = {{1, 100}};  // fast frames keep the test short
  Link link(config);
  link.configure();
  EXPECT_EQ(link.control(0xA1, 0x85, 0x0100, 1, 2).data, (std::vector<uint8_t>{34, 0}));  // GET_LEN
  EXPECT_EQ(link.control(0xA1, 0x86, 0x0100, 1, 1).data, (std::vector<uint8_t>{3}));      // GET_INFO
  const std::vector<uint8_t> def = link.control(0xA1, 0x87, 0x0100, 1, 34).data;          // GET_DEF
  ASSERT_EQ(def.size(), 34u);
  EXPECT_EQ(def[3], 1);

  StreamControl wanted;
  wanted.formatIndex = 1;
  wanted.frameIndex = 3;
  wanted.frameInterval = 90000;  // nearest offered: 1/100 s
  EXPECT_EQ(link.control(0x21, 0x01, 0x0100, 1, 34, wanted.encode()).status, 0);
  std::vector<uint8_t> probe = link.control(0xA1, 0x81, 0x0100, 1, 34).data;
  ASSERT_EQ(probe.size(), 34u);
  EXPECT_EQ(probe[3], 3);
  EXPECT_EQ(le32(probe, 4), 100000u);
  EXPECT_EQ(le32(probe, 18), 320u * 240 * 2);
  EXPECT_EQ(le32(probe, 22), kMaxPayload);
  EXPECT_EQ(link.control(0x21, 0x01, 0x0200, 1, 34, probe).status, 0);  // commit

  uint8_t lastFid = 0;
  for (uint32_t n = 0; n < 3; ++n) {
    std::vector<uint8_t> flags;
    const std::vector<uint8_t> frame = link.frame(&flags);
    ASSERT_EQ(frame.size(), 320u * 240 * 2) << "frame " << n;
    uint32_t number = 99;
    size_t bad = 0;
    EXPECT_TRUE(tqsim::verifyFrame(frame.data(), frame.size(), &number, &bad)) << "first bad byte " << bad;
    EXPECT_EQ(number, n);
    for (size_t i = 0; i < flags.size(); ++i) {
      EXPECT_EQ(flags[i] & 0x01, n % 2) << "FID of payload " << i;
      EXPECT_EQ((flags[i] & 0x02) != 0, i + 1 == flags.size()) << "EOF of payload " << i;
    }
    if (n > 0) {
      EXPECT_NE(flags[0] & 1, lastFid);
    }
    lastFid = flags[0] & 1;
  }

  // CLEAR_FEATURE(HALT) on the endpoint stops the stream. Payloads due before
  // it may still come ahead of its answer; after it, queued transfers stay
  // unanswered, so the next answer is the following control request's.
  const uint8_t clearHalt[8] = {0x02, 1, 0, 0, 0x81, 0, 0, 0};
  const uint32_t clear = link.submitIn(false, 0, 0, clearHalt);
  Ret ret = link.receive();
  while (ret.command == kRetSubmit && ret.seqnum != clear) ret = link.receive();
  EXPECT_EQ(ret.status, 0);
  link.submitIn(true, 1, kMaxPayload);
  EXPECT_EQ(link.control(0x80, 0, 0, 0, 2).data, (std::vector<uint8_t>{0, 0}));
}

TEST(UsbCamera, FrameFaultsShowInTheFrames) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.video.sizes = {config.video.sizes[2]};
  config.video.sizes[0].intervals = {{1, 100}};
  UsbFaults corrupt;
  corrupt.corruptFrame = true;
  UsbFaults shortFrames;
  shortFrames.shortPayload = true;
  UsbFaults stall;
  stall.stalls = {"commit"};
  const size_t full = 320 * 240 * 2;
  struct Case {
    const char* name;
    UsbFaults faults;
    size_t size;  // 0: the commit stalls
    bool patternOk;
  } cases[] = {
      {"corrupt-frame", corrupt, full, false},
      {"short-payload", shortFrames, full / 4 * 3, true},
      {"stall=commit", stall, 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Link link(config, c.faults);
    link.configure();
    StreamControl wanted;
    wanted.frameIndex = 1;
    const Ret commit = link.control(0x21, 0x01, 0x0200, 1, 34, wanted.encode());
    if (c.size == 0) {
      EXPECT_EQ(commit.status, kStatusStall);
      continue;
    }
    const std::vector<uint8_t> frame = link.frame();
    ASSERT_EQ(frame.size(), c.size);
    size_t bad = 0;
    EXPECT_EQ(tqsim::verifyFrame(frame.data(), frame.size(), nullptr, &bad), c.patternOk);
    if (!c.patternOk) {
      EXPECT_EQ(bad, tqsim::kFrameHeaderBytes);
    }
  }
}

TEST(UsbCamera, DisconnectFaultAndBrokenPeerEndTheLink) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.video.sizes = {config.video.sizes[2]};
  config.video.sizes[0].intervals = {{1, 100}};
  UsbFaults faults;
  faults.disconnectAfterFrames = 2;
  {
    Link link(config, faults);
    link.configure();
    StreamControl wanted;
    wanted.frameIndex = 1;
    link.control(0x21, 0x01, 0x0200, 1, 34, wanted.encode());
    EXPECT_FALSE(link.frame().empty());
    EXPECT_FALSE(link.frame().empty());
    EXPECT_TRUE(link.frame().empty());  // end of file: the device is gone
    link.join();
    EXPECT_FALSE(link.end().stopped);
    EXPECT_EQ(link.end().reason, "disconnected after 2 frames");
  }
  Link link;
  std::vector<uint8_t> garbage(kHeaderSize, 0xFF);
  link.sendRaw(garbage);
  EXPECT_EQ(link.receive().command, 0u);
  link.join();
  EXPECT_NE(link.end().reason.find("not a USB/IP request"), std::string::npos);
}

}  // namespace
