#include "SimTestUtil.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

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

Process::Process(const std::vector<std::string>& argv, const std::vector<std::string>& env, bool terminal) {
  int out[2] = {-1, -1};
  int err[2] = {-1, -1};
  if (terminal ? openpty(&out[0], &out[1], nullptr, nullptr, nullptr) != 0 : pipe2(out, O_CLOEXEC) != 0)
    return;
  if (pipe2(err, O_CLOEXEC) != 0) {
    close(out[0]);
    close(out[1]);
    return;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  posix_spawn_file_actions_addclose(&actions, out[0]);

  std::vector<std::string> environment;
  for (char** e = environ; *e != nullptr; ++e) environment.emplace_back(*e);
  for (const std::string& extra : env) {
    const std::string key = extra.substr(0, extra.find('=') + 1);
    for (auto it = environment.begin(); it != environment.end();)
      it = it->rfind(key, 0) == 0 ? environment.erase(it) : it + 1;
    environment.push_back(extra);
  }
  std::vector<char*> envp;
  for (std::string& e : environment) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::vector<std::string> args = argv;
  std::vector<char*> argp;
  for (std::string& a : args) argp.push_back(a.data());
  argp.push_back(nullptr);
  if (posix_spawnp(&pid_, argp[0], &actions, nullptr, argp.data(), envp.data()) != 0) pid_ = -1;
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  close(err[1]);
  out_ = out[0];
  err_ = err[0];
}

Process::~Process() {
  if (pid_ > 0 && !exited_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (out_ >= 0) close(out_);
  if (err_ >= 0) close(err_);
}

void Process::signal(int number) { kill(pid_, number); }

bool Process::readUntil(const std::string& part, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (out.find(part) == std::string::npos && err.find(part) == std::string::npos) {
    if (std::chrono::steady_clock::now() > deadline || !readSome(100)) return false;
  }
  return true;
}

int Process::finish(std::chrono::seconds limit) {
  if (!started()) return -1;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while ((out_ >= 0 || err_ >= 0) && std::chrono::steady_clock::now() < deadline) readSome(100);
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  exited_ = true;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool Process::readSome(int timeoutMs) {
  if (out_ < 0 && err_ < 0) return false;
  pollfd fds[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
  if (poll(fds, 2, timeoutMs) <= 0) return true;
  for (pollfd& p : fds) {
    if (p.fd < 0 || p.revents == 0) continue;
    char buffer[4096];
    const ssize_t n = read(p.fd, buffer, sizeof buffer);
    if (n > 0) {
      (p.fd == out_ ? out : err).append(buffer, static_cast<size_t>(n));
    } else {  // end of a pipe, or EIO once the terminal's other side closed
      close(p.fd);
      (p.fd == out_ ? out_ : err_) = -1;
    }
  }
  return true;
}

RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
  Process process(argv, env);
  RunResult result;
  result.status = process.finish(std::chrono::seconds(100));
  result.out = std::move(process.out);
  result.err = std::move(process.err);
  return result;
}

}  // namespace simtest
