// Base of the worker-thread classes: a platform thread, an event that asks the
// body to end, a name for the log, and the stop logic with its time-out and
// forced termination. The library itself constructs and stops these objects but
// never starts one; StartThread is there for derived classes that do.
#pragma once

#include <rkosdep.h>

#include <atomic>
#include <cstdint>

class TqUvcThread {
 public:
  // name null: "TqUvc::"; longer names are cut to 31 characters.
  explicit TqUvcThread(const char* name);
  // Releases the platform objects. It does not stop the thread the way Stop
  // does; a body still running here is terminated (see StartThread).
  virtual ~TqUvcThread();
  TqUvcThread(const TqUvcThread&) = delete;
  TqUvcThread& operator=(const TqUvcThread&) = delete;

  // Runs on the new thread before Execute; nothing in the base.
  virtual void Setup();
  // The thread body. Loops until ExitRequested() and returns its exit code.
  virtual int Execute(void* arg) = 0;

  // Signals the exit event and waits up to timeoutMs for the body to end, then
  // terminates it. Returns 0 when the thread ended in time (or was never
  // started), non-zero when it had to be terminated. Always ends not running.
  int Stop(unsigned int timeoutMs);

  // True once Stop has signalled the exit event; polls without waiting.
  bool ExitRequested();

  // Asks a running body to end: clears keep-running and signals the exit event,
  // without waiting. Stop starts with it; an owner that started the body
  // through the platform thread calls itself ends it with this and then waits
  // for its thread.
  void RequestExit();

  const char* Name() const { return name_; }
  bool IsRunning() const { return running_.load(); }

 protected:
  // Starts Setup() and Execute(arg) on a new thread. Returns 0 on success, the
  // pthread error number otherwise, -1 when already running.
  int StartThread(void* arg);

  // Cleared by Stop; bodies may poll it besides the exit event.
  bool KeepRunning() const { return keepRunning_.load() != 0; }

  // For bodies that sleep on the exit event: 0 signalled, 1 time-out, -1 when
  // the event is gone (after a Stop).
  int WaitForExitEvent(uint32_t timeoutMs);
  void ResetExitEvent();

 private:
  static void* threadMain(void* self);
  void invalidatePlatformObjects();

  char name_[32];
  RkOsThread thread_;
  std::atomic<bool> running_;
  std::atomic<uint32_t> keepRunning_;
  RkOsEvent exitEvent_;
  void* startArg_ = nullptr;
};
