// The tool's subcommands. Each writes its results to `out`, throws Error on
// failure and returns the exit status.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "Status.h"

namespace tool {

// Set by SIGINT/SIGTERM; long-running commands end cleanly when it is.
std::atomic<bool>& stopRequested();
// The signal that asked for the stop (0 when none did).
std::atomic<int>& stopSignal();

// grab and stream ended by a stop request before they were done.
class Interrupted : public Error {
 public:
  explicit Interrupted(const std::string& detail = {})
      : Error(detail.empty() ? "interrupted" : "interrupted (" + detail + ")") {}
  // 128 + the signal's number, as a shell reports a program the signal ended:
  // 130 for Ctrl-C.
  static int exitStatus();
};

// Where the camera keeps its description file: "local:NAME;ADDRESS;SIZE".
struct DescriptionFile {
  std::string name;  // the file-name part only
  uint32_t address = 0;
  uint32_t size = 0;
};
// Throws Error when the text is not such a location.
DescriptionFile parseDescriptionFileLocation(const std::string& location);

// Hex number with or without 0x; throws Error for anything else.
uint32_t parseHex(const std::string& text);

int runList(std::ostream& out);
int runInfo(std::ostream& out, const std::string& camera);
int runRead(std::ostream& out, const std::string& camera, const std::vector<std::string>& addresses);
// pairs: ADDR VALUE [ADDR VALUE ...]
int runWrite(std::ostream& out, const std::string& camera, const std::vector<std::string>& pairs);
int runReadMem(std::ostream& out, const std::string& camera, const std::string& address,
               const std::string& length);
int runXml(std::ostream& out, const std::string& camera, const std::string& outputPath);
int runGrab(std::ostream& out, const std::string& camera, unsigned frames, const std::string& outputPath);

struct StreamLimits {
  double seconds = 0;   // 0: no time limit
  uint64_t frames = 0;  // 0: no frame limit
  bool progressBar = false;
  // Keeps each buffer this long after its frame was counted: a slow consumer.
  std::chrono::milliseconds hold{0};
};
int runStream(std::ostream& out, const std::string& camera, const StreamLimits& limits);

// Rescans every `intervalMs` and prints arrivals and departures until stopped.
int runMonitor(std::ostream& out, unsigned intervalMs = 1000);

}  // namespace tool
