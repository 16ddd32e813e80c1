// Cached reader of integer settings from the SDK's ini file. Every read costs
// one modification-time query; the file is parsed again only when it changed.
#pragma once

#include <rkini.h>

#include <cstdint>

// Cache state, kept as module globals so the library's teardown can close it.
extern RkIniHandle g_hIni;            // null while closed
extern char g_IniFile[512];           // path of the file last opened
extern uint64_t IniModificationTime;  // modification time at the last successful load

// Opens the ini file on first use and reloads it when its modification time
// changed. A missing or unreadable file logs a warning on the "UVC" source and
// leaves the previous content (if any) in place.
void TqUvcCheckIni();

// The integer at [section] key (decimal or 0x-hexadecimal), or defaultValue
// when the file, section or key is missing or the value is not a number.
int TqUvcGetIniIntCached(const char* section, const char* key, int defaultValue);

// Drops the cached file; the next read opens it again. Safe when closed.
void TqUvcCloseIni();
