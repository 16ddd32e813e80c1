// Round trip of one register read through the vendor HID protocol against the
// emulated camera: output report out, answer in on the hidraw reader thread,
// the commanding thread woken. SeqpacketEcho is the transport alone: one
// 64-byte packet written to a SOCK_SEQPACKET socketpair and echoed back by a
// thread, the same kind of link the emulation puts behind /dev/hidrawN.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <tqsim/Sim.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "hid/HidEnumerate.h"
#include "hid/KOR_HID.h"
#include "hid/Vexa_HID.h"

namespace {

constexpr unsigned short kVid = 0x7A3D;
constexpr unsigned short kPid = 0x0203;
constexpr size_t kReportBytes = 64;

// The default emulated camera, enumerated, with a Vexa_HID opened on it;
// everything closed and forgotten on scope exit.
class OpenCamera {
 public:
  OpenCamera() {
    tqsim::reset();  // the emulation starts with a default camera of its own
    if (tqsim::plugCamera(tqsim::defaultCameraConfig(), &error_) == tqsim::kNoCamera) {
      error_ = "cannot plug the camera: " + error_;
      return;
    }
    if (KOR_HID_Enumerate(kVid, kPid) != 1) {
      error_ = "enumeration did not find the camera";
      return;
    }
    hid_ = std::make_unique<Vexa_HID>();
    if (hid_->Init() != 0 || hid_->Open(0) != 0) error_ = "cannot open camera 0";
  }
  ~OpenCamera() {
    hid_.reset();
    for (size_t i = 0; i < DevicePool.size() && i < 256; ++i) KOR_HID_Close(static_cast<uint8_t>(i));
    tqsim::reset();
  }
  OpenCamera(const OpenCamera&) = delete;
  OpenCamera& operator=(const OpenCamera&) = delete;

  const std::string& error() const { return error_; }
  Vexa_HID& hid() { return *hid_; }

 private:
  std::string error_;
  std::unique_ptr<Vexa_HID> hid_;
};

void RegisterRead(benchmark::State& state) {
  OpenCamera camera;
  if (!camera.error().empty()) {
    state.SkipWithError(camera.error().c_str());
    return;
  }
  uint32_t value = 0;
  for (auto _ : state) {
    const int rc = camera.hid().GetInt32(0, 0x0010, &value);
    if (rc != 0) {
      state.SkipWithError(("GetInt32 failed: " + std::to_string(rc)).c_str());
      break;
    }
    benchmark::DoNotOptimize(value);
  }
  state.SetItemsProcessed(state.iterations());
}

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() {
    if (fd_ != -1) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// A socketpair whose far end echoes every packet until the near end shuts down.
class EchoPair {
 public:
  EchoPair() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return;
    near_ = std::make_unique<Fd>(ends[0]);
    far_ = std::make_unique<Fd>(ends[1]);
    echo_ = std::thread([fd = ends[1]] {
      uint8_t packet[kReportBytes];
      for (;;) {
        const ssize_t n = ::read(fd, packet, sizeof(packet));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || ::write(fd, packet, static_cast<size_t>(n)) != n) return;
      }
    });
  }
  ~EchoPair() {
    // The echo thread reads end-of-file and returns.
    if (near_) ::shutdown(near_->get(), SHUT_RDWR);
    if (echo_.joinable()) echo_.join();
  }
  EchoPair(const EchoPair&) = delete;
  EchoPair& operator=(const EchoPair&) = delete;

  int fd() const { return near_ ? near_->get() : -1; }

 private:
  std::unique_ptr<Fd> near_;
  std::unique_ptr<Fd> far_;
  std::thread echo_;
};

// The baseline: a raw write and read of one report-sized packet.
void SeqpacketEcho(benchmark::State& state) {
  EchoPair pair;
  if (pair.fd() == -1) {
    state.SkipWithError("socketpair failed");
    return;
  }
  uint8_t out[kReportBytes] = {1, 2, 3};
  uint8_t in[kReportBytes];
  for (auto _ : state) {
    if (::write(pair.fd(), out, sizeof(out)) != static_cast<ssize_t>(sizeof(out)) ||
        ::read(pair.fd(), in, sizeof(in)) != static_cast<ssize_t>(sizeof(in))) {
      state.SkipWithError("echo failed");
      break;
    }
    benchmark::DoNotOptimize(in);
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(RegisterRead)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(SeqpacketEcho)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
