// Scope guard for one of the platform's named recursive critical sections.
#pragma once

#include <rkosdep.h>

class CriticalSectionLock {
 public:
  explicit CriticalSectionLock(RkOsCriticalSection& cs) : cs_(cs) { RkOsEnterCriticalSection(&cs_); }
  ~CriticalSectionLock() { RkOsLeaveCriticalSection(&cs_); }
  CriticalSectionLock(const CriticalSectionLock&) = delete;
  CriticalSectionLock& operator=(const CriticalSectionLock&) = delete;

 private:
  RkOsCriticalSection& cs_;
};
