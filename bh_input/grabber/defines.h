#pragma once

// Enumerations and records shared by all capture code and the camera checks.
// Their numeric values are stored in records, compared in checks and written
// into the report: never renumber them.

#include <cstdint>
#include <map>
#include <string>

#include "bh_input/grabber/String.h"
#include "bh_input/mcu/IMU/VirtualIMUReader.h"

namespace bh {

enum MODEL : int32_t {
    KOV = 0,
    KOV_P = 1,
    KOVT = 2,
    KOVTr = 3,
    KOV_Q = 4,
    KOV_QP = 5,
    KOV_QS_A = 30,
    KOV_QS_B = 31,
    KOV_MODEL_UNKNOWN = 32,
};

enum BH_DEVICE : int32_t {
    BH_DEVICE_KOV = 0,
    BH_DEVICE_KOV_P = 1,
    BH_DEVICE_KOV_CBS = 2,
    BH_DEVICE_KOV_P_CBS = 3,
    BH_DEVICE_KOVT = 4,
    BH_DEVICE_KOVTr = 5,
    BH_DEVICE_GMSL_LEGACY = 6,
    BH_DEVICE_KOV_QG_ALPHA = 7,
    BH_DEVICE_KOV_QG_BETA = 8,
    BH_DEVICE_KOV_QG_PICO = 9,
    BH_DEVICE_KOV_QS_A = 10,
    BH_DEVICE_KOV_QS_B = 11,
    BH_DEVICE_KOV_P_MCU = 12,
    BH_DEVICE_KOVT_MCU = 13,
    BH_DEVICE_KOVTr_MCU = 14,
    BH_DEVICE_MCU_DFU = 15,
    BH_DEVICE_NONE = 17,
};

// The model of a USB video device (0..5); KOV_MODEL_UNKNOWN for anything else.
MODEL deviceToModel(BH_DEVICE device);
// Devices 0 and 1 use the old control interface, 2 to 5 the CBS one.
inline bool isCBSDevice(BH_DEVICE device) {
    return device >= BH_DEVICE_KOV_CBS && device <= BH_DEVICE_KOVTr;
}

enum INPUT_TYPE : int32_t {
    USB_INPUT = 0,
    GMSL_INPUT = 3,
    NO_INPUT = 4,
};

enum DEVICE_STATE : int32_t {
    DEVICE_AVAILABLE = 0,
    DEVICE_NOT_AVAILABLE = 1,
    DEVICE_MISSING = 2,
};

// The numeric error code of a state: {0, 4, 27}. A state above 2 leaves
// `error` as it is.
void DEVICE_STATE2ERROR(DEVICE_STATE state, int& error);

enum GRABBER_STATE : int32_t {
    GRABBER_STATE_NONE = 0,
    GRABBER_STATE_FRAME = 1,
    GRABBER_STATE_NO_GRABBER = 2,
    GRABBER_STATE_LOST = 3,
    GRABBER_STATE_LOCKED = 4,
};

enum RESOLUTION : int32_t {
    HD4K = 0,
    HD2K = 1,
    HD1080 = 2,
    HD1200 = 3,
    HD720 = 4,
    SVGA = 5,
    VGA = 6,
};

// Width and height of ONE sensor; a capture is asked for twice the width.
struct Resolution {
    int64_t width = 0;
    int64_t height = 0;
};

// RESOLUTION to one sensor's size. A plain map: looking up an absent key
// inserts a zero entry.
extern std::map<RESOLUTION, Resolution> cameraResolution;

enum VIDEO_SETTINGS : int32_t {
    BRIGHTNESS = 0,
    CONTRAST = 1,
    HUE = 2,
    SATURATION = 3,
    SHARPNESS = 4,
    GAMMA = 5,
    GAIN = 6,
    EXPOSURE = 7,
    AEC_AGC = 8,
    WHITEBALANCE_TEMPERATURE = 10,
    WHITEBALANCE_AUTO = 11,
    LED_STATUS = 12,
    EXPOSURE_TIME = 13,
    ANALOG_GAIN = 14,
    DIGITAL_GAIN = 15,
    AUTO_EXPOSURE_TIME_RANGE = 16,
    AUTO_ANALOG_GAIN_RANGE = 17,
    AUTO_DIGITAL_GAIN_RANGE = 18,
    EXPOSURE_COMPENSATION = 19,
    DENOISING = 20,
};

// The fixed ranges of the one-number settings. False when the wrapper of that
// input answers no range for the setting (GMSL settings 13 to 18 depend on
// the camera and are answered by the GMSL wrapper itself).
bool usbVideoSettingRange(int setting, int& min, int& max);
bool gmslFixedVideoSettingRange(int setting, int& min, int& max);

using IMU_FREQ = ::IMU_FREQ;

struct Rect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

// The text the checks show for a setup code; "Unknown" outside 0..9.
const char* setupCodeText(int code);

}  // namespace bh

// One camera in the list of getGrabberList.
struct DeviceProperties {
    bh::DEVICE_STATE camera_state = bh::DEVICE_NOT_AVAILABLE;
    int32_t id = -1;
    bh::String path;
    bh::MODEL camera_model = bh::KOV_MODEL_UNKNOWN;
    uint32_t serial_number = 0;
    bh::INPUT_TYPE input_type = bh::USB_INPUT;
};
