// tq-uvc-usbcam [--config FILE] [--serial S] [--port N] [--fault NAME[=VALUE]]...
//
// Plugs the emulated camera into this machine's kernel as a real USB device:
// one end of a socketpair goes to vhci_hcd (USB/IP), the other end is served
// here. uvcvideo, usbhid and udev then see the camera as they would see one
// on a USB port. SIGTERM or SIGINT unplugs it; SIGUSR1 sends an event report.
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Camera.h"
#include "ConfigFile.h"
#include "ServeLoop.h"
#include "UsbCamera.h"
#include "UsbFaults.h"

namespace {

using tqsim::usb::UsbCamera;

const std::string kVhci = "/sys/devices/platform/vhci_hcd.0";
constexpr int kHighSpeed = 3;

int fail(const std::string& message) {
  std::fprintf(stderr, "tq-uvc-usbcam: %s\n", message.c_str());
  return 1;
}

// Free high-speed ports of the controller, lowest first. Lines look like
// "hs  0000 004 000 00000000 000000 0-0"; status 4 is a free port.
std::vector<int> freePorts() {
  std::vector<int> ports;
  std::ifstream status(kVhci + "/status");
  std::string line;
  while (std::getline(status, line)) {
    std::istringstream fields(line);
    std::string hub;
    int port = -1;
    int state = -1;
    if (fields >> hub >> port >> state && hub == "hs" && state == 4) ports.push_back(port);
  }
  return ports;
}

bool writeSysfs(const std::string& path, const std::string& text, std::string& error) {
  FILE* file = std::fopen(path.c_str(), "w");
  if (file == nullptr) {
    error = path + ": " + std::strerror(errno);
    return false;
  }
  const bool written = std::fputs(text.c_str(), file) >= 0;
  const int writeErrno = errno;
  const bool closed = std::fclose(file) == 0;
  if (!written || !closed) {
    error = path + ": " + std::strerror(written ? errno : writeErrno);
    return false;
  }
  return true;
}

// Attaches one device: on `port`, or the first free one not in `avoid`.
// Returns our end of the link, or -1 with the reason in error.
int attach(int wantedPort, const std::vector<int>& avoid, int& port, std::string& error) {
  // Another camera starting at the same time may take the port we chose:
  // the kernel refuses a used port, so try the next one.
  for (int attempt = 0; attempt < 8; ++attempt) {
    port = wantedPort;
    if (port < 0) {
      for (int candidate : freePorts()) {
        if (std::find(avoid.begin(), avoid.end(), candidate) == avoid.end()) {
          port = candidate;
          break;
        }
      }
      if (port < 0) {
        error = "no free high-speed port in " + kVhci + "/status (is vhci-hcd loaded?)";
        return -1;
      }
    }
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
      error = std::string("socketpair: ") + std::strerror(errno);
      return -1;
    }
    const unsigned devid = (1u << 16) | static_cast<unsigned>(port + 2);
    const std::string request = std::to_string(port) + " " + std::to_string(ends[1]) + " " +
                                std::to_string(devid) + " " + std::to_string(kHighSpeed);
    const bool attached = writeSysfs(kVhci + "/attach", request, error);
    // The kernel holds its own reference to its end.
    ::close(ends[1]);
    if (attached) return ends[0];
    ::close(ends[0]);
    if (wantedPort >= 0) return -1;
  }
  return -1;
}

struct Arguments {
  std::string config;
  std::string serial;
  int port = -1;
  std::vector<std::string> faults;
};

bool parseArguments(int argc, char** argv, Arguments& out, std::string& error) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    std::string value;
    std::string name = arg;
    const size_t eq = arg.find('=');
    bool inlineValue = false;
    if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
      inlineValue = true;
    }
    if (name != "--config" && name != "--serial" && name != "--port" && name != "--fault") {
      error = "unknown argument '" + arg +
              "'; usage: tq-uvc-usbcam [--config FILE] [--serial S] [--port N] [--fault NAME[=VALUE]]...";
      return false;
    }
    if (!inlineValue) {
      if (i + 1 >= argc) {
        error = name + " needs a value";
        return false;
      }
      value = argv[++i];
    }
    if (name == "--config") {
      out.config = value;
    } else if (name == "--serial") {
      out.serial = value;
    } else if (name == "--port") {
      char* end = nullptr;
      const long port = std::strtol(value.c_str(), &end, 10);
      if (value.empty() || *end != '\0' || port < 0 || port > 65535) {
        error = "--port takes a port number";
        return false;
      }
      out.port = static_cast<int>(port);
    } else {
      out.faults.push_back(value);
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments args;
  std::string error;
  if (!parseArguments(argc, argv, args, error)) return fail(error);

  tqsim::CameraConfig config;
  if (!args.config.empty()) {
    std::vector<tqsim::CameraConfig> cameras;
    if (!tqsim::parseConfig(args.config, cameras, &error)) return fail(error);
    const auto it = std::find_if(cameras.begin(), cameras.end(), [&](const tqsim::CameraConfig& c) {
      return args.serial.empty() || c.serial == args.serial;
    });
    if (it == cameras.end()) return fail("no camera with serial '" + args.serial + "' in " + args.config);
    config = *it;
  } else {
    config = tqsim::defaultCameraConfig();
    if (!args.serial.empty()) {
      config.serial = args.serial;
      config.memory[tqsim::kMemSerial] = args.serial;
    }
  }

  tqsim::usb::UsbFaults usbFaults;
  for (const std::string& fault : args.faults) {
    const size_t eq = fault.find('=');
    const std::string name = fault.substr(0, eq);
    const bool hasValue = eq != std::string::npos;
    const std::string value = hasValue ? fault.substr(eq + 1) : std::string();
    bool known = false;
    std::string why;
    if (tqsim::usb::applyUsbFault(usbFaults, name, value, hasValue, &known, why)) continue;
    if (known) return fail("--fault " + fault + ": " + why);
    // Camera-model faults, written as in the configuration file; a bare name
    // switches a flag on.
    if (!tqsim::applyFault(config, name, hasValue ? value : "true", why)) {
      return fail("--fault " + fault + ": " + why);
    }
  }

  // Block the signals first: a SIGTERM right after the attach line must still
  // unplug cleanly.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGUSR1);
  if (::sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) return fail("sigprocmask failed");
  const int signalFd = ::signalfd(-1, &signals, SFD_CLOEXEC);
  if (signalFd < 0) return fail(std::string("signalfd: ") + std::strerror(errno));
  ::signal(SIGPIPE, SIG_IGN);

  auto camera = std::make_shared<tqsim::Camera>(1, config);
  camera->setPlugged(true);

  // Normally one device with both functions. With another serial on the
  // video function, the video function becomes a second device.
  const std::string videoSerial = config.udevFaults.videoSerial;
  std::vector<UsbCamera::Options> layouts;
  if (videoSerial.empty()) {
    layouts.push_back({tqsim::usb::Functions{true, true}, config.serial, usbFaults});
  } else {
    layouts.push_back({tqsim::usb::Functions{false, true}, config.serial, usbFaults});
    layouts.push_back({tqsim::usb::Functions{true, false}, videoSerial, usbFaults});
  }

  std::vector<std::unique_ptr<UsbCamera>> devices;
  std::vector<int> ports;
  const auto detachAll = [&] {
    std::string ignored;
    for (int port : ports) writeSysfs(kVhci + "/detach", std::to_string(port), ignored);
  };
  for (size_t i = 0; i < layouts.size(); ++i) {
    int port = -1;
    const int wanted = args.port >= 0 ? args.port + static_cast<int>(i) : -1;
    const int fd = attach(wanted, ports, port, error);
    if (fd < 0) {
      detachAll();
      return fail(config.serial + ": attach failed: " + error);
    }
    ports.push_back(port);
    devices.push_back(std::make_unique<UsbCamera>(camera, layouts[i], fd));
  }
  std::printf("tq-uvc-usbcam: %s attached on port %d\n", config.serial.c_str(), ports.front());
  std::fflush(stdout);
  if (ports.size() > 1) {
    std::fprintf(stderr, "tq-uvc-usbcam: %s: video function as serial %s on port %d\n", config.serial.c_str(),
                 videoSerial.c_str(), ports[1]);
  }

  uint8_t eventCount = 0;
  std::vector<UsbCamera*> served;
  for (auto& device : devices) served.push_back(device.get());
  const tqsim::usb::LoopEnd end = tqsim::usb::serveDevices(served, signalFd, [&] {
    signalfd_siginfo info{};
    if (::read(signalFd, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) return true;
    if (info.ssi_signo != SIGUSR1) return false;
    for (auto& device : devices) device->queueInputReport(tqsim::Camera::eventReport({++eventCount}));
    return true;
  });

  if (end.stopped) {
    // Detach: the kernel shuts its end down and removes the device, an unplug.
    detachAll();
  } else {
    std::fprintf(stderr, "tq-uvc-usbcam: %s: %s\n", config.serial.c_str(), end.reason.c_str());
    // The other device of a split camera goes with it.
    std::string ignored;
    for (size_t i = 0; i < ports.size(); ++i) {
      if (i != end.device) writeSysfs(kVhci + "/detach", std::to_string(ports[i]), ignored);
    }
  }
  devices.clear();
  ::close(signalFd);
  return 0;
}
