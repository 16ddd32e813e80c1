// Running udevadm and picking attributes out of its attribute walk.
#pragma once

#include <string>

// Standard output of `command` run through the shell; empty when the shell
// cannot be started. The exit status is ignored.
std::string sExec(const std::string& command);

// The text between the first two double quotes after the first `key` in
// `text`, e.g. key ATTRS{idVendor} gives 7a3d. A missing key searches from
// the start of the text; a text without quotes comes back whole.
std::string sGetString(const std::string& text, const std::string& key);
