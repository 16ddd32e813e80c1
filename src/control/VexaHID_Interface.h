// The camera access layer: free functions over the two process-wide camera
// objects, the HID command channel (vexa_hid) and the UVC video function
// (vexa_ucv), addressed by camera index. Every per-camera function narrows the
// index to 8 bits. Outside the span from TqUvcCreateHidDevice to
// TqUvcDeleteHidDevice only TqUvcHidInterfaceAvailable and
// TqUvcIsAvailableUvcDevice may be called. The layer has no lock: the device
// scan and the channels serialise their calls.
#pragma once

#include <cstdint>

#include "hid/Vexa_HID.h"
#include "video/Vexa_UVC.h"

extern Vexa_HID* vexa_hid;
extern Vexa_UVC* vexa_ucv;
// Resolution list of the last UVC open, shared by every camera. Room for the
// eleven entries a camera with more than ten sizes reports.
extern _Formats listFormats[LIST_MAX_NUM + 1];
// 1 while the UVC function of that camera index is open.
extern uint8_t IsOpen[256];
// Enumeration cursor: next index to probe, cameras handed out since "first".
extern int32_t indexCamAbs;
extern int32_t nrCam;

// Creation and enumeration.
// 0, or 0x8008 when the HID layer cannot be initialised (both objects gone).
int TqUvcCreateHidDevice();
// Destroys both objects. Always 0.
int TqUvcDeleteHidDevice();
// 1 when both objects exist.
int TqUvcHidInterfaceAvailable();
// Enumerates the cameras; writes their number as one byte into the first byte
// of *count. 0, or -102 for no camera layer answer or a null count.
int TqUvcEnumerateHidDevice(int* count);
// Restart the cursor, then as TqUvcGetNextHidDevice.
int TqUvcGetFirstHidDevice(int* index);
// Next linked camera at or after the cursor into *index: 0, or -102 when no
// further camera (the cursor stays at 255).
int TqUvcGetNextHidDevice(int* index);

// Identity strings of an enumerated camera (result of the HID object).
int TqUvcGetSerialNumberHidDevice(int index, char* buffer, int size);
int TqUvcGetManufacturerHidDevice(int index, char* buffer, int size);
int TqUvcGetProductHidDevice(int index, char* buffer, int size);
int TqUvcGetDevicePathHidDevice(int index, char* buffer, int size);
int TqUvcGetDevicePathUVCDevice(int index, char* buffer, int size);

// Bootstrap strings from camera memory (Vexa_HID::ReadMem results).
int TqUvcReadBtStrp_ADR_GENCP_MANUF_NAME(int index, char* buffer, int length);
int TqUvcReadBtStrp_ADR_GENCP_MODEL_NAME(int index, char* buffer, int length);
int TqUvcReadBtStrp_ADR_GENCP_FAMILY_NAME(int index, char* buffer, int length);
int TqUvcReadBtStrp_ADR_GENCP_MANUF_INFO(int index, char* buffer, int length);
int TqUvcReadBtStrp_ADR_GENCP_DEV_VERSION(int index, char* buffer, int length);
int TqUvcReadBtStrp_ADR_GENCP_SERIALNUM(int index, char* buffer, int length);

// Description file and raw access; results are the HID object's.
int TqUvcGetXMLSize(int index, int* size);
// Non-zero when a hash was delivered.
int TqUvcGetXMLSHA(int index, char* buffer, int size);
// Stores 0x100000 for any index. Always 0.
int TqUvcGetXMLAddress(int index, int* address);
int TqUvcReadXML(int index, char* buffer, int length);
// HID addresses are taken modulo 0x10000. 0 on success, else the HID status.
int TqUvcReadInt32(int index, int hidAddress, int* value);
int TqUvcWriteInt32(int index, int hidAddress, int value);
int TqUvcReadBuf(int index, int hidAddress, char* buffer, int length);
// 0 opened, else the HID object's open error.
int TqUvcOpenHidDevice(int index);
int TqUvcCloseHidDevice(int index);
bool TqUvcIsAcqEnabledHidDevice(int index);
void TqUvcDisableAcqHidDevice(int index);

// Video function.
// True when the UVC object exists; the index is not looked at.
bool TqUvcIsAvailableUvcDevice(int index);
// 0, or the streaming status (logged with its text); fills listFormats.
int TqUvcOpenUvcDevice(int index);
// Stops and closes whatever is there. Always 0.
int TqUvcCloseUvcDevice(int index);
// 0 or 1; 0 for an index outside 0..255.
int TqUvcIsOpenUvcDevice(int index);
// 0, or -1 for a null callback (which unregisters).
int TqUvcRegisterNewBufferCallback(int index, void (*callback)(char* data, int size, void* context),
                                   void* context);
void TqUvcSetStreamingFormat(int index, int a, int b);
void TqUvcGetStreamingFormat(int index, int* a, int* b, int* c);
// 0, or the streaming status (logged with its text).
int TqUvcStartAcquisition(int index);
int TqUvcStopAcquisition(int index);
