#include "HidrawNode.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>

#include "Emulation.h"

namespace tqsim {

namespace {

using Clock = std::chrono::steady_clock;

// The largest report the kernel takes in one write.
constexpr size_t kReceiveBuffer = 16384;

}  // namespace

std::unique_ptr<HidrawNode> HidrawNode::open(std::shared_ptr<Camera> camera,
                                             std::shared_ptr<InputFanout> fanout, int flags) {
  int ends[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return nullptr;
  UniqueFd caller(ends[0]);
  UniqueFd ours(ends[1]);
  UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wake.valid()) return nullptr;
  if ((flags & O_CLOEXEC) == 0 && ::fcntl(caller.get(), F_SETFD, 0) != 0) return nullptr;
  if ((flags & O_NONBLOCK) != 0 && ::fcntl(caller.get(), F_SETFL, O_NONBLOCK) != 0) return nullptr;

  std::unique_ptr<HidrawNode> node(new HidrawNode(std::move(camera), std::move(fanout), std::move(caller),
                                                  std::move(ours), std::move(wake)));
  node->fanout_->add(node->ours_.get());
  try {
    node->thread_ = std::thread([n = node.get()] { n->serve(); });
  } catch (...) {
    errno = EAGAIN;
    return nullptr;
  }
  return node;
}

HidrawNode::HidrawNode(std::shared_ptr<Camera> camera, std::shared_ptr<InputFanout> fanout, UniqueFd caller,
                       UniqueFd ours, UniqueFd wake)
    : camera_(std::move(camera)),
      fanout_(std::move(fanout)),
      caller_(std::move(caller)),
      ours_(std::move(ours)),
      wake_(std::move(wake)) {}

HidrawNode::~HidrawNode() {
  if (ours_.valid()) fanout_->remove(ours_.get());
  stop();
}

bool HidrawNode::connected() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return connected_;
}

void HidrawNode::stop() {
  if (!thread_.joinable()) return;
  const uint64_t one = 1;
  // An eventfd write only fails when the counter would overflow; it is read
  // by nobody else, so it cannot.
  [[maybe_unused]] ssize_t written = ::write(wake_.get(), &one, sizeof one);
  thread_.join();
}

void HidrawNode::disconnect() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!connected_) return;
    connected_ = false;
  }
  if (ours_.valid()) fanout_->remove(ours_.get());
  stop();
  // The caller's end now reports a hang-up and wakes a reader waiting in
  // select or poll.
  ours_.reset();
}

void HidrawNode::serve() {
  struct Pending {
    Clock::time_point due;
    std::vector<uint8_t> report;
  };
  std::deque<Pending> pending;
  Clock::time_point lastDue = Clock::now();
  bool callerOpen = true;
  std::vector<uint8_t> storage(kReceiveBuffer);
  uint8_t* buffer = storage.data();

  try {
    for (;;) {
      int timeoutMs = -1;
      if (!pending.empty()) {
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(pending.front().due - Clock::now());
        timeoutMs = static_cast<int>(std::max<int64_t>(0, wait.count()));
      }
      pollfd fds[2] = {{wake_.get(), POLLIN, 0}, {callerOpen ? ours_.get() : -1, POLLIN, 0}};
      const int ready = ::poll(fds, 2, timeoutMs);
      if (ready < 0 && errno != EINTR) return;
      if (fds[0].revents != 0) {
        // Closed: a report written before the close reached the camera, as a
        // write to the kernel's node has once it returns, and the device
        // still answers it to the other readers.
        if (!camera_->plugged()) return;
        ssize_t n = 0;
        while (callerOpen && (n = ::recv(ours_.get(), buffer, kReceiveBuffer, MSG_DONTWAIT)) > 0) {
          for (Answer& answer : camera_->handle(buffer, static_cast<size_t>(n))) {
            lastDue = std::max(Clock::now() + answer.delay, lastDue);
            pending.push_back({lastDue, std::move(answer.report)});
          }
        }
        for (Pending& answer : pending) fanout_->sendLater(camera_, answer.due, std::move(answer.report));
        return;
      }

      if (fds[1].revents != 0) {
        const ssize_t n = ::recv(ours_.get(), buffer, kReceiveBuffer, MSG_DONTWAIT);
        if (n > 0) {
          // Commands are served one after another, so a late answer also
          // holds back the answers of the commands behind it.
          for (Answer& answer : camera_->handle(buffer, static_cast<size_t>(n))) {
            lastDue = std::max(Clock::now() + answer.delay, lastDue);
            pending.push_back({lastDue, std::move(answer.report)});
          }
        } else if ((n == 0 && (fds[1].revents & POLLHUP) != 0) ||
                   (n < 0 && errno != EAGAIN && errno != EINTR)) {
          callerOpen = false;  // the caller's end is gone
        }
      }

      const auto now = Clock::now();
      while (!pending.empty() && pending.front().due <= now) {
        // Every reader of the camera gets the answer, as from the kernel.
        if (camera_->plugged()) fanout_->send(pending.front().report);
        pending.pop_front();
      }
    }
  } catch (...) {
    // Out of memory: the node goes quiet, as a hung device would.
  }
}

}  // namespace tqsim
