// The V4L2 node discovery of USB cameras against nodes made of fuzz input:
// the modalias text under /sys/class/video4linux (any length, any bytes, in
// pieces), the capability record (driver name without its zero, odd
// capability bits) and the format enumeration of each /dev/videoN, and the
// node path handed in by the caller.
//
// Input: flags (endless driver, which camera is asked for), the path text,
// then the answers of the nodes as they are asked.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "FuzzSupport.h"
#include "FuzzVideoSys.h"
#include "bh_input/grabber/DeviceList.h"
#include "platform/Platform.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::scratch();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const uint8_t flags = in.byte();
    const std::string path = in.text();
    auto sys = std::make_shared<fuzz::FuzzVideoSys>(in);
    sys->endlessSuccess = (flags & 1) != 0;
    platform::ScopedBackend scope(
        platform::Backend{sys, nullptr, nullptr, nullptr, std::make_shared<fuzz::InstantClock>()});

    const bh::BH_DEVICE device = bh::getDeviceModelfromPath(path);
    (void)device;
    int pathNumber = -1;
    const bh::BH_DEVICE found = bh::findDevicePath_linux(pathNumber, (flags >> 1) & 3);
    if (found != bh::BH_DEVICE_NONE && (pathNumber < 0 || pathNumber > 98))
        __builtin_trap();  // a camera found on a node that was never looked at
    return 0;
}
