// Heap allocations per frame in steady streaming (ApiAllocsPerFrame/W/H). This
// binary replaces malloc, calloc and realloc with counting wrappers around
// glibc's own. Only the capture thread is watched, only between the warm-up and
// the stop, and an allocation made inside the emulated camera's shared object
// (its ioctl handlers run on the capture thread, where a kernel driver would
// allocate nothing in user space) is not the library's and is not counted.
#include <benchmark/benchmark.h>
#include <execinfo.h>
#include <link.h>
#include <tq_uvc.h>
#include <tqsim/Sim.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "BenchCamera.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define BENCH_NO_MALLOC_HOOK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define BENCH_NO_MALLOC_HOOK 1
#endif
#endif

namespace {

constexpr int kMaxFrames = 64;

std::atomic<bool> counting{false};
std::atomic<uint64_t> libraryAllocations{0};
std::atomic<uint64_t> emulationAllocations{0};
// The emulation's code, [begin, end) of its executable segment.
uintptr_t simBegin = 0;
uintptr_t simEnd = 0;
// The first counted allocation's stack, printed after the run.
void* firstStack[kMaxFrames];
std::atomic<int> firstStackDepth{0};

thread_local bool watched = false;
thread_local bool inHook = false;

void noteAllocation() {
  if (!watched || inHook || !counting.load(std::memory_order_relaxed)) return;
  inHook = true;
  void* frames[kMaxFrames];
  const int n = backtrace(frames, kMaxFrames);
  bool emulation = false;
  for (int i = 0; i < n && !emulation; ++i) {
    const auto pc = reinterpret_cast<uintptr_t>(frames[i]);
    emulation = pc >= simBegin && pc < simEnd;
  }
  if (emulation) {
    emulationAllocations.fetch_add(1, std::memory_order_relaxed);
  } else if (libraryAllocations.fetch_add(1, std::memory_order_relaxed) == 0) {
    for (int i = 0; i < n; ++i) firstStack[i] = frames[i];
    firstStackDepth.store(n);
  }
  inHook = false;
}

// Finds the executable code of the loaded object that holds `symbol`.
bool locateObject(const void* symbol) {
  struct Search {
    uintptr_t symbol, begin, end;
  } search{reinterpret_cast<uintptr_t>(symbol), 0, 0};
  dl_iterate_phdr(
      [](dl_phdr_info* object, size_t, void* data) {
        auto* s = static_cast<Search*>(data);
        uintptr_t begin = UINTPTR_MAX, end = 0;
        bool holds = false;
        for (int i = 0; i < object->dlpi_phnum; ++i) {
          const ElfW(Phdr)& ph = object->dlpi_phdr[i];
          if (ph.p_type != PT_LOAD || (ph.p_flags & PF_X) == 0) continue;
          const uintptr_t from = object->dlpi_addr + ph.p_vaddr;
          const uintptr_t to = from + ph.p_memsz;
          holds = holds || (s->symbol >= from && s->symbol < to);
          begin = std::min(begin, from);
          end = std::max(end, to);
        }
        if (!holds) return 0;
        s->begin = begin;
        s->end = end;
        return 1;
      },
      &search);
  simBegin = search.begin;
  simEnd = search.end;
  return simEnd > simBegin;
}

// Marks the capture thread on its first frame, then counts like the client
// of the other benchmarks.
void watchingCallback(uint32_t index, uint32_t request, void* device, _tagTqUvcDataBlockInfo* info,
                      uint64_t context) {
  watched = true;
  bench::StreamClient::callback(index, request, device, info, context);
}

void ApiAllocsPerFrame(benchmark::State& state) {
#ifdef BENCH_NO_MALLOC_HOOK
  state.SkipWithError("allocations are not counted in a sanitizer build");
  return;
#endif
  if (simEnd == 0 && !locateObject(reinterpret_cast<const void*>(&tqsim::reset))) {
    state.SkipWithError("cannot find the emulation's code");
    return;
  }
  const int width = static_cast<int>(state.range(0));
  const int height = static_cast<int>(state.range(1));
  tqsim::CameraConfig config = bench::cameraConfig(0, width, height);
  config.video.freeRun = true;
  bench::ApiCameras cameras({config});
  if (!cameras.error().empty()) {
    state.SkipWithError(cameras.error().c_str());
    return;
  }
  bench::StreamClient client(bench::frameBytes(width, height));
  std::string error = client.open(cameras.handle(0), &watchingCallback);
  if (error.empty()) error = client.start();
  // Steady state: the thread's set-up and first frames are behind it.
  if (error.empty() && !client.waitFor(8)) error = "no frame arrived";
  if (!error.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  libraryAllocations = 0;
  emulationAllocations = 0;
  const uint64_t first = client.frames();
  counting = true;
  uint64_t target = first;
  for (auto _ : state) {
    target += 1;
    if (!client.waitFor(target)) {
      state.SkipWithError("frames stopped arriving");
      break;
    }
  }
  counting = false;
  const double frames = static_cast<double>(client.frames() - first);
  client.stop();
  state.counters["allocs_per_frame"] = static_cast<double>(libraryAllocations.load()) / frames;
  state.counters["emulation_allocs_per_frame"] = static_cast<double>(emulationAllocations.load()) / frames;
  state.SetItemsProcessed(state.iterations());
  if (firstStackDepth.load() > 0) {
    static const char kHeader[] = "first library allocation on the capture thread:\n";
    (void)!write(STDERR_FILENO, kHeader, sizeof kHeader - 1);
    backtrace_symbols_fd(firstStack, firstStackDepth.load(), STDERR_FILENO);
    firstStackDepth = 0;
  }
}

BENCHMARK(ApiAllocsPerFrame)
    ->Args({640, 480})
    ->Args({1920, 1080})
    ->Iterations(400)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

#ifndef BENCH_NO_MALLOC_HOOK
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);

// glibc's own free releases what these return.
void* malloc(size_t size) {
  noteAllocation();
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  noteAllocation();
  return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size) {
  noteAllocation();
  return __libc_realloc(pointer, size);
}
}
#endif

int main(int argc, char** argv) {
  // The unwinder loads itself on first use; do that before anything counts.
  void* warm[4];
  backtrace(warm, 4);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
