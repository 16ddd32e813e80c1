#include "hid/DecodeError.h"

#include <cstdio>
#include <mutex>

namespace {

const char* deviceStatusText(int code) {
  static const char* const kDeviceTexts[] = {
      "Error: VX_UVC_STATUS_UNKNOWN_ERROR",
      "Error: VX_UVC_STATUS_BAD_ARGUMENT",
      "Error: VX_UVC_STATUS_INVALID_CMD_ID",
      "Error: VX_UVC_STATUS_NOT_IMPLEMENTED",
      "Error: VX_UVC_STATUS_NOT_AVAILABLE",
      "Error: VX_UVC_STATUS_INVALID_DATA_BLOCK",
      "Error: VX_UVC_STATUS_INVALID_CHUNK_ID",
      "Error: VX_UVC_STATUS_DATA_BLOCK_TOO_LARGE",
      "Error: VX_UVC_STATUS_MISSSING_DATA_CHUNKS",
      "Error: VX_UVC_STATUS_SENSOR_DISABLED",
      "Error: VX_UVC_STATUS_USB_RD_ERR",
      "Error: VX_UVC_STATUS_USB_WR_ERR",
      "Error: VX_UVC_STATUS_FLASH_RD_ERR",
      "Error: VX_UVC_STATUS_FLASH_WR_ERR",
      "Error: VX_UVC_STATUS_OUT_OF_RANGE",
      "Error: VX_UVC_STATUS_HW_ERR",
      "Error: VX_UVC_STATUS_NOT_IF_STREAMING_ERROR",
      "Error: RX2_STATUS_HW_ERR_FPGA",
  };
  constexpr int kCount = static_cast<int>(sizeof(kDeviceTexts) / sizeof(kDeviceTexts[0]));
  if (code >= 1 && code <= kCount) return kDeviceTexts[code - 1];
  switch (code) {
    case HID_ERROR_PROTOCOL_UNDEFINED:
      return "Error: HID_ERROR_PROTOCOL_UNDEFINED";
    case HID_ERROR_PROTOCOL_WRONG_ID:
      return "Error: HID_ERROR_PROTOCOL_WRONG_ID";
    case HID_ERROR_TIMEOUT:
      return "Error: HID_ERROR_TIMEOUT";
    default:
      return "Error: unknown error code";
  }
}

struct GenCpEntry {
  uint32_t value;
  const char* name;
  const char* text;
};

// Three texts run on into the following row; they are kept that way because
// log readers grep for them as they are.
const GenCpEntry kGenCp[] = {
    {0x0000, "GENCP_SUCCESS", ""},
    {0x8001, "", "Command not implemented in the device."},
    {0x8002, "GENCP_INVALID_PARAMETER",
     "At least one command parameter of CCD or SCD is invalid or out of range."},
    {0x8003, "GENCP_INVALID_ADDRESS", "Attempt to access a not existing register address."},
    {0x8004, "GENCP_WRITE_PROTECT", "Attempt to write to a read only register."},
    {0x8005, "GENCP_BAD_ALIGNMENT",
     "Attempt to access registers with an address which is not aligned according to the "
     "underlying technology."},
    {0x8006, "GENCP_ACCESS_DENIED",
     "Attempt to read a non-readable or write a non-writable register address. 0x8007 "
     "GENCP_BUSY The command receiver is currently busy."},
    {0x8007, "GENCP_BUSY", "The command receiver is currently busy."},
    {0x800B, "GENCP_MSG_TIMEOUT",
     "Timeout waiting for an acknowledge. 0x800E GENCP_INVALID_HEADER The header of the "
     "received command is invalid. This includes CCD and SCD fields but not the command "
     "payload."},
    {0x800E, "GENCP_INVALID_HEADER", ""},
    {0x800F, "GENCP_WRONG_CONFIG",
     "The current receiver configuration does not allow the execution of the sent command. "
     "0x8FFF GENCP_ERROR Generic error."},
    {0x8FFF, "GENCP_ERROR", "Generic error."},
};

const GenCpEntry* findGenCp(uint32_t status) {
  for (const auto& e : kGenCp)
    if (e.value == status) return &e;
  return nullptr;
}

struct U3vEntry {
  uint32_t value;
  const char* name;
  const char* shortName;
};

const U3vEntry kU3v[] = {
    {0xA001, "U3V_STATUS_RESEND_NOT_SUPPORTED", "RESEND_NOT_SUPPORTED"},
    {0xA002, "U3V_STATUS_DSI_ENDPOINT_HALTED", "DSI_ENDPOINT_HALTED"},
    {0xA003, "U3V_STATUS_SI_PAYLOAD_SIZE_NOT_ALIGNED", "SI_PAYLOAD_SIZE_NOT_ALIGNED"},
    {0xA004, "U3V_STATUS_SI_REGISTERS_INCONSISTENT", "SI_REGISTERS_INCONSISTENT"},
};

const U3vEntry* findU3v(uint32_t status) {
  for (const auto& e : kU3v)
    if (e.value == status) return &e;
  return nullptr;
}

}  // namespace

std::string DecodeError(int code) {
  // One shared text, as callers have always seen it; the lock only keeps
  // concurrent callers from tearing it.
  static std::mutex lock;
  // A plain array: it stays usable while the library unloads, whatever order
  // the static objects of other files are destroyed in.
  static char text[128];
  std::lock_guard<std::mutex> guard(lock);
  if (code != 0) std::snprintf(text, sizeof text, "%s", deviceStatusText(code));
  return text;
}

const char* GenCpStatusName(uint32_t status) {
  const GenCpEntry* e = findGenCp(status);
  return e ? e->name : "UNKNOWN";
}

const char* GenCpStatusText(uint32_t status) {
  const GenCpEntry* e = findGenCp(status);
  return e ? e->text : "Unknown GenCP error";
}

const char* U3vStatusName(uint32_t status) {
  const U3vEntry* e = findU3v(status);
  return e ? e->name : nullptr;
}

const char* U3vStatusShortName(uint32_t status) {
  const U3vEntry* e = findU3v(status);
  return e ? e->shortName : nullptr;
}
