// The tool's subcommands. Each writes its results to `out`, throws Error on
// failure and returns the exit status.
#pragma once

#include <atomic>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace tool {

// Set by SIGINT/SIGTERM; long-running commands end cleanly when it is.
std::atomic<bool>& stopRequested();

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
};
int runStream(std::ostream& out, const std::string& camera, const StreamLimits& limits);

// Rescans every `intervalMs` and prints arrivals and departures until stopped.
int runMonitor(std::ostream& out, unsigned intervalMs = 1000);

}  // namespace tool
