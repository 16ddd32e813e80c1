// The emulated cameras' configuration file (format in docs/sim.md).
#pragma once

#include <tqsim/CameraConfig.h>

#include <string>
#include <vector>

namespace tqsim {

// Reads path; every [camera] section gives one record. False with
// "file:line: reason" in *error on the first problem.
bool parseConfig(const std::string& path, std::vector<CameraConfig>& cameras, std::string* error);
// The same over text; baseDir resolves relative xml paths.
bool parseConfigText(const std::string& text, const std::string& baseDir, const std::string& name,
                     std::vector<CameraConfig>& cameras, std::string* error);

// One "fault NAME = VALUE" setting of a [camera] section, on config. False
// with the reason in why.
bool applyFault(CameraConfig& config, const std::string& name, const std::string& value, std::string& why);

}  // namespace tqsim
