// The values a USB camera keeps in its SPI flash and firmware registers, read
// back from a device made of fuzz input: the serial number and stored
// exposure records (marker, digits stored as hex digits, filler), the
// firmware version of both generations, the firmware watch over the sensor
// registers while streaming, and the frame rate the driver reports.
//
// Input: flags (generation, first frame seen), then operations, each one
// byte followed by its arguments; the device answers are read from the input.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "FuzzSupport.h"
#include "FuzzVideoSys.h"
#include "bh_input/grabber/linux/linuxStereoGrabber.h"
#include "platform/Platform.h"
#include "tests/unit/grabber/GrabberTestAccess.h"

namespace {

void runOperation(bh::LinuxStereoGrabber& g, fuzz::Input& in) {
    switch (in.byte() % 8) {
        case 0:
        case 1:
            g.getKOVSerialNumber();
            break;
        case 2:
            g.getExposureFromFW();
            break;
        case 3:
            g.getKOVFirmwareVersion();
            break;
        case 4:
            g.writeKOVSerialNumber(in.i32());
            break;
        case 5:
            g.writeExposureInFW(in.i32());
            break;
        case 6: {
            // The watch runs on frame numbers that are multiples of its
            // periods; the rate is whatever the driver last answered.
            bh::LinuxStereoGrabberTestAccess::setCurrentFps(g, static_cast<int8_t>(in.byte()));
            const uint8_t lock = in.byte();
            bh::LinuxStereoGrabberTestAccess::setLockCount(g, 0, lock);
            bh::LinuxStereoGrabberTestAccess::setLockCount(g, 1, lock);
            const unsigned long frame = in.u32();
            g.firmwareSanityCheck(frame);
            break;
        }
        default:
            g.input_get_framerate();
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::scratch();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const uint8_t flags = in.byte();
    auto sys = std::make_shared<fuzz::FuzzVideoSys>(in);
    platform::ScopedBackend scope(
        platform::Backend{sys, nullptr, nullptr, nullptr, std::make_shared<fuzz::InstantClock>()});
    {
        bh::LinuxStereoGrabber grabber((flags & 1) != 0);
        bh::LinuxStereoGrabberTestAccess::setFd(grabber, 7);
        bh::LinuxStereoGrabberTestAccess::setFirstFrameSeen(grabber, (flags & 2) == 0);
        for (int op = 0; op < 32 && !in.empty(); ++op)
            runOperation(grabber, in);
        bh::LinuxStereoGrabberTestAccess::setFd(grabber, -1);
    }
    return 0;
}
