// The soak's leak counts: each kind of resource a library could leave behind
// shows up as one extra entry, and goes away again when released.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "ProcessCounts.h"

namespace {

TEST(ProcessCountsTest, DescriptorsMappingsAndThreadsLeftOverAreCountedAndNamed) {
  // A sanitizer runtime starts a thread of its own with the first thread the
  // program creates: let that happen before counting.
  std::thread([] {}).join();
  const soak::ProcessCounts before = soak::countProcess();
  EXPECT_GE(before.threads, 1);
  EXPECT_FALSE(before.descriptors.empty());
  for (const std::string& map : before.mappings) EXPECT_EQ(map.find(".so"), std::string::npos) << map;

  const int fd = memfd_create("soak-counts-probe", MFD_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, 4096), 0);
  void* map = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
  ASSERT_NE(map, MAP_FAILED);
  // Anonymous memory is not counted: allocators map and unmap it at will.
  void* anonymous = mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(anonymous, MAP_FAILED);
  std::mutex mutex;
  std::condition_variable cv;
  bool release = false;
  std::thread thread([&] {
    std::unique_lock<std::mutex> lock(mutex);
    cv.wait(lock, [&] { return release; });
  });

  const soak::ProcessCounts during = soak::countProcess();
  EXPECT_EQ(during.threads, before.threads + 1);
  const auto fds = soak::extraEntries(before.descriptors, during.descriptors);
  ASSERT_EQ(fds.size(), 1u);
  EXPECT_EQ(fds[0], std::to_string(fd) + " -> /memfd:soak-counts-probe (deleted)");
  const auto maps = soak::extraEntries(before.mappings, during.mappings);
  ASSERT_EQ(maps.size(), 1u);
  EXPECT_EQ(maps[0], "/memfd:soak-counts-probe (deleted)");

  {
    std::lock_guard<std::mutex> lock(mutex);
    release = true;
  }
  cv.notify_one();
  thread.join();
  munmap(anonymous, 8192);
  munmap(map, 4096);
  close(fd);
  const soak::ProcessCounts after = soak::countProcess();
  EXPECT_EQ(after.threads, before.threads);
  EXPECT_EQ(after.descriptors, before.descriptors);
  EXPECT_EQ(after.mappings, before.mappings);
}

TEST(ProcessCountsTest, ExtraEntriesCountsDuplicatesOnce) {
  EXPECT_EQ(soak::extraEntries({"a", "b"}, {"b", "a", "a", "c"}), (std::vector<std::string>{"a", "c"}));
  EXPECT_TRUE(soak::extraEntries({"a", "a"}, {"a"}).empty());
}

}  // namespace
