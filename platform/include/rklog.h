/* libtq.log: the SDK's logging library.
 *
 * Sources are registered by name under an optional parent. Which levels a source
 * writes comes from the TQ_LOG environment variable (or rklog_Configure), e.g.
 * "UVC=debug,UVCAPI=trace"; a source without its own entry inherits its parent's,
 * and with nothing configured Fatal, Error and Warning are on. Lines go to stderr,
 * or to the file named by TQ_LOG_FILE (rotated when it grows past TQ_LOG_FILE_MAX
 * bytes). Every function is thread-safe. */
#ifndef TQ_RKLOG_H
#define TQ_RKLOG_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Level bits, as passed to rklog_Enabled and rklog_WriteArgList. */
enum {
  RKLOG_FATAL = 1,
  RKLOG_ERROR = 2,
  RKLOG_WARNING = 4,
  RKLOG_INFO = 8,
  RKLOG_DEBUG = 16,
  RKLOG_TRACE = 32
};

/* Registers (or finds) the source `name`; `parent` may be NULL or name a source
 * that is not registered (yet): level inheritance follows the name. `flag` 0
 * registers the source muted (nothing enabled unless TQ_LOG names the source
 * itself), non-zero normally. Registering a name again returns the first id and
 * keeps the first parent and flag. Names are cut to 63 characters. Returns the
 * source id, never 0; 0 only when name is NULL or empty, or when all 1024
 * source slots are taken. */
unsigned int rklog_Register(const char* name, const char* parent, int flag);

/* Non-zero when `level` (one bit) is enabled for the source; 0 for an unknown id. */
int rklog_Enabled(unsigned int source, unsigned int level);

/* Writes one line: time, thread id, source[:userId], level, the calling thread's
 * indentation and the printf-formatted text without its trailing newline. Writes
 * nothing for an unknown source or a disabled level. `userId` may be NULL. */
void rklog_WriteArgList(unsigned int source, unsigned int level, const char* userId, const char* fmt,
                        va_list args);

/* Per-thread indentation of the text, one step per call; `owner` identifies the
 * scope object (kept for diagnosis only). Decrement never goes below zero. */
void rklog_IncIndent(const void* owner);
void rklog_DecIndent(const void* owner);

/* Re-reads the level configuration from `levels` (TQ_LOG syntax), or from the
 * environment when levels is NULL. Affects rklog_Enabled from now on. */
void rklog_Configure(const char* levels);

/* One written line as handed to sinks. All pointers are valid during the call. */
typedef struct rklog_Record {
  const char* source; /* source name */
  const char* userId; /* "" when none */
  unsigned int level; /* one RKLOG_* bit */
  unsigned long threadId;
  int indent;       /* indentation steps of the writing thread */
  const char* text; /* formatted message, trailing newline removed */
  const char* line; /* the complete output line, without newline */
} rklog_Record;

typedef void (*rklog_SinkFn)(void* ctx, const rklog_Record* record);

/* Adds a sink that receives every written line (in addition to the normal output);
 * returns its id (> 0), or 0 when fn is NULL or 32 sinks are registered. Sinks run
 * on the writing thread, serialised. A sink may log (that line goes to the output
 * only, not to the sinks) and may add or remove sinks. */
int rklog_AddSink(rklog_SinkFn fn, void* ctx);
/* Removes a sink; when it returns the sink is no longer running or called (unless
 * a sink removes itself, which is allowed). Unknown ids are ignored. */
void rklog_RemoveSink(int id);

#ifdef __cplusplus
}
#endif

#endif
