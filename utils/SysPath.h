#pragma once

#include <string>

namespace utils {

// Maps a fixed absolute system path ("/proc/cpuinfo", "/usr/local/kov", ...)
// onto the machine the tool looks at. When KOV_SYSROOT is set, its value is put
// in front, so tests and reproduced support cases read a small root tree; a
// user's run (variable unset) reads the real path unchanged.
std::string sysPath(const std::string& absolutePath);

}  // namespace utils
