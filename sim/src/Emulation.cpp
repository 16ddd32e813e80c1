#include "Emulation.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/hidraw.h>
#include <linux/input.h>
#include <pthread.h>
#include <signal.h>
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
#include "StateFile.h"

namespace tqsim {

namespace {

// Set in the child of a fork: the inherited cameras and threads are not ours
// there, so every call passes through.
std::atomic<bool> gInChild{false};

// hidraw majors are assigned at boot; this is a common one. Video is fixed.
constexpr unsigned kHidrawMajor = 242;
constexpr unsigned kVideoMajor = 81;
constexpr int kMaxNode = 255;

// A vendor-page report descriptor: output and input report 1 of 63 bytes,
// input report 2 (events) of 63 bytes, feature report 1 of 1023 bytes.
constexpr uint8_t kReportDescriptor[] = {
    0x06, 0x00, 0xFF,                                // Usage Page (Vendor 0xFF00)
    0x09, 0x01,                                      // Usage (1)
    0xA1, 0x01,                                      // Collection (Application)
    0x15, 0x00, 0x26, 0xFF, 0x00, 0x75, 0x08,        // 0..255, 8 bits
    0x85, 0x01, 0x95, 0x3F, 0x09, 0x02, 0x81, 0x02,  // Report 1, 63 x Input
    0x95, 0x3F, 0x09, 0x03, 0x91, 0x02,              // 63 x Output
    0x96, 0xFF, 0x03, 0x09, 0x04, 0xB1, 0x02,        // 1023 x Feature
    0x85, 0x02, 0x95, 0x3F, 0x09, 0x05, 0x81, 0x02,  // Report 2, 63 x Input
    0xC0,                                            // End Collection
};

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

void forkChild() { gInChild.store(true); }

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

Emulation::Emulation() {
  for (auto& slot : deadFds_) slot.store(-1, std::memory_order_relaxed);
  initialise();
}

void Emulation::initialise() {
  const char* owner = std::getenv(kEnvOwnerPid);
  const std::string self = std::to_string(::getpid());
  if (owner != nullptr && self != owner) return;  // a child of the hosting process: stay inert

  ::setenv(kEnvOwnerPid, self.c_str(), 1);
  ::pthread_atfork(nullptr, nullptr, &forkChild);
  startTimeMs_ = nowMs();

  struct stat dev {};
  // Straight to the kernel: our own stat would come back here.
  if (::syscall(SYS_newfstatat, AT_FDCWD, "/dev", &dev, 0) == 0) devfsDevice_ = dev.st_dev;

  // Same process after an exec: the directory is ours now, the old image
  // cannot remove it any more.
  const char* inherited = std::getenv(kEnvStateFile);
  if (owner != nullptr && inherited != nullptr && *inherited != '\0') {
    statePath_ = inherited;
    stateDir_ = directoryOf(statePath_);
  } else {
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

  active_ = true;
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
  if (gInChild.load()) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  return active_;
}

void Emulation::shutdown() {
  if (gInChild.load()) return;  // nothing here belongs to a child
  std::lock_guard<std::mutex> lock(mutex_);
  if (!active_) return;
  active_ = false;
  nodes_.clear();  // joins every serving thread, closes our ends
  openCount_.store(0, std::memory_order_release);
  for (auto& slot : deadFds_) slot.store(-1, std::memory_order_release);
  deadCount_.store(0, std::memory_order_release);
  for (Entry& entry : cameras_) entry.camera->setPlugged(false);
  if (ownsStateDir_) {
    ::unlink(statePath_.c_str());
    ::unlink((statePath_ + ".tmp").c_str());
    ::rmdir(stateDir_.c_str());
  }
}

int Emulation::openNode(const char* path, int flags, bool& handled) {
  handled = false;
  const NodeName name = parseNodePath(path);
  if (name.kind == NodeKind::None || gInChild.load()) return -1;
  std::lock_guard<std::mutex> lock(mutex_);
  if (!active_) return -1;
  const Entry* entry = pluggedWithNodeLocked(name.kind, name.number);
  if (entry == nullptr) return -1;  // not ours: a real node or ENOENT
  handled = true;
  if (name.kind == NodeKind::Video) {
    // Video nodes are reached through libv4l2, whose entry points the video
    // side interposes; a plain open has nothing to talk to.
    errno = ENODEV;
    return -1;
  }
  if ((flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) {
    errno = EEXIST;
    return -1;
  }
  std::unique_ptr<HidrawNode> node = HidrawNode::open(entry->camera, flags);
  if (!node) return -1;
  const int fd = node->callerFd();
  // A stale entry under this number was closed behind our back; drop it.
  std::unique_ptr<HidrawNode>& slot = nodes_[fd];
  if (slot) clearDeadLocked(fd);
  slot = std::move(node);
  openCount_.store(nodes_.size(), std::memory_order_release);
  return fd;
}

bool Emulation::closeNode(int fd) {
  if (fd < 0 || gInChild.load() || openCount_.load(std::memory_order_acquire) == 0) return false;
  std::unique_ptr<HidrawNode> node;
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = nodes_.find(fd);
  if (it == nodes_.end()) return false;
  node = std::move(it->second);
  nodes_.erase(it);
  openCount_.store(nodes_.size(), std::memory_order_release);
  clearDeadLocked(fd);
  real::close(fd);
  node.reset();  // joins the serving thread
  return true;
}

int Emulation::ioctlNode(int fd, unsigned long request, void* arg, bool& handled) {
  handled = false;
  if (fd < 0 || gInChild.load() || openCount_.load(std::memory_order_acquire) == 0) return -1;
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = nodes_.find(fd);
  if (it == nodes_.end()) return -1;
  if (_IOC_TYPE(request) != 'H') return -1;  // socket-level requests (FIONBIO...) go to the socket
  handled = true;
  HidrawNode& node = *it->second;
  const std::shared_ptr<Camera>& camera = node.camera();
  if (!node.connected() || !camera->plugged()) {
    errno = ENODEV;
    return -1;
  }
  if (arg == nullptr) {
    errno = EFAULT;
    return -1;
  }
  const unsigned size = _IOC_SIZE(request);
  const unsigned nr = _IOC_NR(request);
  // The feature read comes once a chunk: keep it clear of the record copy.
  if (_IOC_DIR(request) == (_IOC_READ | _IOC_WRITE) && nr == _IOC_NR(HIDIOCGFEATURE(0))) {
    std::array<uint8_t, kFeatureReportSize> feature{};
    if (!camera->featureRead(feature)) {
      errno = EIO;
      return -1;
    }
    const size_t count = std::min<size_t>(size, feature.size());
    std::memcpy(arg, feature.data(), count);
    return static_cast<int>(count);
  }
  const CameraConfig config = camera->config();
  auto copyText = [&](const std::string& text) {
    const size_t count = std::min<size_t>(text.size() + 1, size);
    if (count == 0) return 0;
    std::memcpy(arg, text.c_str(), count);
    static_cast<char*>(arg)[count - 1] = '\0';
    return static_cast<int>(count);
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
    if (descriptor.size > sizeof kReportDescriptor) {
      errno = EINVAL;
      return -1;
    }
    std::memcpy(static_cast<uint8_t*>(arg) + sizeof descriptor.size, kReportDescriptor, descriptor.size);
    return 0;
  }
  const bool reads = (_IOC_DIR(request) & _IOC_READ) != 0;
  if (reads && nr == _IOC_NR(HIDIOCGRAWNAME(0))) return copyText(config.hidProductText);
  if (reads && nr == _IOC_NR(HIDIOCGRAWPHYS(0))) {
    auto entryIt =
        std::find_if(cameras_.begin(), cameras_.end(), [&](const Entry& e) { return e.camera == camera; });
    const int port = entryIt != cameras_.end() ? entryIt->port : 1;
    return copyText("usb-vhci_hcd.0-" + std::to_string(port) + "/input2");
  }
  if (reads && nr == _IOC_NR(HIDIOCGRAWUNIQ(0))) return copyText(config.serial);
  errno = ENOTTY;
  return -1;
}

bool Emulation::deadNode(int fd) const {
  if (fd < 0 || !anyDeadNode()) return false;
  for (const auto& slot : deadFds_)
    if (slot.load(std::memory_order_acquire) == fd) return true;
  return false;
}

void Emulation::markDeadLocked(int fd) {
  for (auto& slot : deadFds_) {
    if (slot.load(std::memory_order_relaxed) == -1) {
      slot.store(fd, std::memory_order_release);
      deadCount_.fetch_add(1, std::memory_order_acq_rel);
      return;
    }
  }
}

void Emulation::clearDeadLocked(int fd) {
  for (auto& slot : deadFds_) {
    if (slot.load(std::memory_order_relaxed) == fd) {
      slot.store(-1, std::memory_order_release);
      deadCount_.fetch_sub(1, std::memory_order_acq_rel);
      return;
    }
  }
}

bool Emulation::statNode(const char* path, struct stat& out) {
  const NodeName name = parseNodePath(path);
  if (name.kind == NodeKind::None || gInChild.load()) return false;
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

bool Emulation::statxNode(const char* path, struct statx& out) {
  struct stat st {};
  if (!statNode(path, st)) return false;
  out = {};
  out.stx_mask = STATX_BASIC_STATS;
  out.stx_blksize = static_cast<uint32_t>(st.st_blksize);
  out.stx_nlink = static_cast<uint32_t>(st.st_nlink);
  out.stx_uid = st.st_uid;
  out.stx_gid = st.st_gid;
  out.stx_mode = static_cast<uint16_t>(st.st_mode);
  out.stx_ino = st.st_ino;
  auto stamp = [](const timespec& ts) {
    statx_timestamp t{};
    t.tv_sec = ts.tv_sec;
    t.tv_nsec = static_cast<uint32_t>(ts.tv_nsec);
    return t;
  };
  out.stx_atime = stamp(st.st_atim);
  out.stx_ctime = stamp(st.st_ctim);
  out.stx_mtime = stamp(st.st_mtim);
  out.stx_rdev_major = major(st.st_rdev);
  out.stx_rdev_minor = minor(st.st_rdev);
  out.stx_dev_major = major(st.st_dev);
  out.stx_dev_minor = minor(st.st_dev);
  return true;
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
    const std::string conflict = nodeConflictLocked(config, kNoCamera);
    if (!conflict.empty()) {
      if (error) *error = conflict;
      return kNoCamera;
    }
    Entry entry;
    entry.camera = std::make_shared<Camera>(nextId_++, config);
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

bool Emulation::modify(CameraId id, const std::function<void(CameraConfig&)>& fn) {
  std::lock_guard<std::mutex> lock(mutex_);
  Entry* entry = entryLocked(id);
  if (entry == nullptr) return false;
  CameraConfig changed = entry->camera->config();
  fn(changed);
  if (entry->camera->plugged() && !nodeConflictLocked(changed, id).empty()) return false;
  entry->camera->modify([&](CameraConfig& config) { config = std::move(changed); });
  writeStateLocked();  // identity and udev faults show in udevadm at once
  return true;
}

bool Emulation::sendEvent(CameraId id, const std::vector<uint8_t>& data) {
  std::lock_guard<std::mutex> lock(mutex_);
  Entry* entry = entryLocked(id);
  if (entry == nullptr || !entry->camera->plugged()) return false;
  const std::vector<uint8_t> report = Camera::eventReport(data);
  for (auto& [fd, node] : nodes_) {
    if (node->camera() == entry->camera) node->sendInput(report);
  }
  return true;
}

int Emulation::openNodes(CameraId id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  int count = 0;
  for (const auto& [fd, node] : nodes_) {
    if (node->camera()->id() == id && node->connected()) ++count;
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
  for (auto& [fd, node] : nodes_) {
    if (node->camera() != entry.camera || !node->connected()) continue;
    // Marked first: a reader the disconnect wakes must already find it dead.
    markDeadLocked(fd);
    node->disconnect();
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
