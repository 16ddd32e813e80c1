// The device's self-description: where its description file (XML) is and
// under which name it is cached, the one manifest entry naming that file, the
// capabilities and the nickname.
#pragma once

#include <cstdint>

class TqUvcDevice;

class TqUvcBootstrap {
 public:
  explicit TqUvcBootstrap(TqUvcDevice* owner);
  ~TqUvcBootstrap() = default;
  TqUvcBootstrap(const TqUvcBootstrap&) = delete;
  TqUvcBootstrap& operator=(const TqUvcBootstrap&) = delete;

  // flags bit 1: resolve to a cached local file; bit 0: keep any extension.
  // 0, 0x8001 unsupported location, 0x8FFF unknown location or extension, or
  // a read status.
  uint32_t GetXMLFile(uint32_t which, uint8_t* out, uint32_t outSize, uint32_t flags);
  // The second half of GetXMLFile: turns a location text ("local:name;address;
  // size", "file:path", "http:...") into a local file path in out, downloading
  // a "local:" file into the cache when it is not there yet. Same flags and
  // results as GetXMLFile; a "local:" name that would leave the cache
  // directory is refused with 0x8001.
  uint32_t ResolveXMLLocation(const char* location, uint8_t* out, uint32_t outSize, uint32_t flags);
  // Downloads size bytes from address into the file at path: 0 or 0x8FFF.
  uint32_t LoadXMLFileFromCamera(uint8_t* path, uint32_t address, uint32_t size);
  // 0 with count 1, or 0x8001 with count 0.
  uint32_t GetNrManifestFile(uint32_t* count);
  // Entry 0 only: 0, else 0x8001.
  uint32_t GetManifestFileData(uint32_t which, uint32_t* version, uint32_t* address, char* path,
                               uint32_t pathSize, uint8_t* secPath, uint32_t secPathSize, uint32_t* data0,
                               uint32_t* data1, char* sha);
  // 0 (no capability), or 0x8FFF without device parts.
  uint32_t GetDevCapabilty(uint32_t* capabilities);
  // 0x8008 (the camera has no block write), 0x8FFF without device parts.
  uint32_t SetNick(uint8_t* nick);

  const char* GetUrl() const { return url; }
  const char* GetFilePath() const { return filePath; }

 private:
  TqUvcDevice* device;
  char url[512];
  char filePath[256];
};
