// Clocks, sleep, string compares, file times, the SDK's paths, debug break.
#include <pwd.h>
#include <rkosdep.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "OsLog.h"

namespace {

constexpr size_t kPathMax = 4096;

int lowerAscii(unsigned char c) { return (c >= 'A' && c <= 'Z') ? c - 'A' + 'a' : c; }

// An XDG variable counts only when it holds an absolute path.
const char* xdgDir(const char* var) {
  const char* v = getenv(var);
  return (v && v[0] == '/') ? v : nullptr;
}

std::string homeDir() {
  const char* home = getenv("HOME");
  if (home && home[0]) return home;
  struct passwd pw;
  struct passwd* found = nullptr;
  char buf[4096];
  if (getpwuid_r(getuid(), &pw, buf, sizeof(buf), &found) == 0 && found && found->pw_dir)
    return found->pw_dir;
  return "/tmp";
}

// Hands out a path through a per-thread buffer, so concurrent callers never
// see each other's text.
const char* keep(const std::string& path) {
  thread_local char buffer[kPathMax];
  size_t n = path.size() < kPathMax - 1 ? path.size() : kPathMax - 1;
  memcpy(buffer, path.data(), n);
  buffer[n] = '\0';
  return buffer;
}

bool makeDirs(const std::string& dir) {
  std::string partial;
  size_t pos = 0;
  while (pos != std::string::npos) {
    pos = dir.find('/', pos + 1);
    partial = dir.substr(0, pos);
    if (partial.empty()) continue;
    if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  struct stat st;
  return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool debuggerAttached() {
  FILE* f = fopen("/proc/self/status", "re");
  if (!f) return false;
  char line[256];
  bool attached = false;
  while (fgets(line, sizeof(line), f)) {
    if (strncmp(line, "TracerPid:", 10) == 0) {
      attached = strtol(line + 10, nullptr, 10) != 0;
      break;
    }
  }
  fclose(f);
  return attached;
}

}  // namespace

TQ_EXPORT uint32_t RkOsGetTickCount(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  uint64_t ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
  return static_cast<uint32_t>(ms);
}

TQ_EXPORT uint64_t RkOsGetTickCountPrecise(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

TQ_EXPORT void RkOsSleep(uint32_t ms) {
#if defined(__SANITIZE_THREAD__)
  // ThreadSanitizer loses track of a thread cancelled inside nanosleep (and
  // then reports races that are none); a cancelled condition wait it handles.
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_t cond;
  pthread_cond_init(&cond, &attr);
  pthread_condattr_destroy(&attr);
  timespec deadline = tqos::deadlineAfter(ms);
  pthread_mutex_lock(&mutex);
  struct Cleanup {
    pthread_mutex_t* m;
    pthread_cond_t* c;
    ~Cleanup() {
      pthread_mutex_unlock(m);
      pthread_cond_destroy(c);
      pthread_mutex_destroy(m);
    }
  } cleanup{&mutex, &cond};
  while (pthread_cond_timedwait(&cond, &mutex, &deadline) != ETIMEDOUT) {
  }
#else
  struct timespec left;
  left.tv_sec = static_cast<time_t>(ms / 1000);
  left.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
#endif
}

TQ_EXPORT int RkOsStricmp(const char* a, const char* b) {
  if (!a || !b) return a ? 1 : (b ? -1 : 0);
  for (;; ++a, ++b) {
    int d = lowerAscii(static_cast<unsigned char>(*a)) - lowerAscii(static_cast<unsigned char>(*b));
    if (d != 0 || *a == '\0') return d;
  }
}

TQ_EXPORT int RkOsStrnicmp(const char* a, const char* b, size_t n) {
  if (n == 0) return 0;
  if (!a || !b) return a ? 1 : (b ? -1 : 0);
  for (size_t i = 0; i < n; ++i) {
    int d = lowerAscii(static_cast<unsigned char>(a[i])) - lowerAscii(static_cast<unsigned char>(b[i]));
    if (d != 0 || a[i] == '\0') return d;
  }
  return 0;
}

TQ_EXPORT uint64_t RkOsGetFileModificationTime(const char* path) {
  struct stat st;
  if (!path || stat(path, &st) != 0) return 0;
  return static_cast<uint64_t>(st.st_mtim.tv_sec) * 1000000000u + static_cast<uint64_t>(st.st_mtim.tv_nsec);
}

TQ_EXPORT const char* RkOsGetCorvaleIniFile(void) {
  try {
    const char* own = getenv("TQ_INI_FILE");
    if (own && own[0]) return keep(own);
    const char* xdg = xdgDir("XDG_CONFIG_HOME");
    std::string base = xdg ? std::string(xdg) : homeDir() + "/.config";
    return keep(base + "/tarquel/tarquel.ini");
  } catch (const std::exception&) {
    return "";
  }
}

TQ_EXPORT const char* RkOsGetCorvaleXmlCachePath(int create) {
  try {
    std::string dir;
    const char* own = getenv("TQ_XML_CACHE");
    if (own && own[0]) {
      dir = own;
    } else {
      const char* xdg = xdgDir("XDG_CACHE_HOME");
      dir = (xdg ? std::string(xdg) : homeDir() + "/.cache") + "/tarquel/xml";
    }
    if (dir.back() != '/') dir.push_back('/');
    if (create && !makeDirs(dir))
      tqos::osLog(RKLOG_WARNING, "RkOsGetCorvaleXmlCachePath: cannot create \"%s\": %s", dir.c_str(),
                  strerror(errno));
    return keep(dir);
  } catch (const std::exception&) {
    return "";
  }
}

TQ_EXPORT void tqDebugBreak(const char* text) {
  tqos::osLog(RKLOG_ERROR, "%s", text ? text : "(null)");
  const char* force = getenv("TQ_DEBUG_BREAK");
  if ((force && strcmp(force, "1") == 0) || debuggerAttached()) raise(SIGTRAP);
}
