// tq-uvc-sim [--config FILE] -- PROGRAM ARGS...
// tq-uvc-sim plug|unplug|replug SERIAL [--new-nodes] | fault SERIAL NAME VALUE | status
//
// Runs PROGRAM with the emulated cameras: this process hosts them and serves
// them on a Unix socket to PROGRAM and every process it starts (each loads the
// emulation library through LD_PRELOAD and finds the socket in TQSIM_SERVER).
// The other forms act on a running launcher from outside.
#include <dirent.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "Emulation.h"
#include "Frontend.h"
#include "Protocol.h"
#include "Server.h"
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

// The running launchers: sockets in $TMPDIR/tqsim-PID-*/ whose process lives.
std::vector<std::string> runningLaunchers() {
  const char* tmp = std::getenv("TMPDIR");
  const std::string base = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
  std::vector<std::string> found;
  DIR* dir = ::opendir(base.c_str());
  if (dir == nullptr) return found;
  while (const dirent* entry = ::readdir(dir)) {
    int pid = 0;
    char rest[32];
    if (std::sscanf(entry->d_name, "tqsim-%d-%31s", &pid, rest) != 2 || pid <= 0) continue;
    if (::kill(pid, 0) != 0 && errno == ESRCH) continue;
    const std::string socket = base + "/" + entry->d_name + "/server";
    struct stat st {};
    if (::stat(socket.c_str(), &st) == 0 && S_ISSOCK(st.st_mode) && st.st_uid == ::getuid())
      found.push_back(socket);
  }
  ::closedir(dir);
  return found;
}

int command(std::vector<std::string> words) {
  std::string server;
  for (auto it = words.begin(); it != words.end();) {
    if (*it == "--server" && it + 1 != words.end()) {
      server = *(it + 1);
      it = words.erase(it, it + 2);
    } else {
      ++it;
    }
  }
  if (server.empty()) server = tqsim::serverAddress();
  if (server.empty()) {
    const std::vector<std::string> found = runningLaunchers();
    if (found.size() != 1) {
      std::cerr << "tq-uvc-sim: " << (found.empty() ? "no running launcher found" : "several launchers run:");
      for (const std::string& socket : found) std::cerr << "\n  " << socket;
      std::cerr << "\nname one with --server SOCKET (or set " << tqsim::kEnvServer << ")\n";
      return 1;
    }
    server = found.front();
  }
  std::string out;
  const int status = tqsim::front::control(server, words, out);
  (status == 0 ? std::cout : std::cerr) << (status == 0 ? "" : "tq-uvc-sim: ") << out;
  return status;
}

pid_t gChild = -1;

// Signals another process sends the launcher go on to the program; those of
// the terminal (Ctrl-C) reach the program by themselves.
void forward(int signal, siginfo_t* info, void*) {
  const int savedErrno = errno;  // the interrupted code may be about to read it
  if (gChild > 0 && (info == nullptr || info->si_code == SI_USER || info->si_code == SI_QUEUE)) {
    ::kill(gChild, signal);
  }
  errno = savedErrno;
}

int launch(int argc, char** argv) {
  CLI::App app{"Runs a program with emulated UVC cameras (hidraw, video and udevadm)", "tq-uvc-sim"};
  std::string config;
  std::vector<std::string> program;
  app.add_option("--config", config, "Camera configuration file (default: one camera on hidraw0, video0/1)")
      ->check(CLI::ExistingFile);
  app.add_option("command", program, "Program and its arguments, after --")->required();
  app.footer(
      "Example: tq-uvc-sim -- ls -l /dev/hidraw0\n"
      "From outside a running launcher: tq-uvc-sim plug|unplug|replug SERIAL [--new-nodes],\n"
      "  tq-uvc-sim fault SERIAL NAME VALUE, tq-uvc-sim status  [--server SOCKET]");
  CLI11_PARSE(app, argc, argv);

  const std::string library = findLibrary();
  if (library.empty()) {
    std::cerr << "tq-uvc-sim: cannot find " << TQSIM_LIBRARY_FILE << " next to " << selfDirectory() << '\n';
    return 127;
  }

  // This process hosts the cameras; a bad file ends here, before the program.
  std::string error;
  if (!config.empty()) {
    if (!tqsim::loadConfigFile(config, &error)) {
      std::cerr << "tq-uvc-sim: " << error << '\n';
      return 2;
    }
  } else {
    tqsim::reset();
    if (tqsim::plugCamera(tqsim::defaultCameraConfig(), &error) == tqsim::kNoCamera) {
      std::cerr << "tq-uvc-sim: " << error << '\n';
      return 2;
    }
  }
  const std::string directory = tqsim::Emulation::instance().stateDirectory();
  const std::string socket = directory + "/server";
  if (directory.empty() || !tqsim::server::start(socket, &error)) {
    std::cerr << "tq-uvc-sim: cannot serve the cameras: " << error << '\n';
    return 127;
  }

  std::string preload = library;
  const std::string first = TQSIM_PRELOAD_FIRST;
  if (!first.empty()) preload = first + ":" + preload;  // a sanitizer runtime must come first
  if (const char* existing = std::getenv("LD_PRELOAD"); existing != nullptr && *existing != '\0') {
    preload += ":" + std::string(existing);
  }
  ::setenv("LD_PRELOAD", preload.c_str(), 1);
  ::setenv(tqsim::kEnvServer, socket.c_str(), 1);
  ::unsetenv(tqsim::kEnvConfig);
  // PATH (our udevadm first) and TQSIM_STATE_FILE are set by the emulation.

  std::vector<char*> args;
  args.reserve(program.size() + 1);
  for (std::string& arg : program) args.push_back(arg.data());
  args.push_back(nullptr);

  // The forwarding is in place before the program exists, and a signal sent
  // meanwhile waits (blocked) until the program can receive it. The program
  // starts with the dispositions and mask the launcher was given.
  constexpr int kForwarded[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};
  sigset_t forwarded;
  sigset_t oldMask;
  sigemptyset(&forwarded);
  for (int signal : kForwarded) sigaddset(&forwarded, signal);
  ::sigprocmask(SIG_BLOCK, &forwarded, &oldMask);
  struct sigaction action {};
  action.sa_sigaction = &forward;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  struct sigaction oldActions[std::size(kForwarded)] = {};
  for (size_t i = 0; i < std::size(kForwarded); ++i) ::sigaction(kForwarded[i], &action, &oldActions[i]);
  gChild = ::fork();
  if (gChild < 0) {
    std::cerr << "tq-uvc-sim: fork: " << std::strerror(errno) << '\n';
    return 127;
  }
  if (gChild == 0) {
    for (size_t i = 0; i < std::size(kForwarded); ++i) ::sigaction(kForwarded[i], &oldActions[i], nullptr);
    ::sigprocmask(SIG_SETMASK, &oldMask, nullptr);
    ::execvp(args[0], args.data());
    std::cerr << "tq-uvc-sim: cannot run " << program[0] << ": " << std::strerror(errno) << '\n';
    ::_exit(127);
  }
  ::sigprocmask(SIG_SETMASK, &oldMask, nullptr);
  int status = 0;
  while (::waitpid(gChild, &status, 0) < 0 && errno == EINTR) {
  }
  tqsim::server::stop();
  tqsim::Emulation::instance().shutdown();
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc >= 2) {
      const std::string first = argv[1];
      if (first == "plug" || first == "unplug" || first == "replug" || first == "fault" ||
          first == "status") {
        return command(std::vector<std::string>(argv + 1, argv + argc));
      }
    }
    return launch(argc, argv);
  } catch (const std::exception& e) {
    std::cerr << "tq-uvc-sim: " << e.what() << '\n';
    return 127;
  }
}
