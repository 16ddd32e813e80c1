#include "control/VexaHID_Interface.h"

#include <algorithm>
#include <mutex>

#include "hid/DecodeError.h"
#include "support/LibLogs.h"

Vexa_HID* vexa_hid = nullptr;
Vexa_UVC* vexa_ucv = nullptr;
_Formats listFormats[LIST_MAX_NUM + 1] = {};
uint8_t IsOpen[256] = {};
int32_t indexCamAbs = 0;
int32_t nrCam = 0;

namespace {

std::mutex listFormatsLock;  // guards listFormats

constexpr uint16_t kVendorId = 0x7A3D;
constexpr uint16_t kProductId = 0x0203;
constexpr int kNoCamera = -102;
constexpr int kNotOpened = -20;
constexpr int kXmlAddress = 0x100000;
constexpr int kPathSize = 256;

uint8_t narrow(int index) { return static_cast<uint8_t>(index & 0xFF); }
uint16_t hidAddress16(int address) { return static_cast<uint16_t>(address & 0xFFFF); }
bool outsideTable(int index) { return index < 0 || index > 255; }

void deleteStreamingClass() {
  LIBLog.Trace("TqUvcDeleteStreamingClass:: Streaming class deleted");
  delete vexa_ucv;
  vexa_ucv = nullptr;
}

int readString(int index, int hidAddress, char* buffer, int length) {
  if (vexa_hid == nullptr) return kNoCamera;
  return vexa_hid->ReadMem(narrow(index), hidAddress, buffer, length);
}

int isLinked(int index) { return vexa_hid != nullptr ? vexa_hid->IsLinked(narrow(index)) : 0; }

}  // namespace

int TqUvcCreateHidDevice() {
  // A second creation replaces the objects instead of leaking them.
  delete vexa_hid;
  delete vexa_ucv;
  vexa_ucv = nullptr;
  vexa_hid = new Vexa_HID();
  PoolLog.Trace("TqUvcCreateHidDevice::Init: HID class created");
  if (vexa_hid->Init() != 0) {
    LIBLog.Error("TqUvcCreateHidDevice::Init: error: cannot initialize the HID interface");
    delete vexa_hid;
    vexa_hid = nullptr;
    deleteStreamingClass();
    return 0x8008;
  }
  LIBLog.Trace("TqUvcCreateHidDevice::Init: Dll for HID interface successfully loaded");
  LIBLog.Trace("TqUvcCreateStreamingClass:: Streaming class created\n");
  vexa_ucv = new Vexa_UVC();
  vexa_ucv->Init();
  LIBLog.Trace("TqUvcCreateHidDevice::Init CInterface class created\n");
  return 0;
}

int TqUvcDeleteHidDevice() {
  delete vexa_hid;
  vexa_hid = nullptr;
  deleteStreamingClass();
  return 0;
}

int TqUvcHidInterfaceAvailable() { return vexa_hid != nullptr && vexa_ucv != nullptr ? 1 : 0; }

int TqUvcEnumerateHidDevice(int* count) {
  // The HID object writes one byte: the low byte of the caller's integer on
  // this little-endian platform; the other bytes keep what they held.
  if (vexa_hid != nullptr && count != nullptr &&
      vexa_hid->Enumerate(kVendorId, kProductId, reinterpret_cast<uint8_t*>(count)) == 0) {
    LIBLog.Debug("TqUvcEnumerateHidDevice: nr of detected uvc/hid compatible devices: %d", *count);
    return 0;
  }
  LIBLog.Error("TqUvcEnumerateHidDevice: error: no uvc/hid compatible devices detected");
  return kNoCamera;
}

int TqUvcGetFirstHidDevice(int* index) {
  indexCamAbs = 0;
  nrCam = 0;
  return TqUvcGetNextHidDevice(index);
}

int TqUvcGetNextHidDevice(int* index) {
  while (isLinked(indexCamAbs) == 0 && indexCamAbs <= 254) ++indexCamAbs;
  if (isLinked(indexCamAbs) == 0) {
    LIBLog.Debug("TqUvcGetNextHidDevice: error: cannot open cam at index:%d", indexCamAbs);
    return kNoCamera;
  }
  const uint8_t i = narrow(indexCamAbs);
  vexa_hid->SetUvcIndex(i, i);
  LIBLog.Debug("TqUvcGetNextHidDevice: cam nr: %d with index: %d uvc index:%d ", nrCam, indexCamAbs, i);
  if (index != nullptr) *index = indexCamAbs;
  ++indexCamAbs;
  ++nrCam;
  return 0;
}

int TqUvcGetSerialNumberHidDevice(int index, char* buffer, int size) {
  return vexa_hid != nullptr ? vexa_hid->GetSerialNumber(narrow(index), buffer, size) : kNoCamera;
}

int TqUvcGetManufacturerHidDevice(int index, char* buffer, int size) {
  return vexa_hid != nullptr ? vexa_hid->GetManufacturer(narrow(index), buffer, size) : kNoCamera;
}

int TqUvcGetProductHidDevice(int index, char* buffer, int size) {
  return vexa_hid != nullptr ? vexa_hid->GetProduct(narrow(index), buffer, size) : kNoCamera;
}

int TqUvcGetDevicePathHidDevice(int index, char* buffer, int size) {
  return vexa_hid != nullptr ? vexa_hid->GetDevicePath(narrow(index), buffer, size) : kNoCamera;
}

int TqUvcGetDevicePathUVCDevice(int index, char* buffer, int size) {
  return vexa_hid != nullptr ? vexa_hid->GetDevicePathUVC(narrow(index), buffer, size) : kNoCamera;
}

int TqUvcReadBtStrp_ADR_GENCP_MANUF_NAME(int index, char* buffer, int length) {
  return readString(index, 0x500, buffer, length);
}

int TqUvcReadBtStrp_ADR_GENCP_MODEL_NAME(int index, char* buffer, int length) {
  return readString(index, 0x520, buffer, length);
}

int TqUvcReadBtStrp_ADR_GENCP_FAMILY_NAME(int index, char* buffer, int length) {
  return readString(index, 0x540, buffer, length);
}

int TqUvcReadBtStrp_ADR_GENCP_MANUF_INFO(int index, char* buffer, int length) {
  return readString(index, 0x580, buffer, length);
}

int TqUvcReadBtStrp_ADR_GENCP_DEV_VERSION(int index, char* buffer, int length) {
  return readString(index, 0x5B0, buffer, length);
}

int TqUvcReadBtStrp_ADR_GENCP_SERIALNUM(int index, char* buffer, int length) {
  return readString(index, 0x5F0, buffer, length);
}

int TqUvcGetXMLSize(int index, int* size) {
  return vexa_hid != nullptr ? vexa_hid->GetXMLSize(narrow(index), size) : kNoCamera;
}

int TqUvcGetXMLSHA(int index, char* buffer, int size) {
  return vexa_hid != nullptr ? vexa_hid->GetXMLSHA(narrow(index), buffer, size) : 0;
}

int TqUvcGetXMLAddress(int /*index*/, int* address) {
  if (address != nullptr) *address = kXmlAddress;
  return 0;
}

int TqUvcReadXML(int index, char* buffer, int length) {
  return vexa_hid != nullptr ? vexa_hid->ReadXML(narrow(index), buffer, length) : kNoCamera;
}

int TqUvcReadInt32(int index, int hidAddress, int* value) {
  if (vexa_hid == nullptr) return kNoCamera;
  return vexa_hid->GetInt32(narrow(index), hidAddress16(hidAddress), reinterpret_cast<uint32_t*>(value));
}

int TqUvcWriteInt32(int index, int hidAddress, int value) {
  if (vexa_hid == nullptr) return kNoCamera;
  return vexa_hid->SetInt32(narrow(index), hidAddress16(hidAddress), static_cast<uint32_t>(value));
}

int TqUvcReadBuf(int index, int hidAddress, char* buffer, int length) {
  return readString(index, hidAddress16(hidAddress), buffer, length);
}

int TqUvcOpenHidDevice(int index) {
  return vexa_hid != nullptr ? vexa_hid->Open(narrow(index), 0) : kNoCamera;
}

int TqUvcCloseHidDevice(int index) {
  return vexa_hid != nullptr ? vexa_hid->Close(narrow(index)) : kNoCamera;
}

bool TqUvcIsAcqEnabledHidDevice(int index) {
  return vexa_hid != nullptr && vexa_hid->IsAcquisitionEnabled(narrow(index));
}

void TqUvcDisableAcqHidDevice(int index) {
  if (vexa_hid != nullptr) vexa_hid->DisableAcquisition(narrow(index));
}

bool TqUvcIsAvailableUvcDevice(int /*index*/) { return vexa_ucv != nullptr; }

int TqUvcOpenUvcDevice(int index) {
  // Zeroed: the path getter leaves the buffer alone for an unknown camera.
  char path[kPathSize] = {};
  TqUvcGetDevicePathUVCDevice(index, path, kPathSize);
  LIBLog.Debug("TqUvcOpenUvcDevice:: OpenStreaming\n");
  if (vexa_ucv == nullptr) return kNotOpened;
  int formatCount = 0;
  _Formats formats[LIST_MAX_NUM + 1] = {};
  const int status = vexa_ucv->OpenStreaming(narrow(index), path, formats, &formatCount);
  if (status != 0) {
    LIBLog.Error("TqUvcOpenUvcDevice:: OpenStreaming error = %s\n", DecodeError(status).c_str());
    return status;
  }
  {
    // Cameras are opened from their own threads; the shared record takes one
    // list at a time (the entries the listing wrote, as before).
    std::lock_guard<std::mutex> lock(listFormatsLock);
    std::copy(formats, formats + std::clamp(formatCount, 0, LIST_MAX_NUM + 1), listFormats);
  }
  if (!outsideTable(index)) IsOpen[index] = 1;
  return 0;
}

int TqUvcCloseUvcDevice(int index) {
  if (vexa_ucv != nullptr) {
    vexa_ucv->StopStreaming(narrow(index));
    vexa_ucv->CloseStreaming(narrow(index));
  }
  if (!outsideTable(index)) IsOpen[index] = 0;
  return 0;
}

int TqUvcIsOpenUvcDevice(int index) { return outsideTable(index) ? 0 : IsOpen[index]; }

int TqUvcRegisterNewBufferCallback(int index, void (*callback)(char* data, int size, void* context),
                                   void* context) {
  if (vexa_ucv == nullptr) return -1;
  return vexa_ucv->RegisterNewBufferCallback(narrow(index), callback, context);
}

void TqUvcSetStreamingFormat(int index, int a, int b) {
  if (vexa_ucv != nullptr) vexa_ucv->SetStreamingFrameFormat(narrow(index), a, b);
}

void TqUvcGetStreamingFormat(int index, int* a, int* b, int* c) {
  if (vexa_ucv != nullptr) vexa_ucv->GetStreamingFrameFormat(narrow(index), a, b, c);
}

int TqUvcStartAcquisition(int index) {
  if (vexa_ucv == nullptr) return kNotOpened;
  const int status = vexa_ucv->StartStreaming(narrow(index));
  if (status != 0)
    LIBLog.Error("TqUvcStartAcquisition:: StartStreaming error = %s\n", DecodeError(status).c_str());
  return status;
}

int TqUvcStopAcquisition(int index) {
  if (vexa_ucv == nullptr) return kNotOpened;
  const int status = vexa_ucv->StopStreaming(narrow(index));
  if (status != 0)
    LIBLog.Error("TqUvcStopAcquisition:: StopStreaming error = %s\n", DecodeError(status).c_str());
  return status;
}
