// Waiting on conditions, counting what the process holds, and system-call
// failures in one assertion.
#pragma once

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <thread>

namespace tqtest {

// Polls `pred` until it holds (true) or `timeout` passed (false).
template <typename Pred>
bool waitUntil(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

inline size_t entries(const char* dir) {
  size_t n = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir)) ++n;
  return n;
}
inline size_t openDescriptors() { return entries("/proc/self/fd"); }
inline size_t threadCount() { return entries("/proc/self/task"); }

// errno when a call failed (-1, or MAP_FAILED for a pointer), 0 when it did not.
inline int errnoOf(long result) { return result == -1 ? errno : 0; }
inline int errnoOf(const void* result) { return result == reinterpret_cast<void*>(-1) ? errno : 0; }

}  // namespace tqtest

// The call fails with exactly this errno.
#define EXPECT_ERRNO(call, err) EXPECT_EQ(::tqtest::errnoOf(call), err) << #call
