// The "OSDEP" log source shared by the osdep library's files.
#pragma once

#include <rklog.h>

#include <ctime>

namespace tqos {

// Writes one line on "OSDEP" (registered on first use).
void osLog(unsigned level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Milliseconds from now on CLOCK_MONOTONIC, as an absolute deadline.
timespec deadlineAfter(unsigned ms);

}  // namespace tqos

#define TQ_EXPORT extern "C" __attribute__((visibility("default")))
