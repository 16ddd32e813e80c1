// What travels between a process of the launcher's tree (the interposer) and
// the process that owns the cameras: one request message, one reply message,
// over a SOCK_SEQPACKET Unix socket. A reply may carry one descriptor
// (SCM_RIGHTS): the node's descriptor on open, the buffer memory on map.
#pragma once

#include <cstdint>
#include <string>

namespace tqsim {

// The socket of the owning process; set by the launcher for its program.
constexpr const char* kEnvServer = "TQSIM_SERVER";

enum class Op : uint32_t {
  Open = 1,   // payload: path; reply: result = node id, extra = NodeKind, fd
  Close,      // node
  Ioctl,      // node, request; payload: the argument's _IOC_SIZE bytes; reply: the same, copied back
  Map,        // node, offset, length, flags, request = prot; reply: fd of the buffer memory
  PollState,  // node; reply: result = poll bits the node adds (POLLERR...), 0 for none
  Stat,       // payload: path; reply: payload struct stat, or error ENOENT
  Control,    // payload: words separated by NUL; reply: result = exit status, payload = text
};

struct Request {
  Op op = Op::Open;
  int32_t node = -1;
  uint64_t request = 0;
  uint64_t offset = 0;
  uint64_t length = 0;
  int32_t flags = 0;
  uint32_t size = 0;  // payload bytes after this header
};

struct Reply {
  int64_t result = 0;
  int32_t error = 0;  // errno value, 0 for success
  int32_t extra = 0;
  int32_t camera = 0;  // on open: the camera's id
  uint32_t size = 0;   // payload bytes after this header
};

// Larger than any ioctl argument (HIDIOCGFEATURE's size field is 14 bits) or path.
constexpr size_t kMaxPayload = 20000;

// The launcher's socket as this process was started with it (read from
// /proc/self/environ as well: a shell's own getenv does not work before its
// main has run); empty when the process is not in a launcher's tree.
std::string serverAddress();
// The state file udevadm reads, likewise.
std::string stateFileAddress();

}  // namespace tqsim
