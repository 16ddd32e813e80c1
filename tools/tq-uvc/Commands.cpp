#include "Commands.h"

#include <openssl/evp.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <iomanip>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "Camera.h"
#include "Image.h"
#include "Nodes.h"
#include "Status.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

// A camera that stops delivering frames for this long counts as failed.
constexpr auto kFrameTimeout = std::chrono::seconds(10);
constexpr uint32_t kVersionAddress = 0xC4;
// The live line with a progress bar stays within an 80-column terminal.
constexpr size_t kProgressWidth = 79;

std::string hex32(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", value);
  return text;
}

// Waits until `done` holds, the deadline passes or a stop is requested; the
// signal handler cannot notify, hence the short slices.
template <typename Predicate>
bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, Clock::time_point deadline,
               Predicate done) {
  while (!done()) {
    if (stopRequested().load() || Clock::now() >= deadline) return false;
    cv.wait_until(lock, std::min(deadline, Clock::now() + std::chrono::milliseconds(100)));
  }
  return true;
}

std::string versionOf(const Camera& camera) {
  try {
    Connection connection(camera.handle);
    std::string version = readIdentity(camera.handle, kVersionAddress);
    if (!version.empty()) return version;
  } catch (const Error&) {
    // Held by another program: the record's text is the next best thing.
  }
  const std::string recorded = fieldText(camera.info.DevVersion, sizeof camera.info.DevVersion);
  return recorded.empty() ? "?" : recorded;
}

std::string join(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : ",") + item;
  return text.empty() ? "-" : text;
}

struct Manifest {
  uint32_t version = 0;
  uint32_t address = 0;
  std::string path;
  std::string sha;
  uint32_t data0 = 0;
  uint32_t data1 = 0;
};

Manifest readManifest(uint64_t handle) {
  Manifest m;
  uint8_t path[512] = {};
  uint8_t sha[41] = {};
  check(TqUvcGetManifestFileData(handle, 0, &m.version, &m.address, path, sizeof path, nullptr, 0, &m.data0,
                                 &m.data1, sha),
        "read the manifest");
  path[sizeof path - 1] = 0;
  sha[sizeof sha - 1] = 0;
  m.path = reinterpret_cast<const char*>(path);
  m.sha = reinterpret_cast<const char*>(sha);
  return m;
}

std::string sha1Hex(const std::vector<uint8_t>& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha1(), nullptr) != 1)
    throw Error("SHA-1 computation failed");
  std::string text;
  char byte[3];
  for (unsigned i = 0; i < length; ++i) {
    std::snprintf(byte, sizeof byte, "%02x", digest[i]);
    text += byte;
  }
  return text;
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

struct ConnectedCamera {
  Library library;
  Camera camera;
  Connection connection;
  explicit ConnectedCamera(const std::string& selector)
      : camera(selectCamera(scanCameras(), selector)), connection(camera.handle) {}
};

}  // namespace

std::atomic<bool>& stopRequested() {
  static std::atomic<bool> flag{false};
  return flag;
}

std::atomic<int>& stopSignal() {
  static std::atomic<int> number{0};
  return number;
}

int Interrupted::exitStatus() {
  const int signal = stopSignal().load();
  return 128 + (signal != 0 ? signal : SIGINT);
}

DescriptionFile parseDescriptionFileLocation(const std::string& location) {
  // local:NAME;ADDRESS;SIZE, address and size in hex
  if (lower(location.substr(0, 6)) != "local:")
    throw Error("unexpected description-file location: " + location);
  const std::string rest = location.substr(6);
  const size_t first = rest.find(';');
  const size_t second = first == std::string::npos ? first : rest.find(';', first + 1);
  if (second == std::string::npos)
    throw Error("no address and size in the description-file location: " + location);
  DescriptionFile file;
  file.name = rest.substr(0, first);
  // Only the file-name part: the camera's text must not pick a directory.
  const size_t slash = file.name.find_last_of("/\\");
  if (slash != std::string::npos) file.name = file.name.substr(slash + 1);
  if (file.name.empty() || file.name == "." || file.name == "..")
    throw Error("no file name in the description-file location: " + location);
  file.address = parseHex(rest.substr(first + 1, second - first - 1));
  file.size = parseHex(rest.substr(second + 1));
  return file;
}

uint32_t parseHex(const std::string& text) {
  std::string digits = text;
  if (digits.rfind("0x", 0) == 0 || digits.rfind("0X", 0) == 0) digits = digits.substr(2);
  if (digits.empty() || digits.size() > 8 ||
      digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
    throw Error("not a 32-bit hex number: \"" + text + "\"");
  return static_cast<uint32_t>(std::stoul(digits, nullptr, 16));
}

int runList(std::ostream& out) {
  Library library;
  const std::vector<Camera> cameras = scanCameras();
  if (cameras.empty()) {
    out << "no cameras found\n";
    return 0;
  }
  std::map<std::pair<uint32_t, uint32_t>, std::map<std::string, CameraNodes>> nodes;
  for (const Camera& c : cameras) {
    auto key = std::make_pair(c.info.Vid, c.info.Pid);
    if (nodes.count(key) == 0) nodes[key] = findCameraNodes(c.info.Vid, c.info.Pid);
  }
  out << std::left << std::setw(7) << "handle" << std::setw(17) << "serial" << std::setw(17) << "model"
      << std::setw(17) << "manufacturer" << std::setw(11) << "version" << std::setw(14) << "hidraw"
      << "video\n";
  for (const Camera& c : cameras) {
    const CameraNodes& n = nodes[{c.info.Vid, c.info.Pid}][c.serial()];
    out << std::left << std::setw(7) << c.handle << std::setw(17) << c.serial() << std::setw(17) << c.model()
        << std::setw(17) << c.manufacturer() << std::setw(11) << versionOf(c) << std::setw(14)
        << join(n.hidraw) << join(n.video) << '\n';
  }
  return 0;
}

int runInfo(std::ostream& out, const std::string& selector) {
  ConnectedCamera cc(selector);
  const uint64_t h = cc.camera.handle;
  const _tagTqUvcDevInfo& i = cc.camera.info;
  char ids[32];
  std::snprintf(ids, sizeof ids, "%04x:%04x", i.Vid, i.Pid);
  out << "device\n"
      << "  handle          " << h << '\n'
      << "  index           " << i.DevIndex << '\n'
      << "  usb id          " << ids << " interface " << i.MI << '\n'
      << "  usb version     " << hex32(i.UsbVersion) << '\n'
      << "  hid camera      " << i.HIDCamIndex << '\n'
      << "  flags           " << hex32(i.Flags) << '\n'
      << "  manufacturer    " << cc.camera.manufacturer() << '\n'
      << "  model           " << cc.camera.model() << '\n'
      << "  version         " << fieldText(i.DevVersion, sizeof i.DevVersion) << '\n'
      << "  info            " << fieldText(i.ManfctSpecInf, sizeof i.ManfctSpecInf) << '\n'
      << "  serial          " << cc.camera.serial() << '\n'
      << "  nickname        " << fieldText(i.Nickname, sizeof i.Nickname) << '\n';
  out << "identity (bootstrap memory)\n";
  const std::pair<uint32_t, const char*> identity[] = {{0x4, "manufacturer"}, {0x44, "model"},
                                                       {0x84, "family"},      {0xC4, "version"},
                                                       {0x104, "info"},       {0x144, "serial"}};
  for (const auto& [address, name] : identity)
    out << "  " << std::left << std::setw(14) << name << hex32(address) << "  " << readIdentity(h, address)
        << '\n';
  uint32_t capabilities = 0;
  check(TqUvcGetDevCapabilty(h, &capabilities), "read the capabilities");
  out << "capabilities      " << hex32(capabilities) << '\n';
  const Geometry g = readGeometry(h);
  out << "image             " << g.width << "x" << g.height << ", " << g.pitch << " bytes per line\n";
  uint32_t count = 0;
  check(TqUvcGetNrManifestFile(h, &count), "count the manifest entries");
  const Manifest m = readManifest(h);
  out << "manifest          " << count << (count == 1 ? " entry" : " entries") << '\n'
      << "  version         " << hex32(m.version) << '\n'
      << "  address         " << hex32(m.address) << '\n'
      << "  path            " << m.path << '\n'
      << "  sha1            " << m.sha << '\n';
  return 0;
}

int runRead(std::ostream& out, const std::string& selector, const std::vector<std::string>& addressTexts) {
  std::vector<uint32_t> addresses;
  for (const std::string& text : addressTexts) addresses.push_back(parseHex(text));
  ConnectedCamera cc(selector);
  const std::vector<uint32_t> values = readRegisters(cc.camera.handle, addresses);
  for (size_t k = 0; k < addresses.size(); ++k)
    out << hex32(addresses[k]) << " = " << hex32(values[k]) << '\n';
  return 0;
}

int runWrite(std::ostream& out, const std::string& selector, const std::vector<std::string>& pairs) {
  if (pairs.empty() || pairs.size() % 2 != 0) throw Error("write needs ADDR VALUE pairs");
  std::vector<uint32_t> addresses;
  std::vector<uint32_t> values;
  for (size_t k = 0; k < pairs.size(); k += 2) {
    addresses.push_back(parseHex(pairs[k]));
    values.push_back(parseHex(pairs[k + 1]));
  }
  ConnectedCamera cc(selector);
  writeRegisters(cc.camera.handle, addresses, values);
  for (size_t k = 0; k < addresses.size(); ++k)
    out << hex32(addresses[k]) << " <- " << hex32(values[k]) << '\n';
  return 0;
}

int runReadMem(std::ostream& out, const std::string& selector, const std::string& addressText,
               const std::string& lengthText) {
  const uint32_t address = parseHex(addressText);
  const uint32_t length = parseHex(lengthText);
  constexpr uint32_t kMaxLength = 16u << 20;
  if (length == 0 || length > kMaxLength) throw Error("length must be 1..0x" + hex32(kMaxLength).substr(2));
  ConnectedCamera cc(selector);
  // The library writes 12 bytes at the identity addresses whatever length is
  // asked, and serves at most 60 bytes of camera memory per call (a request
  // of 60 or more is cut to 60): read in blocks it serves whole, into a buffer
  // with room to spare.
  constexpr uint32_t kIdentitySize = 12;
  constexpr uint32_t kMemoryBlock = 59;
  const bool cameraMemory = address >= 0x40000 && address <= 0x4FFFF;
  std::vector<uint8_t> data(std::max(length, kIdentitySize) + 64);
  if (cameraMemory) {
    for (uint32_t done = 0; done < length; done += kMemoryBlock) {
      const uint32_t block = std::min(kMemoryBlock, length - done);
      check(TqUvcReadMem(cc.camera.handle, address + done, data.data() + done, block),
            "read memory at " + hex32(address + done));
    }
  } else {
    check(TqUvcReadMem(cc.camera.handle, address, data.data(), length), "read memory at " + hex32(address));
  }
  char line[128];
  for (uint32_t offset = 0; offset < length; offset += 16) {
    int n = std::snprintf(line, sizeof line, "%08X ", address + offset);
    std::string ascii;
    for (uint32_t k = 0; k < 16; ++k) {
      if (offset + k < length) {
        const uint8_t b = data[offset + k];
        n += std::snprintf(line + n, sizeof line - static_cast<size_t>(n), " %02X", b);
        ascii += (b >= 0x20 && b < 0x7F) ? static_cast<char>(b) : '.';
      } else {
        n += std::snprintf(line + n, sizeof line - static_cast<size_t>(n), "   ");
      }
    }
    out << line << "  " << ascii << '\n';
  }
  return 0;
}

int runXml(std::ostream& out, const std::string& selector, const std::string& outputPath) {
  ConnectedCamera cc(selector);
  const Manifest m = readManifest(cc.camera.handle);
  const DescriptionFile file = parseDescriptionFileLocation(m.path);
  const std::string& name = file.name;
  const uint32_t size = file.size;
  if (size == 0) throw Error("the camera reports an empty description file");
  if (m.sha.size() != 40) throw Error("the camera delivered no SHA-1 for its description file");

  // The camera hands the file out in whole 32-bit words.
  std::vector<uint8_t> data((size + 3u) & ~3u);
  check(TqUvcReadMem(cc.camera.handle, m.address, data.data(), static_cast<uint32_t>(data.size())),
        "read the description file at " + hex32(m.address));
  data.resize(size);
  const std::string actual = sha1Hex(data);
  if (actual != lower(m.sha))
    throw Error("SHA-1 mismatch: the manifest says " + lower(m.sha) + ", the download has " + actual);

  const std::string path = outputPath.empty() ? name : outputPath;
  {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    if (!file.flush()) throw Error("cannot write " + path);
  }
  out << "description file: " << size << " bytes, SHA-1 " << actual << " matches the manifest\n"
      << "saved to " << path << '\n';
  return 0;
}

int runGrab(std::ostream& out, const std::string& selector, unsigned frames, const std::string& outputPath) {
  if (frames == 0) throw Error("grab needs at least one frame");
  const bool everyFrame = outputPath.find("%d") != std::string::npos;
  ConnectedCamera cc(selector);
  const Geometry geometry = readGeometry(cc.camera.handle);

  struct Captured {
    std::vector<uint8_t> data;
    uint32_t width, height;
    bool valid;
  };
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<Captured> queue;  // frames still to be written
  unsigned received = 0;
  Clock::time_point lastFrame = Clock::now();

  {
    StreamSession session(
        cc.camera.handle, geometry,
        [&](const Frame& frame) {
          std::lock_guard<std::mutex> guard(mutex);
          if (received >= frames) return;
          ++received;
          lastFrame = Clock::now();
          if (everyFrame || received == frames) {
            const size_t bytes =
                std::min<size_t>(frame.info->DataSize, static_cast<size_t>(geometry.pitch) * geometry.height);
            queue.push_back({std::vector<uint8_t>(frame.data, frame.data + bytes), frame.info->Width,
                             frame.info->Height, frame.info->Valid != 0});
          }
          cv.notify_all();
        },
        StreamSession::Options{});
    unsigned written = 0;
    std::unique_lock<std::mutex> lock(mutex);
    while (written < (everyFrame ? frames : 1u)) {
      if (!waitUntil(lock, cv, lastFrame + kFrameTimeout, [&] { return !queue.empty(); })) {
        if (stopRequested())
          throw Interrupted(std::to_string(received) + " of " + std::to_string(frames) + " frames received");
        throw Error("no frame from the camera for " + std::to_string(kFrameTimeout.count()) + " s (" +
                    std::to_string(received) + " of " + std::to_string(frames) + " received)");
      }
      Captured frame = std::move(queue.front());
      queue.pop_front();
      const unsigned number = everyFrame ? written : frames - 1;
      lock.unlock();
      const std::string path = everyFrame ? frameFileName(outputPath, number) : outputPath;
      const std::vector<uint8_t> rgb =
          yuyvToRgb(frame.data.data(), frame.data.size(), frame.width, frame.height, geometry.pitch);
      std::string error;
      if (!writePng(path, rgb, frame.width, frame.height, &error))
        throw Error("cannot write " + path + ": " + error);
      out << "frame " << number << ": " << frame.width << "x" << frame.height
          << (frame.valid ? "" : " (incomplete)") << " saved to " << path << '\n';
      ++written;
      lock.lock();
    }
  }
  return 0;
}

int runStream(std::ostream& out, const std::string& selector, const StreamLimits& limits) {
  ConnectedCamera cc(selector);
  const Geometry geometry = readGeometry(cc.camera.handle);
  std::mutex mutex;
  std::condition_variable cv;
  uint64_t frames = 0;
  uint64_t bytes = 0;
  uint64_t incomplete = 0;
  Clock::time_point lastFrame = Clock::now();

  StreamSession::Options options;
  options.hold = limits.hold;
  StreamSession session(
      cc.camera.handle, geometry,
      [&](const Frame& frame) {
        std::lock_guard<std::mutex> guard(mutex);
        ++frames;
        bytes += frame.info->DataSize;
        if (frame.info->Valid == 0) ++incomplete;
        lastFrame = Clock::now();
        cv.notify_all();
      },
      options);

  const Clock::time_point start = Clock::now();
  const Clock::time_point end =
      limits.seconds > 0
          ? start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(limits.seconds))
          : Clock::time_point::max();
  auto secondsSince = [](Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
  };
  auto mib = [](uint64_t n) { return static_cast<double>(n) / (1024.0 * 1024.0); };

  std::unique_lock<std::mutex> lock(mutex);
  uint64_t lastFrames = 0;
  uint64_t lastBytes = 0;
  Clock::time_point tick = start;
  bool stalled = false;
  auto limitReached = [&] { return (limits.frames != 0 && frames >= limits.frames) || Clock::now() >= end; };
  // Lines on whole seconds from the start; a limit reached in between ends
  // the run without a partial line (the summary follows).
  for (int second = 1; !stopRequested(); ++second) {
    const Clock::time_point next = start + std::chrono::seconds(second);
    waitUntil(lock, cv, std::min(next, end), limitReached);
    if (Clock::now() - lastFrame > kFrameTimeout) {
      stalled = true;
      break;
    }
    if (Clock::now() < next) break;  // limit or stop request
    const double dt = std::chrono::duration<double>(Clock::now() - tick).count();
    tick = Clock::now();
    const uint64_t nowFrames = frames;
    const uint64_t nowBytes = bytes;
    const uint64_t nowIncomplete = incomplete;
    // Printed without the lock: a blocked stdout must not stall the capture
    // thread's callback.
    lock.unlock();
    const double fps = static_cast<double>(nowFrames - lastFrames) / dt;
    const double rate = mib(nowBytes - lastBytes) / dt;
    const auto lost = static_cast<unsigned long long>(session.lostFrames());
    lastFrames = nowFrames;
    lastBytes = nowBytes;
    char line[200];
    if (limits.progressBar && (limits.frames != 0 || limits.seconds > 0)) {
      double done = limits.frames != 0 ? static_cast<double>(nowFrames) / static_cast<double>(limits.frames)
                                       : secondsSince(start) / limits.seconds;
      done = std::min(1.0, done);
      constexpr int kBar = 20;
      const int filled = static_cast<int>(done * kBar);
      std::snprintf(line, sizeof line, "%5.1f fps %7.2f MiB/s  incomplete %llu  lost %llu", fps, rate,
                    static_cast<unsigned long long>(nowIncomplete), lost);
      std::string text = "[" + std::string(static_cast<size_t>(filled), '#') +
                         std::string(static_cast<size_t>(kBar - filled), '.') + "] ";
      char percent[8];
      std::snprintf(percent, sizeof percent, "%3d%% ", static_cast<int>(done * 100));
      text += percent + std::string(line);
      text.resize(kProgressWidth, ' ');  // also blanks what a longer line left
      out << '\r' << text << std::flush;
    } else {
      std::snprintf(line, sizeof line,
                    "%5.1f fps  %7.2f MiB/s  frames %llu  incomplete %llu  lost (all buffers locked) %llu",
                    fps, rate, static_cast<unsigned long long>(nowFrames),
                    static_cast<unsigned long long>(nowIncomplete), lost);
      out << line << '\n' << std::flush;
    }
    lock.lock();
    if (limitReached()) break;
  }
  if (limits.progressBar && (limits.frames != 0 || limits.seconds > 0)) out << '\n';
  const double elapsed = secondsSince(start);
  const uint64_t total = frames;
  const uint64_t totalBytes = bytes;
  const uint64_t totalIncomplete = incomplete;
  lock.unlock();
  char summary[300];
  std::snprintf(summary, sizeof summary,
                "summary: %llu frames in %.1f s (%.1f fps, %.2f MiB/s, %.1f MiB), %llu incomplete, "
                "%llu lost because all buffers were locked\n",
                static_cast<unsigned long long>(total), elapsed, static_cast<double>(total) / elapsed,
                mib(totalBytes) / elapsed, mib(totalBytes), static_cast<unsigned long long>(totalIncomplete),
                static_cast<unsigned long long>(session.lostFrames()));
  out << summary << std::flush;
  if (stalled || (total == 0 && !stopRequested()))
    throw Error("no frame from the camera for " + std::to_string(kFrameTimeout.count()) + " s");
  if (stopRequested()) throw Interrupted();
  return 0;
}

int runMonitor(std::ostream& out, unsigned intervalMs) {
  Library library;
  std::map<uint64_t, Camera> present;
  auto describe = [](const Camera& c) {
    return "handle " + std::to_string(c.handle) + "  serial " + c.serial() + "  " + c.manufacturer() + " " +
           c.model();
  };
  bool first = true;
  while (!stopRequested()) {
    std::map<uint64_t, Camera> now;
    for (const Camera& c : scanCameras()) now[c.handle] = c;
    for (const auto& [handle, camera] : present)
      if (now.count(handle) == 0) out << "left     " << describe(camera) << '\n';
    for (const auto& [handle, camera] : now)
      if (present.count(handle) == 0) out << (first ? "present  " : "arrived  ") << describe(camera) << '\n';
    if (first && now.empty()) out << "no cameras yet\n";
    out << std::flush;
    present = std::move(now);
    first = false;
    const Clock::time_point next = Clock::now() + std::chrono::milliseconds(intervalMs);
    while (!stopRequested() && Clock::now() < next)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return 0;
}

}  // namespace tool
