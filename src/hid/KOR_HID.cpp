#include "hid/KOR_HID.h"

#include <cstring>
#include <string>

namespace {

DeviceNode* record(uint8_t cam) {
  return cam < DevicePoolCount.load(std::memory_order_acquire) ? &DevicePool[cam] : nullptr;
}

std::shared_ptr<cHid> device(uint8_t cam) {
  DeviceNode* node = record(cam);
  return node != nullptr ? std::atomic_load(&node->pHid) : nullptr;
}

int32_t copyString(uint8_t cam, std::string DeviceNode::*field, char* buf, int32_t len) {
  DeviceNode* node = record(cam);
  // A len below 1 leaves no room even for the terminator.
  if (node == nullptr || buf == nullptr || len < 1) return 0;
  const std::string& text = node->*field;
  int32_t n = static_cast<int32_t>(text.size()) < len - 1 ? static_cast<int32_t>(text.size()) : len - 1;
  std::strncpy(buf, text.c_str(), static_cast<size_t>(n));
  buf[n] = '\0';
  return 0;
}

}  // namespace

int32_t KOR_HID_Init() { return 0; }

void KOR_HID_DeInit() {}

int32_t KOR_HID_IsLinked(uint8_t cam) {
  DeviceNode* node = record(cam);
  return node != nullptr ? node->bLinked : 0;
}

bool KOR_HID_IsOpen(uint8_t cam) {
  DeviceNode* node = record(cam);
  if (node == nullptr || node->bLinked == 0) return false;
  const std::shared_ptr<cHid> hid = std::atomic_load(&node->pHid);
  return hid && hid->IsOpen();
}

int32_t KOR_HID_GetSerialNumber(uint8_t cam, char* buf, int32_t len) {
  return copyString(cam, &DeviceNode::sSerial, buf, len);
}

int32_t KOR_HID_GetDevicePath(uint8_t cam, char* buf, int32_t len) {
  return copyString(cam, &DeviceNode::sHidPath, buf, len);
}

int32_t KOR_HID_GetDevicePathUVC(uint8_t cam, char* buf, int32_t len) {
  return copyString(cam, &DeviceNode::sUvcPath, buf, len);
}

int32_t KOR_HID_GetManufacturer(uint8_t cam, char* buf, int32_t len) {
  return copyString(cam, &DeviceNode::sManufacturer, buf, len);
}

int32_t KOR_HID_GetProduct(uint8_t cam, char* buf, int32_t len) {
  return copyString(cam, &DeviceNode::sProduct, buf, len);
}

uint8_t KOR_HID_Open(uint8_t cam) {
  DeviceNode* node = record(cam);
  if (node == nullptr) return 0;
  std::shared_ptr<cHid> hid = std::atomic_load(&node->pHid);
  if (!hid) {
    hid = std::make_shared<cHid>(cam);
    std::atomic_store(&node->pHid, hid);
  }
  return static_cast<uint8_t>(hid->_open(node->sHidPath));
}

int32_t KOR_HID_Close(uint8_t cam) {
  DeviceNode* node = record(cam);
  if (node == nullptr) return 0;
  const std::shared_ptr<cHid> hid = std::atomic_exchange(&node->pHid, std::shared_ptr<cHid>());
  if (hid) hid->_close();
  return 0;
}

int32_t KOR_HID_SetCallbackHid(uint8_t cam, cHidCallback fn, void* ctx) {
  const std::shared_ptr<cHid> hid = device(cam);
  if (hid == nullptr) return 1;
  hid->setCallback(fn, ctx);
  return 0;
}

int32_t KOR_HID_Report(uint8_t cam, uint8_t reportId, uint8_t cmd, const uint8_t* data, uint8_t len) {
  const std::shared_ptr<cHid> hid = device(cam);
  if (hid == nullptr) return 1;
  return hid->hidReport(reportId, cmd, data, len);
}

int32_t KOR_HID_FeatureRd(uint8_t cam, uint8_t reportId, uint8_t* buf, uint16_t len) {
  const std::shared_ptr<cHid> hid = device(cam);
  if (hid == nullptr) return 1;
  return hid->hidFeatureRd(reportId, buf, len);
}
