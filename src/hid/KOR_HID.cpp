#include "hid/KOR_HID.h"

#include <cstring>
#include <string>

namespace {

DeviceNode* record(uint8_t cam) { return cam < DevicePool.size() ? &DevicePool[cam] : nullptr; }

cHid* device(uint8_t cam) {
  DeviceNode* node = record(cam);
  return node != nullptr ? node->pHid.get() : nullptr;
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
  if (node == nullptr || node->bLinked == 0 || !node->pHid) return false;
  return node->pHid->IsOpen();
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
  if (!node->pHid) node->pHid = std::make_unique<cHid>(cam);
  return static_cast<uint8_t>(node->pHid->_open(node->sHidPath));
}

int32_t KOR_HID_Close(uint8_t cam) {
  DeviceNode* node = record(cam);
  if (node == nullptr || !node->pHid) return 0;
  node->pHid->_close();
  node->pHid.reset();
  return 0;
}

int32_t KOR_HID_SetCallbackHid(uint8_t cam, cHidCallback fn, void* ctx) {
  cHid* hid = device(cam);
  if (hid == nullptr) return 1;
  hid->setCallback(fn, ctx);
  return 0;
}

int32_t KOR_HID_Report(uint8_t cam, uint8_t reportId, uint8_t cmd, const uint8_t* data, uint8_t len) {
  cHid* hid = device(cam);
  if (hid == nullptr) return 1;
  return hid->hidReport(reportId, cmd, data, len);
}

int32_t KOR_HID_FeatureRd(uint8_t cam, uint8_t reportId, uint8_t* buf, uint16_t len) {
  cHid* hid = device(cam);
  if (hid == nullptr) return 1;
  return hid->hidFeatureRd(reportId, buf, len);
}
