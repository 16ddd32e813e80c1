// Plugs and unplugs the cameras the scenarios run against. Two kinds: USB
// cameras served by tq-uvc-usbcam processes on a real kernel (vhci_hcd), and
// the emulated cameras of a tq-uvc-sim launcher this process runs under. The
// scenarios see only the nodes and the library, so both kinds run the same
// scenarios.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace vmtest {

// Node numbers of one plugged camera (-1: none).
struct Nodes {
  int hidraw = -1;
  int video = -1;  // the capture node
  bool operator==(const Nodes& o) const { return hidraw == o.hidraw && video == o.video; }
  bool operator!=(const Nodes& o) const { return !(*this == o); }
  std::string text() const;
};

class Rig {
 public:
  virtual ~Rig() = default;
  // Plugs the camera of the configuration file with this serial and waits until
  // its nodes are there. `elsewhere`: where the rig picks node numbers itself,
  // other numbers than the camera had (a real kernel picks them on its own).
  virtual bool plug(const std::string& serial, Nodes* nodes, std::string* error, bool elsewhere = false) = 0;
  // Unplugs it and waits until its nodes are gone.
  virtual bool unplug(const std::string& serial, std::string* error) = 0;
  // Unplugs every camera this rig plugged; false with the reason when one stayed.
  virtual bool unplugAll(std::string* error) = 0;
  virtual std::string describe() const = 0;
};

// USB cameras: one `program --config FILE --serial S [--fault F]...` process
// each; unplug is SIGTERM.
std::unique_ptr<Rig> makeUsbCamRig(const std::string& program, const std::string& config,
                                   const std::vector<std::string>& faults);

// The emulated cameras of the launcher this process runs under
// (TQSIM_SERVER set), driven by `launcher plug|unplug SERIAL`; every camera
// starts unplugged.
std::unique_ptr<Rig> makeSimRig(const std::string& launcher);

// The nodes of the USB device with this serial as sysfs shows them: the
// lowest hidraw node and the capture video node (sysfs index 0).
Nodes sysfsNodes(const std::string& serial);

// Runs argv, its stdout in *out; the exit status (-1 when it could not run).
int runProgram(const std::vector<std::string>& argv, std::string* out);

}  // namespace vmtest
