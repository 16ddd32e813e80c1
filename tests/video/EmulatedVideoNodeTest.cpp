// The emulated node shows a lost device as the kernel shows a disconnected
// video node: the descriptor stays open and polls POLLERR|POLLHUP|POLLPRI,
// every ioctl fails with ENODEV, mappings stay readable, close works.
#include <fcntl.h>
#include <libv4l2.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/select.h>

#include <cerrno>
#include <cstring>
#include <future>

#include "VideoFixture.h"

namespace videotest {
namespace {

class EmulatedVideoNodeTest : public VideoSimTest {};

v4l2_buffer captureBuffer(uint32_t index) {
  v4l2_buffer buf;
  memset(&buf, 0, sizeof(buf));
  buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  buf.memory = V4L2_MEMORY_MMAP;
  buf.index = index;
  return buf;
}

TEST_F(EmulatedVideoNodeTest, LostDeviceLooksLikeADisconnectedKernelNode) {
  const std::vector<std::pair<const char*, std::function<void(tqsim::CameraId)>>> cases = {
      {"unplug", [](tqsim::CameraId id) { ASSERT_TRUE(tqsim::unplugCamera(id)); }},
      {"driver lost the device",
       [](tqsim::CameraId id) { setFaults(id, [](tqsim::VideoFaults& f) { f.selectFails = true; }); }},
  };
  for (const auto& [name, lose] : cases) {
    SCOPED_TRACE(name);
    tqsim::reset();
    tqsim::CameraId id = plug();
    const int fd = v4l2_open("/dev/video0", O_RDWR | O_NONBLOCK, 0);
    ASSERT_GE(fd, 0);
    v4l2_requestbuffers req{};
    req.count = 1;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_MMAP;
    ASSERT_EQ(v4l2_ioctl(fd, VIDIOC_REQBUFS, &req), 0);
    v4l2_buffer buf = captureBuffer(0);
    ASSERT_EQ(v4l2_ioctl(fd, VIDIOC_QUERYBUF, &buf), 0);
    const size_t length = buf.length;
    void* mem = v4l2_mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, buf.m.offset);
    ASSERT_NE(mem, MAP_FAILED);
    ASSERT_EQ(v4l2_ioctl(fd, VIDIOC_QBUF, &buf), 0);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(v4l2_ioctl(fd, VIDIOC_STREAMON, &type), 0);
    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 3000), 1);
    EXPECT_EQ(p.revents, POLLIN) << "a finished frame";
    buf = captureBuffer(0);
    ASSERT_EQ(v4l2_ioctl(fd, VIDIOC_DQBUF, &buf), 0);
    EXPECT_EQ(poll(&p, 1, 0), 0) << "nothing more to dequeue";

    // A wait in progress is woken by the loss.
    auto waiting = std::async(std::launch::async, [fd] {
      pollfd w{fd, POLLIN, 0};
      const int n = poll(&w, 1, 5000);
      return n == 1 ? int(w.revents) : -1000 - errno * 10 - n;
    });
    lose(id);
    ASSERT_EQ(waiting.wait_for(2s), std::future_status::ready);
    const int woke = waiting.get();
    EXPECT_EQ(woke & (POLLERR | POLLHUP), POLLERR | POLLHUP) << woke;

    p = {fd, POLLIN | POLLPRI, 0};
    ASSERT_EQ(poll(&p, 1, 0), 1);
    EXPECT_EQ(p.revents & (POLLERR | POLLHUP | POLLPRI), POLLERR | POLLHUP | POLLPRI);
    fd_set readable, exceptional;
    FD_ZERO(&readable);
    FD_ZERO(&exceptional);
    FD_SET(fd, &readable);
    FD_SET(fd, &exceptional);
    timeval now{0, 0};
    EXPECT_EQ(select(fd + 1, &readable, nullptr, &exceptional, &now), 2);
    EXPECT_TRUE(FD_ISSET(fd, &readable));
    EXPECT_TRUE(FD_ISSET(fd, &exceptional));

    v4l2_capability cap{};
    EXPECT_ERRNO(v4l2_ioctl(fd, VIDIOC_QUERYCAP, &cap), ENODEV);
    buf = captureBuffer(0);
    EXPECT_ERRNO(v4l2_ioctl(fd, VIDIOC_DQBUF, &buf), ENODEV);
    EXPECT_ERRNO(v4l2_mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, 0), ENODEV);
    EXPECT_TRUE(tqsim::verifyFrame(static_cast<const uint8_t*>(mem), length)) << "the mapping stays readable";
    EXPECT_EQ(v4l2_munmap(mem, length), 0);
    EXPECT_EQ(v4l2_close(fd), 0);
    EXPECT_EQ(tqsim::openVideoNodes(id), 0);
    EXPECT_EQ(tqsim::videoMappings(id), 0u);
  }
}

}  // namespace
}  // namespace videotest
