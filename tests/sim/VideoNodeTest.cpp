// The emulated video node through plain open/ioctl/poll/close and sysfs, as
// V4L2 tools (v4l2-ctl, v4l2-compliance) use it and uvcvideo answers.
#include <dirent.h>
#include <fcntl.h>
#include <linux/hidraw.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <tqsim/VideoStatus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <tuple>

#include "SimTestUtil.h"
#include "TestUtil.h"

namespace {

using tqtest::plug;

class VideoNode : public simtest::SimTest {
 protected:
  void TearDown() override {
    for (int fd : fds_) close(fd);
    SimTest::TearDown();
  }
  int openNode(const char* path, int flags = O_RDWR) {
    const int fd = open(path, flags);
    EXPECT_GE(fd, 0) << path << ": " << strerror(errno);
    if (fd >= 0) fds_.push_back(fd);
    return fd;
  }
  void forget(int fd) { fds_.erase(std::remove(fds_.begin(), fds_.end(), fd), fds_.end()); }

  std::vector<int> fds_;
};

v4l2_format captureFormat(uint32_t width, uint32_t height) {
  v4l2_format fmt{};
  fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  fmt.fmt.pix.width = width;
  fmt.fmt.pix.height = height;
  fmt.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
  return fmt;
}

v4l2_requestbuffers bufferRequest(uint32_t count, uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE) {
  v4l2_requestbuffers req{};
  req.count = count;
  req.type = type;
  req.memory = V4L2_MEMORY_MMAP;
  return req;
}

v4l2_buffer mmapBuffer(uint32_t index = 0) {
  v4l2_buffer buf{};
  buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  buf.memory = V4L2_MEMORY_MMAP;
  buf.index = index;
  return buf;
}

// Queues buffers 0..count-1 and streams; `request` asks for them first.
void startStreaming(int fd, uint32_t count, bool request = true) {
  v4l2_requestbuffers req = bufferRequest(count);
  if (request) {
    ASSERT_EQ(ioctl(fd, VIDIOC_REQBUFS, &req), 0) << strerror(errno);
  }
  for (uint32_t i = 0; i < count; ++i) {
    v4l2_buffer buf = mmapBuffer(i);
    ASSERT_EQ(ioctl(fd, VIDIOC_QBUF, &buf), 0) << strerror(errno);
  }
  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  ASSERT_EQ(ioctl(fd, VIDIOC_STREAMON, &type), 0) << strerror(errno);
}

std::string fileText(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST_F(VideoNode, PlainCallsReachTheNodeAndBusInfoNamesTheCamerasPort) {
  plug();
  plug(tqtest::cameraOn(1, 2));

  for (const auto& [video, hidraw, port] :
       {std::tuple{"/dev/video0", "/dev/hidraw0", "1"}, std::tuple{"/dev/video2", "/dev/hidraw1", "2"}}) {
    SCOPED_TRACE(video);
    const int fd = openNode(video);
    v4l2_capability cap{};
    ASSERT_EQ(ioctl(fd, VIDIOC_QUERYCAP, &cap), 0);
    const std::string bus = reinterpret_cast<const char*>(cap.bus_info);
    EXPECT_EQ(bus, std::string("usb-vhci_hcd.0-") + port);
    // The hidraw node of the same camera sits on the same USB device.
    const int hid = openNode(hidraw);
    char phys[64] = {};
    ASSERT_GT(ioctl(hid, HIDIOCGRAWPHYS(sizeof phys), phys), 0);
    EXPECT_EQ(std::string(phys).rfind(bus + "/", 0), 0u) << phys;

    struct stat st {};
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(major(st.st_rdev), 81u);
    char byte = 0;
    EXPECT_ERRNO(read(fd, &byte, 1), EINVAL) << "uvcvideo has no read()";
  }
}

TEST_F(VideoNode, AnswersAsUvcvideoDoes) {
  plug();
  const int fd = openNode("/dev/video0");

  EXPECT_ERRNO(ioctl(fd, _IOC(_IOC_NONE, 'V', 0xFF, 0), nullptr), ENOTTY);
  EXPECT_ERRNO(ioctl(fd, VIDIOC_G_EXT_CTRLS, nullptr), ENOTTY) << "unknown before the argument is looked at";

  v4l2_frmsizeenum size{};
  size.pixel_format = V4L2_PIX_FMT_YUYV;
  size.reserved[0] = size.reserved[1] = 0xDEADBEEF;
  ASSERT_EQ(ioctl(fd, VIDIOC_ENUM_FRAMESIZES, &size), 0);
  EXPECT_EQ(size.reserved[0] | size.reserved[1], 0u) << "reserved fields are zeroed";

  v4l2_input input{};
  ASSERT_EQ(ioctl(fd, VIDIOC_ENUMINPUT, &input), 0);
  EXPECT_EQ(input.type, static_cast<uint32_t>(V4L2_INPUT_TYPE_CAMERA));
  input.index = 1;
  EXPECT_EQ(ioctl(fd, VIDIOC_ENUMINPUT, &input), -1);
  int index = 5;
  ASSERT_EQ(ioctl(fd, VIDIOC_G_INPUT, &index), 0);
  EXPECT_EQ(index, 0);
  index = 1;
  EXPECT_EQ(ioctl(fd, VIDIOC_S_INPUT, &index), -1);

  // Sizes: the nearest listed one, as S_FMT and TRY_FMT answer.
  const struct {
    uint32_t w, h, expectW, expectH;
  } sizes[] = {{700, 500, 640, 480}, {10000, 10000, 1280, 960}, {1, 1, 320, 240}, {1280, 960, 1280, 960}};
  for (const auto& s : sizes) {
    SCOPED_TRACE(std::to_string(s.w) + "x" + std::to_string(s.h));
    v4l2_format tried = captureFormat(s.w, s.h);
    ASSERT_EQ(ioctl(fd, VIDIOC_TRY_FMT, &tried), 0);
    EXPECT_EQ(tried.fmt.pix.width, s.expectW);
    EXPECT_EQ(tried.fmt.pix.height, s.expectH);
    v4l2_format set = captureFormat(s.w, s.h);
    ASSERT_EQ(ioctl(fd, VIDIOC_S_FMT, &set), 0);
    EXPECT_EQ(set.fmt.pix.width, s.expectW);
    EXPECT_EQ(set.fmt.pix.sizeimage, s.expectW * s.expectH * 2);
  }

  // Intervals: the nearest listed one; none while streaming.
  const struct {
    uint32_t numerator, denominator, expect;
  } rates[] = {{1, 25, 30}, {1, 10, 15}, {1, 1000, 30}, {0, 0, 15}};
  for (const auto& r : rates) {
    SCOPED_TRACE(std::to_string(r.numerator) + "/" + std::to_string(r.denominator));
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.timeperframe = {r.numerator, r.denominator};
    ASSERT_EQ(ioctl(fd, VIDIOC_S_PARM, &parm), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, r.expect);
  }
  startStreaming(fd, 2);
  v4l2_streamparm parm{};
  parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  parm.parm.capture.timeperframe = {1, 30};
  EXPECT_ERRNO(ioctl(fd, VIDIOC_S_PARM, &parm), EBUSY);
}

TEST_F(VideoNode, StepwiseSizesAreClampedAndAligned) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.video.sizeKind = tqsim::SizeKind::Stepwise;
  plug(config);
  const int fd = openNode("/dev/video0");
  const struct {
    uint32_t w, h, expectW, expectH;
  } sizes[] = {{100, 100, 320, 240}, {99999, 99999, 1280, 960}, {1000, 700, 1008, 704}};
  for (const auto& s : sizes) {
    SCOPED_TRACE(std::to_string(s.w) + "x" + std::to_string(s.h));
    v4l2_format fmt = captureFormat(s.w, s.h);
    ASSERT_EQ(ioctl(fd, VIDIOC_S_FMT, &fmt), 0);
    EXPECT_EQ(fmt.fmt.pix.width, s.expectW);
    EXPECT_EQ(fmt.fmt.pix.height, s.expectH);
  }
}

// One node, several descriptors: one format, one buffer owner, priorities.
TEST_F(VideoNode, DescriptorsShareTheNodeAsWithADriver) {
  plug();
  const int a = openNode("/dev/video0");
  const int b = openNode("/dev/video0");
  v4l2_format fmt = captureFormat(320, 240);
  ASSERT_EQ(ioctl(a, VIDIOC_S_FMT, &fmt), 0);
  v4l2_format seen{};
  seen.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  ASSERT_EQ(ioctl(b, VIDIOC_G_FMT, &seen), 0);
  EXPECT_EQ(seen.fmt.pix.width, 320u);

  v4l2_requestbuffers req = bufferRequest(2);
  ASSERT_EQ(ioctl(a, VIDIOC_REQBUFS, &req), 0);
  EXPECT_ERRNO(ioctl(b, VIDIOC_REQBUFS, &req), EBUSY);

  // The queue is the node's: while a holds buffers nobody changes the
  // format, and while it streams nobody changes the rate.
  v4l2_streamparm parm{};
  parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  parm.parm.capture.timeperframe = {1, 15};
  v4l2_format other = captureFormat(640, 480);
  EXPECT_ERRNO(ioctl(b, VIDIOC_S_FMT, &other), EBUSY);
  EXPECT_EQ(ioctl(b, VIDIOC_TRY_FMT, &other), 0) << "trying changes nothing";
  EXPECT_EQ(ioctl(b, VIDIOC_S_PARM, &parm), 0) << "buffers alone do not fix the rate";
  startStreaming(a, 2, false);
  other = captureFormat(1280, 960);
  EXPECT_ERRNO(ioctl(b, VIDIOC_S_FMT, &other), EBUSY);
  EXPECT_ERRNO(ioctl(b, VIDIOC_S_PARM, &parm), EBUSY);
  ASSERT_EQ(ioctl(a, VIDIOC_G_FMT, &seen), 0);
  EXPECT_EQ(seen.fmt.pix.width, 320u);
  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  ASSERT_EQ(ioctl(a, VIDIOC_STREAMOFF, &type), 0);
  EXPECT_EQ(ioctl(b, VIDIOC_S_PARM, &parm), 0);
  req.count = 0;
  ASSERT_EQ(ioctl(a, VIDIOC_REQBUFS, &req), 0);
  EXPECT_EQ(ioctl(b, VIDIOC_S_FMT, &other), 0) << "free again once a released its buffers";

  // The metadata node likewise.
  const int metaA = openNode("/dev/video1");
  const int metaB = openNode("/dev/video1");
  v4l2_requestbuffers metaReq = bufferRequest(1, V4L2_BUF_TYPE_META_CAPTURE);
  ASSERT_EQ(ioctl(metaA, VIDIOC_REQBUFS, &metaReq), 0);
  v4l2_format meta{};
  meta.type = V4L2_BUF_TYPE_META_CAPTURE;
  EXPECT_ERRNO(ioctl(metaB, VIDIOC_S_FMT, &meta), EBUSY);
  EXPECT_EQ(ioctl(metaB, VIDIOC_G_FMT, &meta), 0);

  uint32_t priority = V4L2_PRIORITY_RECORD;
  ASSERT_EQ(ioctl(a, VIDIOC_S_PRIORITY, &priority), 0);
  ASSERT_EQ(ioctl(b, VIDIOC_G_PRIORITY, &priority), 0);
  EXPECT_EQ(priority, static_cast<uint32_t>(V4L2_PRIORITY_RECORD));
  EXPECT_ERRNO(ioctl(b, VIDIOC_S_FMT, &fmt), EBUSY);
  close(a);
  forget(a);
  EXPECT_EQ(ioctl(b, VIDIOC_S_FMT, &fmt), 0) << "the record priority left with its descriptor";
}

TEST_F(VideoNode, WaitsBehaveAsTheDriversDo) {
  const tqsim::CameraId id = plug();
  const int fd = openNode("/dev/video0");
  pollfd p{fd, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 5000), 1) << "no wait before STREAMON";
  EXPECT_EQ(p.revents, POLLERR);

  // Enough buffers that the producer still has work when the descriptor closes.
  startStreaming(fd, 8);
  v4l2_buffer buf = mmapBuffer();
  // A blocking descriptor waits for the frame instead of answering EAGAIN.
  ASSERT_EQ(ioctl(fd, VIDIOC_DQBUF, &buf), 0) << strerror(errno);
  EXPECT_EQ(buf.sequence, 0u);

  // Close ends the stream: no write to the number while another camera makes two frames.
  const tqsim::CameraId other = plug(tqtest::cameraOn(1, 2));
  const int clock = openNode("/dev/video2");
  startStreaming(clock, 2);
  close(fd);
  forget(fd);
  EXPECT_EQ(tqsim::openVideoNodes(id), 0);
  // A lower number may be free: put the new file on the closed one.
  const int memfd = memfd_create("reused", MFD_CLOEXEC);
  ASSERT_GE(memfd, 0);
  const int reused = memfd == fd ? memfd : dup2(memfd, fd);
  if (memfd != fd) close(memfd);
  ASSERT_EQ(reused, fd);
  const uint32_t before = tqsim::videoFramesProduced(other);
  // The other camera's frames are taken and given back so that it goes on.
  ASSERT_TRUE(tqtest::waitUntil([&] {
    pollfd frame{clock, POLLIN, 0};
    v4l2_buffer taken = mmapBuffer();
    if (poll(&frame, 1, 100) == 1 && ioctl(clock, VIDIOC_DQBUF, &taken) == 0)
      ioctl(clock, VIDIOC_QBUF, &taken);
    return tqsim::videoFramesProduced(other) >= before + 2;
  })) << "the other camera made no frames";
  struct stat st {};
  ASSERT_EQ(fstat(reused, &st), 0);
  EXPECT_EQ(st.st_size, 0);
  close(reused);
}

// The node is readable exactly while a finished frame waits, also for a
// client that dequeues without waiting and so takes frames the moment they
// are published (the frame count must still come off each one), and after a
// stream stopped with finished frames nobody took.
TEST_F(VideoNode, ReadableOnlyWhileAFrameWaits) {
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.video.freeRun = true;
  const tqsim::CameraId id = plug(config);
  const int fd = openNode("/dev/video0", O_RDWR | O_NONBLOCK);
  v4l2_format fmt = captureFormat(320, 240);
  ASSERT_EQ(ioctl(fd, VIDIOC_S_FMT, &fmt), 0) << strerror(errno);
  constexpr uint32_t kBuffers = 4;
  v4l2_requestbuffers req = bufferRequest(kBuffers);
  ASSERT_EQ(ioctl(fd, VIDIOC_REQBUFS, &req), 0) << strerror(errno);
  ASSERT_EQ(req.count, kBuffers);
  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  for (int round = 0; round < 100; ++round) {
    // Read before the stream starts: the driver may fill all four at once.
    const uint32_t before = tqsim::videoFramesProduced(id);
    ASSERT_NO_FATAL_FAILURE(startStreaming(fd, kBuffers, false));
    if (round % 2 == 1) {
      // Stopped with four finished frames nobody took: their counts go too,
      // or the next round finds the node readable.
      ASSERT_TRUE(tqtest::waitUntil([&] { return tqsim::videoFramesProduced(id) >= before + kBuffers; }));
      ASSERT_EQ(ioctl(fd, VIDIOC_STREAMOFF, &type), 0) << strerror(errno);
      continue;
    }
    uint32_t taken = 0;
    ASSERT_TRUE(tqtest::waitUntil([&] {
      v4l2_buffer buf = mmapBuffer();
      if (ioctl(fd, VIDIOC_DQBUF, &buf) == 0) ++taken;
      return taken == kBuffers;
    })) << "round "
        << round << ": " << taken << " frames";
    // Every buffer is out: no frame can come, so nothing may be readable.
    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 0), 0) << "readable with no frame in round " << round;
    ASSERT_EQ(ioctl(fd, VIDIOC_STREAMOFF, &type), 0) << strerror(errno);
  }
}

// Records through the control API are bounded like the configuration file's.
TEST_F(VideoNode, ApiRefusesFrameSizesTheFileRefuses) {
  tqsim::CameraConfig huge = tqsim::defaultCameraConfig();
  huge.video.sizes.front().width = 65535;
  huge.video.sizes.front().height = 65535;
  std::string error;
  EXPECT_EQ(tqsim::plugCamera(huge, &error), tqsim::kNoCamera);
  EXPECT_EQ(error, "frame size 65535x65535 out of range (1..16384 each)");

  const tqsim::CameraId id = plug();
  error.clear();
  EXPECT_FALSE(tqsim::modifyCamera(
      id, [](tqsim::CameraConfig& c) { c.video.sizes.front().height = 0; }, &error));
  EXPECT_EQ(error, "frame size 1280x0 out of range (1..16384 each)");
  tqsim::CameraConfig kept;
  ASSERT_TRUE(tqsim::cameraConfig(id, kept));
  EXPECT_EQ(kept.video.sizes.front().height, 960u) << "a refused change changes nothing";

  // The largest side is taken, and its frame size fits sizeimage.
  ASSERT_TRUE(tqsim::modifyCamera(id, [](tqsim::CameraConfig& c) {
    c.video.sizes = {{tqsim::kMaxFrameSide, tqsim::kMaxFrameSide, tqsim::IntervalKind::Discrete, {{1, 5}}}};
  }));
  const int fd = openNode("/dev/video0");
  v4l2_format fmt{};
  fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  ASSERT_EQ(ioctl(fd, VIDIOC_G_FMT, &fmt), 0);
  EXPECT_EQ(fmt.fmt.pix.sizeimage, 16384u * 16384u * 2u);
}

TEST_F(VideoNode, SysfsAndDevShowTheNodesAsTheKernelDoes) {
  plug();
  char link[256] = {};
  ASSERT_GT(readlink("/sys/dev/char/81:0", link, sizeof link - 1), 0);
  EXPECT_STREQ(link, "../../devices/platform/vhci_hcd.0/usb1/1-1/1-1:1.0/video4linux/video0");
  char* real = realpath("/sys/class/video4linux/video1", nullptr);
  ASSERT_NE(real, nullptr);
  EXPECT_STREQ(real, "/sys/devices/platform/vhci_hcd.0/usb1/1-1/1-1:1.0/video4linux/video1");
  free(real);

  EXPECT_EQ(fileText("/sys/dev/char/81:0/uevent"), "MAJOR=81\nMINOR=0\nDEVNAME=video0\n");
  EXPECT_EQ(fileText("/sys/class/video4linux/video0/name"), "Emu Camera\n");
  EXPECT_EQ(fileText("/sys/class/video4linux/video1/index"), "1\n");
  EXPECT_NE(fileText("/sys/class/video4linux/video0/device/uevent").find("DRIVER=uvcvideo\n"),
            std::string::npos);
  struct stat st {};
  EXPECT_EQ(stat("/sys/class/video4linux/video0", &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(stat("/sys/class/video4linux/video7", &st), -1);

  std::set<std::string> names;
  DIR* dev = opendir("/dev");
  ASSERT_NE(dev, nullptr);
  while (const dirent* entry = readdir(dev)) names.insert(entry->d_name);
  closedir(dev);
  for (const char* node : {"hidraw0", "video0", "video1"}) EXPECT_EQ(names.count(node), 1u) << node;
}

}  // namespace
