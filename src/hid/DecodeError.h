// Status codes of the HID command protocol and their texts, plus the GenCP and
// USB3 Vision status vocabulary of the register interface we emulate.
#pragma once

#include <cstdint>
#include <string>

#include "hid/HidProtocol.h"

// Protocol-layer codes next to the camera's own status bytes 1..18.
enum : int {
  HID_ERROR_PROTOCOL_UNDEFINED = hidproto::kErrorProtocolUndefined,
  HID_ERROR_PROTOCOL_WRONG_ID = hidproto::kErrorWrongId,
  HID_ERROR_TIMEOUT = hidproto::kErrorTimeout,
};

// Text for a camera status or protocol code, e.g. 5 ->
// "Error: VX_UVC_STATUS_NOT_AVAILABLE". Code 0 repeats the text of the
// previous call (empty before any call): callers log the error text of the
// status they just failed with, and 0 never reaches them in practice.
std::string DecodeError(int code);

// GenCP status name and text, e.g. 0x8007 -> "GENCP_BUSY", "The command
// receiver is currently busy.". Unknown values give "UNKNOWN" /
// "Unknown GenCP error"; 0x8001 has no name and 0x0000, 0x800E no text ("").
const char* GenCpStatusName(uint32_t status);
const char* GenCpStatusText(uint32_t status);

// USB3 Vision status name ("U3V_STATUS_...") and short name; null when the
// value is not one of 0xA001..0xA004.
const char* U3vStatusName(uint32_t status);
const char* U3vStatusShortName(uint32_t status);
