// One open descriptor of an emulated /dev/hidrawN: the caller's end of a
// SOCK_SEQPACKET socketpair, so its write/read/select are the real calls, and
// a serving thread on our end that feeds output reports to the camera and
// sends the answers when they are due, to every reader of the camera.
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <thread>

#include "Camera.h"
#include "RealCalls.h"
#include "UniqueFd.h"

namespace tqsim {

struct InputFanout;

class HidrawNode {
 public:
  // Opens a node for the camera with open(2)'s flags (O_NONBLOCK and O_CLOEXEC
  // honoured). Null with errno set when the socketpair or thread fails.
  static std::unique_ptr<HidrawNode> open(std::shared_ptr<Camera> camera, std::shared_ptr<InputFanout> fanout,
                                          int flags);

  HidrawNode(const HidrawNode&) = delete;
  HidrawNode& operator=(const HidrawNode&) = delete;
  // Stops and joins the serving thread and closes our end; the caller's
  // descriptor is the caller's to close.
  ~HidrawNode();

  // The caller's end, once: from then on the caller owns it.
  int takeCallerFd() { return caller_.release(); }
  const std::shared_ptr<Camera>& camera() const { return camera_; }
  bool connected() const;

  // The camera went away: serving stops and our end closes, so the caller's
  // end reports a hang-up; the interposer turns that into the errors of a
  // gone hidraw node.
  void disconnect();

 private:
  HidrawNode(std::shared_ptr<Camera> camera, std::shared_ptr<InputFanout> fanout, UniqueFd caller,
             UniqueFd ours, UniqueFd wake);
  void serve();
  void stop();

  std::shared_ptr<Camera> camera_;
  std::shared_ptr<InputFanout> fanout_;
  UniqueFd caller_;
  UniqueFd ours_;
  UniqueFd wake_;  // eventfd that ends the serving thread
  mutable std::mutex mutex_;
  bool connected_ = true;
  std::thread thread_;
};

}  // namespace tqsim
