// Runs before any static object of the test binary, so the library's log
// sources (constructed at start-up) see the test configuration: everything at
// trace level, written to <binary>.log in the working directory instead of
// flooding the test output. A caller's own TQ_LOG / TQ_LOG_FILE win.
#include <errno.h>  // program_invocation_short_name (GNU)

#include <cstdlib>
#include <string>

namespace {
__attribute__((constructor(101))) void configureTestLogging() {
  setenv("TQ_LOG", "UVC=trace,OSDEP=trace,SIM=trace", 0);
  std::string file = std::string(program_invocation_short_name) + ".log";
  setenv("TQ_LOG_FILE", file.c_str(), 0);
}
}  // namespace
