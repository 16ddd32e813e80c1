#include "support/TqUvcThread.h"

#include <cxxabi.h>

#include <cstdint>
#include <cstdio>
#include <exception>

#include "support/LibLogs.h"
#include "support/StringUtils.h"

namespace {

constexpr const char* kDefaultName = "TqUvc::";

void* handleOf(const RkOsThread& t) { return reinterpret_cast<void*>(static_cast<uintptr_t>(t.handle)); }

}  // namespace

TqUvcThread::TqUvcThread(const char* name)
    : name_{}, thread_{}, running_(false), keepRunning_(0), exitEvent_{} {
  rk::SafeStrCpy(name_, name != nullptr ? name : kDefaultName, sizeof(name_));
  invalidatePlatformObjects();
}

void TqUvcThread::invalidatePlatformObjects() {
  // Room for the whole name; the platform keeps as much of it as fits.
  char threadName[sizeof(name_) + 8];
  snprintf(threadName, sizeof(threadName), "UVC:Thd:%s", name_);
  RkOsInvalidateThread(&thread_, threadName);
  RkOsInvalidateEvent(&exitEvent_);
}

TqUvcThread::~TqUvcThread() {
  if (running_.load()) {
    // The derived part is already gone, so the body must not run on: end it
    // rather than leave a thread working on freed memory.
    Log.Error("TqUvcThread::~TqUvcThread: thread \"%s\" still running, terminating it", name_);
    keepRunning_ = 0;
    RkOsSetEvent(&exitEvent_);
    if (RkOsWaitForThread(&thread_, 0) != 0) RkOsTerminateThread(&thread_);
    running_ = false;
  }
  RkOsDestroyThread(&thread_);
  RkOsDestroyEvent(&exitEvent_);
}

void TqUvcThread::Setup() {}

int TqUvcThread::Stop(unsigned int timeoutMs) {
  if (!running_.load()) return 0;

  const uint32_t start = RkOsGetTickCount();
  RequestExit();
  const int result = RkOsWaitForThread(&thread_, timeoutMs);
  const uint32_t elapsed = RkOsGetTickCount() - start;

  if (result != 0) {
    Log.Error("TqUvcThread::Stop: needed to terminate %s thread (after %d ms) [handle:%p]", name_,
              static_cast<int>(elapsed), handleOf(thread_));
    RkOsTerminateThread(&thread_);
  } else {
    Log.Debug("TqUvcThread::Stop: thread \"%s\" stopped in %d ms [handle:%p]", name_,
              static_cast<int>(elapsed), handleOf(thread_));
  }

  RkOsDestroyThread(&thread_);
  RkOsDestroyEvent(&exitEvent_);
  running_ = false;
  return result;
}

bool TqUvcThread::ExitRequested() { return RkOsWaitForEvent(&exitEvent_, 0) == 0; }

void TqUvcThread::RequestExit() {
  keepRunning_ = 0;
  RkOsSetEvent(&exitEvent_);
}

int TqUvcThread::WaitForExitEvent(uint32_t timeoutMs) { return RkOsWaitForEvent(&exitEvent_, timeoutMs); }

void TqUvcThread::ResetExitEvent() { RkOsResetEvent(&exitEvent_); }

int TqUvcThread::StartThread(void* arg) {
  if (running_.load()) return -1;
  // A previous Stop destroyed both objects; give the new run fresh ones.
  RkOsDestroyThread(&thread_);
  RkOsDestroyEvent(&exitEvent_);
  invalidatePlatformObjects();
  startArg_ = arg;
  keepRunning_ = 1;
  const int rc = RkOsCreateThread(&thread_, &TqUvcThread::threadMain, this);
  if (rc != 0) {
    keepRunning_ = 0;
    Log.Error("TqUvcThread::StartThread: cannot start thread \"%s\" (%d)", name_, rc);
    return rc;
  }
  running_ = true;
  return 0;
}

// The cancellation that RkOsTerminateThread uses unwinds with an exception that
// has no object, so UBSan's null-reference check would misread its handler.
__attribute__((no_sanitize("null"))) void* TqUvcThread::threadMain(void* self) {
  auto* thread = static_cast<TqUvcThread*>(self);
  try {
    thread->Setup();
    thread->Execute(thread->startArg_);
  } catch (abi::__forced_unwind&) {
    throw;  // cancellation by RkOsTerminateThread must unwind through here
  } catch (const std::exception& e) {
    Log.Error("TqUvcThread: thread \"%s\" ended by exception: %s", thread->name_, e.what());
  } catch (...) {
    Log.Error("TqUvcThread: thread \"%s\" ended by an unknown exception", thread->name_);
  }
  return nullptr;
}
