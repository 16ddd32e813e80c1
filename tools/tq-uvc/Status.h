// Names and texts of the status words the library returns.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace tool {

// "GENCP_BUSY"-style name; "UNKNOWN" for a value not in the table.
const char* statusName(uint32_t status);
// One-line explanation; a generic text for a value not in the table.
const char* statusText(uint32_t status);
// "0x8007 GENCP_BUSY: The command ..."; negative transport codes also show
// their signed value.
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
