#include "Rig.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <thread>

namespace vmtest {

namespace {

using Clock = std::chrono::steady_clock;

std::string readText(const std::string& path) {
  std::ifstream in(path);
  std::string text;
  std::getline(in, text);
  return text;
}

bool exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

// Serial of the USB device above a class device (the first parent with
// idVendor), empty when there is none.
std::string usbSerialOf(const std::string& classDevice) {
  char* real = ::realpath((classDevice + "/device").c_str(), nullptr);
  if (real == nullptr) return {};
  std::string dir = real;
  std::free(real);
  while (dir.size() > std::strlen("/sys/devices")) {
    if (exists(dir + "/idVendor")) return readText(dir + "/serial");
    dir.erase(dir.rfind('/'));
  }
  return {};
}

// Numbers N of /sys/class/<cls>/<prefix>N, ascending.
std::vector<int> classNumbers(const std::string& cls, const std::string& prefix) {
  std::vector<int> numbers;
  DIR* dir = ::opendir(("/sys/class/" + cls).c_str());
  if (dir == nullptr) return numbers;
  while (const dirent* e = ::readdir(dir)) {
    const std::string name = e->d_name;
    if (name.compare(0, prefix.size(), prefix) == 0 && name.size() > prefix.size())
      numbers.push_back(std::atoi(name.c_str() + prefix.size()));
  }
  ::closedir(dir);
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!done()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// Both nodes present, also in /dev (devtmpfs creates them with the device).
bool complete(const Nodes& n) {
  return n.hidraw >= 0 && n.video >= 0 && exists("/dev/hidraw" + std::to_string(n.hidraw)) &&
         exists("/dev/video" + std::to_string(n.video));
}

bool absent(const Nodes& n) { return n.hidraw < 0 && n.video < 0; }

// ---------------------------------------------------------------- USB cameras
class UsbCamRig : public Rig {
 public:
  UsbCamRig(std::string program, std::string config, std::vector<std::string> faults)
      : program_(std::move(program)), config_(std::move(config)), faults_(std::move(faults)) {}
  ~UsbCamRig() override {
    std::string ignored;
    unplugAll(&ignored);
  }

  bool plug(const std::string& serial, Nodes* nodes, std::string* error, bool /*elsewhere*/) override {
    if (running_.count(serial) != 0) return fail(error, serial + " is already plugged");
    std::vector<std::string> argv = {program_, "--config", config_, "--serial", serial};
    for (const std::string& f : faults_) {
      argv.push_back("--fault");
      argv.push_back(f);
    }
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return fail(error, std::string("pipe: ") + std::strerror(errno));
    const pid_t pid = ::fork();
    if (pid < 0) return fail(error, std::string("fork: ") + std::strerror(errno));
    if (pid == 0) {
      ::dup2(out[1], STDOUT_FILENO);
      std::vector<char*> args;
      for (std::string& a : argv) args.push_back(a.data());
      args.push_back(nullptr);
      ::execv(args[0], args.data());
      ::_exit(127);
    }
    ::close(out[1]);
    const std::string line = readLine(out[0], std::chrono::seconds(20));
    ::close(out[0]);
    const std::string want = "tq-uvc-usbcam: " + serial + " attached on port ";
    if (line.compare(0, want.size(), want) != 0) {
      stop(pid);
      return fail(error, program_ + " for " + serial + " did not attach (its line: \"" + line + "\")");
    }
    running_[serial] = pid;
    Nodes found;
    if (!waitFor([&] { return complete(found = nodesOf(serial)); }, std::chrono::seconds(20)))
      return fail(
          error, serial + " attached, but its nodes did not appear within 20 s (found " + found.text() + ")");
    if (nodes != nullptr) *nodes = found;
    return true;
  }

  bool unplug(const std::string& serial, std::string* error) override {
    auto it = running_.find(serial);
    if (it == running_.end()) return fail(error, serial + " is not plugged");
    const int status = stop(it->second);
    running_.erase(it);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
      return fail(error, program_ + " for " + serial + " ended with status " + std::to_string(status));
    if (!waitFor([&] { return absent(nodesOf(serial)); }, std::chrono::seconds(20)))
      return fail(error, serial + " unplugged, but its nodes stayed: " + nodesOf(serial).text());
    return true;
  }

  bool unplugAll(std::string* error) override {
    bool ok = true;
    while (!running_.empty()) {
      std::string why;
      if (!unplug(running_.begin()->first, &why)) {
        ok = false;
        *error += why + "; ";
      }
    }
    return ok;
  }

  std::string describe() const override { return "USB cameras served by " + program_; }

 private:
  // A camera whose video function carries another serial (a fault) shows its
  // video node under that serial.
  Nodes nodesOf(const std::string& serial) const {
    Nodes n = sysfsNodes(serial);
    for (const std::string& f : faults_)
      if (f.rfind("video-serial=", 0) == 0) n.video = sysfsNodes(f.substr(13)).video;
    return n;
  }

  static bool fail(std::string* error, const std::string& why) {
    if (error != nullptr) *error = why;
    return false;
  }

  static std::string readLine(int fd, std::chrono::milliseconds timeout) {
    std::string line;
    const auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline) {
      pollfd p{fd, POLLIN, 0};
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (::poll(&p, 1, static_cast<int>(left.count()) + 1) <= 0) continue;
      char c = 0;
      if (::read(fd, &c, 1) != 1) break;
      if (c == '\n') break;
      line += c;
    }
    return line;
  }

  // SIGTERM, then SIGKILL after 10 s; the wait status.
  static int stop(pid_t pid) {
    ::kill(pid, SIGTERM);
    int status = 0;
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (::waitpid(pid, &status, WNOHANG) == 0) {
      if (Clock::now() > deadline) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        return status;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return status;
  }

  std::string program_;
  std::string config_;
  std::vector<std::string> faults_;
  std::map<std::string, pid_t> running_;
};

// ---------------------------------------------------------------- emulated cameras
class SimRig : public Rig {
 public:
  explicit SimRig(std::string launcher) : launcher_(std::move(launcher)) {
    std::string ignored;
    for (const auto& [serial, line] : status())
      if (line.find(" plugged") != std::string::npos) command({"unplug", serial}, &ignored);
  }

  bool plug(const std::string& serial, Nodes* nodes, std::string* error, bool elsewhere) override {
    std::vector<std::string> words = {"plug", serial};
    if (elsewhere) words.emplace_back("--new-nodes");
    if (!command(words, error)) return false;
    if (nodes != nullptr) *nodes = nodesOf(serial);
    return true;
  }

  bool unplug(const std::string& serial, std::string* error) override {
    return command({"unplug", serial}, error);
  }

  bool unplugAll(std::string* error) override {
    bool ok = true;
    for (const auto& [serial, line] : status())
      if (line.find(" plugged") != std::string::npos) ok = command({"unplug", serial}, error) && ok;
    return ok;
  }

  std::string describe() const override { return "emulated cameras of " + launcher_; }

 private:
  bool command(const std::vector<std::string>& words, std::string* error) {
    std::vector<std::string> argv = {launcher_};
    argv.insert(argv.end(), words.begin(), words.end());
    std::string out;
    const int rc = runProgram(argv, &out);
    if (rc == 0) return true;
    if (error != nullptr)
      *error = launcher_ + " " + words[0] + " " + words[1] + " failed with " + std::to_string(rc);
    return false;
  }

  // serial -> its status line.
  std::map<std::string, std::string> status() {
    std::string out;
    runProgram({launcher_, "status"}, &out);
    std::map<std::string, std::string> lines;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line)) lines[line.substr(0, line.find(' '))] = line;
    return lines;
  }

  // From "SERIAL plugged /dev/hidrawH /dev/videoV ...".
  Nodes nodesOf(const std::string& serial) {
    Nodes n;
    std::istringstream in(status()[serial]);
    std::string word;
    while (in >> word) {
      if (n.hidraw < 0 && word.rfind("/dev/hidraw", 0) == 0) n.hidraw = std::atoi(word.c_str() + 11);
      if (n.video < 0 && word.rfind("/dev/video", 0) == 0) n.video = std::atoi(word.c_str() + 10);
    }
    return n;
  }

  std::string launcher_;
};

}  // namespace

std::string Nodes::text() const {
  return "hidraw " + (hidraw < 0 ? std::string("-") : std::to_string(hidraw)) + ", video " +
         (video < 0 ? std::string("-") : std::to_string(video));
}

Nodes sysfsNodes(const std::string& serial) {
  Nodes n;
  for (int h : classNumbers("hidraw", "hidraw")) {
    if (usbSerialOf("/sys/class/hidraw/hidraw" + std::to_string(h)) == serial) {
      n.hidraw = h;
      break;
    }
  }
  for (int v : classNumbers("video4linux", "video")) {
    const std::string dir = "/sys/class/video4linux/video" + std::to_string(v);
    if (readText(dir + "/index") == "0" && usbSerialOf(dir) == serial) {
      n.video = v;
      break;
    }
  }
  return n;
}

int runProgram(const std::vector<std::string>& argv, std::string* out) {
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
  const pid_t pid = ::fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    ::dup2(pipeFds[1], STDOUT_FILENO);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  ::close(pipeFds[1]);
  char buffer[4096];
  ssize_t n = 0;
  while ((n = ::read(pipeFds[0], buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR))
    if (n > 0 && out != nullptr) out->append(buffer, static_cast<size_t>(n));
  ::close(pipeFds[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::unique_ptr<Rig> makeUsbCamRig(const std::string& program, const std::string& config,
                                   const std::vector<std::string>& faults) {
  return std::make_unique<UsbCamRig>(program, config, faults);
}

std::unique_ptr<Rig> makeSimRig(const std::string& launcher) { return std::make_unique<SimRig>(launcher); }

}  // namespace vmtest
