// The cameras and their open nodes, in the process that hosts them (a test
// binary, or the launcher for its whole process tree), the state file for
// udevadm and the process set-up. One instance, created before main and never
// destroyed (interposed calls may come from other static destructors);
// shutdown() at exit joins and closes what it owns. Nodes are named by ids,
// not by the caller's descriptors, so the same calls serve this process and
// the launcher's clients.
//
// Lock order: Emulation::mutex_, then a Camera's, then a HidrawNode's or a
// VideoStream's; InputFanout::mutex is a leaf. Serving threads and producers
// never take mutex_, so joining them under it is safe.
#pragma once

#include <sys/stat.h>
#include <tqsim/VideoStatus.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Camera.h"
#include "HidrawNode.h"
#include "Registry.h"
#include "VideoStream.h"

struct statx;

namespace tqsim {

enum class NodeKind { None, Hidraw, Video };

struct NodeName {
  NodeKind kind = NodeKind::None;
  int number = -1;
};

// /dev/hidrawN or /dev/videoN (N as the kernel writes it, 0..255), else None.
NodeName parseNodePath(const char* path);

// The hidraw answers fan out to every reader of a camera, as the kernel copies
// each input report to every open descriptor. Holds our socket ends only; the
// mutex is a leaf (nothing else is taken under it).
struct InputFanout {
  InputFanout() = default;
  InputFanout(const InputFanout&) = delete;
  InputFanout& operator=(const InputFanout&) = delete;
  ~InputFanout();

  std::mutex mutex;
  std::vector<int> sockets;
  void send(const std::vector<uint8_t>& report);
  void add(int socket);
  void remove(int socket);
  // An answer of a descriptor that was closed before it was due: the device
  // still sends it, so the other readers get it at its time (dropped if the
  // camera is unplugged by then). Served by a thread that runs while such
  // answers wait.
  void sendLater(std::shared_ptr<Camera> camera, std::chrono::steady_clock::time_point due,
                 std::vector<uint8_t> report);
  // Ends and joins that thread; later answers are dropped. At exit and on
  // destruction.
  void stopLater();

 private:
  struct Later {
    std::shared_ptr<Camera> camera;
    std::chrono::steady_clock::time_point due;
    std::vector<uint8_t> report;
  };
  void serveLater();

  std::mutex laterMutex_;  // a leaf as well: released before send()
  std::condition_variable laterWake_;
  std::deque<Later> later_;  // in due order
  bool stopping_ = false;
  bool laterEnded_ = false;  // the thread found nothing to send and ended
  std::thread laterThread_;
};

// A node opened through openNode.
struct OpenedNode {
  int error = 0;  // errno value; the rest is valid when 0
  int node = -1;
  NodeKind kind = NodeKind::None;
  int fd = -1;  // the caller's descriptor, owned by the caller
  CameraId camera = kNoCamera;
  // Video: the node's poll bits, valid until closeNode (see VideoStream).
  const std::atomic<int>* pollBits = nullptr;
};

class Emulation {
 public:
  static Emulation& instance();
  // The instance once constructed, else null (never constructs).
  static Emulation* ifReady();

  // Hosting the cameras (false in a process of a launcher's tree, which asks
  // the launcher instead, and after shutdown).
  bool active() const;
  // Turns a process that started as a client into a host (test binaries and
  // the launcher itself, on their first use of the control API).
  void host();
  void shutdown();

  // Nodes, by the id openNode hands out. owner names the connection that
  // opened them (0: this process), so that a client that goes away leaves
  // nothing behind. handled = false: not an emulated path.
  OpenedNode openNode(const char* path, int flags, int owner, bool& handled);
  void closeNode(int node);
  void closeOwner(int owner);
  // >= 0: the ioctl's result; < 0: minus the errno value. arg holds
  // _IOC_SIZE(request) bytes.
  int64_t nodeIoctl(int node, unsigned long request, void* arg);
  // A descriptor of the node's buffer memory for a mapping of length bytes at
  // offset (the caller maps and closes it), or an errno value.
  int nodeMapFd(int node, uint64_t offset, uint64_t length, int prot, int flags, int& fd);
  // Poll bits the node's state adds (POLLERR before streaming, POLLERR|POLLHUP
  // once gone), 0 when the descriptor's own readiness tells all; -1: unknown node.
  int nodePollState(int node);
  bool statNode(const char* path, struct stat& out);

  // The launcher's commands from outside (plug, unplug, replug, fault, status);
  // returns the exit status, text for the user in out.
  int control(const std::vector<std::string>& words, std::string& out);

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
  bool modify(CameraId id, const std::function<void(CameraConfig&)>& fn, std::string* error = nullptr);
  bool sendEvent(CameraId id, const std::vector<uint8_t>& data);
  int openNodes(CameraId id) const;
  int openVideoNodes(CameraId id) const;
  uint32_t videoFramesProduced(CameraId id) const;
  VideoRequests videoRequests(CameraId id) const;
  int addListener(PlugListener listener);
  void removeListener(int token);

  std::string udevadmDirectory() const;
  std::string stateFilePath() const;
  std::string stateDirectory() const;

 private:
  struct Entry {
    std::shared_ptr<Camera> camera;
    std::shared_ptr<InputFanout> fanout;
    int port = 0;
    int devnum = 0;
    int hidSequence = 0;
    int64_t plugTimeMs = 0;
  };
  struct Node {
    NodeKind kind = NodeKind::None;
    int owner = 0;
    std::shared_ptr<Camera> camera;
    std::unique_ptr<HidrawNode> hidraw;
    std::shared_ptr<VideoStream> video;
  };

  Emulation();
  void initialise(bool asHost);
  Entry* entryLocked(CameraId id);
  Entry* entryLocked(const std::shared_ptr<Camera>& camera);
  const Entry* pluggedWithNodeLocked(NodeKind kind, int number) const;
  std::string nodeConflictLocked(const CameraConfig& config, CameraId except) const;
  // Frame sizes out of range, then node conflicts; empty when the record is usable.
  std::string configProblemLocked(const CameraConfig& config, CameraId except) const;
  void plugLocked(Entry& entry);
  void unplugLocked(Entry& entry);
  void writeStateLocked();
  void notify(const std::shared_ptr<Camera>& camera, bool plugged);
  void recordLocked(CameraId camera, unsigned long request, const void* arg);
  int64_t hidrawIoctlLocked(Node& node, unsigned long request, void* arg);
  Entry* entryBySerialLocked(const std::string& serial);
  std::vector<std::shared_ptr<VideoStream>> streamsLocked(const std::shared_ptr<Camera>& camera) const;

  mutable std::mutex mutex_;
  bool active_ = false;
  bool initialised_ = false;
  std::vector<Entry> cameras_;
  std::map<int, Node> nodes_;
  std::map<CameraId, VideoRequests> requests_;  // ids are never reused
  int nextNode_ = 1;
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
