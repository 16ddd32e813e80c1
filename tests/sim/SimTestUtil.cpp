#include "SimTestUtil.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

extern char** environ;

namespace simtest {

std::vector<uint8_t> command(uint8_t code, std::vector<uint8_t> data) {
  data.insert(data.begin(), {1, code});
  return data;
}

std::vector<uint8_t> readReport(int fd, int timeoutMs) {
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(fd, &readable);
  timeval timeout{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
  if (select(fd + 1, &readable, nullptr, nullptr, &timeout) != 1) return {};
  std::vector<uint8_t> report(64);
  const ssize_t n = read(fd, report.data(), report.size());
  if (n <= 0) return {};
  report.resize(static_cast<size_t>(n));
  return report;
}

std::vector<uint8_t> transact(int fd, const std::vector<uint8_t>& report, int timeoutMs) {
  if (write(fd, report.data(), report.size()) != static_cast<ssize_t>(report.size())) return {};
  return readReport(fd, timeoutMs);
}

RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
  RunResult result;
  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0) return result;
  if (pipe2(err, O_CLOEXEC) != 0) {
    close(out[0]);
    close(out[1]);
    return result;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);

  std::vector<std::string> environment;
  for (char** e = environ; *e != nullptr; ++e) environment.emplace_back(*e);
  for (const std::string& extra : env) {
    const std::string key = extra.substr(0, extra.find('=') + 1);
    for (auto it = environment.begin(); it != environment.end();) {
      it = it->rfind(key, 0) == 0 ? environment.erase(it) : it + 1;
    }
    environment.push_back(extra);
  }
  std::vector<char*> envp;
  envp.reserve(environment.size() + 1);
  for (std::string& e : environment) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::vector<std::string> args = argv;
  std::vector<char*> argp;
  argp.reserve(args.size() + 1);
  for (std::string& a : args) argp.push_back(a.data());
  argp.push_back(nullptr);

  pid_t pid = -1;
  const int spawned = posix_spawnp(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  close(err[1]);
  if (spawned == 0) {
    // Read both pipes as data comes, so a full one cannot stall the child.
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    int open = 2;
    while (open > 0 && poll(fds, 2, -1) > 0) {
      for (pollfd& p : fds) {
        if (p.fd < 0 || p.revents == 0) continue;
        char buffer[4096];
        const ssize_t n = read(p.fd, buffer, sizeof buffer);
        if (n > 0) {
          (p.fd == out[0] ? result.out : result.err).append(buffer, static_cast<size_t>(n));
        } else {
          p.fd = -1;
          --open;
        }
      }
    }
    int status = 0;
    if (waitpid(pid, &status, 0) == pid && WIFEXITED(status)) result.status = WEXITSTATUS(status);
  }
  close(out[0]);
  close(err[0]);
  return result;
}

}  // namespace simtest
