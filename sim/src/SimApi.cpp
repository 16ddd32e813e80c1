// The control interface of Sim.h over the process-wide emulation.
#include <tqsim/Sim.h>

#include "ConfigFile.h"
#include "Emulation.h"

namespace tqsim {

namespace {

// A process of a launcher's tree that uses the control API (a test binary
// run under the launcher) hosts cameras of its own from then on.
Emulation& emulation() {
  Emulation& instance = Emulation::instance();
  instance.host();
  return instance;
}

}  // namespace

void reset() { emulation().reset(); }

CameraId plugCamera(const CameraConfig& config, std::string* error) {
  return emulation().plug(config, error);
}

bool unplugCamera(CameraId id) { return emulation().unplug(id); }

bool replugCamera(CameraId id, std::string* error) { return emulation().replug(id, error); }

bool isPlugged(CameraId id) {
  auto camera = emulation().find(id);
  return camera && camera->plugged();
}

std::vector<CameraId> cameras() { return emulation().ids(); }

bool loadConfigFile(const std::string& path, std::string* error) {
  std::vector<CameraConfig> configs;
  if (!parseConfig(path, configs, error)) return false;
  return emulation().replaceCameras(configs, error);
}

bool parseConfigFile(const std::string& path, std::vector<CameraConfig>& cameras, std::string* error) {
  return parseConfig(path, cameras, error);
}

bool cameraConfig(CameraId id, CameraConfig& out) {
  auto camera = emulation().find(id);
  if (!camera) return false;
  out = camera->config();
  return true;
}

bool setHidFaults(CameraId id, const HidFaults& faults) {
  return emulation().modify(id, [&](CameraConfig& c) { c.hidFaults = faults; });
}

bool setVideoFaults(CameraId id, const VideoFaults& faults) {
  return emulation().modify(id, [&](CameraConfig& c) { c.videoFaults = faults; });
}

bool setUdevFaults(CameraId id, const UdevFaults& faults) {
  return emulation().modify(id, [&](CameraConfig& c) { c.udevFaults = faults; });
}

bool modifyCamera(CameraId id, const std::function<void(CameraConfig&)>& fn, std::string* error) {
  return emulation().modify(id, fn, error);
}

std::vector<std::vector<uint8_t>> receivedReports(CameraId id) {
  auto camera = emulation().find(id);
  return camera ? camera->receivedReports() : std::vector<std::vector<uint8_t>>{};
}

void clearReceivedReports(CameraId id) {
  if (auto camera = emulation().find(id)) camera->clearReceivedReports();
}

bool waitForReports(CameraId id, size_t count, std::chrono::milliseconds timeout) {
  auto camera = emulation().find(id);
  return camera && camera->waitForReports(count, timeout);
}

bool sendEvent(CameraId id, const std::vector<uint8_t>& data) { return emulation().sendEvent(id, data); }

std::vector<uint8_t> xmlFile(CameraId id) {
  auto camera = emulation().find(id);
  return camera ? camera->xmlFile() : std::vector<uint8_t>{};
}

std::array<uint8_t, 20> xmlSha1(CameraId id) {
  auto camera = emulation().find(id);
  return camera ? camera->xmlSha1() : std::array<uint8_t, 20>{};
}

bool readRegister(CameraId id, uint16_t address, uint32_t& value) {
  auto camera = emulation().find(id);
  if (!camera) return false;
  value = camera->readRegister(address);
  return true;
}

bool writeRegister(CameraId id, uint16_t address, uint32_t value) {
  auto camera = emulation().find(id);
  if (!camera) return false;
  camera->writeRegister(address, value);
  return true;
}

int openHidNodes(CameraId id) { return emulation().openNodes(id); }

std::string udevadmDirectory() { return emulation().udevadmDirectory(); }

std::string stateFilePath() { return emulation().stateFilePath(); }

}  // namespace tqsim
