// tq-uvc-sim [--config FILE] -- PROGRAM ARGS...
// Runs PROGRAM with the emulated cameras: preloads the emulation library,
// points it at the configuration and lets it put its udevadm first on PATH.
#include <limits.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "StateFile.h"

namespace {

std::string selfDirectory() {
  char buffer[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n <= 0) return ".";
  buffer[n] = '\0';
  std::string path(buffer);
  return path.substr(0, path.rfind('/'));
}

bool exists(const std::string& path) { return ::access(path.c_str(), R_OK) == 0; }

// Beside the launcher in the build tree, ../lib* when installed.
std::string findLibrary() {
  const std::string dir = selfDirectory();
  for (const char* relative : {"/", "/../", "/../lib/", "/../lib64/", "/../lib/x86_64-linux-gnu/"}) {
    const std::string candidate = dir + relative + TQSIM_LIBRARY_FILE;
    if (!exists(candidate)) continue;
    char resolved[PATH_MAX];
    if (::realpath(candidate.c_str(), resolved) != nullptr) return resolved;
  }
  return {};
}

// Where the library looks for its udevadm: bin/ beside it in the build tree,
// tq-uvc-sim/bin/ beside it when installed.
std::string findUdevadmDirectory(const std::string& library) {
  const std::string libraryDir = library.substr(0, library.rfind('/'));
  for (const char* sub : {"/bin", "/tq-uvc-sim/bin"}) {
    std::string dir = libraryDir + sub;
    if (::access((dir + "/udevadm").c_str(), X_OK) == 0) return dir;
  }
  return {};
}

std::string absolute(const std::string& path) {
  char resolved[PATH_MAX];
  return ::realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : path;
}

}  // namespace

int launch(int argc, char** argv) {
  CLI::App app{"Runs a program with emulated UVC cameras (hidraw, video and udevadm)", "tq-uvc-sim"};
  std::string config;
  std::vector<std::string> command;
  app.add_option("--config", config, "Camera configuration file (default: one camera on hidraw0, video0/1)")
      ->check(CLI::ExistingFile);
  app.add_option("command", command, "Program and its arguments, after --")->required();
  app.footer("Example: tq-uvc-sim -- ls -l /dev/hidraw0");
  CLI11_PARSE(app, argc, argv);

  const std::string library = findLibrary();
  if (library.empty()) {
    std::cerr << "tq-uvc-sim: cannot find " << TQSIM_LIBRARY_FILE << " next to " << selfDirectory() << '\n';
    return 127;
  }

  std::string preload = library;
  const std::string first = TQSIM_PRELOAD_FIRST;
  if (!first.empty()) preload = first + ":" + preload;  // a sanitizer runtime must come first
  if (const char* existing = std::getenv("LD_PRELOAD"); existing != nullptr && *existing != '\0') {
    preload += ":" + std::string(existing);
  }
  ::setenv("LD_PRELOAD", preload.c_str(), 1);
  // A fresh emulation for the program, also when started from inside another.
  ::unsetenv(tqsim::kEnvOwnerPid);
  ::unsetenv(tqsim::kEnvStateFile);
  if (config.empty()) {
    ::unsetenv(tqsim::kEnvConfig);
  } else {
    ::setenv(tqsim::kEnvConfig, absolute(config).c_str(), 1);
  }

  // The library puts its udevadm first on PATH when it loads; the program
  // itself may be udevadm, which is looked up before that.
  const std::string udevadmDir = findUdevadmDirectory(library);
  if (!udevadmDir.empty()) {
    const char* path = std::getenv("PATH");
    const std::string updated = path != nullptr && *path != '\0' ? udevadmDir + ":" + path : udevadmDir;
    ::setenv("PATH", updated.c_str(), 1);
  }

  std::vector<char*> args;
  args.reserve(command.size() + 1);
  for (std::string& arg : command) args.push_back(arg.data());
  args.push_back(nullptr);
  ::execvp(args[0], args.data());
  std::cerr << "tq-uvc-sim: cannot run " << command[0] << ": " << std::strerror(errno) << '\n';
  return 127;
}

int main(int argc, char** argv) {
  try {
    return launch(argc, argv);
  } catch (const std::exception& e) {
    std::cerr << "tq-uvc-sim: " << e.what() << '\n';
    return 127;
  }
}
