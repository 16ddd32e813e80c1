// The emulated camera's configuration files, parsed without plugging anything.
#include <tqsim/Sim.h>

#include <string>
#include <vector>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!fuzz::writeScratch(data, size)) fuzz::fail("cannot write the scratch file");
  std::vector<tqsim::CameraConfig> cameras;
  std::string error;
  const bool ok = tqsim::parseConfigFile(fuzz::scratchFile(), cameras, &error);
  // A refusal always says where and why; an accepted file says nothing.
  if (!ok && error.find(fuzz::scratchFile() + ":") != 0) fuzz::fail("refused without file:line: reason");
  if (ok && !error.empty()) fuzz::fail("accepted with an error text");
  return 0;
}
