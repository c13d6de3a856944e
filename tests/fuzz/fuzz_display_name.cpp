// The display names the start-up check reads from the environment: the X
// display name ("host:N.S", ":N", "unix:N", or anything), and, for names of
// a local display, the whole check with QT_QPA_PLATFORM, WAYLAND_DISPLAY and
// DISPLAY taken from the input. Only local sockets are tried: a name with a
// host is parsed but not connected to (no name is ever looked up), and an
// absolute Wayland socket path is moved into the scratch tree.
//
// Input: QT_QPA_PLATFORM and WAYLAND_DISPLAY (each a length byte and its
// text), then DISPLAY (the rest).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzSupport.h"
#include "diagnostic/DisplayCheck.h"

namespace {

void setOrClear(const char* name, const std::string& value) {
    if (value.empty() || value.find('\0') != std::string::npos)
        unsetenv(name);
    else
        setenv(name, value.c_str(), 1);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::scratch();
    setenv("XDG_RUNTIME_DIR", fuzz::scratch().c_str(), 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const std::string platformName = in.text();
    std::string wayland = in.text();
    // An absolute socket path is kept absolute, but inside the scratch tree.
    if (!wayland.empty() && wayland.front() == '/')
        wayland = fuzz::scratch() + wayland;
    const std::string display = in.rest();

    std::string host;
    int number = -1;
    if (parseXDisplay(display, host, number)) {
        if (number < 0 || number > 65535 - 6000)
            __builtin_trap();  // the TCP port 6000 + N must exist
        if (!host.empty() && host != "unix")
            return 0;  // a remote display: parsed, not connected to
    }
    setOrClear("QT_QPA_PLATFORM", platformName);
    setOrClear("WAYLAND_DISPLAY", wayland);
    setOrClear("DISPLAY", display);
    (void)displayReachable();
    return 0;
}
