#include "support/TqUvcIni.h"

#include <rkosdep.h>

#include <mutex>

#include "support/LibLogs.h"
#include "support/StringUtils.h"

RkIniHandle g_hIni = nullptr;
char g_IniFile[512] = {};
uint64_t IniModificationTime = 0;

namespace {

// Devices and channels may be opened from several caller threads at once, and
// each reads settings; one lock keeps the reload from racing with a read.
std::mutex& iniMutex() {
  static std::mutex m;
  return m;
}

void checkIniLocked() {
  if (g_hIni != nullptr) {
    const uint64_t now = RkOsGetFileModificationTime(g_IniFile);
    // 0 means the file cannot be read: never a match, so a missing file is
    // retried (and warned about) on every read instead of silently skipped.
    if (now != 0 && now == IniModificationTime) return;
    Log.Debug("TqUvcGetIniIntCached: ini file \"%s\" has changed. Loading new", g_IniFile);
    if (!RkIniLoad(g_hIni, g_IniFile)) {
      Log.Warning("TqUvcGetIniIntCached: cannot load ini file:\"%s\"\n", g_IniFile);
      return;
    }
    IniModificationTime = now;
    return;
  }

  g_hIni = RkIniOpen(";");
  const char* path = RkOsGetCorvaleIniFile();
  rk::SafeStrCpy(g_IniFile, path != nullptr ? path : "", sizeof(g_IniFile));
  // Taken before the load: a change while parsing then shows up at the next read.
  const uint64_t now = RkOsGetFileModificationTime(g_IniFile);
  if (g_hIni == nullptr || !RkIniLoad(g_hIni, g_IniFile)) {
    Log.Warning("TqUvcGetIniIntCached: cannot load ini file:\"%s\"\n", g_IniFile);
    return;
  }
  IniModificationTime = now;
}

}  // namespace

void TqUvcCheckIni() {
  std::lock_guard<std::mutex> lock(iniMutex());
  checkIniLocked();
}

int TqUvcGetIniIntCached(const char* section, const char* key, int defaultValue) {
  std::lock_guard<std::mutex> lock(iniMutex());
  checkIniLocked();
  return static_cast<int>(RkIniGetInteger(g_hIni, section, key, defaultValue, 1));
}

void TqUvcCloseIni() {
  std::lock_guard<std::mutex> lock(iniMutex());
  if (g_hIni != nullptr) RkIniClose(g_hIni);
  g_hIni = nullptr;
}
