// Where finished lines go: stderr or the TQ_LOG_FILE file (with rotation),
// plus the registered sinks. One mutex serialises all of it, so lines are
// never torn and sinks never run concurrently.
#pragma once

#include <rklog.h>

#include <cstddef>

namespace tqlog {

constexpr size_t kMaxSinks = 32;
constexpr unsigned long long kDefaultFileMax = 16ull * 1024 * 1024;

// Writes one line (without newline) to the output and hands the record to the
// sinks. Fills record->line. Lines written from inside a sink go to the output
// only, never back to the sinks.
void emit(rklog_Record* record, const char* prefixAfterTime, const char* text);

int addSink(rklog_SinkFn fn, void* ctx);
void removeSink(int id);

// Closes the log file; the next line re-reads TQ_LOG_FILE and TQ_LOG_FILE_MAX.
void resetOutput();

}  // namespace tqlog
