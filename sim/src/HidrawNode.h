// One open descriptor of an emulated /dev/hidrawN: the caller's end of a
// SOCK_SEQPACKET socketpair, so its write/read/select are the real calls, and
// a serving thread on our end that feeds output reports to the camera and
// sends the answers when they are due.
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <thread>

#include "Camera.h"
#include "UniqueFd.h"

namespace tqsim {

class HidrawNode {
 public:
  // Opens a node for the camera with open(2)'s flags (O_NONBLOCK and O_CLOEXEC
  // honoured). Null with errno set when the socketpair or thread fails.
  static std::unique_ptr<HidrawNode> open(std::shared_ptr<Camera> camera, int flags);

  HidrawNode(const HidrawNode&) = delete;
  HidrawNode& operator=(const HidrawNode&) = delete;
  // Stops and joins the serving thread and closes our end; the caller's
  // descriptor is the caller's to close.
  ~HidrawNode();

  int callerFd() const { return callerFd_; }
  const std::shared_ptr<Camera>& camera() const { return camera_; }
  bool connected() const;

  // Queues an unsolicited input report (an event); dropped when the caller
  // does not read, as the kernel drops reports nobody reads.
  void sendInput(const std::vector<uint8_t>& report);

  // The camera went away, as the kernel shows it on an open hidraw node: the
  // descriptor stays open, reports already queued can still be read, then
  // read fails with EIO; write fails with ENODEV and poll reports
  // POLLERR | POLLHUP (the interposer gives those for a node that is no
  // longer connected); HIDIOC* ioctls fail with ENODEV. Readers blocked in
  // read, poll or select wake up. Serving stops. True when it was connected.
  bool disconnect();

 private:
  HidrawNode(std::shared_ptr<Camera> camera, int callerFd, UniqueFd ours, UniqueFd wake);
  void serve();
  void stop();

  std::shared_ptr<Camera> camera_;
  const int callerFd_;  // owned by the caller
  UniqueFd ours_;
  UniqueFd wake_;  // eventfd that ends the serving thread
  mutable std::mutex mutex_;
  bool connected_ = true;
  std::thread thread_;
};

}  // namespace tqsim
