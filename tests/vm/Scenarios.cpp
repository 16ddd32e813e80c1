// End-to-end scenarios through the exported functions only, against cameras a
// rig plugs: USB cameras on a real kernel inside the test VM (scripts/vmtest),
// or the emulated cameras of a tq-uvc-sim launcher on the host. Besides the
// library, a scenario reads /proc for its threads' CPU time and the library's
// log file (TQ_LOG_FILE) for the lines it wrote.
//
//   tq_vm_scenarios --rig usbcam --usbcam PROGRAM --config FILE --xml FILE [--fault F]...
//   tq-uvc-sim --config FILE -- tq_vm_scenarios --rig sim --launcher tq-uvc-sim --xml FILE
#include <dirent.h>
#include <errno.h>  // program_invocation_short_name (GNU)
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <signal.h>
#include <sys/stat.h>
#include <tq_uvc.h>
#include <tqsim/FramePattern.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Rig.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// What tests/vm/cameras.conf sets up.
const std::string kCameraA = "VM-CAM-A";
const std::string kCameraB = "VM-CAM-B";
const std::string kCameraC = "VM-CAM-C";
constexpr uint32_t kWidth = 320;
constexpr uint32_t kHeight = 240;
const char* const kManufacturer = "Emu Vendor";
const char* const kProduct = "Emu Camera";

struct Options {
  std::string rig = "usbcam";
  std::string usbcam = "tq-uvc-usbcam";
  std::string launcher = "tq-uvc-sim";
  std::string config;
  std::string xml;
  std::vector<std::string> faults;
};
Options gOptions;

std::string logFile() {
  const char* file = std::getenv("TQ_LOG_FILE");
  return file != nullptr ? file : "";
}

constexpr size_t kOldLogsKept = 8;

// Log files of earlier runs (NAME.PID.log in the working directory) whose
// process is gone, all but the newest few removed.
void pruneOldLogs(const std::string& name) {
  DIR* dir = ::opendir(".");
  if (dir == nullptr) return;
  std::vector<std::pair<time_t, std::string>> old;
  const std::string prefix = name + ".";
  while (const dirent* e = ::readdir(dir)) {
    const std::string file = e->d_name;
    if (file.size() <= prefix.size() + 4 || file.compare(0, prefix.size(), prefix) != 0 ||
        file.compare(file.size() - 4, 4, ".log") != 0)
      continue;
    const int pid = std::atoi(file.c_str() + prefix.size());
    if (pid <= 0 || ::kill(pid, 0) == 0 || errno != ESRCH) continue;  // still running
    struct stat st {};
    if (::stat(file.c_str(), &st) == 0) old.emplace_back(st.st_mtime, file);
  }
  ::closedir(dir);
  std::sort(old.begin(), old.end());
  for (size_t i = 0; i + kOldLogsKept < old.size(); ++i) ::unlink(old[i].second.c_str());
}

// The library reads its log settings while the shared library is loaded,
// before anything of this program runs: without them, the program starts
// itself again with them set. Each process writes its own file (NAME.PID.log,
// exec keeps the pid): scenarios run in parallel, and the log line carries
// the thread id, not the process.
void configureLogging(char** argv) {
  if (std::getenv("TQ_LOG") != nullptr && std::getenv("TQ_LOG_FILE") != nullptr) return;
  const std::string name = program_invocation_short_name;
  pruneOldLogs(name);
  setenv("TQ_LOG", "UVC=debug,OSDEP=debug", 0);
  setenv("TQ_LOG_FILE", (name + "." + std::to_string(::getpid()) + ".log").c_str(), 0);
  ::execv("/proc/self/exe", argv);
  std::perror("tq_vm_scenarios: exec /proc/self/exe");
  std::exit(2);
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!done()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

std::string hex(const uint8_t* data, size_t size) {
  std::string out;
  char digits[3];
  for (size_t i = 0; i < size; ++i) {
    std::snprintf(digits, sizeof digits, "%02x", data[i]);
    out += digits;
  }
  return out;
}

std::string sha1Hex(const std::vector<uint8_t>& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha1(), nullptr);
  return hex(digest, length);
}

std::vector<uint8_t> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// ---------------------------------------------------------------- /proc
// CPU time (clock ticks) of every thread of this process but the main one.
std::map<int, long> threadTicks() {
  std::map<int, long> ticks;
  DIR* dir = ::opendir("/proc/self/task");
  if (dir == nullptr) return ticks;
  const int self = static_cast<int>(::getpid());
  while (const dirent* e = ::readdir(dir)) {
    const int tid = std::atoi(e->d_name);
    if (tid <= 0 || tid == self) continue;
    std::ifstream in("/proc/self/task/" + std::string(e->d_name) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) continue;
    // After the name: state is field 3, utime and stime fields 14 and 15.
    std::istringstream fields(stat.substr(close + 2));
    std::string field;
    long utime = 0;
    long stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
      if (i == 14) utime = std::atol(field.c_str());
      if (i == 15) stime = std::atol(field.c_str());
    }
    ticks[tid] = utime + stime;
  }
  ::closedir(dir);
  return ticks;
}

// The lines in the log file from byte `from` on (the file is this process's own).
std::vector<std::string> logLinesFrom(std::streamoff from) {
  std::ifstream in(logFile(), std::ios::binary);
  std::vector<std::string> lines;
  std::string line;
  // A line that was half written at `from` is not one of them.
  if (from > 0 && in.seekg(from - 1) && in.peek() != '\n') std::getline(in, line);
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

std::streamoff logSize() {
  std::ifstream in(logFile(), std::ios::binary | std::ios::ate);
  return in ? static_cast<std::streamoff>(in.tellg()) : 0;
}

// ---------------------------------------------------------------- library helpers
_tagTqUvcDevInfo emptyInfo() {
  _tagTqUvcDevInfo info;
  std::memset(&info, 0xEE, sizeof info);
  info.Size = sizeof info;
  return info;
}

// serial -> (handle, record) of every camera in the walk.
std::map<std::string, std::pair<uint64_t, _tagTqUvcDevInfo>> walk() {
  std::map<std::string, std::pair<uint64_t, _tagTqUvcDevInfo>> cameras;
  _tagTqUvcDevInfo info = emptyInfo();
  for (uint64_t h = TqUvcGetFirstPoolDev(0, &info); h != 0; h = TqUvcNextPoolDev(h, 0, &info)) {
    info.SerialNr[sizeof info.SerialNr - 1] = 0;
    cameras[info.SerialNr] = {h, info};
    info = emptyInfo();
  }
  return cameras;
}

std::string serials(const std::map<std::string, std::pair<uint64_t, _tagTqUvcDevInfo>>& cameras) {
  std::string out;
  for (const auto& c : cameras) out += (out.empty() ? "" : ", ") + c.first;
  return out.empty() ? "none" : out;
}

// The 8 pattern bytes a frame with this header should have at `offset`.
std::vector<uint8_t> expected(const uint8_t* frame, size_t offset) {
  uint32_t n = 0;
  tqsim::frameNumberOf(frame, tqsim::kFrameHeaderBytes, &n);
  std::vector<uint8_t> bytes;
  for (size_t i = offset; i < offset + 8; ++i) bytes.push_back(tqsim::framePatternByte(n, i));
  return bytes;
}

// A client of the frame path: four buffers under a lock table, each frame
// checked against the camera's test pattern as it arrives.
struct Client {
  static constexpr uint32_t kBuffers = 4;
  std::vector<std::vector<uint8_t>> memory;
  uint64_t addresses[kBuffers] = {};
  uint32_t sizes[kBuffers] = {};
  uint32_t lockTable[kBuffers] = {};
  uint32_t currentFrame = 0;
  uint64_t handle = 0;
  std::atomic<int> locks{0};
  std::atomic<int> notifications{0};
  std::atomic<int> goodFrames{0};
  std::atomic<int> badFrames{0};
  std::atomic<uint64_t> lastBlockId{0};
  std::atomic<uint32_t> lockedIndex{0xFFFFFFFF};
  std::atomic<bool> orderBroken{false};
  std::mutex mutex;
  std::string firstProblem;  // under mutex

  Client() : memory(kBuffers, std::vector<uint8_t>(kWidth * kHeight * 2)) {
    for (uint32_t i = 0; i < kBuffers; ++i) {
      addresses[i] = reinterpret_cast<uintptr_t>(memory[i].data());
      sizes[i] = static_cast<uint32_t>(memory[i].size());
      lockTable[i] = (i + 1) % kBuffers;
    }
  }

  void problem(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    if (firstProblem.empty()) firstProblem = what;
  }
  std::string why() {
    std::lock_guard<std::mutex> lock(mutex);
    return firstProblem.empty() ? "no problem seen" : firstProblem;
  }

  static void callback(uint32_t index, uint32_t request, void* device, _tagTqUvcDataBlockInfo* info,
                       uint64_t context) {
    auto* self = reinterpret_cast<Client*>(static_cast<uintptr_t>(context));
    if (reinterpret_cast<uintptr_t>(device) != self->handle) self->broken("callback for another device");
    if (request == TQUVC_REQ_LOCK) {
      if (info != nullptr || self->lockedIndex != 0xFFFFFFFF) self->broken("lock request out of turn");
      self->lockTable[index] = TQUVC_LOCKED;
      self->lockedIndex = index;
      ++self->locks;
      return;
    }
    if (info == nullptr || self->lockedIndex != index || info->BufferIdx != index || info->LockStat != 2 ||
        info->BlockId != self->lastBlockId + 1)
      self->broken("notification does not follow its lock request (buffer " + std::to_string(index) + ")");
    self->lastBlockId = info != nullptr ? info->BlockId : 0;
    self->lockedIndex = 0xFFFFFFFF;
    if (info != nullptr) {
      uint32_t frame = 0;
      size_t firstBad = 0;
      if (!info->Valid || info->DataSize != kWidth * kHeight * 2) {
        ++self->badFrames;
        self->problem("block " + std::to_string(info->BlockId) + ": " + std::to_string(info->DataSize) +
                      " bytes, valid " + std::to_string(info->Valid));
      } else if (!tqsim::verifyFrame(self->memory[index].data(), info->DataSize, &frame, &firstBad)) {
        ++self->badFrames;
        const uint8_t* data = self->memory[index].data();
        self->problem("block " + std::to_string(info->BlockId) + " (" + std::to_string(info->Width) + "x" +
                      std::to_string(info->Height) + "): pattern broken at byte " + std::to_string(firstBad) +
                      " (line " + std::to_string(firstBad / (kWidth * 2)) + "): " + hex(data + firstBad, 8) +
                      ", pattern " + hex(expected(data, firstBad).data(), 8));
      } else {
        ++self->goodFrames;
      }
    }
    ++self->notifications;
    self->lockTable[index] = (index + 1) % kBuffers;
  }

  void broken(const std::string& what) {
    orderBroken = true;
    problem(what);
  }
};

// ---------------------------------------------------------------- fixture
class VmScenario : public ::testing::Test {
 protected:
  void SetUp() override {
    if (gOptions.rig == "sim")
      rig_ = vmtest::makeSimRig(gOptions.launcher);
    else
      rig_ = vmtest::makeUsbCamRig(gOptions.usbcam, gOptions.config, gOptions.faults);
    nameNewThreads("already running");
  }
  void TearDown() override {
    for (uint64_t h : connected_) TqUvcDisconnect(h);
    if (initialized_) TqUvcLibraryUninit();
    std::string error;
    EXPECT_TRUE(rig_->unplugAll(&error)) << error;
  }

  vmtest::Nodes plug(const std::string& serial, bool elsewhere = false) {
    vmtest::Nodes nodes;
    std::string error;
    EXPECT_TRUE(rig_->plug(serial, &nodes, &error, elsewhere)) << "plugging " << serial << ": " << error;
    return nodes;
  }
  void unplug(const std::string& serial) {
    std::string error;
    EXPECT_TRUE(rig_->unplug(serial, &error)) << "unplugging " << serial << ": " << error;
  }
  void init() {
    TqUvcLibraryInit();
    initialized_ = true;
    nameNewThreads("started by init");
  }
  // The camera's handle after a scan, 0 (with a failure saying what the scan found) when absent.
  uint64_t scanFor(const std::string& serial) {
    TqUvcScanDevices(0, 0, 100);
    nameNewThreads("started by a scan");
    const auto cameras = walk();
    auto it = cameras.find(serial);
    EXPECT_NE(it, cameras.end()) << "the scan did not find " << serial << "; it found: " << serials(cameras);
    return it == cameras.end() ? 0 : it->second.first;
  }
  bool connect(uint64_t h) {
    const uint32_t status = TqUvcConnect(h, 0);
    nameNewThreads("hidraw reader (started by connect)");
    EXPECT_EQ(status, 0u) << "connect to handle " << h;
    if (status == 0) connected_.push_back(h);
    return status == 0;
  }
  void disconnect(uint64_t h) {
    EXPECT_EQ(TqUvcDisconnect(h), 0u);
    connected_.erase(std::remove(connected_.begin(), connected_.end(), h), connected_.end());
  }
  // Opens the stream channel into the client's buffers and starts it.
  bool startStream(Client& client, uint64_t h) {
    client.handle = h;
    _tagTqUvcBufDimension dim{};
    dim.LineIncrement = kWidth * 2;
    bool ok = TqUvcOpenStrmChan(h, 0, 0, 0) == 0;
    ok = ok && TqUvcCfgMemory(h, 0, client.addresses, client.sizes, Client::kBuffers) == 0;
    ok = ok &&
         TqUvcCfgLockTable(h, 0, client.lockTable, reinterpret_cast<uint8_t*>(&client.currentFrame)) == 0;
    ok = ok && TqUvcCfgBufferDim(h, 0, &dim) == 0;
    ok = ok && TqUvcRegisterDataCallback(h, 0, &Client::callback, reinterpret_cast<uintptr_t>(&client)) == 0;
    ok = ok && TqUvcStreamStart(h, 0) == 0;
    nameNewThreads("capture thread (started by stream start)");
    EXPECT_TRUE(ok) << "opening and starting the stream of handle " << h;
    return ok;
  }
  void stopStream(uint64_t h) {
    TqUvcStreamStop(h, 0);
    EXPECT_EQ(TqUvcCloseStrmChan(h), 0u);
  }
  // Waits for `frames` notifications and checks every frame and the lock protocol.
  void expectGoodFrames(Client& client, int frames, const std::string& what) {
    EXPECT_TRUE(waitUntil([&] { return client.notifications >= frames; }, 30s))
        << what << ": " << client.notifications << " frames in 30 s, " << frames << " wanted";
    EXPECT_EQ(client.badFrames.load(), 0) << what << ": " << client.badFrames << " bad frames of "
                                          << client.notifications << "; first: " << client.why();
    EXPECT_FALSE(client.orderBroken) << what << ": " << client.why();
    EXPECT_GE(client.goodFrames.load(), frames) << what << ": first problem: " << client.why();
  }

  // Which call started each thread of the process: the library names none.
  void nameNewThreads(const std::string& name) {
    for (const auto& thread : threadTicks()) threadNames_.emplace(thread.first, name);
  }
  std::string threadName(int tid) const {
    auto it = threadNames_.find(tid);
    return it != threadNames_.end() ? it->second : "started later";
  }

  struct UnplugWatch {
    Clock::time_point time;
    std::map<int, long> ticks;
    std::streamoff logSize = 0;
  };
  // Call just before the unplug: the quiet check counts from here.
  UnplugWatch watchUnplug() const { return {Clock::now(), threadTicks(), logSize()}; }
  void expectQuietAfterUnplug(Client& client, const UnplugWatch& watch);

  std::unique_ptr<vmtest::Rig> rig_;
  bool initialized_ = false;
  std::vector<uint64_t> connected_;
  std::map<int, std::string> threadNames_;
};

// The value of the first ATTRS{name}=="value" line of a udevadm walk.
std::string firstAttribute(const std::string& walkText, const std::string& name) {
  const std::string key = "ATTRS{" + name + "}==\"";
  const size_t at = walkText.find(key);
  if (at == std::string::npos) return "(none)";
  const size_t start = at + key.size();
  return walkText.substr(start, walkText.find('"', start) - start);
}

// The walk the system's udevadm prints for a node: the nearest idVendor and
// serial must be the camera's (the root hub above it has its own).
void expectUdevWalk(const std::string& node, const std::string& serial) {
  std::string path;
  ASSERT_EQ(vmtest::runProgram({"udevadm", "info", "-q", "path", "-n", node}, &path), 0)
      << "udevadm -q path " << node;
  while (!path.empty() && path.back() == '\n') path.pop_back();
  std::string walkText;
  ASSERT_EQ(vmtest::runProgram({"udevadm", "info", "-a", "-p", path}, &walkText), 0) << "udevadm -a " << node;
  EXPECT_EQ(firstAttribute(walkText, "idVendor"), "7a3d") << node << ":\n" << walkText;
  EXPECT_EQ(firstAttribute(walkText, "idProduct"), "0203") << node;
  EXPECT_EQ(firstAttribute(walkText, "serial"), serial)
      << node << ": the nearest serial of the walk is not the camera's:\n"
      << walkText;
}

TEST_F(VmScenario, ScanAndIdentity) {
  const vmtest::Nodes nodes = plug(kCameraA);
  ASSERT_FALSE(HasFailure());
  expectUdevWalk("/dev/hidraw" + std::to_string(nodes.hidraw), kCameraA);
  expectUdevWalk("/dev/video" + std::to_string(nodes.video), kCameraA);
  init();
  EXPECT_EQ(TqUvcScanDevices(0, 0, 100), 0x8001u);
  const auto cameras = walk();
  ASSERT_EQ(cameras.size(), 1u) << "cameras found: " << serials(cameras);
  ASSERT_EQ(cameras.count(kCameraA), 1u) << "cameras found: " << serials(cameras);
  const _tagTqUvcDevInfo& info = cameras.at(kCameraA).second;
  EXPECT_EQ(info.Vid, 0x7A3Du);
  EXPECT_EQ(info.Pid, 0x0203u);
  EXPECT_STREQ(info.ManfctName, kManufacturer);
  EXPECT_STREQ(info.ModName, kProduct);
  EXPECT_EQ(info.Flags, 0u);
  // A second scan keeps the handle.
  const uint64_t h = cameras.at(kCameraA).first;
  EXPECT_EQ(scanFor(kCameraA), h);
}

TEST_F(VmScenario, RegistersAndMemory) {
  plug(kCameraA);
  init();
  const uint64_t h = scanFor(kCameraA);
  ASSERT_NE(h, 0u);
  uint32_t value = 0;
  EXPECT_EQ(TqUvcWriteReg(h, 0x40123, 5), 0x8008u) << "writes need a connection";
  ASSERT_TRUE(connect(h));
  EXPECT_EQ(TqUvcReadReg(h, 0x40A04, &value), 0u);
  EXPECT_EQ(value, kWidth);
  EXPECT_EQ(TqUvcReadReg(h, 0x40A08, &value), 0u);
  EXPECT_EQ(value, kHeight);
  for (uint32_t v : {0x12345678u, 0xFFFFFFFFu, 0u}) {
    EXPECT_EQ(TqUvcWriteReg(h, 0x40123, v), 0u);
    EXPECT_EQ(TqUvcReadReg(h, 0x40123, &value), 0u);
    EXPECT_EQ(value, v) << "register 0x40123 after writing " << v;
  }
  EXPECT_EQ(TqUvcReadReg(h, 0x3FFFF, &value), static_cast<uint32_t>(-101)) << "below the register space";

  char model[16] = {};
  EXPECT_EQ(TqUvcReadMem(h, 0x44, reinterpret_cast<uint8_t*>(model), 12), 0u);
  EXPECT_STREQ(model, kProduct);
  char version[16] = {};
  EXPECT_EQ(TqUvcReadMem(h, 0x405D0, reinterpret_cast<uint8_t*>(version), sizeof version), 0u);
  EXPECT_STREQ(version, "1.2.3.0");
  disconnect(h);
}

TEST_F(VmScenario, XmlDownloadAndManifest) {
  const std::vector<uint8_t> reference = readFile(gOptions.xml);
  ASSERT_FALSE(reference.empty()) << "no reference description file at " << gOptions.xml;
  const std::string sha = sha1Hex(reference);
  plug(kCameraA);
  init();
  const uint64_t h = scanFor(kCameraA);
  ASSERT_NE(h, 0u);
  ASSERT_TRUE(connect(h));

  uint32_t count = 0;
  EXPECT_EQ(TqUvcGetNrManifestFile(h, &count), 0u);
  EXPECT_EQ(count, 1u);
  uint32_t version = 0;
  uint32_t address = 0;
  char path[256] = {};
  char manifestSha[41] = {};
  ASSERT_EQ(TqUvcGetManifestFileData(h, 0, &version, &address, reinterpret_cast<uint8_t*>(path), sizeof path,
                                     nullptr, 0, nullptr, nullptr, reinterpret_cast<uint8_t*>(manifestSha)),
            0u);
  char size[16];
  std::snprintf(size, sizeof size, "%8.8x", static_cast<unsigned>(reference.size()));
  EXPECT_EQ(address, 0x100000u);
  EXPECT_EQ(std::string(manifestSha), sha) << "the camera's SHA-1 of its description file";
  const std::string tail = "_" + sha + ".xml;00100000;" + size;
  const std::string pathText = path;
  EXPECT_TRUE(pathText.rfind("local:", 0) == 0 && pathText.size() > tail.size() &&
              pathText.compare(pathText.size() - tail.size(), tail.size(), tail) == 0)
      << "manifest path " << pathText << ", wanted local:NAME" << tail;

  std::vector<uint8_t> download(reference.size(), 0);
  EXPECT_EQ(TqUvcReadMem(h, 0x100000, download.data(), static_cast<uint32_t>(download.size())), 0u);
  size_t firstDiff = 0;
  while (firstDiff < download.size() && download[firstDiff] == reference[firstDiff]) ++firstDiff;
  EXPECT_EQ(firstDiff, reference.size())
      << "the download differs from the file from byte " << firstDiff << " of " << reference.size()
      << " on (SHA-1 " << sha1Hex(download) << ")";
  disconnect(h);
}

TEST_F(VmScenario, StreamingPixelsAndLockTable) {
  plug(kCameraA);
  init();
  const uint64_t h = scanFor(kCameraA);
  ASSERT_NE(h, 0u);
  ASSERT_TRUE(connect(h));
  Client client;
  ASSERT_TRUE(startStream(client, h));
  expectGoodFrames(client, 12, kCameraA);
  EXPECT_EQ(TqUvcStreamStop(h, 0), 0u);
  EXPECT_EQ(TqUvcStreamStop(h, 0), 0x8FFFu) << "already stopped";
  EXPECT_EQ(TqUvcCloseStrmChan(h), 0u);
  EXPECT_EQ(client.locks.load(), client.notifications.load());
  EXPECT_LT(client.currentFrame, Client::kBuffers);
  disconnect(h);
}

TEST_F(VmScenario, TwoCamerasAtOnce) {
  const vmtest::Nodes a = plug(kCameraA);
  const vmtest::Nodes b = plug(kCameraB, true);
  ASSERT_FALSE(HasFailure());
  EXPECT_NE(a.hidraw, b.hidraw);
  EXPECT_NE(a.video, b.video);
  init();
  const uint64_t ha = scanFor(kCameraA);
  const uint64_t hb = scanFor(kCameraB);
  ASSERT_TRUE(ha != 0 && hb != 0);
  EXPECT_NE(ha, hb);
  ASSERT_TRUE(connect(ha));
  ASSERT_TRUE(connect(hb));
  EXPECT_EQ(TqUvcWriteReg(ha, 0x40124, 0xA), 0u);
  EXPECT_EQ(TqUvcWriteReg(hb, 0x40124, 0xB), 0u);
  uint32_t value = 0;
  EXPECT_EQ(TqUvcReadReg(ha, 0x40124, &value), 0u);
  EXPECT_EQ(value, 0xAu) << "each camera keeps its own registers";
  EXPECT_EQ(TqUvcReadReg(hb, 0x40124, &value), 0u);
  EXPECT_EQ(value, 0xBu);

  Client clientA;
  Client clientB;
  ASSERT_TRUE(startStream(clientA, ha));
  ASSERT_TRUE(startStream(clientB, hb));
  expectGoodFrames(clientA, 8, kCameraA);
  expectGoodFrames(clientB, 8, kCameraB);
  stopStream(ha);
  stopStream(hb);
}

// Limits for the library's threads after an unplug while streaming. From the
// unplug on they may clean up (bounded CPU and log lines, since a thread that
// spins or floods for a while and then stops is a fault too); once settled, a
// window shows that nothing polls the dead nodes.
constexpr auto kSettleQuiet = 500ms;
constexpr auto kSettleLimit = 10s;
constexpr double kCpuSinceUnplug = 0.5;  // seconds, each thread
constexpr size_t kLinesSinceUnplug = 20;
constexpr auto kWindow = 1500ms;
constexpr double kCpuInWindow = 0.1;  // seconds, each thread
constexpr size_t kLinesInWindow = 4;

std::string seconds(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f s", value);
  return text;
}

std::string sample(const std::vector<std::string>& lines, size_t from) {
  std::string out;
  for (size_t i = from; i < lines.size() && i < from + 5; ++i) out += "\n  " + lines[i];
  return out;
}

void VmScenario::expectQuietAfterUnplug(Client& client, const UnplugWatch& watch) {
  // Threads that end on their own leave /proc: their last sample counts.
  std::map<int, long> last = watch.ticks;
  auto sampleTicks = [&] {
    for (const auto& [tid, ticks] : threadTicks()) last[tid] = ticks;
  };
  // Settled when neither a frame nor a log line came for a while.
  int seen = client.notifications;
  size_t logSeen = logLinesFrom(watch.logSize).size();
  auto lastChange = Clock::now();
  const bool settled = waitUntil(
      [&] {
        sampleTicks();
        const size_t logNow = logLinesFrom(watch.logSize).size();
        if (client.notifications != seen || logNow != logSeen) {
          seen = client.notifications;
          logSeen = logNow;
          lastChange = Clock::now();
        }
        return Clock::now() - lastChange > kSettleQuiet;
      },
      std::chrono::duration_cast<std::chrono::milliseconds>(kSettleLimit));
  EXPECT_TRUE(settled) << "frames or log lines still came " << std::chrono::seconds(kSettleLimit).count()
                       << " s after the unplug (the settle wait's limit): " << logSeen
                       << " log lines since the unplug, first:" << sample(logLinesFrom(watch.logSize), 0);

  const std::map<int, long> windowStartTicks = threadTicks();
  const std::streamoff windowLog = logSize();
  const auto windowStart = Clock::now();
  std::this_thread::sleep_for(kWindow);  // the measuring window, not a wait for a condition
  const double windowSeconds = std::chrono::duration<double>(Clock::now() - windowStart).count();
  const double sinceUnplug = std::chrono::duration<double>(Clock::now() - watch.time).count();
  sampleTicks();
  const std::map<int, long> now = threadTicks();
  const std::vector<std::string> windowLines = logLinesFrom(windowLog);
  const std::vector<std::string> unplugLines = logLinesFrom(watch.logSize);

  const double hz = static_cast<double>(::sysconf(_SC_CLK_TCK));
  double busiestSince = 0;
  double busiestWindow = 0;
  std::string perThread;
  for (const auto& [tid, ticks] : last) {
    auto at = watch.ticks.find(tid);
    const double since = static_cast<double>(ticks - (at == watch.ticks.end() ? 0 : at->second)) / hz;
    double inWindow = 0;
    auto w = windowStartTicks.find(tid);
    if (now.count(tid) != 0 && w != windowStartTicks.end())
      inWindow = static_cast<double>(ticks - w->second) / hz;
    busiestSince = std::max(busiestSince, since);
    busiestWindow = std::max(busiestWindow, inWindow);
    perThread += "\n  tid " + std::to_string(tid) + ", " + threadName(tid) + ": " + seconds(since) +
                 " since the unplug, " + seconds(inWindow) + " in the window" +
                 (now.count(tid) == 0 ? " (ended)" : "");
  }
  EXPECT_LE(busiestSince, kCpuSinceUnplug)
      << "a thread used more than " << seconds(kCpuSinceUnplug) << " of CPU in the " << seconds(sinceUnplug)
      << " since the unplug:" << perThread;
  // A thread polling a dead node burns the whole window; a quiet one nothing.
  EXPECT_LE(busiestWindow, kCpuInWindow) << "a thread kept running after the unplug settled ("
                                         << seconds(windowSeconds) << " window):" << perThread;
  EXPECT_LE(unplugLines.size(), kLinesSinceUnplug)
      << unplugLines.size() << " log lines in the " << seconds(sinceUnplug)
      << " since the unplug; first:" << sample(unplugLines, 0);
  EXPECT_LE(windowLines.size(), kLinesInWindow)
      << windowLines.size() << " log lines in the " << seconds(windowSeconds)
      << " after the unplug settled; first:" << sample(windowLines, 0);
}

TEST_F(VmScenario, UnplugWhileStreamingThenReplug) {
  plug(kCameraA);
  init();
  const uint64_t h = scanFor(kCameraA);
  ASSERT_NE(h, 0u);
  ASSERT_TRUE(connect(h));
  auto client = std::make_unique<Client>();
  ASSERT_TRUE(startStream(*client, h));
  ASSERT_TRUE(waitUntil([&] { return client->notifications >= 3; }, 30s)) << "no frames before the unplug";

  const UnplugWatch watch = watchUnplug();
  unplug(kCameraA);
  expectQuietAfterUnplug(*client, watch);
  const auto t0 = Clock::now();
  TqUvcStreamStop(h, 0);
  TqUvcCloseStrmChan(h);
  disconnect(h);
  EXPECT_LT(Clock::now() - t0, 10s) << "stop, close and disconnect of an unplugged camera took too long";
  TqUvcScanDevices(0, 0, 100);
  EXPECT_EQ(walk().count(kCameraA), 0u) << "an unplugged camera stays in the walk";

  plug(kCameraA);
  EXPECT_EQ(scanFor(kCameraA), h) << "a replugged camera gets its handle back";
  ASSERT_TRUE(connect(h));
  client = std::make_unique<Client>();
  ASSERT_TRUE(startStream(*client, h));
  expectGoodFrames(*client, 6, "after the replug");
  stopStream(h);
  disconnect(h);
}

TEST_F(VmScenario, ReplugUnderAnotherNodeNumber) {
  const vmtest::Nodes first = plug(kCameraA);
  init();
  const uint64_t ha = scanFor(kCameraA);
  ASSERT_NE(ha, 0u);
  ASSERT_TRUE(connect(ha));
  auto client = std::make_unique<Client>();
  ASSERT_TRUE(startStream(*client, ha));
  ASSERT_TRUE(waitUntil([&] { return client->notifications >= 3; }, 30s)) << "no frames before the unplug";

  // Back while the library still holds the old nodes: other numbers.
  const UnplugWatch watch = watchUnplug();
  unplug(kCameraA);
  expectQuietAfterUnplug(*client, watch);
  const vmtest::Nodes second = plug(kCameraA, true);
  ASSERT_FALSE(HasFailure());
  EXPECT_NE(second.hidraw, first.hidraw) << "the camera came back on the same hidraw node";
  EXPECT_NE(second.video, first.video) << "the camera came back on the same video node";
  stopStream(ha);
  disconnect(ha);
  // The freed numbers go to the next camera, which closes the gap the
  // library's hidraw pass would stop at.
  plug(kCameraC, true);
  ASSERT_FALSE(HasFailure());

  EXPECT_EQ(scanFor(kCameraA), ha) << "the camera keeps its handle on new nodes";
  const uint64_t hc = scanFor(kCameraC);
  EXPECT_NE(hc, 0u);
  EXPECT_NE(hc, ha);
  ASSERT_TRUE(connect(ha));
  client = std::make_unique<Client>();
  ASSERT_TRUE(startStream(*client, ha));
  expectGoodFrames(*client, 6, "after the replug on " + second.text());
  stopStream(ha);
}

constexpr size_t kLogLinesShown = 40;

// A failed scenario shows the last library log lines it caused: in the VM the
// file is gone once the guest powers off, and the console is all that stays.
class LogOnFailure : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo&) override { start_ = logSize(); }
  void OnTestEnd(const ::testing::TestInfo& test) override {
    if (!test.result()->Failed()) return;
    const std::vector<std::string> lines = logLinesFrom(start_);
    const size_t from = lines.size() > kLogLinesShown ? lines.size() - kLogLinesShown : 0;
    std::printf("--- library log of %s.%s (%s): last %zu of %zu lines\n", test.test_suite_name(), test.name(),
                logFile().c_str(), lines.size() - from, lines.size());
    for (size_t i = from; i < lines.size(); ++i) std::printf("%s\n", lines[i].c_str());
    std::printf("--- end of the library log\n");
    std::fflush(stdout);
  }
  std::streamoff start_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  configureLogging(argv);
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::UnitTest::GetInstance()->listeners().Append(new LogOnFailure);
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string& into) {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "tq_vm_scenarios: %s needs a value\n", arg.c_str());
        std::exit(2);
      }
      into = argv[++i];
    };
    if (arg == "--rig") {
      value(gOptions.rig);
    } else if (arg == "--usbcam") {
      value(gOptions.usbcam);
    } else if (arg == "--launcher") {
      value(gOptions.launcher);
    } else if (arg == "--config") {
      value(gOptions.config);
    } else if (arg == "--xml") {
      value(gOptions.xml);
    } else if (arg == "--fault") {
      gOptions.faults.emplace_back();
      value(gOptions.faults.back());
    } else {
      std::fprintf(stderr, "tq_vm_scenarios: unknown option %s\n", arg.c_str());
      return 2;
    }
  }
  if (gOptions.rig != "sim" && gOptions.rig != "usbcam") {
    std::fprintf(stderr, "tq_vm_scenarios: --rig is usbcam or sim\n");
    return 2;
  }
  std::printf("rig: %s; log: %s\n", gOptions.rig.c_str(), logFile().c_str());
  for (const std::string& f : gOptions.faults) std::printf("camera fault: %s\n", f.c_str());
  return RUN_ALL_TESTS();
}
