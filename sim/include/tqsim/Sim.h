// Control interface of the emulated camera, for tests and tools running in the
// process that hosts the emulation (the test binary linking tqsim, or a program
// started by tq-uvc-sim). Every function is thread-safe.
//
// A camera is identified by the id that plugCamera returns; ids are never
// reused within a process. Functions taking an id return false (or an empty
// result) for an id that was never handed out or was dropped by reset().
#pragma once

#include <tqsim/CameraConfig.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tqsim {

using CameraId = int;
constexpr CameraId kNoCamera = -1;

// The camera of the reference walk: hidraw0, video0 (capture) and video1
// (metadata), serial CAM-SN-0042, identity memory, register defaults, the
// built-in description file and 1280x960, 640x480, 320x240 at 30 and 15 fps.
// plugCamera uses a record exactly as given, so start from this one and change
// what a test needs; a default-constructed CameraConfig has no memory, no
// registers, no sizes and an empty description file.
CameraConfig defaultCameraConfig();

// The built-in description file (a GenICam-style XML of our registers).
const std::vector<uint8_t>& builtInXml();

// Unplugs and forgets every camera; open nodes of them fail from now on.
void reset();

// Plugs a camera. Fails (kNoCamera, with the reason in *error) when one of its
// node numbers is taken by a plugged camera or is out of range (0..255).
CameraId plugCamera(const CameraConfig& config, std::string* error = nullptr);

// Unplug: the nodes vanish from stat/open/udevadm; open hidraw descriptors fail
// reads and writes, their ioctls fail with ENODEV. Replug brings the same
// camera back on the same node numbers (fails if they were taken meanwhile).
bool unplugCamera(CameraId id);
bool replugCamera(CameraId id, std::string* error = nullptr);
bool isPlugged(CameraId id);

// Ids of all known cameras (plugged or not), in plugging order.
std::vector<CameraId> cameras();

// Replaces the cameras by those of a configuration file (see docs/sim.md).
// On a parse error nothing changes and false is returned with the reason.
bool loadConfigFile(const std::string& path, std::string* error = nullptr);
// Parses a configuration file without touching the running cameras.
bool parseConfigFile(const std::string& path, std::vector<CameraConfig>& cameras,
                     std::string* error = nullptr);

// Current configuration (a copy), and run-time changes of it. Faults take
// effect with the next command, ioctl or udevadm run.
bool cameraConfig(CameraId id, CameraConfig& out);
bool setHidFaults(CameraId id, const HidFaults& faults);
bool setVideoFaults(CameraId id, const VideoFaults& faults);
bool setUdevFaults(CameraId id, const UdevFaults& faults);
// Any other change, in effect at once (identity and node numbers included; a
// plugged camera's nodes move as if re-plugged elsewhere). fn works on a copy
// of the record; false with the reason in *error when the id is unknown, the
// new node numbers are taken by another plugged camera or out of range, or a
// frame size is out of 1..kMaxFrameSide (nothing changes then). plugCamera
// refuses the same records.
bool modifyCamera(CameraId id, const std::function<void(CameraConfig&)>& fn, std::string* error = nullptr);

// Every output report the camera received, exactly as written (report id
// first), oldest first.
std::vector<std::vector<uint8_t>> receivedReports(CameraId id);
void clearReceivedReports(CameraId id);
// Waits until at least count reports have been received; false on time-out.
bool waitForReports(CameraId id, size_t count, std::chrono::milliseconds timeout);

// Sends an event input report (report id 2) on every open hidraw descriptor of
// the camera: byte 0 is 2, data follows from byte 1 (at most 63 bytes, the rest
// of the 64-byte report is zero). False when the camera is unknown or unplugged.
bool sendEvent(CameraId id, const std::vector<uint8_t>& data);

// The camera's description file and its SHA-1, as the camera serves them.
std::vector<uint8_t> xmlFile(CameraId id);
std::array<uint8_t, 20> xmlSha1(CameraId id);

// Current value of a 32-bit register (writes through the hidraw node included).
bool readRegister(CameraId id, uint16_t address, uint32_t& value);
bool writeRegister(CameraId id, uint16_t address, uint32_t value);

// Number of hidraw descriptors currently open on the camera.
int openHidNodes(CameraId id);

// Directory holding the emulated udevadm (first on PATH in this process), and
// the state file it reads. Empty when the emulation is inactive.
std::string udevadmDirectory();
std::string stateFilePath();

}  // namespace tqsim
