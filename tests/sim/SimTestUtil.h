// Helpers of the emulated camera's own tests and the tool's: talking to a
// hidraw node with plain system calls and running programs.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <tqsim/Sim.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "SimCamera.h"

namespace simtest {

class SimTest : public tqtest::SimFixture {};

// Output report as the library writes it: id 1, command, data.
std::vector<uint8_t> command(uint8_t code, std::vector<uint8_t> data);

// Reads one input report, waiting up to timeoutMs with select; empty on
// time-out or error.
std::vector<uint8_t> readReport(int fd, int timeoutMs);

// Writes a command and returns the answer (empty when none came in time).
std::vector<uint8_t> transact(int fd, const std::vector<uint8_t>& report, int timeoutMs = 2000);

// A program (no shell, looked up in PATH) with extra environment entries,
// its stdout on a pipe or on a pseudo-terminal, read while it runs.
class Process {
 public:
  Process(const std::vector<std::string>& argv, const std::vector<std::string>& env, bool terminal = false);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  bool started() const { return pid_ > 0; }
  void signal(int number);
  // Reads both streams until one holds `part` or the limit passes.
  bool readUntil(const std::string& part, std::chrono::seconds limit = std::chrono::seconds(20));
  // Reads both streams to their end and waits for the exit: the exit status,
  // 128 + signal when a signal ended it, -1 on time-out.
  int finish(std::chrono::seconds limit = std::chrono::seconds(20));

  std::string out;
  std::string err;

 private:
  bool readSome(int timeoutMs);  // one poll round; false once both streams ended

  pid_t pid_ = -1;
  int out_ = -1;
  int err_ = -1;
  bool exited_ = false;
};

struct RunResult {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs argv to its end, collecting both streams.
RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});

}  // namespace simtest
