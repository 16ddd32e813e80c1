// Description of one emulated camera: identity, nodes, register and memory
// contents, description file, video modes and the faults to inject. Plain data,
// independent of the transport that serves it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tqsim {

// The largest frame side the emulated camera takes (both directions): a
// frame of 16384x16384 YUYV is 512 MiB, still within V4L2's 32-bit sizeimage.
constexpr uint32_t kMaxFrameSide = 16384;

struct FrameInterval {
  uint32_t numerator = 1;
  uint32_t denominator = 30;
};

enum class IntervalKind { Discrete, Stepwise, Continuous };

// One YUYV frame size with its frame intervals.
struct FrameSize {
  uint32_t width = 0;
  uint32_t height = 0;
  IntervalKind intervalKind = IntervalKind::Discrete;
  std::vector<FrameInterval> intervals;  // discrete list, or min/max/step for the others
};

enum class SizeKind { Discrete, Stepwise, Continuous };

struct VideoConfig {
  SizeKind sizeKind = SizeKind::Discrete;  // how VIDIOC_ENUM_FRAMESIZES answers
  std::vector<FrameSize> sizes;            // in driver order
  bool freeRun = false;                    // frames as fast as the consumer takes them (benchmarks)
};

struct VideoFaults {
  bool openFails = false;          // v4l2_open answers ENODEV
  int formatError = 0;             // VIDIOC_S_FMT fails with this errno (0: no fault)
  uint32_t answerPixelFormat = 0;  // S_FMT answers this fourcc instead (0: no fault)
  uint32_t answerWidth = 0;        // S_FMT answers another size (0: no fault)
  uint32_t answerHeight = 0;
  uint32_t shortFrameBytes = 0;  // bytesused of every frame (0: full frames)
  int dqbufErrno = 0;            // every VIDIOC_DQBUF fails with this errno (0: no fault)
  bool selectFails = false;      // the driver loses the device: open descriptors break as on unplug
  bool stopSending = false;      // no further frames are produced
  int enumSizesErrno = 0;        // ENUM_FRAMESIZES ends with this errno instead of EINVAL
  bool dqbufAgain = false;       // DQBUF answers EAGAIN although finished frames keep the node readable
};

struct HidFaults {
  bool noAnswer = false;      // commands get no answer report
  uint32_t lateAnswerMs = 0;  // answer sent this long after the command (0: at once)
  int wrongEcho = -1;         // echo this code instead of the command's (-1: no fault)
  uint8_t status = 0;         // status byte of every answer (1..18; 0: success)
  bool featureFails = false;  // HIDIOCGFEATURE fails with EIO
  int onlyCommand = -1;       // the answer faults hit only this command code (-1: every command)
};

struct UdevFaults {
  bool fails = false;               // udevadm exits 1 with nothing on stdout
  bool garbage = false;             // udevadm prints text that is not an attribute walk
  bool videoWithoutSerial = false;  // the video nodes' walk has no serial attribute
  std::string videoSerial;          // the video nodes' walk shows this serial (empty: the camera's)
};

struct CameraConfig {
  std::string serial = "CAM-SN-0042";
  std::string manufacturer = "Emu Vendor";  // may carry trailing blanks
  std::string product = "Emu Camera";
  std::string hidProductText = "UVC HID Device";
  uint16_t vendorId = 0x7A3D;
  uint16_t productId = 0x0203;
  int hidrawNumber = 0;                    // /dev/hidrawN
  int videoNumber = 0;                     // /dev/videoN, the capture node
  int metadataVideoNumber = 1;             // /dev/videoN of the metadata node (-1: none)
  std::map<uint16_t, uint32_t> registers;  // initial register values by HID address
  std::map<uint16_t, std::string> memory;  // memory contents by HID address
  std::vector<uint8_t> xmlFile;            // the description file
  VideoConfig video;
  HidFaults hidFaults;
  VideoFaults videoFaults;
  UdevFaults udevFaults;
};

}  // namespace tqsim
