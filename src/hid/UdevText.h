// Running udevadm and picking attributes out of its attribute walk.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Standard output of `command` run through the shell; empty when the shell
// cannot be started. The exit status is ignored.
std::string sExec(const std::string& command);

// sExec of every command, up to `parallel` of them running at once; the
// outputs come back in the order of `commands`, as if run one after another.
// When no further shell can be started (process or descriptor limit) the
// running ones are finished first and the start is tried again; a command
// that ran beside others and ended with a non-zero status and no output (its
// shell may have been refused a fork) runs again alone at the end. A command whose shell cannot be
// started even alone gives an empty output, as with sExec. Named after sExec,
// whose overlapped form it is.
std::vector<std::string> sExecAll(const std::vector<std::string>& commands, size_t parallel);

// The text between the first two double quotes after the first `key` in
// `text`, e.g. key ATTRS{idVendor} gives 7a3d. A missing key searches from
// the start of the text; a text without quotes comes back whole.
std::string sGetString(const std::string& text, const std::string& key);
