#include "Emulation.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/hidraw.h>
#include <linux/input.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ConfigFile.h"
#include "Protocol.h"
#include "StateFile.h"

namespace tqsim {

namespace {

// Set in the child of a fork: the serving threads were not copied, so the
// child must not join them or remove the parent's state directory at exit.
std::atomic<bool> gInChild{false};

void forkChild() { gInChild.store(true); }

// hidraw majors are assigned at boot; this is a common one. Video is fixed.
constexpr unsigned kHidrawMajor = 242;
constexpr unsigned kVideoMajor = 81;
constexpr int kMaxNode = 255;

int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

bool parseNumber(const char* text, int& number) {
  if (text[0] < '0' || text[0] > '9') return false;
  if (text[0] == '0' && text[1] != '\0') return false;  // the kernel writes no leading zeros
  int value = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return false;
    value = value * 10 + (*p - '0');
    if (value > kMaxNode) return false;
  }
  number = value;
  return true;
}

std::string directoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

bool isExecutable(const std::string& path) { return ::access(path.c_str(), X_OK) == 0; }

void anchor() {}

// The udevadm built with this library: bin/ beside it in the build tree,
// tq-uvc-sim/bin/ beside it when installed.
std::string findUdevadmDirectory() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&anchor), &info) == 0 || info.dli_fname == nullptr) return {};
  const std::string libraryDir = directoryOf(info.dli_fname);
  for (const char* sub : {"/bin", "/tq-uvc-sim/bin"}) {
    std::string dir = libraryDir + sub;
    if (isExecutable(dir + "/udevadm")) return dir;
  }
  return {};
}

// A host that ends with _exit (shells do) cannot remove its directory; the
// next host removes those whose process is gone. The pid is in the name.
void removeStaleStateDirectories(const std::string& base) {
  DIR* dir = ::opendir(base.c_str());
  if (dir == nullptr) return;
  while (const dirent* entry = ::readdir(dir)) {
    int pid = 0;
    char rest[32];
    if (std::sscanf(entry->d_name, "tqsim-%d-%31s", &pid, rest) != 2 || pid <= 0) continue;
    if (::kill(pid, 0) == 0 || errno != ESRCH) continue;
    const std::string path = base + "/" + entry->d_name;
    ::unlink((path + "/state").c_str());
    ::unlink((path + "/state.tmp").c_str());
    ::rmdir(path.c_str());
  }
  ::closedir(dir);
}

void shutdownAtExit() { Emulation::instance().shutdown(); }

// What usbhid names a device: manufacturer and product joined by a blank,
// else the ids.
std::string usbhidName(const CameraConfig& config) {
  std::string name = config.manufacturer;
  if (!config.product.empty()) {
    if (!name.empty()) name += ' ';
    name += config.product;
  }
  if (name.empty()) {
    char ids[32];
    std::snprintf(ids, sizeof ids, "HID %04x:%04x", config.vendorId, config.productId);
    name = ids;
  }
  return name;
}

std::string hidrawPhys(int port) { return "usb-vhci_hcd.0-" + std::to_string(port) + "/input2"; }

// The bound the configuration file keeps, so that no path to a camera yields a
// frame larger than V4L2's 32-bit sizeimage.
std::string sizeProblem(const CameraConfig& config) {
  for (const FrameSize& size : config.video.sizes) {
    if (size.width == 0 || size.height == 0 || size.width > kMaxFrameSide || size.height > kMaxFrameSide) {
      return "frame size " + std::to_string(size.width) + "x" + std::to_string(size.height) +
             " out of range (1.." + std::to_string(kMaxFrameSide) + " each)";
    }
  }
  return {};
}

}  // namespace

NodeName parseNodePath(const char* path) {
  NodeName name;
  if (path == nullptr || std::strncmp(path, "/dev/", 5) != 0) return name;
  const char* rest = path + 5;
  int number = -1;
  if (std::strncmp(rest, "hidraw", 6) == 0 && parseNumber(rest + 6, number)) {
    name.kind = NodeKind::Hidraw;
  } else if (std::strncmp(rest, "video", 5) == 0 && parseNumber(rest + 5, number)) {
    name.kind = NodeKind::Video;
  }
  name.number = number;
  return name;
}

namespace {
std::atomic<Emulation*> gReady{nullptr};
}  // namespace

Emulation& Emulation::instance() {
  // Never destroyed: interposed calls can arrive from any static destructor.
  static Emulation* emulation = [] {
    auto* created = new Emulation();
    gReady.store(created, std::memory_order_release);
    return created;
  }();
  return *emulation;
}

Emulation* Emulation::ifReady() { return gReady.load(std::memory_order_acquire); }

// A process of a launcher's tree asks the launcher; any other hosts.
Emulation::Emulation() { initialise(serverAddress().empty()); }

void Emulation::host() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (initialised_) return;
  }
  initialise(true);
}

void Emulation::initialise(bool asHost) {
  if (!asHost) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (initialised_) return;
    initialised_ = true;
  }
  const std::string self = std::to_string(::getpid());
  ::pthread_atfork(nullptr, nullptr, &forkChild);
  startTimeMs_ = nowMs();

  struct stat dev {};
  // Straight to the kernel: our own stat would come back here.
  if (::syscall(SYS_newfstatat, AT_FDCWD, "/dev", &dev, 0) == 0) devfsDevice_ = dev.st_dev;

  const char* tmp = std::getenv("TMPDIR");
  const std::string base = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
  removeStaleStateDirectories(base);
  std::string pattern = base + "/tqsim-" + self + "-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) != nullptr) {
    stateDir_ = buffer.data();
    statePath_ = stateDir_ + "/state";
  }
  ownsStateDir_ = !stateDir_.empty();
  if (!statePath_.empty()) ::setenv(kEnvStateFile, statePath_.c_str(), 1);

  udevadmDir_ = findUdevadmDirectory();
  if (!udevadmDir_.empty()) {
    const char* path = std::getenv("PATH");
    std::string current = path != nullptr ? path : "";
    if (current.rfind(udevadmDir_ + ":", 0) != 0 && current != udevadmDir_) {
      const std::string updated = current.empty() ? udevadmDir_ : udevadmDir_ + ":" + current;
      ::setenv("PATH", updated.c_str(), 1);
    }
  }

  {
    std::lock_guard<std::mutex> lock(mutex_);
    active_ = true;
  }
  std::vector<CameraConfig> configs;
  const char* configPath = std::getenv(kEnvConfig);
  if (configPath != nullptr && *configPath != '\0') {
    std::string error;
    if (!parseConfig(configPath, configs, &error)) {
      std::fprintf(stderr, "tq-uvc-sim: %s\n", error.c_str());
      configs.clear();
    }
  } else {
    configs.push_back(defaultCameraConfig());
  }
  std::string error;
  if (!replaceCameras(configs, &error)) std::fprintf(stderr, "tq-uvc-sim: %s\n", error.c_str());
  std::atexit(&shutdownAtExit);
}

bool Emulation::active() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return active_;
}

void Emulation::shutdown() {
  if (gInChild.load()) return;  // nothing here belongs to a child
  std::map<int, Node> nodes;
  std::vector<std::shared_ptr<InputFanout>> fanouts;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!active_) return;
    active_ = false;
    nodes.swap(nodes_);
    for (Entry& entry : cameras_) {
      entry.camera->setPlugged(false);
      fanouts.push_back(entry.fanout);
    }
    if (ownsStateDir_) {
      ::unlink(statePath_.c_str());
      ::unlink((statePath_ + ".tmp").c_str());
      ::rmdir(stateDir_.c_str());
    }
  }
  // Joins every serving thread and producer, closes our ends.
  for (auto& [id, node] : nodes) {
    if (node.video) node.video->shutdown();
  }
  nodes.clear();
  // And the threads sending answers of closed descriptors (the cameras are
  // unplugged: nothing more is sent).
  for (const std::shared_ptr<InputFanout>& fanout : fanouts) fanout->stopLater();
}

void InputFanout::send(const std::vector<uint8_t>& report) {
  std::lock_guard<std::mutex> lock(mutex);
  // A reader whose queue is full loses the report, as with the kernel's.
  for (int socket : sockets) ::send(socket, report.data(), report.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

InputFanout::~InputFanout() { stopLater(); }

void InputFanout::stopLater() {
  {
    std::lock_guard<std::mutex> lock(laterMutex_);
    stopping_ = true;
  }
  // No sendLater touches the thread from here on.
  laterWake_.notify_all();
  if (!laterThread_.joinable()) return;
  // A forked child has no copy of the thread to join.
  if (gInChild.load())
    laterThread_.detach();
  else
    laterThread_.join();
}

void InputFanout::sendLater(std::shared_ptr<Camera> camera, std::chrono::steady_clock::time_point due,
                            std::vector<uint8_t> report) {
  std::lock_guard<std::mutex> lock(laterMutex_);
  if (stopping_) return;
  // Answers of one node come in due order; those of two closed nodes may
  // interleave, so keep the queue sorted.
  auto at = std::upper_bound(later_.begin(), later_.end(), due,
                             [](const auto& when, const Later& entry) { return when < entry.due; });
  later_.insert(at, Later{std::move(camera), due, std::move(report)});
  // A thread that found its queue empty has ended, or is past its last use of
  // the lock: the join returns at once. A forked child has no copy of the
  // thread, whatever its record says.
  if (laterThread_.joinable() && (laterEnded_ || gInChild.load())) {
    if (gInChild.load())
      laterThread_.detach();
    else
      laterThread_.join();
  }
  if (!laterThread_.joinable()) {
    laterEnded_ = false;
    try {
      laterThread_ = std::thread([this] { serveLater(); });
    } catch (...) {
      later_.clear();  // no thread: the answers are lost, as from a hung device
      return;
    }
  }
  laterWake_.notify_all();
}

void InputFanout::serveLater() {
  std::unique_lock<std::mutex> lock(laterMutex_);
  while (!stopping_) {
    // Nothing left to send: end, so the thread lives only while answers wait.
    if (later_.empty()) {
      laterEnded_ = true;
      return;
    }
    if (std::chrono::steady_clock::now() < later_.front().due) {
      laterWake_.wait_until(lock, later_.front().due);
      continue;
    }
    Later next = std::move(later_.front());
    later_.pop_front();
    lock.unlock();
    if (next.camera->plugged()) send(next.report);
    next.camera.reset();
    lock.lock();
  }
}

void InputFanout::add(int socket) {
  std::lock_guard<std::mutex> lock(mutex);
  sockets.push_back(socket);
}

void InputFanout::remove(int socket) {
  std::lock_guard<std::mutex> lock(mutex);
  sockets.erase(std::remove(sockets.begin(), sockets.end(), socket), sockets.end());
}

OpenedNode Emulation::openNode(const char* path, int flags, int owner, bool& handled) {
  handled = false;
  OpenedNode opened;
  const NodeName name = parseNodePath(path);
  if (name.kind == NodeKind::None) return opened;
  std::lock_guard<std::mutex> lock(mutex_);
  if (!active_) return opened;
  const Entry* entry = pluggedWithNodeLocked(name.kind, name.number);
  if (entry == nullptr) return opened;  // not ours: a real node or ENOENT
  handled = true;
  if ((flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) {
    opened.error = EEXIST;
    return opened;
  }
  Node node;
  node.kind = name.kind;
  node.owner = owner;
  node.camera = entry->camera;
  if (name.kind == NodeKind::Hidraw) {
    node.hidraw = HidrawNode::open(entry->camera, entry->fanout, flags);
    if (!node.hidraw) {
      opened.error = errno != 0 ? errno : ENOMEM;
      return opened;
    }
    opened.fd = node.hidraw->takeCallerFd();
  } else {
    if (entry->camera->config().videoFaults.openFails) {
      opened.error = ENODEV;
      return opened;
    }
    requests_[entry->camera->id()].openFlags = flags;
    const bool capture = entry->camera->nodeNumbers().video == name.number;
    int error = 0;
    node.video = VideoStream::create(entry->camera, capture, flags,
                                     "usb-vhci_hcd.0-" + std::to_string(entry->port), &error);
    if (!node.video) {
      opened.error = error;
      return opened;
    }
    // The caller gets its own descriptor of the stream's eventfd: closing it
    // (even with a plain close we never see) cannot touch the producer's.
    opened.fd = ::fcntl(node.video->fd(), (flags & O_CLOEXEC) != 0 ? F_DUPFD_CLOEXEC : F_DUPFD, 0);
    if (opened.fd < 0) {
      opened.error = errno;
      node.video->shutdown();
      return opened;
    }
  }
  opened.node = nextNode_++;
  opened.kind = name.kind;
  opened.camera = entry->camera->id();
  if (node.video) opened.pollBits = node.video->pollBits();
  nodes_.emplace(opened.node, std::move(node));
  return opened;
}

void Emulation::closeNode(int id) {
  Node node;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = nodes_.find(id);
    if (it == nodes_.end()) return;
    node = std::move(it->second);
    nodes_.erase(it);
  }
  // Joined outside the table lock: a producer may be waiting on the camera.
  if (node.video) node.video->shutdown();
}

void Emulation::closeOwner(int owner) {
  std::vector<int> ids;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [id, node] : nodes_) {
      if (node.owner == owner) ids.push_back(id);
    }
  }
  for (int id : ids) closeNode(id);
}

int64_t Emulation::nodeIoctl(int id, unsigned long request, void* arg) {
  std::shared_ptr<VideoStream> video;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = nodes_.find(id);
    if (it == nodes_.end()) return -EBADF;
    if (it->second.kind == NodeKind::Hidraw) return hidrawIoctlLocked(it->second, request, arg);
    video = it->second.video;
    recordLocked(it->second.camera->id(), request, arg);
  }
  // Outside the table lock: STREAMOFF joins the producer.
  const int error = video->ioctl(request, arg);
  return error == 0 ? 0 : -error;
}

int Emulation::nodeMapFd(int id, uint64_t offset, uint64_t length, int prot, int flags, int& fd) {
  std::shared_ptr<VideoStream> video;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = nodes_.find(id);
    if (it == nodes_.end()) return EBADF;
    video = it->second.video;
    if (video) requests_[it->second.camera->id()].mapProtection = prot;
  }
  if (!video) return ENODEV;  // hidraw has no mmap
  return video->mapFd(offset, length, flags, fd);
}

int Emulation::nodePollState(int id) {
  std::shared_ptr<VideoStream> video;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = nodes_.find(id);
    if (it == nodes_.end()) return -1;
    video = it->second.video;
  }
  return video ? video->pollState() : 0;
}

// Notes what VideoRequests reports, before the node answers.
void Emulation::recordLocked(CameraId camera, unsigned long request, const void* arg) {
  if (arg == nullptr) return;
  VideoRequests& r = requests_[camera];
  switch (request) {
    case VIDIOC_REQBUFS:
      r.buffersAsked = static_cast<const v4l2_requestbuffers*>(arg)->count;
      break;
    case VIDIOC_S_PARM: {
      const v4l2_fract asked = static_cast<const v4l2_streamparm*>(arg)->parm.capture.timeperframe;
      r.intervalNumerator = asked.numerator;
      r.intervalDenominator = asked.denominator;
      ++r.parmSets;
      break;
    }
    case VIDIOC_STREAMOFF:
      ++r.streamOffs;
      break;
    case VIDIOC_DQBUF:
      ++r.dequeues;
      break;
    default:
      break;
  }
}

VideoRequests Emulation::videoRequests(CameraId id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = requests_.find(id);
  return it == requests_.end() ? VideoRequests{} : it->second;
}

int64_t Emulation::hidrawIoctlLocked(Node& node, unsigned long request, void* arg) {
  const std::shared_ptr<Camera>& camera = node.camera;
  if (!node.hidraw->connected() || !camera->plugged()) return -ENODEV;
  // The kernel's hidraw answers other ioctl types EINVAL (FIONREAD too);
  // FIONBIO, FIOCLEX... never get here, the file layer serves them.
  if (_IOC_TYPE(request) != 'H') return -EINVAL;
  const unsigned size = _IOC_SIZE(request);
  const unsigned nr = _IOC_NR(request);
  if (arg == nullptr && size != 0) return -EFAULT;
  // The feature read comes once a chunk: keep it clear of the record copy.
  if (_IOC_DIR(request) == (_IOC_READ | _IOC_WRITE) && nr == _IOC_NR(HIDIOCGFEATURE(0))) {
    std::array<uint8_t, kFeatureReportSize> feature{};
    if (!camera->featureRead(feature)) return -EIO;
    const size_t count = std::min<size_t>(size, feature.size());
    std::memcpy(arg, feature.data(), count);
    return static_cast<int64_t>(count);
  }
  const CameraConfig config = camera->config();
  // Like the kernel: strlen + 1 bytes, cut to the buffer (then unterminated).
  auto copyText = [&](const std::string& text) -> int64_t {
    const size_t count = std::min<size_t>(text.size() + 1, size);
    std::memcpy(arg, text.c_str(), count);
    return static_cast<int64_t>(count);
  };
  if (request == HIDIOCGRAWINFO) {
    hidraw_devinfo info{};
    info.bustype = BUS_USB;
    info.vendor = static_cast<int16_t>(config.vendorId);
    info.product = static_cast<int16_t>(config.productId);
    std::memcpy(arg, &info, sizeof info);
    return 0;
  }
  if (request == HIDIOCGRDESCSIZE) {
    const int descriptorSize = static_cast<int>(sizeof kReportDescriptor);
    std::memcpy(arg, &descriptorSize, sizeof descriptorSize);
    return 0;
  }
  if (request == HIDIOCGRDESC) {
    hidraw_report_descriptor descriptor{};
    std::memcpy(&descriptor.size, arg, sizeof descriptor.size);
    if (descriptor.size > sizeof kReportDescriptor) return -EINVAL;
    std::memcpy(static_cast<uint8_t*>(arg) + sizeof descriptor.size, kReportDescriptor, descriptor.size);
    return 0;
  }
  const bool reads = (_IOC_DIR(request) & _IOC_READ) != 0;
  if (reads && nr == _IOC_NR(HIDIOCGRAWNAME(0))) return copyText(usbhidName(config));
  if (reads && nr == _IOC_NR(HIDIOCGRAWPHYS(0))) {
    const Entry* entry = entryLocked(camera);
    return copyText(hidrawPhys(entry != nullptr ? entry->port : 1));
  }
  if (reads && nr == _IOC_NR(HIDIOCGRAWUNIQ(0))) return copyText(config.serial);
  return -ENOTTY;
}

bool Emulation::statNode(const char* path, struct stat& out) {
  const NodeName name = parseNodePath(path);
  if (name.kind == NodeKind::None) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  if (!active_) return false;
  const Entry* entry = pluggedWithNodeLocked(name.kind, name.number);
  if (entry == nullptr) return false;
  const bool hidraw = name.kind == NodeKind::Hidraw;
  out = {};
  out.st_dev = devfsDevice_;
  // Stable, distinct inode numbers for the nodes of one kind.
  out.st_ino = (hidraw ? 0x10000u : 0x20000u) + static_cast<ino_t>(name.number);
  out.st_mode = S_IFCHR | (hidraw ? 0600 : 0660);
  out.st_nlink = 1;
  out.st_rdev = makedev(hidraw ? kHidrawMajor : kVideoMajor, static_cast<unsigned>(name.number));
  out.st_blksize = 4096;
  const int64_t plugged = entry->plugTimeMs;
  out.st_atim.tv_sec = out.st_mtim.tv_sec = out.st_ctim.tv_sec = plugged / 1000;
  out.st_atim.tv_nsec = out.st_mtim.tv_nsec = out.st_ctim.tv_nsec = (plugged % 1000) * 1000000;
  return true;
}

int Emulation::control(const std::vector<std::string>& words, std::string& out) {
  const std::string command = words.empty() ? std::string() : words[0];
  if (command == "status") {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Entry& entry : cameras_) {
      const CameraConfig config = entry.camera->config();
      out += config.serial + (entry.camera->plugged() ? " plugged" : " unplugged");
      out += " /dev/hidraw" + std::to_string(config.hidrawNumber) + " /dev/video" +
             std::to_string(config.videoNumber);
      if (config.metadataVideoNumber >= 0) out += " /dev/video" + std::to_string(config.metadataVideoNumber);
      if (entry.camera->plugged()) out += " usb 1-" + std::to_string(entry.port);
      out += '\n';
    }
    return 0;
  }
  const bool plugging = command == "plug" || command == "replug";
  if (!plugging && command != "unplug" && command != "fault") {
    out = "unknown command '" + command + "'\n";
    return 2;
  }
  if (words.size() < 2 || (command == "fault" && words.size() != 4)) {
    out = command == "fault" ? "usage: fault SERIAL NAME VALUE\n" : "usage: " + command + " SERIAL\n";
    return 2;
  }
  const std::string& serial = words[1];
  bool newNodes = false;
  for (size_t i = 2; plugging && i < words.size(); ++i) {
    if (words[i] != "--new-nodes") {
      out = "unknown option '" + words[i] + "'\n";
      return 2;
    }
    newNodes = true;
  }
  CameraId id = kNoCamera;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (Entry* entry = entryBySerialLocked(serial)) id = entry->camera->id();
  }
  if (id == kNoCamera) {
    out = "no camera with serial " + serial + "\n";
    return 1;
  }
  if (command == "fault") {
    std::string why;
    CameraConfig changed;
    {
      std::shared_ptr<Camera> camera = find(id);
      changed = camera->config();
    }
    if (!applyFault(changed, words[2], words[3], why)) {
      out = why + "\n";
      return 2;
    }
    modify(id, [&](CameraConfig& config) {
      config.hidFaults = changed.hidFaults;
      config.videoFaults = changed.videoFaults;
      config.udevFaults = changed.udevFaults;
    });
    return 0;
  }
  if (command == "unplug" || command == "replug") unplug(id);
  if (command == "unplug") return 0;
  if (newNodes) {
    // As a camera that comes back while its old numbers are still held: the
    // lowest numbers no other camera has.
    std::lock_guard<std::mutex> lock(mutex_);
    Entry* entry = entryLocked(id);
    if (!entry->camera->plugged()) {
      auto taken = [&](NodeKind kind, int number) {
        for (const Entry& other : cameras_) {
          if (&other == entry) continue;
          const Camera::NodeNumbers n = other.camera->nodeNumbers();
          if (kind == NodeKind::Hidraw ? n.hidraw == number : (n.video == number || n.metadata == number))
            return true;
        }
        return false;
      };
      const Camera::NodeNumbers old = entry->camera->nodeNumbers();
      int hidraw = 0;
      while (taken(NodeKind::Hidraw, hidraw) || hidraw == old.hidraw) ++hidraw;
      const int count = old.metadata >= 0 ? 2 : 1;
      int video = 0;
      while (taken(NodeKind::Video, video) || (count == 2 && taken(NodeKind::Video, video + 1)) ||
             video == old.video || video == old.metadata ||
             (count == 2 && (video + 1 == old.video || video + 1 == old.metadata))) {
        ++video;
      }
      entry->camera->modify([&](CameraConfig& config) {
        config.hidrawNumber = hidraw;
        config.videoNumber = video;
        if (count == 2) config.metadataVideoNumber = video + 1;
      });
    }
  }
  std::string error;
  if (!replug(id, &error)) {
    out = error + "\n";
    return 1;
  }
  return 0;
}

void Emulation::reset() {
  std::vector<std::shared_ptr<Camera>> gone;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!active_) return;
    for (Entry& entry : cameras_) {
      if (entry.camera->plugged()) {
        unplugLocked(entry);
        gone.push_back(entry.camera);
      }
    }
    cameras_.clear();
    // A fresh bus: the next camera gets the numbers of a first plug again.
    nextDevnum_ = 2;
    nextHidSequence_ = 1;
    writeStateLocked();
  }
  for (const auto& camera : gone) notify(camera, false);
}

CameraId Emulation::plug(const CameraConfig& config, std::string* error) {
  std::shared_ptr<Camera> camera;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!active_) {
      if (error) *error = "the emulation is not active in this process";
      return kNoCamera;
    }
    const std::string conflict = configProblemLocked(config, kNoCamera);
    if (!conflict.empty()) {
      if (error) *error = conflict;
      return kNoCamera;
    }
    Entry entry;
    entry.camera = std::make_shared<Camera>(nextId_++, config);
    entry.fanout = std::make_shared<InputFanout>();
    cameras_.push_back(entry);
    plugLocked(cameras_.back());
    writeStateLocked();
    camera = entry.camera;
  }
  notify(camera, true);
  return camera->id();
}

bool Emulation::unplug(CameraId id) {
  std::shared_ptr<Camera> camera;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Entry* entry = entryLocked(id);
    if (entry == nullptr || !active_) return false;
    if (!entry->camera->plugged()) return true;
    unplugLocked(*entry);
    writeStateLocked();
    camera = entry->camera;
  }
  notify(camera, false);
  return true;
}

bool Emulation::replug(CameraId id, std::string* error) {
  std::shared_ptr<Camera> camera;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Entry* entry = entryLocked(id);
    if (entry == nullptr || !active_) {
      if (error) *error = "unknown camera " + std::to_string(id);
      return false;
    }
    if (entry->camera->plugged()) return true;
    const std::string conflict = nodeConflictLocked(entry->camera->config(), id);
    if (!conflict.empty()) {
      if (error) *error = conflict;
      return false;
    }
    plugLocked(*entry);
    writeStateLocked();
    camera = entry->camera;
  }
  notify(camera, true);
  return true;
}

bool Emulation::replaceCameras(const std::vector<CameraConfig>& configs, std::string* error) {
  // Check the whole set first, so that a bad file changes nothing.
  for (size_t i = 0; i < configs.size(); ++i) {
    for (size_t j = 0; j < i; ++j) {
      const CameraConfig& a = configs[i];
      const CameraConfig& b = configs[j];
      const bool clash = a.hidrawNumber == b.hidrawNumber || a.videoNumber == b.videoNumber ||
                         a.videoNumber == b.metadataVideoNumber ||
                         (a.metadataVideoNumber >= 0 && (a.metadataVideoNumber == b.videoNumber ||
                                                         a.metadataVideoNumber == b.metadataVideoNumber));
      if (clash) {
        if (error)
          *error = "cameras " + std::to_string(j + 1) + " and " + std::to_string(i + 1) + " share a node";
        return false;
      }
    }
  }
  reset();
  for (const CameraConfig& config : configs) {
    if (plug(config, error) == kNoCamera) return false;
  }
  return true;
}

std::shared_ptr<Camera> Emulation::find(CameraId id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const Entry& entry : cameras_) {
    if (entry.camera->id() == id) return entry.camera;
  }
  return nullptr;
}

std::shared_ptr<Camera> Emulation::findPluggedVideo(const char* path) const {
  const NodeName name = parseNodePath(path);
  if (name.kind != NodeKind::Video) return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  const Entry* entry = pluggedWithNodeLocked(NodeKind::Video, name.number);
  return entry != nullptr ? entry->camera : nullptr;
}

std::shared_ptr<Camera> Emulation::findPluggedHidraw(const char* path) const {
  const NodeName name = parseNodePath(path);
  if (name.kind != NodeKind::Hidraw) return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  const Entry* entry = pluggedWithNodeLocked(NodeKind::Hidraw, name.number);
  return entry != nullptr ? entry->camera : nullptr;
}

std::vector<CameraId> Emulation::ids() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<CameraId> result;
  for (const Entry& entry : cameras_) result.push_back(entry.camera->id());
  return result;
}

bool Emulation::modify(CameraId id, const std::function<void(CameraConfig&)>& fn, std::string* error) {
  std::lock_guard<std::mutex> lock(mutex_);
  Entry* entry = entryLocked(id);
  if (entry == nullptr) {
    if (error) *error = "unknown camera " + std::to_string(id);
    return false;
  }
  CameraConfig changed = entry->camera->config();
  fn(changed);
  std::string problem = sizeProblem(changed);
  if (problem.empty() && entry->camera->plugged()) problem = nodeConflictLocked(changed, id);
  if (!problem.empty()) {
    if (error) *error = problem;
    return false;
  }
  entry->camera->modify([&](CameraConfig& config) { config = std::move(changed); });
  writeStateLocked();  // identity and udev faults show in udevadm at once
  return true;
}

bool Emulation::sendEvent(CameraId id, const std::vector<uint8_t>& data) {
  std::lock_guard<std::mutex> lock(mutex_);
  Entry* entry = entryLocked(id);
  if (entry == nullptr || !entry->camera->plugged()) return false;
  entry->fanout->send(Camera::eventReport(data));
  return true;
}

int Emulation::openNodes(CameraId id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  int count = 0;
  for (const auto& [nodeId, node] : nodes_) {
    if (node.kind == NodeKind::Hidraw && node.camera->id() == id && node.hidraw->connected()) ++count;
  }
  return count;
}

int Emulation::openVideoNodes(CameraId id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  int count = 0;
  for (const auto& [nodeId, node] : nodes_) {
    if (node.kind == NodeKind::Video && node.camera->id() == id) ++count;
  }
  return count;
}

uint32_t Emulation::videoFramesProduced(CameraId id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  uint32_t count = 0;
  for (const auto& [nodeId, node] : nodes_) {
    if (node.kind == NodeKind::Video && node.camera->id() == id) count += node.video->framesProduced();
  }
  return count;
}

int Emulation::addListener(PlugListener listener) {
  std::lock_guard<std::mutex> lock(listenerMutex_);
  const int token = nextListener_++;
  listeners_[token] = std::move(listener);
  return token;
}

void Emulation::removeListener(int token) {
  std::lock_guard<std::mutex> lock(listenerMutex_);
  listeners_.erase(token);
}

void Emulation::notify(const std::shared_ptr<Camera>& camera, bool plugged) {
  std::lock_guard<std::mutex> lock(listenerMutex_);
  for (auto& [token, listener] : listeners_) listener(camera, plugged);
}

std::string Emulation::udevadmDirectory() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return active_ ? udevadmDir_ : std::string();
}

std::string Emulation::stateFilePath() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return active_ ? statePath_ : std::string();
}

std::string Emulation::stateDirectory() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return active_ ? stateDir_ : std::string();
}

Emulation::Entry* Emulation::entryLocked(const std::shared_ptr<Camera>& camera) {
  for (Entry& entry : cameras_) {
    if (entry.camera == camera) return &entry;
  }
  return nullptr;
}

Emulation::Entry* Emulation::entryBySerialLocked(const std::string& serial) {
  for (Entry& entry : cameras_) {
    if (entry.camera->config().serial == serial) return &entry;
  }
  return nullptr;
}

Emulation::Entry* Emulation::entryLocked(CameraId id) {
  for (Entry& entry : cameras_) {
    if (entry.camera->id() == id) return &entry;
  }
  return nullptr;
}

const Emulation::Entry* Emulation::pluggedWithNodeLocked(NodeKind kind, int number) const {
  for (const Entry& entry : cameras_) {
    if (!entry.camera->plugged()) continue;
    const Camera::NodeNumbers nodes = entry.camera->nodeNumbers();
    if (kind == NodeKind::Hidraw && nodes.hidraw == number) return &entry;
    if (kind == NodeKind::Video &&
        (nodes.video == number || (nodes.metadata >= 0 && nodes.metadata == number))) {
      return &entry;
    }
  }
  return nullptr;
}

std::string Emulation::configProblemLocked(const CameraConfig& config, CameraId except) const {
  std::string problem = sizeProblem(config);
  return problem.empty() ? nodeConflictLocked(config, except) : problem;
}

std::string Emulation::nodeConflictLocked(const CameraConfig& config, CameraId except) const {
  auto inRange = [](int n) { return n >= 0 && n <= kMaxNode; };
  if (!inRange(config.hidrawNumber))
    return "hidraw number out of range: " + std::to_string(config.hidrawNumber);
  if (!inRange(config.videoNumber)) return "video number out of range: " + std::to_string(config.videoNumber);
  if (config.metadataVideoNumber < -1 || config.metadataVideoNumber > kMaxNode) {
    return "metadata video number out of range: " + std::to_string(config.metadataVideoNumber);
  }
  if (config.metadataVideoNumber == config.videoNumber) return "capture and metadata node are the same";
  for (const Entry& entry : cameras_) {
    if (entry.camera->id() == except || !entry.camera->plugged()) continue;
    const Camera::NodeNumbers other = entry.camera->nodeNumbers();
    if (other.hidraw == config.hidrawNumber) {
      return "/dev/hidraw" + std::to_string(config.hidrawNumber) + " is taken";
    }
    for (int mine : {config.videoNumber, config.metadataVideoNumber}) {
      if (mine >= 0 && (mine == other.video || mine == other.metadata)) {
        return "/dev/video" + std::to_string(mine) + " is taken";
      }
    }
  }
  return {};
}

void Emulation::plugLocked(Entry& entry) {
  // The lowest free port of the root hub, as a fresh plug-in would get.
  int port = 1;
  while (std::any_of(cameras_.begin(), cameras_.end(),
                     [&](const Entry& e) { return &e != &entry && e.camera->plugged() && e.port == port; })) {
    ++port;
  }
  entry.port = port;
  entry.devnum = nextDevnum_++;
  entry.hidSequence = nextHidSequence_++;
  entry.plugTimeMs = nowMs();
  entry.camera->setPlugged(true);
}

void Emulation::unplugLocked(Entry& entry) {
  entry.camera->setPlugged(false);
  for (auto& [id, node] : nodes_) {
    if (node.camera != entry.camera) continue;
    if (node.hidraw) node.hidraw->disconnect();
    if (node.video) node.video->breakStream();
  }
}

void Emulation::writeStateLocked() {
  if (statePath_.empty()) return;
  State state;
  state.startTimeMs = startTimeMs_;
  for (const Entry& entry : cameras_) {
    if (!entry.camera->plugged()) continue;
    const CameraConfig config = entry.camera->config();
    StateCamera c;
    c.id = entry.camera->id();
    c.port = entry.port;
    c.devnum = entry.devnum;
    c.hidSequence = entry.hidSequence;
    c.plugTimeMs = entry.plugTimeMs;
    c.vendorId = config.vendorId;
    c.productId = config.productId;
    c.hidrawNumber = config.hidrawNumber;
    c.videoNumber = config.videoNumber;
    c.metadataVideoNumber = config.metadataVideoNumber;
    c.serial = config.serial;
    c.manufacturer = config.manufacturer;
    c.product = config.product;
    c.udevFails = config.udevFaults.fails;
    c.udevGarbage = config.udevFaults.garbage;
    c.videoWithoutSerial = config.udevFaults.videoWithoutSerial;
    c.videoSerial = config.udevFaults.videoSerial;
    state.cameras.push_back(std::move(c));
  }
  if (!writeStateFile(statePath_, state)) {
    std::fprintf(stderr, "tq-uvc-sim: cannot write %s: %s\n", statePath_.c_str(), std::strerror(errno));
  }
}

}  // namespace tqsim
