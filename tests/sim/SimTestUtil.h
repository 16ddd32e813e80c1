// Helpers of the emulated camera's own tests: talking to a hidraw node with
// plain system calls and running programs.
#pragma once

#include <gtest/gtest.h>
#include <tqsim/Sim.h>

#include <cstdint>
#include <string>
#include <vector>

namespace simtest {

// Output report as the library writes it: id 1, command, data.
std::vector<uint8_t> command(uint8_t code, std::vector<uint8_t> data);

// Reads one input report, waiting up to timeoutMs with select; empty on
// time-out or error.
std::vector<uint8_t> readReport(int fd, int timeoutMs);

// Writes a command and returns the answer (empty when none came in time).
std::vector<uint8_t> transact(int fd, const std::vector<uint8_t>& report, int timeoutMs = 2000);

struct RunResult {
  int status = -1;  // exit status, -1 when the program did not exit normally
  std::string out;
  std::string err;
};

// Runs argv (no shell) with the given extra environment, collecting both streams.
RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});

// Every test starts from a clean table of cameras.
class SimTest : public ::testing::Test {
 protected:
  void SetUp() override { tqsim::reset(); }
  void TearDown() override { tqsim::reset(); }
  tqsim::CameraId plug(const tqsim::CameraConfig& config) {
    std::string error;
    const tqsim::CameraId id = tqsim::plugCamera(config, &error);
    EXPECT_NE(id, tqsim::kNoCamera) << error;
    return id;
  }
};

}  // namespace simtest
