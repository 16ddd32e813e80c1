// Process-wide table of the emulated cameras and the lookups the transports
// use. The hidraw transport lives in HidrawNode/Interpose; the video node code
// (Video*, V4l2*) owns everything VIDIOC and finds its camera through
// findCameraByVideoPath.
#pragma once

#include <tqsim/Sim.h>

#include <functional>
#include <memory>

namespace tqsim {

class Camera;

// The plugged camera whose capture or metadata node is path (/dev/videoN),
// else null.
std::shared_ptr<Camera> findCameraByVideoPath(const char* path);
// The plugged camera whose hidraw node is path (/dev/hidrawN), else null.
std::shared_ptr<Camera> findCameraByHidrawPath(const char* path);
// Any known camera by id, plugged or not; null for an unknown id.
std::shared_ptr<Camera> findCamera(CameraId id);

// False in processes where the emulation stays inert (children of the hosting
// process that inherited the preloaded library): everything passes through.
bool simActive();

// Called after a camera was plugged (true) or unplugged (false), outside the
// registry lock, one call at a time. Returns a token for removePlugListener.
using PlugListener = std::function<void(const std::shared_ptr<Camera>&, bool plugged)>;
int addPlugListener(PlugListener listener);
void removePlugListener(int token);

}  // namespace tqsim
