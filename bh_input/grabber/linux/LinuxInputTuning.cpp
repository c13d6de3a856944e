// Image tuning of a USB camera session: V4L2 controls, gamma presets, the
// default and enhanced sets that image enhancement switches between, the
// regions of interest of the auto exposure, and the parking of a manual
// exposure between two sessions.
#include <linux/videodev2.h>

#include <chrono>
#include <cstring>

#include "bh_input/grabber/linux/ClockWait.h"
#include "bh_input/grabber/linux/LinuxInput.h"
#include "platform/Platform.h"

namespace bh {

namespace cbs {
const unsigned char PRESET_GAMMA[9][16] = {
    {0x07, 0x0E, 0x1D, 0x36, 0x42, 0x4E, 0x59, 0x67, 0x72, 0x7B, 0x8B, 0x9A, 0xB7, 0xCE, 0xE4, 0xFE},
    {0x09, 0x11, 0x22, 0x3A, 0x47, 0x53, 0x59, 0x6C, 0x76, 0x7F, 0x8F, 0x9E, 0xBA, 0xD0, 0xE5, 0xFE},
    {0x0A, 0x14, 0x26, 0x3F, 0x4B, 0x58, 0x63, 0x70, 0x7B, 0x84, 0x93, 0xA2, 0xBD, 0xD2, 0xE6, 0xFE},
    {0x0C, 0x17, 0x2B, 0x43, 0x50, 0x5C, 0x67, 0x75, 0x7F, 0x88, 0x97, 0xA5, 0xC0, 0xD4, 0xE7, 0xFE},
    {0x0D, 0x1A, 0x2F, 0x47, 0x54, 0x61, 0x6C, 0x79, 0x83, 0x8C, 0x9B, 0xA9, 0xC3, 0xD6, 0xE8, 0xFF},
    {0x12, 0x20, 0x36, 0x50, 0x5D, 0x6A, 0x75, 0x82, 0x8C, 0x95, 0xA4, 0xB1, 0xCA, 0xDB, 0xEC, 0xFF},
    {0x18, 0x26, 0x3D, 0x58, 0x66, 0x73, 0x7F, 0x8B, 0x94, 0x9D, 0xAC, 0xBA, 0xD1, 0xE1, 0xF0, 0xFF},
    {0x1D, 0x2C, 0x44, 0x61, 0x6F, 0x7C, 0x88, 0x93, 0x9D, 0xA6, 0xB5, 0xC2, 0xD7, 0xE6, 0xF3, 0xFF},
    {0x22, 0x32, 0x4B, 0x69, 0x78, 0x85, 0x91, 0x9C, 0xA5, 0xAE, 0xBD, 0xCA, 0xDE, 0xEB, 0xF7, 0xFF},
};
}  // namespace cbs

namespace {

// System registers of the image signal processor, sensor 0 then sensor 1.
constexpr uint32_t kGammaCurve[2] = {0x80181500, 0x80181D00};
constexpr uint32_t kGammaCommit[2] = {0x80181510, 0x80181D10};
constexpr uint32_t kSharpening[2] = {0x80181400, 0x80181C00};
constexpr uint32_t kRegionOfInterest[2] = {0x801810C0, 0x801818C0};

}  // namespace

// ---------------------------------------------------------------------------
// V4L2 controls

namespace {

// VIDIOC_QUERYCTRL of one control; false when the driver does not answer.
bool queryControl(LinuxStereoGrabber& g, uint32_t controlId, v4l2_queryctrl& query) {
    std::memset(&query, 0, sizeof query);
    query.id = controlId;
    return g.xioctl(g.getFd(), VIDIOC_QUERYCTRL, &query) == 0;
}

// VIDIOC_G_CTRL (write false) or VIDIOC_S_CTRL (write true) of one control.
int accessControl(LinuxStereoGrabber& g, uint32_t controlId, int& value, bool write) {
    v4l2_control control;
    std::memset(&control, 0, sizeof control);
    control.id = controlId;
    control.value = value;
    const int r = g.xioctl(g.getFd(), write ? VIDIOC_S_CTRL : VIDIOC_G_CTRL, &control);
    value = control.value;
    return r;
}

}  // namespace

int LinuxInput::setCameraControlSettings(uint32_t controlId, int value) {
    if (!grabber)
        return -1;
    v4l2_queryctrl query;
    int low = 0, high = 6500;
    if (queryControl(*grabber, controlId, query)) {
        low = query.minimum;
        high = query.maximum;
    }
    if (controlId == CONTROL_GAMMA) {
        low = 1;
        high = 9;
    }
    // A value out of range writes nothing.
    if (value < low || value > high)
        return -1;
    return accessControl(*grabber, controlId, value, true);
}

int LinuxInput::getCameraControlSettings(uint32_t controlId) {
    v4l2_queryctrl query;
    int value = 0;
    if (!grabber || !queryControl(*grabber, controlId, query) ||
        accessControl(*grabber, controlId, value, false) != 0)
        return -1;
    return value;
}

int LinuxInput::resetCameraControlSettings(uint32_t controlId) {
    v4l2_queryctrl query;
    if (!grabber || !queryControl(*grabber, controlId, query))
        return -1;
    int value = query.default_value;
    return accessControl(*grabber, controlId, value, true);
}

int LinuxInput::setBrightnessSetting(int value, bool useDefault) {
    return useDefault ? resetCameraControlSettings(CONTROL_BRIGHTNESS)
                      : setCameraControlSettings(CONTROL_BRIGHTNESS, value);
}

int LinuxInput::setContrastSetting(int value, bool useDefault) {
    return useDefault ? resetCameraControlSettings(CONTROL_CONTRAST)
                      : setCameraControlSettings(CONTROL_CONTRAST, value);
}

int LinuxInput::setHueSetting(int value, bool useDefault) {
    return useDefault ? resetCameraControlSettings(CONTROL_HUE)
                      : setCameraControlSettings(CONTROL_HUE, value);
}

int LinuxInput::setSaturationSetting(int value, bool useDefault) {
    return useDefault ? resetCameraControlSettings(CONTROL_SATURATION)
                      : setCameraControlSettings(CONTROL_SATURATION, value);
}

// Sharpness is no camera control: the session only keeps the value.
int LinuxInput::setSharpnessSetting(int value, bool /*useDefault*/) {
    sharpness = value;
    return 0;
}

int LinuxInput::setWhiteBalanceSetting(int value, bool useDefault) {
    if (useDefault || value <= -1)
        return setCameraControlSettings(CONTROL_AUTO_WHITE_BALANCE, 1);
    int result = 0;
    if (getCameraControlSettings(CONTROL_AUTO_WHITE_BALANCE) == 1)
        result += setCameraControlSettings(CONTROL_AUTO_WHITE_BALANCE, 0);
    return result + setCameraControlSettings(CONTROL_WHITE_BALANCE_TEMPERATURE, value);
}

int LinuxInput::setAutoWhiteBalanceSetting(int value, bool useDefault) {
    const bool on = useDefault || value == 1;
    return setCameraControlSettings(CONTROL_AUTO_WHITE_BALANCE, on ? 1 : 0);
}

int LinuxInput::setGammaSetting(int value, bool useDefault) {
    const int current = getCameraControlSettings(CONTROL_GAMMA);
    if (useDefault) {
        value = ect ? 5 : 1;
    } else if (value == current) {
        return 0;
    }
    // Only the nine presets exist: anything else writes nothing.
    if (value < 1 || value > 9)
        return -1;
    return setGammaPreset(0, value) + setGammaPreset(1, value) +
           setCameraControlSettings(CONTROL_GAMMA, value);
}

int LinuxInput::getBrightnessSetting() {
    return getCameraControlSettings(CONTROL_BRIGHTNESS);
}
int LinuxInput::getSharpnessSetting() {
    return sharpness;
}
int LinuxInput::getContrastSetting() {
    return getCameraControlSettings(CONTROL_CONTRAST);
}
int LinuxInput::getHueSetting() {
    return getCameraControlSettings(CONTROL_HUE);
}
int LinuxInput::getGammaSetting() {
    return getCameraControlSettings(CONTROL_GAMMA);
}
int LinuxInput::getSaturationSetting() {
    return getCameraControlSettings(CONTROL_SATURATION);
}
int LinuxInput::getWhiteBalanceSetting() {
    return getCameraControlSettings(CONTROL_WHITE_BALANCE_TEMPERATURE);
}
int LinuxInput::getWhiteBalanceAutoSetting() {
    return getCameraControlSettings(CONTROL_AUTO_WHITE_BALANCE);
}

// ---------------------------------------------------------------------------
// Gamma curves

int LinuxInput::setGammaPreset(int sensor, int setting) {
    if (setting < 1 || setting > 9)
        return -1;
    return setGammaCurve(sensor, cbs::PRESET_GAMMA[setting - 1]);
}

// Each byte is written and read back; the curve takes effect on its commit.
// The 16th byte of a preset is not sent.
int LinuxInput::setGammaCurve(int sensor, const unsigned char* curve) {
    if (!grabber || grabber->isDisconnected() || curve == nullptr)
        return -1;
    const int s = sensor == 1 ? 1 : 0;
    for (uint32_t i = 0; i < 15; ++i) {
        SystemWrite(kGammaCurve[s] + i, curve[i]);
        sleepUs(10);
        unsigned char back = 0;
        SystemRead(kGammaCurve[s] + i, &back);
        if (back != curve[i])
            return -3;
    }
    SystemWrite(kGammaCommit[s], 1);
    sleepUs(10);
    unsigned char committed = 0;
    SystemRead(kGammaCommit[s], &committed);
    return committed == 1 ? 0 : -2;
}

int LinuxInput::setDefaultGammaCurve() {
    if (!cbs)
        return -1;
    return setGammaPreset(0, 1) + setGammaPreset(1, 1);
}

int LinuxInput::setEnhancedGammaCurve() {
    if (!cbs)
        return -1;
    return setGammaPreset(0, 5) + setGammaPreset(1, 5);
}

// ---------------------------------------------------------------------------
// Black level, sharpening, white balance gains

int LinuxInput::writeSensorPair(uint32_t address, unsigned char value, int mismatch) {
    int result = 0;
    for (int sensor = 0; sensor < 2; ++sensor) {
        if (sensor == 1)
            sleepUs(100);
        grabber->linux_cbs_write_sensor_register(sensor, 1, address, value);
        unsigned char back = 0;
        grabber->linux_cbs_read_sensor_register(sensor, 1, address, &back);
        if (back != value)
            return mismatch - sensor;
    }
    return result;
}

int LinuxInput::setBLC(unsigned char value) {
    if (!cbs || !grabber)
        return -1;
    return writeSensorPair(0x4005, value, -2) == 0 ? 0 : -2;
}

int LinuxInput::setDefaultBLC() {
    return setBLC(0x40);
}

int LinuxInput::setEnhancedBLC() {
    return setBLC(0x10);
}

int LinuxInput::setDefaultSharpening() {
    if (!cbs || !grabber)
        return -1;
    int result = 0;
    for (int s = 0; s < 2; ++s) {
        if (s == 1)
            sleepUs(100);
        result += SystemWrite(kSharpening[s] + 0x0A, 2);
        result += SystemWrite(kSharpening[s] + 0x0B, 4);
        result += SystemWrite(kSharpening[s] + 0x0F, 16);
    }
    return result;
}

int LinuxInput::setEnhancedSharpening() {
    if (!cbs || !grabber)
        return -1;
    static const unsigned char kBlock[6] = {0, 4, 0, 0xFF, 0, 0x10};
    int result = 0;
    for (int s = 0; s < 2; ++s) {
        if (s == 1)
            sleepUs(100);
        result += SystemWrite(kSharpening[s], 0x40);
        for (uint32_t i = 0; i < 6; ++i)
            result += SystemWrite(kSharpening[s] + 0x0A + i, kBlock[i]);
    }
    return result;
}

// The two gain registers of each sensor, read back: -2 and -3 for sensor 0's,
// -4 and -5 for sensor 1's.
int LinuxInput::setAWBGain(unsigned char value) {
    if (!cbs || !grabber)
        return -1;
    static const uint32_t kRegisters[2] = {0x500D, 0x5011};
    int code = -2;
    for (int sensor = 0; sensor < 2; ++sensor) {
        if (sensor == 1)
            sleepUs(100);
        for (uint32_t reg : kRegisters) {
            grabber->linux_cbs_write_sensor_register(sensor, 1, reg, value);
            unsigned char back = 0;
            grabber->linux_cbs_read_sensor_register(sensor, 1, reg, &back);
            if (back != value)
                return code;
            --code;
        }
    }
    return 0;
}

int LinuxInput::setDefaultAWBGain() {
    return setAWBGain(0);
}

int LinuxInput::setEnhancedAWBGain() {
    return setAWBGain(100);
}

// ---------------------------------------------------------------------------
// Regions of interest of the auto exposure

int LinuxInput::setROIforAECAGC(int side, Rect roi) {
    if (!cbs || !grabber)
        return -1;
    const long area = static_cast<long>(roi.width) * static_cast<long>(roi.height);
    if (area < 101 || roi.x < 0 || roi.y < 0 || roi.width < 0 || roi.height < 0 ||
        roi.x + roi.width > width / 2 || roi.y + roi.height > height)
        return -2;
    const uint32_t base = kRegionOfInterest[side == 1 ? 1 : 0];
    const int values[4] = {roi.x, roi.y, roi.width, roi.height};
    int result = 0;
    for (uint32_t i = 0; i < 4; ++i) {
        result += SystemWrite(base + 2 * i, static_cast<unsigned char>(values[i] >> 8));
        sleepUs(100);
        result += SystemWrite(base + 2 * i + 1, static_cast<unsigned char>(values[i] & 0xFF));
        sleepUs(100);
    }
    return result;
}

int LinuxInput::getROIforAECAGC(int side, Rect& roi) {
    if (!cbs || !grabber)
        return -1;
    const uint32_t base = kRegionOfInterest[side == 1 ? 1 : 0];
    unsigned char bytes[8] = {};
    int result = 0;
    for (uint32_t i = 0; i < 8; ++i)
        result += SystemRead(base + i, &bytes[i]);
    if (result != 0)
        return result;
    roi.x = (bytes[0] << 8) | bytes[1];
    roi.y = (bytes[2] << 8) | bytes[3];
    roi.width = (bytes[4] << 8) | bytes[5];
    roi.height = (bytes[6] << 8) | bytes[7];
    return 0;
}

int LinuxInput::resetROIforAECAGC(int side) {
    if (!cbs || !grabber)
        return -1;
    return setROIforAECAGC(side, Rect{0, 0, width / 2, height});
}

// ---------------------------------------------------------------------------
// A manual exposure is parked in 0x350A..0x350C between two sessions.

int LinuxInput::copyExposureRegisters(bool toParking) {
    if (!cbs || !grabber || grabber->getISPAECAGC())
        return 0;
    int result = 0;
    for (int sensor = 0; sensor < 2; ++sensor) {
        for (uint32_t i = 0; i < 3; ++i) {
            const uint32_t from = toParking ? 0x3500 + i : 0x350A + i;
            const uint32_t to = toParking ? 0x350A + i : 0x3500 + i;
            unsigned char value = 0;
            result += grabber->linux_cbs_read_sensor_register(sensor, 1, from, &value);
            sleepUs(10);
            result += grabber->linux_cbs_write_sensor_register(sensor, 1, to, value);
            sleepUs(10);
        }
    }
    return result;
}

int LinuxInput::applyManualExpFromRegister() {
    return copyExposureRegisters(false);
}

int LinuxInput::saveManualExpToRegister() {
    return copyExposureRegisters(true);
}

}  // namespace bh
