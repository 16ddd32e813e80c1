#include "Registry.h"

#include "Emulation.h"

namespace tqsim {

std::shared_ptr<Camera> findCameraByVideoPath(const char* path) {
  return Emulation::instance().findPluggedVideo(path);
}

std::shared_ptr<Camera> findCameraByHidrawPath(const char* path) {
  return Emulation::instance().findPluggedHidraw(path);
}

std::shared_ptr<Camera> findCamera(CameraId id) { return Emulation::instance().find(id); }

bool simActive() { return Emulation::instance().active(); }

int addPlugListener(PlugListener listener) { return Emulation::instance().addListener(std::move(listener)); }

void removePlugListener(int token) { Emulation::instance().removeListener(token); }

}  // namespace tqsim
