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

// What clients last asked of the camera's video nodes, as the nodes saw it
// (whether the call succeeded or not); kept after the descriptors are closed.
struct VideoRequests {
  int openFlags = -1;              // flags of the last v4l2_open (-1: never opened)
  uint32_t buffersAsked = 0;       // count asked by the last VIDIOC_REQBUFS
  int mapProtection = -1;          // prot of the last v4l2_mmap (-1: none)
  uint32_t intervalNumerator = 0;  // time per frame asked by the last VIDIOC_S_PARM
  uint32_t intervalDenominator = 0;
  uint32_t parmSets = 0;    // VIDIOC_S_PARM calls
  uint32_t streamOffs = 0;  // VIDIOC_STREAMOFF calls
  uint64_t dequeues = 0;    // VIDIOC_DQBUF calls
};
VideoRequests videoRequests(CameraId id);

}  // namespace tqsim
