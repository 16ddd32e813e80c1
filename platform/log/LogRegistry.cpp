#include "LogRegistry.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace tqlog {
namespace {

// Everything here is trivially destructible on purpose: other libraries log
// from their static destructors, after ours would otherwise have run.
struct Source {
  char name[kMaxNameLength + 1];
  char parent[kMaxNameLength + 1];
  bool muted;
  std::atomic<unsigned> mask;
};

struct ConfigEntry {
  char name[kMaxNameLength + 1];
  unsigned mask;
};

constexpr size_t kMaxConfigEntries = 64;
constexpr int kMaxParentDepth = 32;  // guards against parent cycles

std::mutex registryMutex;
Source sources[kMaxSources];  // id n lives at index n - 1
std::atomic<size_t> sourceCount{0};

// Guarded by registryMutex.
bool configured = false;
ConfigEntry configEntries[kMaxConfigEntries];
size_t configCount = 0;
unsigned fallbackMask = kDefaultLevels;

bool asciiEqualNoCase(const char* a, const char* b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    char ca = a[i], cb = b[i];
    if (ca >= 'A' && ca <= 'Z') ca = static_cast<char>(ca - 'A' + 'a');
    if (cb >= 'A' && cb <= 'Z') cb = static_cast<char>(cb - 'A' + 'a');
    if (ca != cb) return false;
  }
  return true;
}

void copyName(char* dst, const char* src) {
  size_t n = src ? strnlen(src, kMaxNameLength) : 0;
  memcpy(dst, src ? src : "", n);
  dst[n] = '\0';
}

const ConfigEntry* findConfig(const char* name) {
  size_t len = strlen(name);
  // The last entry for a name wins, as a later word on the line should.
  for (size_t i = configCount; i-- > 0;) {
    if (strlen(configEntries[i].name) == len && asciiEqualNoCase(configEntries[i].name, name, len))
      return &configEntries[i];
  }
  return nullptr;
}

Source* findSource(const char* name) {
  size_t count = sourceCount.load(std::memory_order_relaxed);
  for (size_t i = 0; i < count; ++i)
    if (strcmp(sources[i].name, name) == 0) return &sources[i];
  return nullptr;
}

unsigned computeMask(const Source& s) {
  if (const ConfigEntry* own = findConfig(s.name)) return own->mask;
  if (s.muted) return 0;
  // Inherit by name, so a parent that registers later (or never) still counts.
  const char* parent = s.parent;
  for (int depth = 0; parent[0] != '\0' && depth < kMaxParentDepth; ++depth) {
    if (const ConfigEntry* e = findConfig(parent)) return e->mask;
    const Source* p = findSource(parent);
    if (!p) break;
    parent = p->parent;
  }
  return fallbackMask;
}

void recomputeAll() {
  size_t count = sourceCount.load(std::memory_order_relaxed);
  for (size_t i = 0; i < count; ++i)
    sources[i].mask.store(computeMask(sources[i]), std::memory_order_relaxed);
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

void trim(const char** begin, const char** end) {
  while (*begin < *end && isSpace(**begin)) ++*begin;
  while (*end > *begin && isSpace((*end)[-1])) --*end;
}

void parseLevels(const char* levels) {
  configCount = 0;
  fallbackMask = kDefaultLevels;
  if (!levels) return;
  const char* p = levels;
  while (*p) {
    const char* itemEnd = p;
    while (*itemEnd && *itemEnd != ',' && *itemEnd != ';') ++itemEnd;
    const char* eq = static_cast<const char*>(memchr(p, '=', static_cast<size_t>(itemEnd - p)));
    const char* nameBegin = p;
    const char* nameEnd = eq ? eq : p;
    const char* levelBegin = eq ? eq + 1 : p;
    const char* levelEnd = itemEnd;
    trim(&nameBegin, &nameEnd);
    trim(&levelBegin, &levelEnd);
    unsigned mask = 0;
    // Unknown words are skipped: a typo must not silence the rest of the line.
    if (levelEnd > levelBegin &&
        parseLevelMask(levelBegin, static_cast<size_t>(levelEnd - levelBegin), &mask)) {
      size_t nameLen = static_cast<size_t>(nameEnd - nameBegin);
      bool everyone = nameLen == 0 || (nameLen == 1 && *nameBegin == '*');
      if (everyone) {
        fallbackMask = mask;
      } else if (configCount < kMaxConfigEntries) {
        ConfigEntry& e = configEntries[configCount++];
        size_t n = nameLen < kMaxNameLength ? nameLen : kMaxNameLength;
        memcpy(e.name, nameBegin, n);
        e.name[n] = '\0';
        e.mask = mask;
      }
    }
    p = *itemEnd ? itemEnd + 1 : itemEnd;
  }
}

void ensureConfiguredLocked() {
  if (configured) return;
  parseLevels(getenv("TQ_LOG"));
  configured = true;
}

}  // namespace

bool parseLevelMask(const char* word, size_t length, unsigned* mask) {
  struct Named {
    const char* name;
    unsigned mask;
  };
  static const Named kNames[] = {
      {"off", 0},     {"none", 0},    {"fatal", 0x01}, {"error", 0x03}, {"warning", 0x07},
      {"warn", 0x07}, {"info", 0x0F}, {"debug", 0x1F}, {"trace", 0x3F}, {"all", kAllLevels},
  };
  if (length == 0) return false;
  for (const Named& n : kNames) {
    if (strlen(n.name) == length && asciiEqualNoCase(n.name, word, length)) {
      *mask = n.mask;
      return true;
    }
  }
  char digits[32];
  if (length >= sizeof(digits)) return false;
  memcpy(digits, word, length);
  digits[length] = '\0';
  if (digits[0] < '0' || digits[0] > '9') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long value = strtoul(digits, &end, 0);
  if (errno != 0 || *end != '\0') return false;
  *mask = static_cast<unsigned>(value) & kAllLevels;
  return true;
}

unsigned registerSource(const char* name, const char* parent, bool muted) {
  if (!name || !name[0]) return 0;
  std::lock_guard<std::mutex> lock(registryMutex);
  ensureConfiguredLocked();
  char key[kMaxNameLength + 1];
  copyName(key, name);
  size_t count = sourceCount.load(std::memory_order_relaxed);
  for (size_t i = 0; i < count; ++i)
    if (strcmp(sources[i].name, key) == 0) return static_cast<unsigned>(i + 1);
  if (count == kMaxSources) return 0;
  Source& s = sources[count];
  memcpy(s.name, key, sizeof(key));
  copyName(s.parent, parent);
  s.muted = muted;
  s.mask.store(0, std::memory_order_relaxed);
  // Publish before recomputing: the new source may be the missing link of a
  // chain registered earlier.
  sourceCount.store(count + 1, std::memory_order_release);
  recomputeAll();
  return static_cast<unsigned>(count + 1);
}

unsigned enabledLevels(unsigned id) {
  if (id == 0 || id > sourceCount.load(std::memory_order_acquire)) return 0;
  return sources[id - 1].mask.load(std::memory_order_relaxed);
}

const char* sourceName(unsigned id) {
  if (id == 0 || id > sourceCount.load(std::memory_order_acquire)) return nullptr;
  return sources[id - 1].name;
}

void configure(const char* levels) {
  std::lock_guard<std::mutex> lock(registryMutex);
  parseLevels(levels ? levels : getenv("TQ_LOG"));
  configured = true;
  recomputeAll();
}

}  // namespace tqlog
