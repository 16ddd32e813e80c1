// The emulated hidraw node through plain open/ioctl/write/select/read, as the
// library uses it.
#include <fcntl.h>
#include <linux/hidraw.h>
#include <linux/input.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "SimTestUtil.h"
#include "TestUtil.h"

using simtest::command;
using simtest::readReport;
using simtest::transact;

namespace {

using tqtest::plug;

class HidrawNode : public simtest::SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    config_ = tqsim::defaultCameraConfig();
  }
  void TearDown() override {
    if (fd_ >= 0) close(fd_);
    SimTest::TearDown();
  }
  void start() {
    id_ = plug(config_);
    fd_ = open("/dev/hidraw0", O_RDWR);
    ASSERT_GE(fd_, 0) << strerror(errno);
  }

  tqsim::CameraConfig config_;
  tqsim::CameraId id_ = tqsim::kNoCamera;
  int fd_ = -1;
};

uint32_t le32(const std::vector<uint8_t>& r, size_t at) {
  return r[at] | (r[at + 1] << 8) | (r[at + 2] << 16) | (static_cast<uint32_t>(r[at + 3]) << 24);
}

TEST_F(HidrawNode, NodeLooksLikeACharacterDeviceAndAnswersRawInfo) {
  start();
  struct stat st {};
  ASSERT_EQ(stat("/dev/hidraw0", &st), 0);
  EXPECT_TRUE(S_ISCHR(st.st_mode));
  EXPECT_EQ(minor(st.st_rdev), 0u);
  EXPECT_EQ(access("/dev/hidraw0", F_OK), 0);
  EXPECT_ERRNO(stat("/dev/hidraw1", &st), ENOENT);

  hidraw_devinfo info{};
  ASSERT_EQ(ioctl(fd_, HIDIOCGRAWINFO, &info), 0);
  EXPECT_EQ(info.bustype, BUS_USB);
  EXPECT_EQ(static_cast<uint16_t>(info.vendor), 0x7A3D);
  EXPECT_EQ(static_cast<uint16_t>(info.product), 0x0203);

  // usbhid's name: manufacturer and product; strlen + 1 bytes, or the
  // buffer's size without a terminator when it is too small.
  char name[64] = {};
  EXPECT_EQ(ioctl(fd_, HIDIOCGRAWNAME(sizeof name), name), 22);
  EXPECT_STREQ(name, "Emu Vendor Emu Camera");
  char cut[6] = {'x', 'x', 'x', 'x', 'x', 'x'};
  EXPECT_EQ(ioctl(fd_, HIDIOCGRAWNAME(5), cut), 5);
  EXPECT_EQ(std::string(cut, 6), "Emu Vx");

  // Other ioctl types are EINVAL to hidraw (FIONREAD too), unknown 'H' ones ENOTTY.
  int pending = 0;
  EXPECT_ERRNO(ioctl(fd_, FIONREAD, &pending), EINVAL);
  EXPECT_ERRNO(ioctl(fd_, _IOC(_IOC_READ, 'H', 0x7F, 4), &pending), ENOTTY);
}

TEST_F(HidrawNode, WritesOutsideTheKernelsSizesFailAndLeaveTheNodeWorking) {
  start();
  std::vector<uint8_t> big(16385, 0);
  big[0] = 1;
  for (size_t size : {size_t{0}, size_t{1}, big.size()}) {
    SCOPED_TRACE(size);
    EXPECT_ERRNO(write(fd_, big.data(), size), EINVAL);
  }
  EXPECT_EQ(write(fd_, big.data(), 16384), 16384);
  ASSERT_TRUE(tqsim::waitForReports(id_, 1, std::chrono::seconds(5)));
  EXPECT_EQ(tqsim::receivedReports(id_).at(0).size(), 16384u);
  EXPECT_EQ(transact(fd_, command(0x5C, {0, 0x04, 0x0A, 0, 0, 0})).size(), 64u);
}

// The kernel copies every input report to every open descriptor of the node.
TEST_F(HidrawNode, AnswersReachEveryReader) {
  start();
  const size_t threads = tqtest::threadCount();
  const int other = open("/dev/hidraw0", O_RDWR);
  ASSERT_GE(other, 0);
  const auto read = command(0x5C, {0, 0x04, 0x0A, 0, 0, 0});
  const auto answer = transact(fd_, read);
  ASSERT_EQ(answer.size(), 64u);
  EXPECT_EQ(readReport(other, 2000), answer);
  close(other);

  // A writer that closes at once (a shell's redirection): the device still
  // answers, to the readers left, whether the answer is due now or later;
  // the thread that sends those answers does not outlive them.
  // Twice late: the second hand-over finds the first thread ended.
  for (const uint32_t lateMs : {0u, 300u, 300u}) {
    SCOPED_TRACE(lateMs);
    tqsim::HidFaults faults;
    faults.lateAnswerMs = lateMs;
    ASSERT_TRUE(tqsim::setHidFaults(id_, faults));
    const int writer = open("/dev/hidraw0", O_WRONLY);
    ASSERT_GE(writer, 0);
    ASSERT_EQ(write(writer, read.data(), read.size()), static_cast<ssize_t>(read.size()));
    close(writer);
    EXPECT_EQ(readReport(fd_, 5000), answer);
    EXPECT_TRUE(tqtest::waitUntil([&] { return tqtest::threadCount() == threads; }, std::chrono::seconds(2)))
        << tqtest::threadCount() << " threads, " << threads << " before";
  }
}

TEST_F(HidrawNode, AnswersEachCommandWithItsLayout) {
  config_.registers[0x0A04] = 0x12345678;
  config_.memory[0x0500] = "Emu Vendor";
  config_.xmlFile.assign(3000, 'x');
  start();

  // Register read: long form, value little-endian at bytes 5..8.
  auto answer = transact(fd_, command(0x5C, {0, 0x04, 0x0A, 0, 0, 0}));
  ASSERT_EQ(answer.size(), 64u);
  EXPECT_EQ(answer[0], 1);
  EXPECT_EQ(answer[1], 0x5C);
  EXPECT_EQ(answer[2], 0);
  EXPECT_EQ(le32(answer, 5), 0x12345678u);

  // Memory read: short form, text from byte 3.
  answer = transact(fd_, command(0x5C, {0, 0x00, 0x05, 0}));
  ASSERT_EQ(answer.size(), 64u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&answer[3])), "Emu Vendor");

  // Register write, visible through the control API and a read; the width
  // also sets the line pitch.
  answer = transact(fd_, command(0x5D, {0, 0x04, 0x0A, 0x80, 0x02, 0, 0, 0}));
  ASSERT_EQ(answer.size(), 64u);
  EXPECT_EQ(answer[1], 0x5D);
  EXPECT_EQ(answer[2], 0);
  uint32_t value = 0;
  ASSERT_TRUE(tqsim::readRegister(id_, 0x0A04, value));
  EXPECT_EQ(value, 640u);
  ASSERT_TRUE(tqsim::readRegister(id_, 0x0708, value));
  EXPECT_EQ(value, 1280u);

  // File size, big-endian at 3..6.
  answer = transact(fd_, command(0xC8, {0x10, 4, 0, 0}));
  ASSERT_EQ(answer.size(), 64u);
  EXPECT_EQ(answer[1], 0xC8);
  EXPECT_EQ((answer[3] << 24) | (answer[4] << 16) | (answer[5] << 8) | answer[6], 3000);

  // Unknown command and unknown file query.
  answer = transact(fd_, command(0x77, {0, 0, 0, 0}));
  ASSERT_EQ(answer.size(), 64u);
  EXPECT_EQ(answer[1], 0x77);
  EXPECT_EQ(answer[2], 3);
  answer = transact(fd_, command(0xC8, {0x55, 4, 0, 0}));
  ASSERT_EQ(answer.size(), 64u);
  EXPECT_EQ(answer[2], 2);
}

TEST_F(HidrawNode, Sha1IsThatOfTheFile) {
  config_.xmlFile = {'a', 'b', 'c'};
  start();
  const uint8_t expected[20] = {0xa9, 0x99, 0x3e, 0x36, 0x47, 0x06, 0x81, 0x6a, 0xba, 0x3e,
                                0x25, 0x71, 0x78, 0x50, 0xc2, 0x6c, 0x9c, 0xd0, 0xd8, 0x9d};
  auto answer = transact(fd_, command(0xC8, {0x30, 20, 0, 0}));
  ASSERT_EQ(answer.size(), 64u);
  EXPECT_EQ(answer[2], 0);
  EXPECT_EQ(0, std::memcmp(&answer[3], expected, 20));
  const auto sha = tqsim::xmlSha1(id_);
  EXPECT_EQ(0, std::memcmp(sha.data(), expected, 20));
}

// Chunk requests as the library sends them (size bytes left in 0 and 3), then
// the feature report: the file data starts at byte 0.
TEST_F(HidrawNode, FileDownloadThroughChunksIsByteExact) {
  for (size_t size : {size_t{1}, size_t{1024}, size_t{1025}, size_t{70000}}) {
    SCOPED_TRACE(size);
    tqsim::reset();
    if (fd_ >= 0) close(fd_);
    config_.xmlFile.resize(size);
    for (size_t i = 0; i < size; ++i) config_.xmlFile[i] = static_cast<uint8_t>(i * 7 + i / 1024);
    start();

    std::vector<uint8_t> downloaded;
    for (size_t chunk = 0; downloaded.size() < size; ++chunk) {
      auto ack =
          transact(fd_, command(0x4E, {0, static_cast<uint8_t>(chunk), static_cast<uint8_t>(chunk >> 8), 0}));
      ASSERT_EQ(ack.size(), 64u);
      ASSERT_EQ(ack[1], 0x4E);
      ASSERT_EQ(ack[2], 0);
      std::vector<uint8_t> feature(1024, 0);
      feature[0] = 1;
      ASSERT_EQ(ioctl(fd_, HIDIOCGFEATURE(1024), feature.data()), 1024);
      const size_t take = std::min<size_t>(1024, size - downloaded.size());
      downloaded.insert(downloaded.end(), feature.begin(), feature.begin() + static_cast<long>(take));
      if (take < 1024) {
        EXPECT_EQ(feature[take], 0) << "zero after the end of the file";
      }
    }
    EXPECT_EQ(downloaded, config_.xmlFile);
  }

  // A chunk past the end is refused and the selection stays.
  auto ack = transact(fd_, command(0x4E, {0, 200, 0, 0}));
  ASSERT_EQ(ack.size(), 64u);
  EXPECT_EQ(ack[2], 7);
}

TEST_F(HidrawNode, RecordsTheExactBytesReceived) {
  start();
  const std::vector<std::vector<uint8_t>> sent = {command(0x5C, {0, 0x50, 0x06, 0, 0, 0}),
                                                  command(0x5D, {0, 0x50, 0x06, 1, 0, 0, 0, 0}),
                                                  {1, 0x4E},
                                                  {7, 0}};
  for (const auto& report : sent)
    ASSERT_EQ(write(fd_, report.data(), report.size()), static_cast<ssize_t>(report.size()));
  ASSERT_TRUE(tqsim::waitForReports(id_, sent.size(), std::chrono::seconds(5)));
  EXPECT_EQ(tqsim::receivedReports(id_), sent);
  uint32_t value = 0;
  ASSERT_TRUE(tqsim::readRegister(id_, 0x0650, value));
  EXPECT_EQ(value, 1u);
  tqsim::clearReceivedReports(id_);
  EXPECT_TRUE(tqsim::receivedReports(id_).empty());
}

// The other HID faults are checked by the library tests that use them.
TEST_F(HidrawNode, NoAnswerFaultLeavesTheCommandUnanswered) {
  start();
  tqsim::HidFaults faults;
  faults.noAnswer = true;
  ASSERT_TRUE(tqsim::setHidFaults(id_, faults));
  EXPECT_TRUE(transact(fd_, command(0x5C, {0, 0x04, 0x0A, 0, 0, 0}), 300).empty());
}

// A late answer arrives after its time, and the answers behind it wait for it.
TEST_F(HidrawNode, LateAnswerKeepsCommandOrder) {
  start();
  tqsim::HidFaults faults;
  faults.lateAnswerMs = 400;
  ASSERT_TRUE(tqsim::setHidFaults(id_, faults));
  const auto start = std::chrono::steady_clock::now();
  const auto first = command(0x5C, {0, 0x04, 0x0A, 0, 0, 0});
  ASSERT_EQ(write(fd_, first.data(), first.size()), 8);
  EXPECT_TRUE(readReport(fd_, 100).empty()) << "answered early";

  ASSERT_TRUE(tqsim::setHidFaults(id_, {}));
  const auto second = command(0x5D, {0, 0x0C, 0x0A, 1, 0, 0, 0, 0});
  ASSERT_EQ(write(fd_, second.data(), second.size()), 10);
  auto answer = readReport(fd_, 5000);
  ASSERT_EQ(answer.size(), 64u);
  EXPECT_EQ(answer[1], 0x5C);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(400));
  answer = readReport(fd_, 5000);
  ASSERT_EQ(answer.size(), 64u);
  EXPECT_EQ(answer[1], 0x5D);
}

TEST_F(HidrawNode, EventsReachEveryOpenDescriptor) {
  start();
  const int second = open("/dev/hidraw0", O_RDONLY | O_NONBLOCK);
  ASSERT_GE(second, 0);
  EXPECT_EQ(tqsim::openHidNodes(id_), 2);
  ASSERT_TRUE(tqsim::sendEvent(id_, {0x11, 0x22, 0x33}));
  for (int fd : {fd_, second}) {
    auto report = readReport(fd, 2000);
    ASSERT_EQ(report.size(), 64u);
    EXPECT_EQ(report[0], 2);
    EXPECT_EQ(report[1], 0x11);
    EXPECT_EQ(report[3], 0x33);
    EXPECT_EQ(report[4], 0);
  }
  close(second);
  EXPECT_EQ(tqsim::openHidNodes(id_), 1);
}

TEST_F(HidrawNode, UnplugMakesTheNodeVanishAndOpenDescriptorsFail) {
  start();
  // Queued before the unplug: still read afterwards, as from a gone hidraw node.
  ASSERT_TRUE(tqsim::sendEvent(id_, {7}));
  ASSERT_TRUE(tqsim::unplugCamera(id_));
  struct stat st {};
  EXPECT_EQ(stat("/dev/hidraw0", &st), -1);
  EXPECT_ERRNO(open("/dev/hidraw0", O_RDWR), ENOENT);

  hidraw_devinfo info{};
  EXPECT_ERRNO(ioctl(fd_, HIDIOCGRAWINFO, &info), ENODEV);
  std::vector<uint8_t> feature(1024);
  EXPECT_ERRNO(ioctl(fd_, HIDIOCGFEATURE(1024), feature.data()), ENODEV);
  const auto report = command(0x5C, {0, 0, 0, 0, 0, 0});
  EXPECT_ERRNO(write(fd_, report.data(), report.size()), ENODEV);
  pollfd p = {fd_, POLLIN | POLLOUT, 0};
  EXPECT_EQ(poll(&p, 1, 0), 1);
  EXPECT_EQ(p.revents, POLLIN | POLLOUT | POLLERR | POLLHUP);
  uint8_t buffer[64];
  EXPECT_EQ(read(fd_, buffer, sizeof buffer), 64);
  EXPECT_EQ(buffer[0], 2);
  EXPECT_EQ(poll(&p, 1, 0), 1);
  EXPECT_EQ(p.revents, POLLOUT | POLLERR | POLLHUP);
  EXPECT_ERRNO(read(fd_, buffer, sizeof buffer), EIO);
  EXPECT_FALSE(tqsim::sendEvent(id_, {1}));

  ASSERT_TRUE(tqsim::replugCamera(id_));
  EXPECT_EQ(stat("/dev/hidraw0", &st), 0);
  const int again = open("/dev/hidraw0", O_RDWR);
  ASSERT_GE(again, 0);
  EXPECT_EQ(transact(again, report).size(), 64u);
  // The descriptor from before the unplug stays dead.
  EXPECT_EQ(ioctl(fd_, HIDIOCGRAWINFO, &info), -1);
  close(again);
}

// True once thread tid sits in select/pselect6, as /proc shows it.
bool inSelect(pid_t tid) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/self/task/%d/syscall", static_cast<int>(tid));
  FILE* file = std::fopen(path, "r");
  if (file == nullptr) return false;
  long number = -1;
  const bool read = std::fscanf(file, "%ld", &number) == 1;
  std::fclose(file);
  return read && (number == SYS_select || number == SYS_pselect6);
}

// A reader blocked in select when the camera goes must wake up.
TEST_F(HidrawNode, UnplugWakesABlockedReader) {
  start();
  std::atomic<pid_t> readerTid{0};
  std::atomic<int> selected{-2};
  std::thread reader([&, fd = fd_] {
    readerTid = static_cast<pid_t>(syscall(SYS_gettid));
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    timeval timeout{20, 0};
    selected = select(fd + 1, &readable, nullptr, nullptr, &timeout);
  });
  tqtest::waitUntil([&] { return readerTid != 0 && inSelect(readerTid); });
  ASSERT_TRUE(tqsim::unplugCamera(id_));
  reader.join();
  EXPECT_EQ(selected, 1) << "select timed out instead of waking on the unplug";
  uint8_t buffer[64];
  EXPECT_ERRNO(read(fd_, buffer, sizeof buffer), EIO);
}

TEST_F(HidrawNode, NodeNumbersFollowTheConfiguration) {
  config_.hidrawNumber = 3;
  config_.videoNumber = 4;
  config_.metadataVideoNumber = -1;
  const tqsim::CameraId id = plug(config_);
  struct stat st {};
  EXPECT_EQ(stat("/dev/hidraw0", &st), -1);
  EXPECT_EQ(stat("/dev/hidraw3", &st), 0);
  EXPECT_EQ(stat("/dev/video4", &st), 0);
  EXPECT_EQ(stat("/dev/video5", &st), -1);
  EXPECT_EQ(stat("/dev/hidraw03", &st), -1) << "no leading zeros in kernel names";

  // A second camera on a taken node is refused.
  tqsim::CameraConfig clash = tqsim::defaultCameraConfig();
  clash.hidrawNumber = 3;
  std::string error;
  EXPECT_EQ(tqsim::plugCamera(clash, &error), tqsim::kNoCamera);
  EXPECT_NE(error.find("hidraw3"), std::string::npos) << error;
  clash.hidrawNumber = 5;
  clash.videoNumber = 4;
  EXPECT_EQ(tqsim::plugCamera(clash, &error), tqsim::kNoCamera);
  // ...but plugging on the node of an unplugged camera works, and then the
  // old camera cannot come back there.
  ASSERT_TRUE(tqsim::unplugCamera(id));
  clash.hidrawNumber = 3;
  clash.videoNumber = 6;
  clash.metadataVideoNumber = 7;
  const tqsim::CameraId other = tqsim::plugCamera(clash, &error);
  EXPECT_NE(other, tqsim::kNoCamera) << error;
  EXPECT_FALSE(tqsim::replugCamera(id, &error));

  // Moving a plugged camera: refused onto a plugged camera's node, at once
  // otherwise.
  tqsim::CameraConfig third = tqsim::defaultCameraConfig();
  third.hidrawNumber = 5;
  third.videoNumber = 8;
  third.metadataVideoNumber = 9;
  plug(third);
  EXPECT_FALSE(tqsim::modifyCamera(other, [](tqsim::CameraConfig& c) { c.hidrawNumber = 5; }));
  EXPECT_EQ(stat("/dev/hidraw3", &st), 0);
  EXPECT_TRUE(tqsim::modifyCamera(other, [](tqsim::CameraConfig& c) { c.hidrawNumber = 9; }));
  EXPECT_EQ(stat("/dev/hidraw9", &st), 0);
  EXPECT_EQ(stat("/dev/hidraw3", &st), -1);
}

// Two cameras served at once from two threads: nothing crosses over.
TEST_F(HidrawNode, CamerasServeConcurrently) {
  tqsim::CameraConfig second = tqtest::cameraOn(1, 2);
  config_.registers[0x0A04] = 111;
  second.registers[0x0A04] = 222;
  plug(config_);
  plug(second);
  auto worker = [](const char* path, uint32_t expected, int* mismatches) {
    const int fd = open(path, O_RDWR);
    if (fd < 0) {
      ++*mismatches;
      return;
    }
    for (int i = 0; i < 200; ++i) {
      auto answer = transact(fd, command(0x5C, {0, 0x04, 0x0A, 0, 0, 0}));
      if (answer.size() != 64 || le32(answer, 5) != expected) ++*mismatches;
    }
    close(fd);
  };
  int mismatchesA = 0;
  int mismatchesB = 0;
  std::thread a(worker, "/dev/hidraw0", 111u, &mismatchesA);
  std::thread b(worker, "/dev/hidraw1", 222u, &mismatchesB);
  a.join();
  b.join();
  EXPECT_EQ(mismatchesA, 0);
  EXPECT_EQ(mismatchesB, 0);
}

// Every descriptor and serving thread goes away with close, unplug and reset.
TEST_F(HidrawNode, ReleasesDescriptorsAndThreads) {
  plug(config_);
  // A sanitizer runtime may start a helper thread of its own with the first
  // thread created; let that happen before the baseline is taken.
  std::thread([] {}).join();
  const size_t fds = tqtest::openDescriptors();
  const size_t threads = tqtest::threadCount();
  std::vector<int> open;
  for (int i = 0; i < 4; ++i) open.push_back(::open("/dev/hidraw0", O_RDWR));
  for (int fd : open) ASSERT_GE(fd, 0);
  // A thread is gone from /proc a moment after its join returns.
  const auto threadsAre = [](size_t n) {
    return tqtest::waitUntil([n] { return tqtest::threadCount() == n; });
  };
  EXPECT_TRUE(threadsAre(threads + 4));
  close(open[0]);
  close(open[1]);
  EXPECT_TRUE(threadsAre(threads + 2)) << tqtest::threadCount() << " threads, " << threads << " before";
  tqsim::reset();  // unplugs: serving ends, the two descriptors stay (dead) until closed
  EXPECT_TRUE(threadsAre(threads)) << tqtest::threadCount() << " threads, " << threads << " before";
  close(open[2]);
  close(open[3]);
  EXPECT_EQ(tqtest::openDescriptors(), fds);
}

// Closing a descriptor a forked child inherited is the child's own close: the
// parent's node goes on.
TEST_F(HidrawNode, ForkedChildLeavesTheParentsNodeAlone) {
  start();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    struct stat st {};
    const bool sawNode = stat("/dev/hidraw0", &st) == 0;
    const bool closed = close(fd_) == 0;
    _exit(!sawNode ? 1 : closed ? 0 : 2);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "1: the child saw no node, 2: close failed";
  // The parent's node still works.
  EXPECT_EQ(transact(fd_, command(0x5C, {0, 0x04, 0x0A, 0, 0, 0})).size(), 64u);
}

}  // namespace
