#include <gtest/gtest.h>

#include <string>

#include "hid/UdevText.h"

namespace {

// The shape of a real attribute walk: the camera's ids and serial come before
// the root hub's, and idProduct sorts before idVendor.
const char kWalk[] =
    "  looking at parent device '/devices/platform/vhci_hcd.0/usb1/1-1/1-1:1.2':\n"
    "    ATTRS{bInterfaceClass}==\"03\"\n"
    "\n"
    "  looking at parent device '/devices/platform/vhci_hcd.0/usb1/1-1':\n"
    "    ATTRS{idProduct}==\"0203\"\n"
    "    ATTRS{idVendor}==\"7a3d\"\n"
    "    ATTRS{manufacturer}==\"Emu Vendor  \"\n"
    "    ATTRS{product}==\"Emu Camera\"\n"
    "    ATTRS{serial}==\"CAM-SN-0042\"\n"
    "\n"
    "  looking at parent device '/devices/platform/vhci_hcd.0/usb1':\n"
    "    ATTRS{idProduct}==\"0002\"\n"
    "    ATTRS{idVendor}==\"1d6b\"\n"
    "    ATTRS{serial}==\"vhci_hcd.0\"\n";

TEST(sGetString, TakesTheNearestQuotedValue) {
  struct Case {
    const char* text;
    const char* key;
    const char* expected;
  } cases[] = {
      {kWalk, "ATTRS{idVendor}", "7a3d"},
      {kWalk, "ATTRS{idProduct}", "0203"},
      {kWalk, "ATTRS{serial}", "CAM-SN-0042"},
      {kWalk, "ATTRS{manufacturer}", "Emu Vendor  "},
      // Case-sensitive: "product" must not hit idProduct.
      {kWalk, "ATTRS{product}", "Emu Camera"},
      // A missing key falls back to the first quoted string of the text.
      {kWalk, "ATTRS{nothere}", "03"},
      {"no quotes at all", "key", "no quotes at all"},
      {"key=\"open ended", "key", "open ended"},
      {"key==\"\"", "key", ""},
      {"", "key", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(sGetString(c.text, c.key), c.expected) << "key " << c.key;
}

TEST(sExec, CollectsTheWholeOutputAndIgnoresTheExitStatus) {
  EXPECT_EQ(sExec("printf 'a\\nb\\n'"), "a\nb\n");
  // Lines longer than one 127-character piece come back whole.
  std::string longLine(300, 'x');
  EXPECT_EQ(sExec("printf '" + longLine + "'; exit 3"), longLine);
  EXPECT_EQ(sExec("exit 1"), "");
}

}  // namespace
