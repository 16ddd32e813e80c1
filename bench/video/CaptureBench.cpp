// How fast frames travel from the node through the capture thread to the
// client callback, with the emulated camera running free (no frame interval):
// frames per second, bytes per second, and how long a stop takes.
//
//   video_capture_bench [seconds=2] [width=1280] [height=960] [verify=0]
//
// With verify=1 the callback checks every byte of every frame, as a client
// that copies the frame would touch it.
#include <tqsim/FramePattern.h>
#include <tqsim/Sim.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "video/KOR_UVC.h"

namespace {

struct Counters {
  std::atomic<uint64_t> frames{0};
  std::atomic<uint64_t> bytes{0};
  std::atomic<uint64_t> badFrames{0};
  bool verify = false;
};

int onFrame(unsigned char* data, int size, int, void* context) {
  auto* counters = static_cast<Counters*>(context);
  if (counters->verify && !tqsim::verifyFrame(data, static_cast<size_t>(size))) ++counters->badFrames;
  ++counters->frames;
  counters->bytes += static_cast<uint64_t>(size);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  using Clock = std::chrono::steady_clock;
  const double seconds = argc > 1 ? std::atof(argv[1]) : 2.0;
  const int width = argc > 2 ? std::atoi(argv[2]) : 1280;
  const int height = argc > 3 ? std::atoi(argv[3]) : 960;
  Counters counters;
  counters.verify = argc > 4 && std::atoi(argv[4]) != 0;

  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.video.freeRun = true;
  std::string error;
  tqsim::reset();  // the emulation starts with a default camera of its own
  if (tqsim::plugCamera(config, &error) == tqsim::kNoCamera) {
    std::fprintf(stderr, "cannot plug the emulated camera: %s\n", error.c_str());
    return 1;
  }
  char path[] = "/dev/video0";
  if (KOR_UVC_StreamOpen(0, path) != 0) {
    std::fprintf(stderr, "cannot open %s\n", path);
    return 1;
  }
  KOR_UVC_StreamSetFrameFormat(0, width, height);
  int w = 0, h = 0, line = 0;
  KOR_UVC_StreamGetFrameFormat(0, &w, &h, &line);
  KOR_UVC_SetCallbackStream(0, &onFrame, &counters);

  const auto begin = Clock::now();
  if (KOR_UVC_StreamStart(0) != 0) {
    std::fprintf(stderr, "cannot start capture\n");
    KOR_UVC_StreamClose(0);
    return 1;
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  const uint64_t frames = counters.frames.load();
  const uint64_t bytes = counters.bytes.load();
  const auto stopBegin = Clock::now();
  KOR_UVC_StreamStop(0);
  const auto end = Clock::now();
  KOR_UVC_StreamClose(0);
  tqsim::reset();

  const double elapsed = std::chrono::duration<double>(stopBegin - begin).count();
  std::printf("format            %dx%d, %d bytes per line%s\n", w, h, line,
              counters.verify ? ", every byte verified" : "");
  std::printf("frames            %llu in %.2f s: %.1f frames/s\n", static_cast<unsigned long long>(frames),
              elapsed, frames / elapsed);
  std::printf("throughput        %.1f MiB/s\n", bytes / elapsed / (1024.0 * 1024.0));
  std::printf("stop and join     %.2f ms\n",
              std::chrono::duration<double, std::milli>(end - stopBegin).count());
  if (counters.verify)
    std::printf("bad frames        %llu\n", static_cast<unsigned long long>(counters.badFrames.load()));
  return counters.badFrames.load() == 0 ? 0 : 1;
}
