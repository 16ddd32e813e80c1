// The register path and the scan through the exported functions, each beside
// a baseline doing the same work on the same emulated nodes:
//   ApiReadReg             TqUvcReadReg round trip on a connected camera;
//   RawHidrawReadReg       the very report the library writes for it, written
//                          to the same hidraw node, its answer read back by
//                          the calling thread (write + poll + read).
//   ApiReadRegParallel/4   four cameras, one reading thread each; the time is
//                          one round of four reads (compare with four
//                          ApiReadReg one after another).
//   ApiScan/N              TqUvcScanDevices with N cameras plugged (after a
//                          first scan, which also creates the devices);
//   ShellUdevadmWalks/N    the attribute walks that scan makes, run by one
//                          shell loop.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <tq_uvc.h>
#include <tqsim/Sim.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "BenchCamera.h"

namespace {

constexpr uint32_t kWidthRegister = 0x40A04;
constexpr uint32_t kWidth = 1280;
constexpr int kAnswerTimeoutMs = 5000;

std::vector<tqsim::CameraConfig> configs(int count) {
  std::vector<tqsim::CameraConfig> list;
  for (int i = 0; i < count; ++i) list.push_back(bench::cameraConfig(i));
  return list;
}

void ApiReadReg(benchmark::State& state) {
  bench::ApiCameras cameras(configs(1));
  if (!cameras.error().empty()) {
    state.SkipWithError(cameras.error().c_str());
    return;
  }
  const uint64_t h = cameras.handle(0);
  uint32_t value = 0;
  for (auto _ : state) {
    if (TqUvcReadReg(h, kWidthRegister, &value) != 0 || value != kWidth) {
      state.SkipWithError("TqUvcReadReg failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

// The output report the library writes for one register read.
std::vector<uint8_t> libraryReadReport(std::string& error) {
  bench::ApiCameras cameras(configs(1));
  if (!cameras.error().empty()) {
    error = cameras.error();
    return {};
  }
  tqsim::clearReceivedReports(cameras.id(0));
  uint32_t value = 0;
  if (TqUvcReadReg(cameras.handle(0), kWidthRegister, &value) != 0) {
    error = "TqUvcReadReg failed";
    return {};
  }
  const auto reports = tqsim::receivedReports(cameras.id(0));
  if (reports.size() != 1) {
    error = "the read sent " + std::to_string(reports.size()) + " reports";
    return {};
  }
  return reports.front();
}

void RawHidrawReadReg(benchmark::State& state) {
  std::string error;
  const std::vector<uint8_t> report = libraryReadReport(error);
  if (report.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  tqsim::reset();
  if (tqsim::plugCamera(bench::cameraConfig(0), &error) == tqsim::kNoCamera) {
    state.SkipWithError(error.c_str());
    tqsim::reset();
    return;
  }
  const int fd = ::open("/dev/hidraw0", O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    state.SkipWithError("cannot open /dev/hidraw0");
    tqsim::reset();
    return;
  }
  uint8_t answer[64];
  for (auto _ : state) {
    pollfd pfd{fd, POLLIN, 0};
    if (::write(fd, report.data(), report.size()) != static_cast<ssize_t>(report.size()) ||
        ::poll(&pfd, 1, kAnswerTimeoutMs) != 1 || ::read(fd, answer, sizeof answer) <= 0) {
      state.SkipWithError("no answer");
      break;
    }
    benchmark::DoNotOptimize(answer);
  }
  ::close(fd);
  tqsim::reset();
  state.SetItemsProcessed(state.iterations());
}

std::unique_ptr<bench::ApiCameras> parallelCameras;

void ApiReadRegParallel(benchmark::State& state) {
  // Set up by the first thread; no thread enters the loop before all are there.
  if (state.thread_index() == 0)
    parallelCameras = std::make_unique<bench::ApiCameras>(configs(state.threads()));
  bool ok = true;
  uint32_t value = 0;
  for (auto _ : state) {
    if (!ok || !parallelCameras->error().empty()) {
      state.SkipWithError(parallelCameras->error().empty() ? "TqUvcReadReg failed"
                                                           : parallelCameras->error().c_str());
      break;
    }
    const uint64_t h = parallelCameras->handle(static_cast<size_t>(state.thread_index()));
    ok = TqUvcReadReg(h, kWidthRegister, &value) == 0 && value == kWidth;
  }
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) parallelCameras.reset();
}

// The nodes a scan walks with N cameras: every video node, then every hidraw
// node of our vendor and product.
std::string scannedNodes(int cameras) {
  std::string nodes;
  for (int i = 0; i < 2 * cameras; ++i) nodes += " /dev/video" + std::to_string(i);
  for (int i = 0; i < cameras; ++i) nodes += " /dev/hidraw" + std::to_string(i);
  return nodes;
}

void ApiScan(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  bench::ApiCameras cameras(configs(count), false);
  if (!cameras.error().empty()) {
    state.SkipWithError(cameras.error().c_str());
    return;
  }
  for (auto _ : state) TqUvcScanDevices(0, 0, 500);
  _tagTqUvcDevInfo info{};
  info.Size = sizeof info;
  int found = 0;
  for (uint64_t h = TqUvcGetFirstPoolDev(0, &info); h != 0; h = TqUvcNextPoolDev(h, 0, &info)) ++found;
  if (found != count) state.SkipWithError("a scan lost cameras");
  state.SetItemsProcessed(state.iterations());
}

void ShellUdevadmWalks(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  bench::ApiCameras cameras(configs(count), false);
  if (!cameras.error().empty()) {
    state.SkipWithError(cameras.error().c_str());
    return;
  }
  const std::string command =
      "for n in" + scannedNodes(count) + "; do udevadm info -a -p \"$(udevadm info -q path -n $n)\"; done";
  for (auto _ : state) {
    FILE* pipe = ::popen(command.c_str(), "re");
    if (pipe == nullptr) {
      state.SkipWithError("popen failed");
      break;
    }
    // Read everything, as the library does.
    size_t bytes = 0;
    char piece[4096];
    while (size_t n = std::fread(piece, 1, sizeof piece, pipe)) bytes += n;
    if (::pclose(pipe) != 0 || bytes == 0) {
      state.SkipWithError("the walks failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(ApiReadReg)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(RawHidrawReadReg)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(ApiReadRegParallel)
    ->Name("ApiReadRegParallel/4")
    ->Threads(4)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(ApiScan)->Arg(1)->Arg(4)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(ShellUdevadmWalks)->Arg(1)->Arg(4)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
