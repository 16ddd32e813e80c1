/* libtq.osdep: the SDK's operating-system layer for Linux. */
#ifndef TQ_RKOSDEP_H
#define TQ_RKOSDEP_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- named recursive critical sections ---- */
typedef struct RkOsCriticalSection {
  pthread_mutex_t mutex;
  char name[32];
  int initialized;
} RkOsCriticalSection;

/* Initialises a recursive lock; `name` (may be NULL) is kept for diagnostics. */
void RkOsInitializeCriticalSection(RkOsCriticalSection* cs, const char* name);
void RkOsEnterCriticalSection(RkOsCriticalSection* cs);
void RkOsLeaveCriticalSection(RkOsCriticalSection* cs);
/* Releases the lock's resources; it must not be held (a held lock is left alone
 * and the misuse logged). Idempotent. */
void RkOsDeleteCriticalSection(RkOsCriticalSection* cs);

/* ---- events (manual reset) ---- */
typedef struct RkOsEvent {
  pthread_mutex_t mutex;
  pthread_cond_t cond; /* waits use CLOCK_MONOTONIC */
  int signalled;
  int valid;
} RkOsEvent;

/* Puts the event into its valid, non-signalled state. */
void RkOsInvalidateEvent(RkOsEvent* ev);
/* Set/reset: 0 on success, -1 on an invalid (destroyed) event. */
int RkOsSetEvent(RkOsEvent* ev);
int RkOsResetEvent(RkOsEvent* ev);
/* Waits until signalled or `timeoutMs` passed (0 polls, RKOS_INFINITE waits for
 * ever). Returns 0 when signalled, 1 on time-out, -1 on an invalid event. */
int RkOsWaitForEvent(RkOsEvent* ev, uint32_t timeoutMs);
/* Releases the event; it is invalid afterwards. Idempotent. */
void RkOsDestroyEvent(RkOsEvent* ev);

#define RKOS_INFINITE 0xFFFFFFFFu

/* ---- thread objects ---- */
typedef void* (*RkOsThreadFn)(void* arg);

typedef struct RkOsThread {
  pthread_t handle;
  pthread_mutex_t mutex;
  pthread_cond_t cond; /* CLOCK_MONOTONIC */
  RkOsThreadFn fn;
  void* arg;
  char name[32];
  int started;  /* a thread was created and not yet reclaimed */
  int finished; /* its body has returned (or it was cancelled) */
} RkOsThread;

/* Puts the object into the "no thread" state and records `name` (may be NULL). */
void RkOsInvalidateThread(RkOsThread* t, const char* name);
/* Starts fn(arg) on a new thread. 0 on success, else an error number: EBUSY when
 * the object already has a thread, EAGAIN when 256 thread objects are in use,
 * or what pthread_create returned. A body that throws a standard exception has
 * it logged; the thread then ends normally. */
int RkOsCreateThread(RkOsThread* t, RkOsThreadFn fn, void* arg);
/* Waits up to `timeoutMs` for the thread to end. 0 when it has ended (or none was
 * started), 1 on time-out. */
int RkOsWaitForThread(RkOsThread* t, uint32_t timeoutMs);
/* Forces the thread to end (cancellation at its next cancellation point: sleeps,
 * event waits, blocking I/O). 0 when it ended within a short grace period, 1 when
 * it is still running (it is then detached by RkOsDestroyThread). */
int RkOsTerminateThread(RkOsThread* t);
/* Reclaims the thread: joins it when it has ended, else detaches it. The object is
 * in the "no thread" state afterwards. Idempotent. */
void RkOsDestroyThread(RkOsThread* t);

/* ---- clocks and sleep (CLOCK_MONOTONIC) ---- */
/* Milliseconds; wraps after about 49 days. */
uint32_t RkOsGetTickCount(void);
/* Microseconds. */
uint64_t RkOsGetTickCountPrecise(void);
void RkOsSleep(uint32_t ms);

/* ---- strings ---- */
/* ASCII case-insensitive compares, strcmp-like results. NULL sorts first. */
int RkOsStricmp(const char* a, const char* b);
int RkOsStrnicmp(const char* a, const char* b, size_t n);

/* ---- files and paths ---- */
/* The file's modification time (seconds and nanoseconds packed as
 * sec * 1000000000 + nsec), or 0 when it cannot be read. */
uint64_t RkOsGetFileModificationTime(const char* path);
/* The SDK's ini file: $TQ_INI_FILE, else $XDG_CONFIG_HOME/tarquel/tarquel.ini,
 * else $HOME/.config/tarquel/tarquel.ini (an XDG variable counts only when it is
 * an absolute path). The text lives in a per-thread buffer owned by the library,
 * valid until the same thread calls again; copy it. */
const char* RkOsGetCorvaleIniFile(void);
/* Directory of cached description files, always ending in '/': $TQ_XML_CACHE, else
 * $XDG_CACHE_HOME/tarquel/xml/, else $HOME/.cache/tarquel/xml/. With `create`
 * non-zero the directory (and its parents) is created when missing; failure is
 * logged and the path still returned. The text lives in a per-thread buffer, as
 * above. */
const char* RkOsGetCorvaleXmlCachePath(int create);

/* ---- atomics: return the new value ---- */
int32_t ivAtomicInc32(volatile int32_t* value);
int32_t ivAtomicDec32(volatile int32_t* value);

/* Logs `text` at error level on the "OSDEP" source; stops in the debugger when one
 * is attached or TQ_DEBUG_BREAK=1 is set, otherwise carries on. */
void tqDebugBreak(const char* text);

#ifdef __cplusplus
}
#endif

#endif
