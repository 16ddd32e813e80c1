// tq-uvc: list, inspect and stream the cameras of libtq.uvc from the shell.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "Commands.h"
#include "Status.h"

namespace {

// Set on the re-executed process so that it does not exec again.
constexpr const char* kLogApplied = "TQ_UVC_TOOL_LOG_APPLIED";

void onSignal(int signal) {
  tool::stopSignal().store(signal);
  tool::stopRequested().store(true);
}

void installSignalHandlers() {
  struct sigaction action {};
  action.sa_handler = onSignal;
  // The first signal ends the command cleanly; a second one ends the tool at
  // once, as if there were no handler.
  action.sa_flags = SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

// The library reads TQ_LOG while it loads, before main() runs, so a level
// given on the command line takes effect by running the tool again with the
// variable set. Items from the command line come last and win.
void applyLogLevels(int verbosity, const std::string& logSettings, char** argv) {
  if (std::getenv(kLogApplied) != nullptr) {
    ::unsetenv(kLogApplied);
    return;
  }
  std::string items;
  if (verbosity > 0) items = verbosity == 1 ? "UVC=info" : verbosity == 2 ? "UVC=debug" : "UVC=trace";
  if (!logSettings.empty()) items += (items.empty() ? "" : ",") + logSettings;
  if (items.empty()) return;
  const char* existing = std::getenv("TQ_LOG");
  const std::string levels =
      existing != nullptr && *existing != '\0' ? std::string(existing) + "," + items : items;
  ::setenv("TQ_LOG", levels.c_str(), 1);
  ::setenv(kLogApplied, "1", 1);
  ::execv("/proc/self/exe", argv);
  std::cerr << "tq-uvc: warning: cannot re-run with TQ_LOG=" << levels << " (" << std::strerror(errno)
            << "); set it in the environment instead\n";
  ::unsetenv(kLogApplied);
}

}  // namespace

int runTool(int argc, char** argv) {
  CLI::App app{"Lists, inspects and streams Tarquel UVC cameras", "tq-uvc"};
  app.require_subcommand(0, 1);
  std::string camera;
  int verbosity = 0;
  std::string logSpec;
  app.add_option("-c,--camera", camera, "Camera by serial number or handle (default: the first)");
  app.add_flag("-v,--verbose", verbosity, "More library log output (-v info, -vv debug, -vvv trace)");
  app.add_option("--log", logSpec, "Log levels as in TQ_LOG, e.g. UVC=debug,UVCAPI=trace");
  app.footer("Without a subcommand the cameras are listed. Addresses and values are hexadecimal.");

  auto* list = app.add_subcommand("list", "Every camera with handle, identity and device nodes");
  auto* info = app.add_subcommand("info", "Device record, capabilities and manifest entry");
  std::vector<std::string> readAddresses;
  auto* read = app.add_subcommand("read", "Read 32-bit registers at bootstrap addresses");
  read->add_option("ADDR", readAddresses, "Addresses (hex)")->required();
  std::vector<std::string> writePairs;
  auto* write = app.add_subcommand("write", "Write 32-bit registers: ADDR VALUE [ADDR VALUE ...]");
  write->add_option("ADDR VALUE", writePairs, "Address and value pairs (hex)")->required();
  std::string memAddress;
  std::string memLength;
  auto* readMem = app.add_subcommand("read-mem", "Read a memory block and dump it");
  readMem->add_option("ADDR", memAddress, "Address (hex)")->required();
  readMem->add_option("LEN", memLength, "Length in bytes (hex)")->required();
  std::string xmlOutput;
  auto* xml = app.add_subcommand("xml", "Download the description file and check its SHA-1");
  xml->add_option("-o,--output", xmlOutput, "File to write (default: the name from the manifest)");
  unsigned grabFrames = 1;
  std::string grabOutput;
  auto* grab = app.add_subcommand("grab", "Capture frames and save the last as PNG");
  grab->add_option("-n,--frames", grabFrames, "Frames to capture")->check(CLI::PositiveNumber);
  grab->add_option("-o,--output", grabOutput, "PNG file; %d in the name saves every frame")->required();
  tool::StreamLimits limits;
  auto* stream = app.add_subcommand("stream", "Stream and print rates once a second");
  stream->footer(
      "\"lost\" counts frames dropped because every buffer was locked. The library does not report them, so "
      "the count is an estimate from gaps in the frame timing.");
  auto* seconds = stream->add_option("--seconds", limits.seconds, "Stop after this many seconds")
                      ->check(CLI::PositiveNumber);
  stream->add_option("--frames", limits.frames, "Stop after this many frames")
      ->check(CLI::PositiveNumber)
      ->excludes(seconds);
  unsigned holdMs = 0;
  // Hidden: a deliberately slow consumer, to see frames lost to locked buffers.
  stream->add_option("--hold-ms", holdMs, "")->group("");
  auto* monitor = app.add_subcommand("monitor", "Print cameras arriving and leaving until interrupted");
  for (CLI::App* sub : app.get_subcommands({})) sub->fallthrough();

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int rc = app.exit(e);
    return rc == 0 ? 0 : 2;
  }

  applyLogLevels(verbosity, logSpec, argv);
  installSignalHandlers();
  limits.progressBar = ::isatty(STDOUT_FILENO) != 0;
  limits.hold = std::chrono::milliseconds(holdMs);

  try {
    std::ostream& out = std::cout;
    if (*info) return tool::runInfo(out, camera);
    if (*read) return tool::runRead(out, camera, readAddresses);
    if (*write) return tool::runWrite(out, camera, writePairs);
    if (*readMem) return tool::runReadMem(out, camera, memAddress, memLength);
    if (*xml) return tool::runXml(out, camera, xmlOutput);
    if (*grab) return tool::runGrab(out, camera, grabFrames, grabOutput);
    if (*stream) return tool::runStream(out, camera, limits);
    if (*monitor) return tool::runMonitor(out);
    (void)list;
    return tool::runList(out);
  } catch (const tool::Interrupted& e) {
    std::cout.flush();
    std::cerr << "tq-uvc: " << e.what() << '\n';
    return tool::Interrupted::exitStatus();
  } catch (const tool::Error& e) {
    std::cout.flush();
    std::cerr << "tq-uvc: error: " << e.what() << '\n';
    return 1;
  } catch (const std::exception& e) {
    std::cerr << "tq-uvc: error: " << e.what() << '\n';
    return 1;
  }
}

int main(int argc, char** argv) {
  try {
    return runTool(argc, argv);
  } catch (const std::exception& e) {
    std::cerr << "tq-uvc: " << e.what() << '\n';
    return 1;
  }
}
