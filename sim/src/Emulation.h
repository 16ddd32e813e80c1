// The process-wide emulation: the cameras, the open hidraw descriptors, the
// state file for udevadm and the process set-up. One instance, created before
// main and never destroyed (interposed calls may come from other static
// destructors); shutdown() at exit joins and closes what it owns.
//
// Lock order: Emulation::mutex_, then a Camera's, then a HidrawNode's. Serving
// threads take only the latter two, so joining them under mutex_ is safe.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Camera.h"
#include "HidrawNode.h"
#include "Registry.h"

struct statx;

namespace tqsim {

enum class NodeKind { None, Hidraw, Video };

struct NodeName {
  NodeKind kind = NodeKind::None;
  int number = -1;
};

// /dev/hidrawN or /dev/videoN (N as the kernel writes it, 0..255), else None.
NodeName parseNodePath(const char* path);

class Emulation {
 public:
  static Emulation& instance();
  // The instance once constructed, else null (never constructs).
  static Emulation* ifReady();

  // False in a child of the hosting process and after shutdown.
  bool active() const;
  void shutdown();

  // Interposer back ends. handled = false: not ours, pass the call on.
  int openNode(const char* path, int flags, bool& handled);
  bool closeNode(int fd);  // true: it was ours and is closed now (result in errno-free 0)
  int ioctlNode(int fd, unsigned long request, void* arg, bool& handled);
  // An open hidraw descriptor whose camera was unplugged (read, write and
  // poll answer for it as for a gone node). Lock-free: the interposed read,
  // write and poll ask it from any thread, also while the table lock is held
  // by the same thread or by one joining a serving thread.
  bool deadNode(int fd) const;
  // Whether any such descriptor exists, without the lock.
  bool anyDeadNode() const { return deadCount_.load(std::memory_order_acquire) != 0; }
  bool statNode(const char* path, struct stat& out);
  bool statxNode(const char* path, struct statx& out);

  // Control.
  void reset();
  CameraId plug(const CameraConfig& config, std::string* error);
  bool unplug(CameraId id);
  bool replug(CameraId id, std::string* error);
  bool replaceCameras(const std::vector<CameraConfig>& configs, std::string* error);
  std::shared_ptr<Camera> find(CameraId id) const;
  std::shared_ptr<Camera> findPluggedVideo(const char* path) const;
  std::shared_ptr<Camera> findPluggedHidraw(const char* path) const;
  std::vector<CameraId> ids() const;
  bool modify(CameraId id, const std::function<void(CameraConfig&)>& fn);
  bool sendEvent(CameraId id, const std::vector<uint8_t>& data);
  int openNodes(CameraId id) const;
  int addListener(PlugListener listener);
  void removeListener(int token);

  std::string udevadmDirectory() const;
  std::string stateFilePath() const;

 private:
  struct Entry {
    std::shared_ptr<Camera> camera;
    int port = 0;
    int devnum = 0;
    int hidSequence = 0;
    int64_t plugTimeMs = 0;
  };

  Emulation();
  void initialise();
  Entry* entryLocked(CameraId id);
  const Entry* pluggedWithNodeLocked(NodeKind kind, int number) const;
  std::string nodeConflictLocked(const CameraConfig& config, CameraId except) const;
  void plugLocked(Entry& entry);
  void unplugLocked(Entry& entry);
  void writeStateLocked();
  void notify(const std::shared_ptr<Camera>& camera, bool plugged);

  mutable std::mutex mutex_;
  bool active_ = false;
  std::vector<Entry> cameras_;
  std::map<int, std::unique_ptr<HidrawNode>> nodes_;  // by the caller's descriptor
  // nodes_.size(), readable without the lock: close and ioctl of a process
  // with no hidraw descriptor open skip the lock.
  std::atomic<size_t> openCount_{0};
  // Open descriptors of unplugged hidraw nodes, by number (-1: free slot).
  // Written under the table lock, read without it. More dead descriptors at
  // once than slots: the extra ones answer as the socket they are.
  void markDeadLocked(int fd);
  void clearDeadLocked(int fd);
  static constexpr size_t kDeadSlots = 64;
  std::atomic<int> deadFds_[kDeadSlots];
  std::atomic<size_t> deadCount_{0};
  CameraId nextId_ = 1;
  int nextDevnum_ = 2;
  int nextHidSequence_ = 1;
  int64_t startTimeMs_ = 0;
  dev_t devfsDevice_ = 0;
  std::string stateDir_;
  std::string statePath_;
  std::string udevadmDir_;
  bool ownsStateDir_ = false;

  std::mutex listenerMutex_;  // serialises notifications; taken without mutex_
  std::map<int, PlugListener> listeners_;
  int nextListener_ = 1;
};

}  // namespace tqsim
