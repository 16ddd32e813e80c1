// The state file through which the hosting process tells its udevadm (a
// separate program) which cameras are plugged. Plain text, one "key=value" a
// line, one block per plugged camera; written whole and renamed into place.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tqsim {

// Environment variables shared by the library, udevadm and the launcher.
constexpr const char* kEnvStateFile = "TQSIM_STATE_FILE";
constexpr const char* kEnvOwnerPid = "TQSIM_OWNER_PID";
constexpr const char* kEnvConfig = "TQSIM_CONFIG";

struct StateCamera {
  int id = 0;
  int port = 1;            // USB port on the root hub: the device is 1-<port>
  int devnum = 2;          // USB device number, counts up with every plug
  int hidSequence = 1;     // the kernel's HID device sequence number
  int64_t plugTimeMs = 0;  // CLOCK_REALTIME of the plug, for the duration attributes
  uint16_t vendorId = 0;
  uint16_t productId = 0;
  int hidrawNumber = 0;
  int videoNumber = 0;
  int metadataVideoNumber = -1;
  std::string serial;
  std::string manufacturer;
  std::string product;
  bool udevFails = false;
  bool udevGarbage = false;
  bool videoWithoutSerial = false;
  std::string videoSerial;  // empty: the camera's serial
};

struct State {
  int64_t startTimeMs = 0;  // when the emulation started (root hub's durations)
  std::vector<StateCamera> cameras;
};

std::string formatState(const State& state);
// False with a reason when the text is not a state file.
bool parseState(const std::string& text, State& state, std::string* error);

// Writes to path.tmp and renames, so that readers never see half a file.
bool writeStateFile(const std::string& path, const State& state);
bool readStateFile(const std::string& path, State& state, std::string* error);

}  // namespace tqsim
