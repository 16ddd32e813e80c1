// Recursive critical sections, manual-reset events and atomic counters.
#include <rkosdep.h>

#include <cerrno>
#include <cstring>

#include "OsLog.h"

namespace {

void copyName(char* dst, size_t size, const char* src) {
  size_t n = src ? strnlen(src, size - 1) : 0;
  if (n) memcpy(dst, src, n);
  dst[n] = '\0';
}

// Unlocks on every way out, including the unwinding of a cancelled thread.
class MutexUnlocker {
 public:
  explicit MutexUnlocker(pthread_mutex_t* m) : mutex_(m) {}
  ~MutexUnlocker() { pthread_mutex_unlock(mutex_); }
  MutexUnlocker(const MutexUnlocker&) = delete;
  MutexUnlocker& operator=(const MutexUnlocker&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

bool usable(const RkOsCriticalSection* cs, const char* what) {
  if (cs && cs->initialized) return true;
  tqos::osLog(RKLOG_ERROR, "%s: critical section %s is not initialised", what, cs ? "" : "(null)");
  return false;
}

}  // namespace

TQ_EXPORT void RkOsInitializeCriticalSection(RkOsCriticalSection* cs, const char* name) {
  if (!cs) return;
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&cs->mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  copyName(cs->name, sizeof(cs->name), name);
  cs->initialized = 1;
}

TQ_EXPORT void RkOsEnterCriticalSection(RkOsCriticalSection* cs) {
  if (!usable(cs, "RkOsEnterCriticalSection")) return;
  int rc = pthread_mutex_lock(&cs->mutex);
  if (rc != 0) tqos::osLog(RKLOG_ERROR, "RkOsEnterCriticalSection: \"%s\": %s", cs->name, strerror(rc));
}

TQ_EXPORT void RkOsLeaveCriticalSection(RkOsCriticalSection* cs) {
  if (!usable(cs, "RkOsLeaveCriticalSection")) return;
  int rc = pthread_mutex_unlock(&cs->mutex);
  if (rc != 0) tqos::osLog(RKLOG_ERROR, "RkOsLeaveCriticalSection: \"%s\": %s", cs->name, strerror(rc));
}

TQ_EXPORT void RkOsDeleteCriticalSection(RkOsCriticalSection* cs) {
  if (!cs || !cs->initialized) return;
  // Still held: keep it usable rather than leave a destroyed lock behind.
  // glibc keeps the holder's thread id in the mutex.
  if (cs->mutex.__data.__owner != 0) {
    tqos::osLog(RKLOG_ERROR, "RkOsDeleteCriticalSection: \"%s\" is still held", cs->name);
    return;
  }
  int rc = pthread_mutex_destroy(&cs->mutex);
  if (rc != 0) {
    tqos::osLog(RKLOG_ERROR, "RkOsDeleteCriticalSection: \"%s\": %s", cs->name, strerror(rc));
    return;
  }
  cs->initialized = 0;
}

TQ_EXPORT void RkOsInvalidateEvent(RkOsEvent* ev) {
  if (!ev) return;
  pthread_mutex_init(&ev->mutex, nullptr);
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&ev->cond, &attr);
  pthread_condattr_destroy(&attr);
  ev->signalled = 0;
  ev->valid = 1;
}

static int setSignalled(RkOsEvent* ev, int value) {
  if (!ev || !ev->valid) return -1;
  pthread_mutex_lock(&ev->mutex);
  MutexUnlocker unlock(&ev->mutex);
  ev->signalled = value;
  if (value) pthread_cond_broadcast(&ev->cond);
  return 0;
}

TQ_EXPORT int RkOsSetEvent(RkOsEvent* ev) { return setSignalled(ev, 1); }

TQ_EXPORT int RkOsResetEvent(RkOsEvent* ev) { return setSignalled(ev, 0); }

TQ_EXPORT int RkOsWaitForEvent(RkOsEvent* ev, uint32_t timeoutMs) {
  if (!ev || !ev->valid) return -1;
  pthread_mutex_lock(&ev->mutex);
  MutexUnlocker unlock(&ev->mutex);
  if (timeoutMs == RKOS_INFINITE) {
    while (!ev->signalled) pthread_cond_wait(&ev->cond, &ev->mutex);
    return 0;
  }
  struct timespec deadline = tqos::deadlineAfter(timeoutMs);
  while (!ev->signalled) {
    if (timeoutMs == 0) return 1;
    if (pthread_cond_timedwait(&ev->cond, &ev->mutex, &deadline) == ETIMEDOUT) return ev->signalled ? 0 : 1;
  }
  return 0;
}

TQ_EXPORT void RkOsDestroyEvent(RkOsEvent* ev) {
  if (!ev || !ev->valid) return;
  ev->valid = 0;
  pthread_cond_destroy(&ev->cond);
  pthread_mutex_destroy(&ev->mutex);
}

TQ_EXPORT int32_t ivAtomicInc32(volatile int32_t* value) {
  return value ? __atomic_add_fetch(value, 1, __ATOMIC_SEQ_CST) : 0;
}

TQ_EXPORT int32_t ivAtomicDec32(volatile int32_t* value) {
  return value ? __atomic_sub_fetch(value, 1, __ATOMIC_SEQ_CST) : 0;
}
