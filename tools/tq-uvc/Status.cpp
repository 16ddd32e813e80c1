#include "Status.h"

#include <cstdio>

namespace tool {
namespace {

struct Entry {
  int32_t value;
  const char* name;
  const char* text;
};

// The codes this transport's API answers with: GenCP-style words from the
// channels, and negative codes passed up from the HID and video layers.
const Entry kEntries[] = {
    {0x8001, "GENCP_NOT_IMPLEMENTED",
     "Not implemented, or no such device (library not initialised or unknown handle)."},
    {0x8002, "GENCP_INVALID_PARAMETER", "A required argument is missing or out of range."},
    {0x8007, "GENCP_BUSY", "The camera is busy, already connected, or cannot be opened."},
    {0x8008, "GENCP_REFUSED",
     "Refused in the current state or for these arguments (for example not connected)."},
    {0x8FFF, "GENCP_ERROR", "Generic error (for example the channel is not open, or an unknown handle)."},
    {static_cast<int32_t>(0xC001), "GENCP_SEVERE", "Severe error: the camera connection is broken."},
    {-1, "HID_ERROR_TIMEOUT", "The camera did not answer in time."},
    {-2, "HID_ERROR_PROTOCOL_WRONG_ID", "The camera answered another command."},
    {-3, "HID_ERROR_PROTOCOL_UNDEFINED", "No answer handler for the camera's reply."},
    {-20, "UVC_NOT_OPENED", "The camera's video function is not open."},
    {-21, "UVC_ALREADY_OPENED", "The camera's video function is already open."},
    {-22, "UVC_OPEN_FAILED", "The camera's video node cannot be opened."},
    {-23, "UVC_ALREADY_RUNNING", "The capture is already running."},
    {-24, "UVC_THREAD_FAILED", "The capture thread could not be created."},
    {-101, "ADDRESS_NOT_SERVED", "Nothing at this address, or the camera's HID node is not open."},
    {-102, "NO_CAMERA_ANSWER", "The camera layer gave no answer, or a description-file chunk was refused."},
    {-103, "FEATURE_READ_FAILED", "Reading description-file data from the camera failed."},
};

const Entry* find(uint32_t status) {
  for (const Entry& e : kEntries)
    if (static_cast<uint32_t>(e.value) == status) return &e;
  return nullptr;
}

}  // namespace

const char* statusName(uint32_t status) {
  const Entry* e = find(status);
  return e != nullptr ? e->name : "UNKNOWN";
}

const char* statusText(uint32_t status) {
  const Entry* e = find(status);
  return e != nullptr ? e->text : "Unknown status.";
}

std::string describeStatus(uint32_t status) {
  char code[48];
  const auto asSigned = static_cast<int32_t>(status);
  if (asSigned < 0 && asSigned > -0x10000)
    std::snprintf(code, sizeof code, "0x%08X (%d)", status, asSigned);
  else
    std::snprintf(code, sizeof code, "0x%04X", status);
  return std::string("status ") + code + " " + statusName(status) + ": " + statusText(status);
}

void check(uint32_t status, const std::string& what) {
  if (status != 0) throw Error(what + ": " + describeStatus(status), status);
}

}  // namespace tool
