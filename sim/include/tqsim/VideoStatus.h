// What the emulated video nodes hold open, for tests that check a client
// releases everything, and how many frames they produced.
#pragma once

#include <tqsim/Sim.h>

#include <cstddef>
#include <cstdint>

namespace tqsim {

// Descriptors of the camera's video nodes opened through v4l2_open and not closed.
int openVideoNodes(CameraId id);
// Buffer mappings of the camera handed out by v4l2_mmap and not unmapped.
size_t videoMappings(CameraId id);
// Frames finished on the camera's open descriptors (closed ones no longer count).
uint32_t videoFramesProduced(CameraId id);

}  // namespace tqsim
