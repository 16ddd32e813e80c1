// udevadm attribute walks into the parser enumeration reads them with. The
// first byte picks the key (one enumeration asks for, or the input's first
// line); the rest is the walk.
#include <string>

#include "FuzzSupport.h"
#include "hid/UdevText.h"

namespace {

const char* const kKeys[] = {"ATTRS{idVendor}", "ATTRS{idProduct}", "ATTRS{serial}", "ATTRS{manufacturer}",
                             "ATTRS{product}"};
constexpr size_t kKeyCount = sizeof kKeys / sizeof kKeys[0];

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const uint8_t pick = in.byte();
  std::string text = in.rest();
  std::string key;
  if (pick < kKeyCount) {
    key = kKeys[pick];
  } else {
    const size_t nl = text.find('\n');
    key = text.substr(0, nl);
    text = nl == std::string::npos ? std::string() : text.substr(nl + 1);
  }

  const std::string value = sGetString(text, key);
  // The value is always a piece of the walk; between two quotes it holds none.
  if (text.find(value) == std::string::npos) fuzz::fail("value is not part of the walk");
  const size_t at = text.find(key);
  const size_t from = at == std::string::npos ? 0 : at + 1;
  const size_t open = text.find('"', from);
  if (open != std::string::npos && text.find('"', open + 1) != std::string::npos &&
      value.find('"') != std::string::npos)
    fuzz::fail("quoted value holds a quote");
  // Every key a real enumeration asks for, on the same walk.
  for (const char* k : kKeys) (void)sGetString(text, k);
  return 0;
}
