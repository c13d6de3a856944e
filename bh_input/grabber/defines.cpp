#include "bh_input/grabber/defines.h"

namespace bh {

std::map<RESOLUTION, Resolution> cameraResolution = {
    {HD4K, {3840, 2160}}, {HD2K, {2208, 1242}}, {HD1080, {1920, 1080}}, {HD1200, {1920, 1200}},
    {HD720, {1280, 720}}, {SVGA, {960, 600}},   {VGA, {672, 376}},
};

MODEL deviceToModel(BH_DEVICE device) {
    switch (device) {
        case BH_DEVICE_KOV:
            return KOV;
        case BH_DEVICE_KOV_P:
            return KOV_P;
        case BH_DEVICE_KOV_CBS:
            return KOV;
        case BH_DEVICE_KOV_P_CBS:
            return KOV_P;
        case BH_DEVICE_KOVT:
            return KOVT;
        case BH_DEVICE_KOVTr:
            return KOVTr;
        default:
            return KOV_MODEL_UNKNOWN;
    }
}

void DEVICE_STATE2ERROR(DEVICE_STATE state, int& error) {
    static const int codes[] = {0, 4, 27};
    if (state >= 0 && state <= 2)
        error = codes[state];
}

bool usbVideoSettingRange(int setting, int& min, int& max) {
    switch (setting) {
        case BRIGHTNESS:
        case CONTRAST:
        case SATURATION:
        case SHARPNESS:
            min = 0, max = 8;
            return true;
        case HUE:
            min = 0, max = 11;
            return true;
        case GAMMA:
            min = 1, max = 9;
            return true;
        case GAIN:
        case EXPOSURE:
            min = 0, max = 100;
            return true;
        case AEC_AGC:
        case WHITEBALANCE_AUTO:
        case LED_STATUS:
            min = 0, max = 1;
            return true;
        case WHITEBALANCE_TEMPERATURE:
            min = 2800, max = 6500;
            return true;
        default:
            return false;
    }
}

bool gmslFixedVideoSettingRange(int setting, int& min, int& max) {
    switch (setting) {
        case SATURATION:
        case SHARPNESS:
            min = 0, max = 8;
            return true;
        case GAMMA:
            min = 1, max = 9;
            return true;
        case GAIN:
        case EXPOSURE:
        case EXPOSURE_COMPENSATION:
        case DENOISING:
            min = 0, max = 100;
            return true;
        case AEC_AGC:
        case WHITEBALANCE_AUTO:
            min = 0, max = 1;
            return true;
        case WHITEBALANCE_TEMPERATURE:
            min = 2800, max = 11000;
            return true;
        default:
            return false;
    }
}

const char* setupCodeText(int code) {
    switch (code) {
        case 0:
            return "OK";
        case 1:
            return "Error : Cannot setup camera controller";
        case 2:
            return "Error : Cannot open MCU for the camera";
        case 3:
            return "Error : No grabber system found";
        case 4:
            return "Error : Camera not found in system path";
        case 5:
            return "Error : Cannot start camera stream. Camera might already be used by another application.";
        case 6:
            return "Error : Cannot construct a valid video device (/dev/videoX) for the camera";
        case 7:
            return "Warning : Invalid resolution (requested vs effective)";
        case 8:
            return "Warning : Cannot activate ECT (Constrast Enhancement) mode for the camera";
        case 9:
            return "Error : Cannot initialize camera controller";
        default:
            return "Unknown";
    }
}

}  // namespace bh
