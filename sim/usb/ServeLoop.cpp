#include "ServeLoop.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tqsim::usb {

namespace {

// The device closes its end too, so a peer that broke the link sees it end.
LoopEnd linkEnded(const std::vector<UsbCamera*>& devices, size_t index) {
  devices[index]->disconnect();
  return LoopEnd{false, index, devices[index]->reason()};
}

}  // namespace

LoopEnd serveDevices(const std::vector<UsbCamera*>& devices, int wakeFd,
                     const std::function<bool()>& onWake) {
  using Clock = UsbCamera::Clock;
  std::vector<pollfd> fds(devices.size() + 1);
  for (;;) {
    Clock::time_point due = Clock::time_point::max();
    for (size_t i = 0; i < devices.size(); ++i) {
      fds[i] = pollfd{devices[i]->fd(), POLLIN, 0};
      due = std::min(due, devices[i]->nextDue());
    }
    fds.back() = pollfd{wakeFd, POLLIN, 0};
    int timeout = -1;
    if (due != Clock::time_point::max()) {
      const auto wait = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()).count();
      timeout = static_cast<int>(std::clamp<int64_t>(wait, 0, 60000));
    }
    const int ready = ::poll(fds.data(), fds.size(), timeout);
    if (ready < 0 && errno != EINTR) return LoopEnd{false, 0, std::string("poll: ") + std::strerror(errno)};
    if (ready > 0 && (fds.back().revents & POLLIN) != 0 && !onWake()) return LoopEnd{true, 0, {}};
    for (size_t i = 0; i < devices.size(); ++i) {
      if (ready > 0 && fds[i].revents != 0 && !devices[i]->serveRequest()) return linkEnded(devices, i);
    }
    const Clock::time_point now = Clock::now();
    for (size_t i = 0; i < devices.size(); ++i) {
      if (!devices[i]->serveDue(now)) return linkEnded(devices, i);
    }
  }
}

}  // namespace tqsim::usb
