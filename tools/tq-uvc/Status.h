// Names and texts of the status words the library returns, from the library's
// own status tables (camera status bytes, HID protocol codes, GenCP and USB3
// Vision words).
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace tool {

// "GENCP_BUSY" or "VX_UVC_STATUS_NOT_AVAILABLE"-style name; "UNKNOWN" for a
// value none of the tables holds.
std::string statusName(uint32_t status);
// The table's text; "Unknown GenCP error" for a value none of them holds.
std::string statusText(uint32_t status);
// "status 0x8007 GENCP_BUSY: The command ..."; negative transport codes also
// show their signed value.
std::string describeStatus(uint32_t status);

// A failure the tool reports and exits on. `status` is the library's status
// word, 0 for failures of the tool itself (bad file, checksum mismatch).
class Error : public std::runtime_error {
 public:
  explicit Error(const std::string& what, uint32_t status = 0) : std::runtime_error(what), status_(status) {}
  uint32_t status() const { return status_; }

 private:
  uint32_t status_;
};

// Throws Error("<what>: <describeStatus>") unless status is 0.
void check(uint32_t status, const std::string& what);

}  // namespace tool
