#include "Status.h"

#include <cstdio>
#include <cstring>

// Not part of the public header: the tool compiles the library's status tables
// in (see CMakeLists.txt) so that it names statuses with the library's words;
// every library call still goes through tq_uvc.h.
#include "hid/DecodeError.h"

namespace tool {
namespace {

// DecodeError's answer for a code outside its table.
constexpr const char* kUnknownDeviceText = "Error: unknown error code";
constexpr const char* kErrorPrefix = "Error: ";

// The library's texts for camera status bytes and HID protocol codes read
// "Error: <NAME>"; the name is what follows the prefix.
bool deviceStatus(uint32_t status, std::string* name, std::string* text) {
  const auto code = static_cast<int32_t>(status);
  if (code == 0) return false;  // DecodeError(0) repeats the previous text
  std::string decoded = DecodeError(code);
  if (decoded == kUnknownDeviceText) return false;
  *text = decoded;
  *name = decoded.rfind(kErrorPrefix, 0) == 0 ? decoded.substr(std::strlen(kErrorPrefix)) : decoded;
  return true;
}

struct Described {
  std::string name;
  std::string text;
};

Described lookUp(uint32_t status) {
  Described d;
  if (deviceStatus(status, &d.name, &d.text)) return d;
  if (const char* u3v = U3vStatusName(status)) return {u3v, U3vStatusShortName(status)};
  d.name = GenCpStatusName(status);
  d.text = GenCpStatusText(status);
  // Negative words come from the camera transport, not GenCP: the transport
  // table's own answer fits them better.
  if (d.name == "UNKNOWN" && static_cast<int32_t>(status) < 0) d.text = kUnknownDeviceText;
  // 0x8001 has a text but no name in the GenCP table.
  if (d.name.empty()) d.name = "-";
  return d;
}

}  // namespace

std::string statusName(uint32_t status) { return lookUp(status).name; }

std::string statusText(uint32_t status) { return lookUp(status).text; }

std::string describeStatus(uint32_t status) {
  char code[48];
  const auto asSigned = static_cast<int32_t>(status);
  if (asSigned < 0 && asSigned > -0x10000)
    std::snprintf(code, sizeof code, "0x%08X (%d)", status, asSigned);
  else
    std::snprintf(code, sizeof code, "0x%04X", status);
  const Described d = lookUp(status);
  std::string line = std::string("status ") + code + " " + d.name;
  // Device texts are "Error: <name>": nothing to add to the name.
  if (!d.text.empty() && d.text != kErrorPrefix + d.name) line += ": " + d.text;
  return line;
}

void check(uint32_t status, const std::string& what) {
  if (status != 0) throw Error(what + ": " + describeStatus(status), status);
}

}  // namespace tool
