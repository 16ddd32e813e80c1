#include "control/TqUvcBootstrap.h"

#include <rkosdep.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "control/TqUvcCtrlChan.h"
#include "control/VexaHID_Interface.h"
#include "pool/TqUvcDevice.h"
#include "pool/TqUvcDiscPkt.h"
#include "support/StringUtils.h"

namespace {

constexpr uint32_t kUrlAddressFirst = 0x200;
constexpr uint32_t kUrlAddressSecond = 0x400;
constexpr uint32_t kCapabilityAddress = 0x1C4;
constexpr uint32_t kNickAddress = 0xE8;
constexpr uint32_t kManifestVersion = 0x04014104;
constexpr uint32_t kFlagKeepFile = 1;
constexpr uint32_t kFlagResolve = 2;
constexpr size_t kPathSize = 256;
constexpr size_t kShaTextSize = 41;

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

// Bounded copy into a caller's buffer; always terminated when there is room.
void copyOut(void* out, uint32_t outSize, const char* text) {
  if (out == nullptr || outSize == 0) return;
  auto* dst = static_cast<char*>(out);
  if (outSize == 1) {
    dst[0] = '\0';
    return;
  }
  rk::SafeStrCpy(dst, text != nullptr ? text : "", outSize);
}

bool startsWithNoCase(const char* text, const char* prefix) {
  return RkOsStrnicmp(text, prefix, std::strlen(prefix)) == 0;
}

// A cached name is joined to the cache directory as it is. Without '/' only
// "." and ".." (and no name at all) can name something other than a file in
// it; ".." inside a name ("TQ_X..M._...") is harmless and common, since
// cleaned model names turn odd characters into dots.
bool leavesCacheDirectory(const std::string& name) {
  return name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos;
}

}  // namespace

TqUvcBootstrap::TqUvcBootstrap(TqUvcDevice* owner) : device(owner), url{}, filePath{} {}

uint32_t TqUvcBootstrap::GetXMLFile(uint32_t which, uint8_t* out, uint32_t outSize, uint32_t flags) {
  if (device == nullptr) return 0x8FFF;
  rk::CLog& log = device->GetLog();
  log.Debug("TqUvcBootstrap::GetXMLFile()\n");
  TqUvcCtrlChan* ctrl = device->GetCtrlChan();
  if (ctrl == nullptr) return 0x8FFF;

  const uint32_t address = which == 1 ? kUrlAddressFirst : kUrlAddressSecond;
  const uint32_t status = ctrl->ReadMem(address, reinterpret_cast<uint8_t*>(url), sizeof(url));
  // The block read fills all 512 bytes and need not terminate them.
  url[sizeof(url) - 1] = '\0';
  if (status != 0) {
    log.Fatal("GetXMLFile: Unable to get 1st choice XML path from camera (Ret=0x%.08X)\n", status);
    return status;
  }

  if ((flags & kFlagResolve) == 0) {
    copyOut(out, outSize, url);
    return 0;
  }
  return ResolveXMLLocation(url, out, outSize, flags);
}

uint32_t TqUvcBootstrap::ResolveXMLLocation(const char* location, uint8_t* out, uint32_t outSize,
                                            uint32_t flags) {
  if (device == nullptr) return 0x8FFF;
  rk::CLog& log = device->GetLog();
  if (location == nullptr) location = "";

  char fullPath[kPathSize] = {};
  if (startsWithNoCase(location, "local:")) {
    // local:<name>;<address hex>;<size hex>
    const char* rest = location + 6;
    const char* firstSep = std::strchr(rest, ';');
    const std::string name =
        firstSep != nullptr ? std::string(rest, static_cast<size_t>(firstSep - rest)) : std::string(rest);
    uint32_t address = 0;
    uint32_t size = 0;
    if (firstSep != nullptr) {
      address = static_cast<uint32_t>(std::strtoul(firstSep + 1, nullptr, 16));
      const char* secondSep = std::strchr(firstSep + 1, ';');
      if (secondSep != nullptr) size = static_cast<uint32_t>(std::strtoul(secondSep + 1, nullptr, 16));
    }
    // The block read moves whole 32-bit words.
    const uint64_t raised = (static_cast<uint64_t>(size) + 3U) & ~static_cast<uint64_t>(3U);
    const auto rounded = static_cast<uint32_t>(raised > UINT32_MAX ? UINT32_MAX : raised);
    log.Debug("GetXMLFile: Address=0x%.08X, Size=%d-%d\n", address, static_cast<int>(size),
              static_cast<int>(rounded));

    if (leavesCacheDirectory(name)) {
      log.Error("GetXMLFile: Error, XML file name \"%s\" leaves the cache directory, refused\n",
                name.c_str());
      return 0x8001;
    }
    std::snprintf(fullPath, sizeof(fullPath), "%s%s", RkOsGetCorvaleXmlCachePath(1), name.c_str());

    // The cache is trusted by name: a file that is there is not checked again.
    log.Trace("TqUvcBootstrap::IsCachedFileAvailable()\n");
    const UniqueFile cached(std::fopen(fullPath, "rb"));
    if (cached) {
      log.Debug("GetXMLFile: File already available, don't download again\n");
    } else {
      const uint32_t status = LoadXMLFileFromCamera(reinterpret_cast<uint8_t*>(fullPath), address, rounded);
      if (status != 0) return status;
    }
  } else if (startsWithNoCase(location, "file:")) {
    rk::SafeStrCpy(fullPath, location + 5, sizeof(fullPath));
  } else if (startsWithNoCase(location, "http:")) {
    log.Fatal("GetXMLFile: Error, Webbased XML location not yet supported\n");
    return 0x8001;
  } else {
    log.Fatal("GetXMLFile: Fatal, unknown XML location!\n");
    return 0x8FFF;
  }

  if (fullPath[0] == '\0') return 0;

  if ((flags & kFlagKeepFile) != 0) {
    log.Trace("LoadXMLFileFromCamera: Keeping original file\"%s\"\n", fullPath);
    rk::SafeStrCpy(filePath, fullPath, sizeof(filePath));
    copyOut(out, outSize, filePath);
    return 0;
  }

  const size_t length = std::strlen(fullPath);
  const char* extension = length >= 4 ? fullPath + length - 4 : "";
  if (RkOsStricmp(extension, ".xml") == 0) {
    rk::SafeStrCpy(filePath, fullPath, sizeof(filePath));
    copyOut(out, outSize, filePath);
  } else if (RkOsStricmp(extension, ".zip") == 0) {
    // No decompression here: the caller gets the path stored before.
    log.Trace("LoadXMLFileFromCamera: Try to decompress \"%s\"\n", fullPath);
    copyOut(out, outSize, filePath);
  } else {
    log.Fatal("LoadXMLFileFromCamera: Unknown extension\n");
    return 0x8FFF;
  }
  return 0;
}

uint32_t TqUvcBootstrap::LoadXMLFileFromCamera(uint8_t* path, uint32_t address, uint32_t size) {
  if (device == nullptr) return 0x8FFF;
  rk::CLog& log = device->GetLog();
  log.Info("TqUvcBootstrap::LoadXMLFileFromCamera()\n");
  TqUvcCtrlChan* ctrl = device->GetCtrlChan();
  if (path == nullptr || ctrl == nullptr) return 0x8FFF;

  // The camera layer takes the length as an int; more than that is refused
  // like an allocation that failed.
  std::unique_ptr<uint8_t[]> data;
  if (size <= static_cast<uint32_t>(INT_MAX)) data.reset(new (std::nothrow) uint8_t[size]());
  if (!data) {
    log.Error("LoadXMLFileFromCamera: Could not allocate memory for XML data (s=%d)\n",
              static_cast<int>(size));
    return 0x8FFF;
  }

  const uint32_t status = ctrl->ReadMem(address, data.get(), size);
  const char* fileName = reinterpret_cast<const char*>(path);
  if (status != 0) {
    log.Error("LoadXMLFileFromCamera: Could not retrieve first choice XML data (A=0x%0X, s=%d)\n", address,
              static_cast<int>(size));
    return status;
  }

  const UniqueFile file(std::fopen(fileName, "wb"));
  if (!file) {
    log.Error("LoadXMLFileFromCamera: Could not create new file \"%s\"\n", fileName);
    return status;
  }
  const size_t written = std::fwrite(data.get(), 1, size, file.get());
  if (written != size) {
    log.Error("LoadXMLFileFromCamera: Could not write all bytes to the file \"%s\" (%d-%d)\n", fileName,
              static_cast<int>(written), static_cast<int>(size));
  } else {
    log.Info("LoadXMLFileFromCamera: Successfully downloaded XML from camera to file \"%s\" (%d bytes)\n",
             fileName, static_cast<int>(size));
  }
  return status;
}

uint32_t TqUvcBootstrap::GetNrManifestFile(uint32_t* count) {
  if (device != nullptr) device->GetLog().Trace("TqUvcBootstrap::GetNrManifestFile()\n");
  if (count != nullptr) *count = 0;
  if (device == nullptr || device->GetCtrlChan() == nullptr) return 0x8001;
  if (count != nullptr) *count = 1;
  return 0;
}

uint32_t TqUvcBootstrap::GetManifestFileData(uint32_t which, uint32_t* version, uint32_t* address, char* path,
                                             uint32_t pathSize, uint8_t* secPath, uint32_t secPathSize,
                                             uint32_t* data0, uint32_t* data1, char* sha) {
  if (device == nullptr) return 0x8001;
  rk::CLog& log = device->GetLog();
  log.Debug("TqUvcBootstrap::GetManifestFileData: which=%d path:%p bufsize:%d RkData0:%p RkData1:%p\n",
            static_cast<int>(which), static_cast<void*>(path), static_cast<int>(pathSize),
            static_cast<void*>(data0), static_cast<void*>(data1));
  TqUvcCtrlChan* ctrl = device->GetCtrlChan();
  if (ctrl == nullptr) return 0x8001;

  if (which > 64) {
    if (which < 1000 || which > 1063)
      log.Warning("TqUvcBootstrap::GetManifestFileData: (else) Manifest query invalid (%d)\n",
                  static_cast<int>(which));
    return 0x8001;
  }
  if (which != 0) return 0x8001;
  if (path == nullptr && sha == nullptr) return 0x8001;

  const auto camIndex = static_cast<int>(ctrl->GetHIDCamIndex());
  int xmlSize = 0;
  int xmlAddress = 0;
  char shaRaw[20] = {};
  char shaText[kShaTextSize] = {};
  // The access layer needs its HID object; without one nothing is delivered.
  if (TqUvcHidInterfaceAvailable() != 0) {
    TqUvcGetXMLSize(camIndex, &xmlSize);
    if (TqUvcGetXMLSHA(camIndex, shaRaw, sizeof(shaRaw)) != 0) {
      for (size_t i = 0; i < sizeof(shaRaw); ++i)
        std::snprintf(shaText + 2 * i, 3, "%2.2x", static_cast<unsigned>(static_cast<uint8_t>(shaRaw[i])));
    }
  }
  TqUvcGetXMLAddress(camIndex, &xmlAddress);
  log.Trace("SHA1Hash:                       %s\n", shaText);
  if (xmlAddress == 0) return 0x8001;

  if (version != nullptr) {
    *version = kManifestVersion;
    log.Trace("TqUvcBootstrap::GetManifestFileData: supply for manifest entryNr:%d : Version:%8.8x\n",
              static_cast<int>(which), kManifestVersion);
  }
  if (address != nullptr) {
    *address = static_cast<uint32_t>(xmlAddress);
    log.Trace("TqUvcBootstrap::GetManifestFileData: supply for manifest entryNr:%d : Address:%8.8x\n",
              static_cast<int>(which), static_cast<uint32_t>(xmlAddress));
  }
  if (path != nullptr) {
    const char* pkModel = device->GetDiscPkt() != nullptr ? device->GetDiscPkt()->GetModelName() : "";
    std::string model(pkModel);
    rk::ReplaceChar(model, ' ', '_');
    rk::ReplaceInvalidFileNameChars(model);
    if (model.empty()) model = "TarquelUVC";
    char manifestPath[kPathSize] = {};
    std::snprintf(manifestPath, sizeof(manifestPath), "local:TQ_%s_%1.1x.%1.1x.%2.2x_%s.%s;%8.8x;%8.8x",
                  model.c_str(), 1U, 0U, 5U, std::strlen(shaText) == 40 ? shaText : "nohash", "xml",
                  static_cast<uint32_t>(xmlAddress), static_cast<uint32_t>(xmlSize));
    copyOut(path, pathSize, manifestPath);
    log.Trace(
        "TqUvcBootstrap::GetManifestFileData: supply for manifest entryNr:%d : Path:\"%s\" [nXmlLength:%d]\n",
        static_cast<int>(which), manifestPath, xmlSize);
  }
  if (secPath != nullptr) {
    copyOut(secPath, secPathSize, "");
    log.Trace("TqUvcBootstrap::GetManifestFileData: supply for manifest entryNr:%d : SecPath:\"%s\"\n",
              static_cast<int>(which), "");
  }
  if (data0 != nullptr) {
    *data0 = 0;
    log.Trace("TqUvcBootstrap::GetManifestFileData: supply for manifest entryNr:%d : RkData0:%x\n",
              static_cast<int>(which), 0U);
  }
  if (data1 != nullptr) *data1 = 0;
  if (sha != nullptr) {
    rk::SafeStrCpy(sha, shaText, kShaTextSize);
    log.Trace("TqUvcBootstrap::GetManifestFileData: supply for manifest entryNr:%d : RkSha data: \"%s\"\n",
              static_cast<int>(which), shaText);
  }
  return 0;
}

uint32_t TqUvcBootstrap::GetDevCapabilty(uint32_t* capabilities) {
  if (device == nullptr) return 0x8FFF;
  rk::CLog& log = device->GetLog();
  log.Info("TqUvcBootstrap::GetDevCapabilty()\n");
  TqUvcCtrlChan* ctrl = device->GetCtrlChan();
  if (ctrl == nullptr) return 0x8FFF;

  // Asked for the record's sake; the register space answers 0 and the camera
  // offers none of these features whatever it says.
  uint32_t value = 0;
  ctrl->ReadReg(kCapabilityAddress, &value);
  if (capabilities != nullptr) *capabilities = 0;

  if (log.InfoEnabled()) {
    log.Info("  UserNameAvailable           : %s\n", "NO");
    log.Info("  AccessPrivilegeAvailable    : %s\n", "NO");
    log.Info("  MessageChannelSupported     : %s\n", "NO");
    log.Info("  TimestampSupported          : %s\n", "NO");
    log.Info("  StringEncoding              : %d\n", 0);
    log.Info("  FamiliyRegisterAvailable    : %s\n", "NO");
    log.Info("  SBRMSupported               : %s\n", "NO");
    log.Info("  EndianessRegisterSupported  : %s\n", "NO");
    log.Info("  WrittenLengthFieldSupported : %s\n", "NO");
    log.Info("  MultiEventSupported         : %s\n", "NO");
  }
  return 0;
}

uint32_t TqUvcBootstrap::SetNick(uint8_t* nick) {
  if (device == nullptr) return 0x8FFF;
  device->GetLog().Info("TqUvcBootstrap::SetNick()\n");
  uint8_t buffer[16] = {};
  if (nick != nullptr)
    rk::SafeStrCpy(reinterpret_cast<char*>(buffer), reinterpret_cast<const char*>(nick), sizeof(buffer));
  TqUvcCtrlChan* ctrl = device->GetCtrlChan();
  if (ctrl == nullptr) return 0x8FFF;
  // The control channel has no block write, so this is refused (0x8008).
  return ctrl->WriteMem(kNickAddress, buffer, sizeof(buffer));
}
