// Unloading the library while a client still holds connected cameras: the
// unload guard must tear the pool down while everything it reaches is alive.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <tq_uvc.h>
#include <tqsim/Sim.h>

#include <string>

#include "SimCamera.h"

namespace {

template <typename Fn>
Fn symbol(void* lib, const char* name) {
  void* p = dlsym(lib, name);
  EXPECT_NE(p, nullptr) << name;
  return reinterpret_cast<Fn>(p);
}

TEST(Unload, DlcloseAfterScanAndConnectClosesEverything) {
  tqsim::reset();
  const tqsim::CameraId id = tqtest::plug();
  tqtest::plug(tqtest::cameraOn(1, 2, "SECOND"));

  void* lib = dlopen(TQ_UVC_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(lib, nullptr) << dlerror();
  auto init = symbol<void (*)()>(lib, "TqUvcLibraryInit");
  auto scan = symbol<uint32_t (*)(uint64_t, uint64_t, uint64_t)>(lib, "TqUvcScanDevices");
  auto first = symbol<uint64_t (*)(uint64_t, _tagTqUvcDevInfo*)>(lib, "TqUvcGetFirstPoolDev");
  auto next = symbol<uint64_t (*)(uint64_t, uint64_t, _tagTqUvcDevInfo*)>(lib, "TqUvcNextPoolDev");
  auto connect = symbol<uint32_t (*)(uint64_t, uint32_t)>(lib, "TqUvcConnect");
  auto openStream = symbol<uint32_t (*)(uint64_t, uint64_t, uint32_t, uint32_t)>(lib, "TqUvcOpenStrmChan");
  ASSERT_TRUE(init && scan && first && next && connect && openStream);

  init();
  scan(0, 0, 100);
  _tagTqUvcDevInfo info{};
  info.Size = sizeof info;
  // A freshly loaded library numbers its devices from 1.
  const uint64_t h = first(0, &info);
  ASSERT_EQ(h, 1u);
  EXPECT_EQ(next(h, 0, &info), 2u);
  ASSERT_EQ(connect(h, 0), 0u);
  ASSERT_EQ(openStream(h, 0, 0, 0), 0u);
  EXPECT_EQ(tqsim::openHidNodes(id), 1);

  // No Uninit: the guard does the work.
  ASSERT_EQ(dlclose(lib), 0);
  EXPECT_EQ(tqsim::openHidNodes(id), 0);
  tqsim::reset();
}

}  // namespace
