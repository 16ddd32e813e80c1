// The commands in-process against an emulated camera plugged by the test, where
// the test can look at the camera afterwards; and the description-file
// location the tool parses.
#include <tqsim/Sim.h>

#include <sstream>

#include "Commands.h"
#include "SimTestUtil.h"

namespace {

using tqtest::plug;

class Commands : public simtest::SimTest {};

// A write lands in the camera's registers, and a read returns it.
TEST_F(Commands, WriteIsReadBack) {
  const tqsim::CameraId id = plug(tqsim::defaultCameraConfig());
  std::ostringstream out;
  EXPECT_EQ(tool::runWrite(out, "", {"40A04", "280", "0x40A10", "12"}), 0);
  uint32_t width = 0, offset = 0;
  ASSERT_TRUE(tqsim::readRegister(id, 0x0A04, width));
  ASSERT_TRUE(tqsim::readRegister(id, 0x0A10, offset));
  EXPECT_EQ(width, 0x280u);
  EXPECT_EQ(offset, 0x12u);

  out.str("");
  EXPECT_EQ(tool::runRead(out, "CAM-SN-0042", {"40A04", "40A10", "40708"}), 0);
  // The camera derives the line pitch from the width.
  EXPECT_EQ(out.str(), "0x00040A04 = 0x00000280\n0x00040A10 = 0x00000012\n0x00040708 = 0x00000500\n");
}

TEST(DescriptionFileLocation, NameAddressAndSize) {
  struct Case {
    std::string location;
    std::string name;  // empty: refused
    uint32_t address, size;
  };
  const Case cases[] = {
      {"local:TQ_Cam_1.0.05_abc.xml;00100000;0000160f", "TQ_Cam_1.0.05_abc.xml", 0x100000, 0x160F},
      {"LOCAL:cam.xml;2000;10", "cam.xml", 0x2000, 0x10},
      // Only the file-name part of what the camera calls its file.
      {"local:../../etc/cam.xml;100000;10", "cam.xml", 0x100000, 0x10},
      {"local:/tmp/x/cam.xml;100000;10", "cam.xml", 0x100000, 0x10},
      {"local:C:\\cams\\cam.xml;100000;10", "cam.xml", 0x100000, 0x10},
      {"local:dir/;100000;10", "", 0, 0},
      {"local:..;100000;10", "", 0, 0},
      {"local:cam.xml;100000", "", 0, 0},
      {"http://example.com/cam.xml;100000;10", "", 0, 0},
      {"local:cam.xml;zz;10", "", 0, 0},
  };
  for (const Case& c : cases) {
    if (c.name.empty()) {
      EXPECT_THROW(tool::parseDescriptionFileLocation(c.location), tool::Error) << c.location;
      continue;
    }
    const tool::DescriptionFile file = tool::parseDescriptionFileLocation(c.location);
    EXPECT_EQ(file.name, c.name) << c.location;
    EXPECT_EQ(file.address, c.address) << c.location;
    EXPECT_EQ(file.size, c.size) << c.location;
  }
}

}  // namespace
