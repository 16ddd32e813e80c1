// The HID function set: every hidraw operation of a camera, addressed by its
// camera index (position in DevicePool). Indices past the table and cameras
// without an open device give the fixed results noted per function; nothing
// here logs or locks (enumeration must not run concurrently).
#pragma once

#include <cstdint>

#include "hid/HidEnumerate.h"
#include "hid/cHid.h"

// Start-up and shut-down hooks; nothing to do on Linux. Init returns 0.
int32_t KOR_HID_Init();
void KOR_HID_DeInit();

// bLinked of the record; 0 past the table.
int32_t KOR_HID_IsLinked(uint8_t cam);
// True only for a linked record with an open hidraw device.
bool KOR_HID_IsOpen(uint8_t cam);

// Copy one identity string into buf (at most len - 1 characters, always
// terminated). Return 0, also past the table (buf untouched) and for a len
// below 1 (nothing written).
int32_t KOR_HID_GetSerialNumber(uint8_t cam, char* buf, int32_t len);
int32_t KOR_HID_GetDevicePath(uint8_t cam, char* buf, int32_t len);
int32_t KOR_HID_GetDevicePathUVC(uint8_t cam, char* buf, int32_t len);
int32_t KOR_HID_GetManufacturer(uint8_t cam, char* buf, int32_t len);
int32_t KOR_HID_GetProduct(uint8_t cam, char* buf, int32_t len);

// Attaches a cHid if needed and opens the record's hidraw path (also when the
// record is unlinked). 0 opened (or past the table), 1 open failed; the cHid
// stays attached either way.
uint8_t KOR_HID_Open(uint8_t cam);
// Closes and detaches the cHid. Always 0.
int32_t KOR_HID_Close(uint8_t cam);
// 1 past the table or without a cHid, else 0.
int32_t KOR_HID_SetCallbackHid(uint8_t cam, cHidCallback fn, void* ctx);
// 1 past the table or without a cHid, else cHid::hidReport's result.
int32_t KOR_HID_Report(uint8_t cam, uint8_t reportId, uint8_t cmd, const uint8_t* data, uint8_t len);
// 1 past the table or without a cHid, else cHid::hidFeatureRd's result.
int32_t KOR_HID_FeatureRd(uint8_t cam, uint8_t reportId, uint8_t* buf, uint16_t len);
