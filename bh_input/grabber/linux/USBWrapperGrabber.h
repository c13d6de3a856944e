#pragma once

// bh::USBWrapperGrabber: the USB session with the wrapper's status polling and
// one-number settings (USBWrapperLogic.h) and its software exposure control.
// bh::LiveCameraGrabber builds one for USB_INPUT.

#include "bh_input/grabber/USBWrapperLogic.h"
#include "bh_input/grabber/linux/CameraControl.h"
#include "bh_input/grabber/linux/LinuxInput.h"

namespace bh {

class USBWrapperGrabber : public USBWrapperGrabberT<LinuxInput, CameraControl> {
public:
    int getIMUPacket(IMUPacket& packet) override { return LinuxInput::getIMUPacket(packet); }
};

}  // namespace bh
