// Thread objects: start, timed wait, forced termination, reclaim.
//
// A thread that outlives its object (terminated but not ended, then detached)
// must not touch the object again, so the running side keeps its state in a
// slot of a static table and reaches the object only while it is attached.
#include <rkosdep.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <mutex>

#include "OsLog.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace {

constexpr size_t kMaxThreads = 256;
constexpr uint32_t kTerminateGraceMs = 500;

struct Slot {
  bool inUse;
  bool detached;  // the object let go; the thread frees the slot when it ends
  RkOsThread* owner;
  RkOsThreadFn fn;
  void* arg;
};

// Trivially destructible, so detached threads may still finish during exit.
std::mutex slotMutex;
Slot slots[kMaxThreads];

Slot* findSlotLocked(const RkOsThread* t) {
  for (Slot& s : slots)
    if (s.inUse && !s.detached && s.owner == t) return &s;
  return nullptr;
}

// Cancellation unwinds without AddressSanitizer clearing the frames it leaves;
// their stale poison would be reported against the thread's exit code. The
// stack's bounds are taken at start: after a cancellation any call that
// writes to the stack could trip over that poison.
void* stackLowEnd() {
#if defined(__SANITIZE_ADDRESS__)
  pthread_attr_t attr;
  if (pthread_getattr_np(pthread_self(), &attr) != 0) return nullptr;
  void* low = nullptr;
  size_t size = 0;
  pthread_attr_getstack(&attr, &low, &size);
  pthread_attr_destroy(&attr);
  return low;
#else
  return nullptr;
#endif
}

#if defined(__SANITIZE_ADDRESS__)
__attribute__((noinline, no_sanitize_address)) void clearUnwoundStack(void* low) {
  auto below = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  auto start = reinterpret_cast<uintptr_t>(low);
  if (low && below > start) __asan_unpoison_memory_region(low, below - start);
}
#else
void clearUnwoundStack(void*) {}
#endif

// Marks the end of the body on every way out, including cancellation.
class EndMarker {
 public:
  explicit EndMarker(Slot* slot) : slot_(slot), stackLow_(stackLowEnd()) {}
  ~EndMarker() {
    clearUnwoundStack(stackLow_);
    std::lock_guard<std::mutex> lock(slotMutex);
    if (slot_->detached) {
      slot_->inUse = false;
      return;
    }
    RkOsThread* t = slot_->owner;
    pthread_mutex_lock(&t->mutex);
    t->finished = 1;
    pthread_cond_broadcast(&t->cond);
    pthread_mutex_unlock(&t->mutex);
  }
  EndMarker(const EndMarker&) = delete;
  EndMarker& operator=(const EndMarker&) = delete;

 private:
  Slot* slot_;
  void* stackLow_;
};

void* trampoline(void* p) {
  auto* slot = static_cast<Slot*>(p);
  EndMarker marker(slot);
  try {
    return slot->fn(slot->arg);
  } catch (const std::exception& e) {
    // Only standard exceptions are caught: catch (...) would also swallow the
    // unwinding of a cancelled thread, which aborts the process.
    tqos::osLog(RKLOG_ERROR, "RkOsThread: thread body ended with an exception: %s", e.what());
  }
  return nullptr;
}

// Waits on the object's condition until its body ended; false on time-out.
bool waitFinished(RkOsThread* t, uint32_t timeoutMs) {
  struct timespec deadline = tqos::deadlineAfter(timeoutMs == RKOS_INFINITE ? 0 : timeoutMs);
  pthread_mutex_lock(&t->mutex);
  bool ended = true;
  while (!t->finished) {
    if (timeoutMs == RKOS_INFINITE) {
      pthread_cond_wait(&t->cond, &t->mutex);
    } else if (timeoutMs == 0 || pthread_cond_timedwait(&t->cond, &t->mutex, &deadline) == ETIMEDOUT) {
      ended = t->finished != 0;
      break;
    }
  }
  pthread_mutex_unlock(&t->mutex);
  return ended;
}

}  // namespace

TQ_EXPORT void RkOsInvalidateThread(RkOsThread* t, const char* name) {
  if (!t) return;
  memset(&t->handle, 0, sizeof(t->handle));
  pthread_mutex_init(&t->mutex, nullptr);
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&t->cond, &attr);
  pthread_condattr_destroy(&attr);
  t->fn = nullptr;
  t->arg = nullptr;
  size_t n = name ? strnlen(name, sizeof(t->name) - 1) : 0;
  if (n) memcpy(t->name, name, n);
  t->name[n] = '\0';
  t->started = 0;
  t->finished = 0;
}

TQ_EXPORT int RkOsCreateThread(RkOsThread* t, RkOsThreadFn fn, void* arg) {
  if (!t || !fn) return EINVAL;
  if (t->started) {
    tqos::osLog(RKLOG_ERROR, "RkOsCreateThread: \"%s\" already has a thread", t->name);
    return EBUSY;
  }
  std::lock_guard<std::mutex> lock(slotMutex);
  Slot* slot = nullptr;
  for (Slot& s : slots) {
    if (!s.inUse) {
      slot = &s;
      break;
    }
  }
  if (!slot) {
    tqos::osLog(RKLOG_ERROR, "RkOsCreateThread: \"%s\": more than %zu threads", t->name, kMaxThreads);
    return EAGAIN;
  }
  *slot = Slot{true, false, t, fn, arg};
  t->fn = fn;
  t->arg = arg;
  t->finished = 0;
  int rc = pthread_create(&t->handle, nullptr, trampoline, slot);
  if (rc != 0) {
    slot->inUse = false;
    tqos::osLog(RKLOG_ERROR, "RkOsCreateThread: \"%s\": %s", t->name, strerror(rc));
    return rc;
  }
  t->started = 1;
  return 0;
}

TQ_EXPORT int RkOsWaitForThread(RkOsThread* t, uint32_t timeoutMs) {
  if (!t || !t->started) return 0;
  return waitFinished(t, timeoutMs) ? 0 : 1;
}

TQ_EXPORT int RkOsTerminateThread(RkOsThread* t) {
  if (!t || !t->started) return 0;
  if (waitFinished(t, 0)) return 0;
  int rc = pthread_cancel(t->handle);
  if (rc != 0 && rc != ESRCH)
    tqos::osLog(RKLOG_ERROR, "RkOsTerminateThread: \"%s\": %s", t->name, strerror(rc));
  if (waitFinished(t, kTerminateGraceMs)) return 0;
  tqos::osLog(RKLOG_WARNING, "RkOsTerminateThread: \"%s\" still runs after %u ms", t->name,
              kTerminateGraceMs);
  return 1;
}

TQ_EXPORT void RkOsDestroyThread(RkOsThread* t) {
  if (!t || !t->started) return;
  bool ended;
  {
    std::lock_guard<std::mutex> lock(slotMutex);
    Slot* slot = findSlotLocked(t);
    pthread_mutex_lock(&t->mutex);
    ended = t->finished != 0;
    pthread_mutex_unlock(&t->mutex);
    if (slot) {
      if (ended)
        slot->inUse = false;  // the thread is past its last touch of the slot
      else
        slot->detached = true;
    }
  }
  int rc = ended ? pthread_join(t->handle, nullptr) : pthread_detach(t->handle);
  if (rc != 0) tqos::osLog(RKLOG_ERROR, "RkOsDestroyThread: \"%s\": %s", t->name, strerror(rc));
  t->started = 0;
  t->finished = 0;
}
