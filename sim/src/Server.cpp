#include "Server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Emulation.h"
#include "Protocol.h"
#include "RealCalls.h"

namespace tqsim::server {

namespace {

struct Connection {
  int fd = -1;
  int owner = 0;
  std::thread thread;
};

class Server {
 public:
  bool start(const std::string& path, std::string* error) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (listener_ >= 0) return true;
    sockaddr_un where{};
    if (path.size() >= sizeof where.sun_path) {
      if (error) *error = "socket path too long: " + path;
      return false;
    }
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      if (error) *error = std::string("socket: ") + std::strerror(errno);
      return false;
    }
    where.sun_family = AF_UNIX;
    std::memcpy(where.sun_path, path.c_str(), path.size());
    ::unlink(path.c_str());
    if (::bind(fd, reinterpret_cast<sockaddr*>(&where), sizeof where) != 0 || ::listen(fd, 64) != 0) {
      if (error) *error = path + ": " + std::strerror(errno);
      ::close(fd);
      return false;
    }
    stopFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    listener_ = fd;
    path_ = path;
    acceptor_ = std::thread([this] { acceptLoop(); });
    return true;
  }

  void stop() {
    std::list<Connection> connections;
    std::thread acceptor;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (listener_ < 0) return;
      const uint64_t one = 1;
      [[maybe_unused]] ssize_t written = ::write(stopFd_, &one, sizeof one);
      acceptor = std::move(acceptor_);
    }
    acceptor.join();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
      for (Connection& c : connections_) ::shutdown(c.fd, SHUT_RDWR);
      connections.swap(connections_);
    }
    for (Connection& c : connections) {
      if (c.thread.joinable()) c.thread.join();
      ::close(c.fd);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    ::close(listener_);
    ::close(stopFd_);
    listener_ = -1;
    stopFd_ = -1;
    ::unlink(path_.c_str());
  }

 private:
  void acceptLoop() {
    int nextOwner = 1;
    for (;;) {
      pollfd fds[2] = {{listener_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
      if (real::ppoll(fds, 2, nullptr, nullptr) < 0 && errno != EINTR) return;
      if (fds[1].revents != 0) return;
      if (fds[0].revents == 0) continue;
      const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      std::lock_guard<std::mutex> lock(mutex_);
      reapLocked();
      connections_.push_back(Connection{fd, nextOwner++, {}});
      Connection& c = connections_.back();
      try {
        c.thread = std::thread([this, fd, owner = c.owner] { serve(fd, owner); });
      } catch (...) {
        ::close(fd);
        connections_.pop_back();
      }
    }
  }

  // Connections whose client went away: their threads have ended.
  void reapLocked() {
    for (auto it = connections_.begin(); it != connections_.end();) {
      if (finished_.count(it->owner) != 0) {
        it->thread.join();
        ::close(it->fd);
        finished_.erase(it->owner);
        it = connections_.erase(it);
      } else {
        ++it;
      }
    }
  }

  void serve(int fd, int owner) {
    std::vector<char> in(sizeof(Request) + kMaxPayload);
    std::vector<char> out(sizeof(Reply) + kMaxPayload);
    for (;;) {
      const ssize_t n = ::recv(fd, in.data(), in.size(), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n < static_cast<ssize_t>(sizeof(Request))) break;
      Request request;
      std::memcpy(&request, in.data(), sizeof request);
      const size_t payloadSize = std::min<size_t>(request.size, static_cast<size_t>(n) - sizeof request);
      char* payload = in.data() + sizeof request;
      Reply reply;
      int passFd = -1;
      char* replyPayload = out.data() + sizeof(Reply);
      handle(request, payload, payloadSize, owner, reply, replyPayload, passFd);
      std::memcpy(out.data(), &reply, sizeof reply);
      iovec part{out.data(), sizeof reply + reply.size};
      msghdr message{};
      message.msg_iov = &part;
      message.msg_iovlen = 1;
      alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
      if (passFd >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* c = CMSG_FIRSTHDR(&message);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(c), &passFd, sizeof passFd);
      }
      const ssize_t sent = ::sendmsg(fd, &message, MSG_NOSIGNAL);
      if (passFd >= 0) ::close(passFd);
      if (sent < 0) break;
    }
    Emulation::instance().closeOwner(owner);
    std::lock_guard<std::mutex> lock(mutex_);
    if (!stopping_) finished_.insert(owner);
  }

  static void handle(const Request& request, char* payload, size_t size, int owner, Reply& reply, char* out,
                     int& passFd) {
    Emulation& emulation = Emulation::instance();
    switch (request.op) {
      case Op::Open: {
        payload[std::min(size, kMaxPayload - 1)] = '\0';
        bool handled = false;
        const OpenedNode opened = emulation.openNode(payload, request.flags, owner, handled);
        if (!handled) {
          reply.error = ENOENT;  // extra 0: not one of ours
          return;
        }
        reply.extra = static_cast<int32_t>(opened.kind == NodeKind::None ? NodeKind::Hidraw : opened.kind);
        if (opened.error != 0) {
          reply.error = opened.error;
          return;
        }
        reply.result = opened.node;
        reply.camera = opened.camera;
        passFd = opened.fd;
        return;
      }
      case Op::Close:
        emulation.closeNode(request.node);
        return;
      case Op::Ioctl: {
        const size_t argSize = _IOC_DIR(request.request) == _IOC_NONE ? 0 : _IOC_SIZE(request.request);
        if (argSize > kMaxPayload || size < argSize) {
          reply.error = EFAULT;
          return;
        }
        std::memcpy(out, payload, argSize);
        const int64_t result =
            emulation.nodeIoctl(request.node, request.request, argSize != 0 ? out : nullptr);
        if (result < 0) {
          reply.error = static_cast<int32_t>(-result);
          return;
        }
        reply.result = result;
        if ((_IOC_DIR(request.request) & _IOC_READ) != 0) reply.size = static_cast<uint32_t>(argSize);
        return;
      }
      case Op::Map: {
        int fd = -1;
        reply.error = emulation.nodeMapFd(request.node, request.offset, request.length,
                                          static_cast<int>(request.request), request.flags, fd);
        if (reply.error == 0) passFd = fd;
        return;
      }
      case Op::PollState: {
        const int state = emulation.nodePollState(request.node);
        if (state < 0) {
          reply.error = EBADF;
          return;
        }
        reply.result = state;
        return;
      }
      case Op::Stat: {
        payload[std::min(size, kMaxPayload - 1)] = '\0';
        struct stat st {};
        if (!emulation.statNode(payload, st)) {
          reply.error = ENOENT;
          return;
        }
        std::memcpy(out, &st, sizeof st);
        reply.size = sizeof st;
        return;
      }
      case Op::Control: {
        std::vector<std::string> words;
        size_t at = 0;
        while (at < size) {
          const char* word = payload + at;
          const size_t length = strnlen(word, size - at);
          words.emplace_back(word, length);
          at += length + 1;
        }
        std::string text;
        reply.result = emulation.control(words, text);
        // Text, not a C string: the reply carries its length.
        const size_t length = std::min(text.size(), kMaxPayload);
        std::copy_n(text.begin(), length, out);
        reply.size = static_cast<uint32_t>(length);
        return;
      }
    }
    reply.error = EINVAL;
  }

  std::mutex mutex_;
  int listener_ = -1;
  int stopFd_ = -1;
  bool stopping_ = false;
  std::string path_;
  std::thread acceptor_;
  std::list<Connection> connections_;
  std::set<int> finished_;
};

Server& instance() {
  static Server* server = new Server();
  return *server;
}

}  // namespace

bool start(const std::string& path, std::string* error) { return instance().start(path, error); }

void stop() { instance().stop(); }

}  // namespace tqsim::server
