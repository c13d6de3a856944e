#include "bh_input/grabber/GrabberWrapper.h"

#include <map>
#include <mutex>

#include "bh_input/grabber/gmsl/GMSLWrapperGrabber.h"
#include "bh_input/grabber/linux/USBWrapperGrabber.h"
#include "bh_input/mcu/KOVmcu.h"
#include "platform/Clock.h"

namespace bh {

namespace {
std::mutex g_factoryMutex;
// Both sessions are part of this library and are the defaults; tests may
// register others.
std::map<INPUT_TYPE, WrapperFactory>& factories() {
    static std::map<INPUT_TYPE, WrapperFactory> f = {
        {USB_INPUT, [] { return std::unique_ptr<WrapperGrabber>(new USBWrapperGrabber()); }},
        {GMSL_INPUT, [] { return std::unique_ptr<WrapperGrabber>(new GMSLWrapperGrabber()); }},
    };
    return f;
}
std::unique_ptr<WrapperGrabber> makeWrapper(INPUT_TYPE type) {
    std::lock_guard<std::mutex> lock(g_factoryMutex);
    auto it = factories().find(type);
    if (it == factories().end() || !it->second)
        return nullptr;
    return it->second();
}
}  // namespace

int pollStreamStatus(WrapperGrabber& wrapper, float timeoutMs) {
    if (timeoutMs <= 0)
        return 1;
    platform::Clock& clock = platform::clock();
    const int64_t start = clock.steadyNanoseconds();
    for (;;) {
        if (wrapper.getFrameStatus() == GRABBER_STATE_FRAME)
            return 0;
        if (static_cast<float>((clock.steadyNanoseconds() - start) / 1000000) >= timeoutMs)
            return 1;
        clock.sleepFor(std::chrono::milliseconds(10));
    }
}

void setWrapperFactory(INPUT_TYPE type, WrapperFactory factory) {
    std::lock_guard<std::mutex> lock(g_factoryMutex);
    factories()[type] = std::move(factory);
}

LiveCameraGrabber::LiveCameraGrabber(INPUT_TYPE type) {
    usb.reset();
    gmsl.reset();
    input_type = NO_INPUT;
    mono = false;
    setInputType(type);
}

LiveCameraGrabber::~LiveCameraGrabber() {
    usb.reset();
    gmsl.reset();
}

void LiveCameraGrabber::setInputTypeFromModel(MODEL model) {
    switch (model) {
        case KOV:
        case KOV_P:
        case KOVT:
        case KOVTr:
            input_type = USB_INPUT;
            break;
        case KOV_Q:
        case KOV_QP:
        case KOV_QS_A:
        case KOV_QS_B:
            input_type = GMSL_INPUT;
            break;
        default:
            break;
    }
}

WrapperGrabber* LiveCameraGrabber::current() const {
    if (input_type == USB_INPUT)
        return usb.get();
    if (input_type == GMSL_INPUT)
        return gmsl.get();
    return nullptr;
}

VirtualGrabber* LiveCameraGrabber::session() const {
    WrapperGrabber* w = current();
    return w ? &w->grabber() : nullptr;
}

int LiveCameraGrabber::setUp(int& id, int width, int height, int fps, int buffers, bool noMCU,
                             IMU_FREQ imuFreq, bool ect) {
    if (input_type == GMSL_INPUT) {
        gmsl.reset();
        gmsl = makeWrapper(GMSL_INPUT);
        if (!gmsl)
            return 3;
        gmsl->setMonoCamera(mono);
        return gmsl->grabber().setUp(id, width < 0 ? 3840 : width, height < 0 ? 1200 : height,
                                     fps < 0 ? 60 : fps, buffers, noMCU, imuFreq, ect);
    }
    if (input_type == USB_INPUT) {
        usb.reset();
        usb = makeWrapper(USB_INPUT);
        mono = false;
        if (!usb)
            return 3;
        return usb->grabber().setUp(id, width < 0 ? 2560 : width, height < 0 ? 720 : height,
                                    fps < 0 ? 15 : fps, buffers, noMCU, imuFreq, ect);
    }
    return 4;
}

void LiveCameraGrabber::endSetup(unsigned char* buffer) {
    if (WrapperGrabber* w = current())
        w->endSetup(buffer);
}

void LiveCameraGrabber::close(bool force) {
    if (VirtualGrabber* s = session())
        s->close(force);
}

void LiveCameraGrabber::forceReboot() {
    if (input_type == GMSL_INPUT && gmsl)
        gmsl->forceReboot();
}

GRABBER_STATE LiveCameraGrabber::getFrameStatus() {
    WrapperGrabber* w = current();
    return w ? w->getFrameStatus() : GRABBER_STATE_LOST;
}

int LiveCameraGrabber::checkStreamStatus() {
    WrapperGrabber* w = current();
    return w ? w->checkStreamStatus() : 2;
}

int LiveCameraGrabber::getGrabberSettingsValue(VIDEO_SETTINGS setting) {
    WrapperGrabber* w = current();
    return w ? w->getGrabberSettingsValue(setting) : -1;
}

int LiveCameraGrabber::setGrabberSettingsValue(VIDEO_SETTINGS setting, int value, bool useDefault) {
    WrapperGrabber* w = current();
    return w ? w->setGrabberSettingsValue(setting, value, useDefault) : -1;
}

int LiveCameraGrabber::setGrabberSettingsValue(VIDEO_SETTINGS setting, std::pair<int, int> range,
                                               bool useDefault) {
    if (input_type != GMSL_INPUT || !gmsl)
        return -1;
    return gmsl->setGrabberSettingsValue(setting, range, useDefault);
}

int LiveCameraGrabber::getGrabberSettingsRangeValue(VIDEO_SETTINGS setting, std::pair<int, int>& range) {
    if (input_type != GMSL_INPUT || !gmsl)
        return -1;
    return gmsl->getGrabberSettingsRangeValue(setting, range);
}

bool LiveCameraGrabber::getVideoSettingRange(VIDEO_SETTINGS setting, int& min, int& max) {
    WrapperGrabber* w = current();
    return w ? w->getVideoSettingRange(setting, min, max) : false;
}

bool LiveCameraGrabber::valueInRange(VIDEO_SETTINGS setting, int value) {
    if (value == -1)
        return true;  // asks for the default
    // On GMSL, brightness, contrast and hue are judged by the USB ranges even
    // though the GMSL range query answers false for them.
    if (input_type == GMSL_INPUT && setting >= BRIGHTNESS && setting <= HUE) {
        int min = 0, max = 0;
        usbVideoSettingRange(setting, min, max);
        return value >= min && value <= max;
    }
    WrapperGrabber* w = current();
    return w ? w->valueInRange(setting, value) : false;
}

int LiveCameraGrabber::getSensorTemperature(int side) {
    if (input_type != USB_INPUT || !usb)
        return -1;
    usb->getSensorTemperature(side);  // drives the registers; the value is not used at this level
    return -1;
}

int LiveCameraGrabber::getWidth() {
    VirtualGrabber* s = session();
    return s ? s->getSetupWidth() / 2 : 0;
}
int LiveCameraGrabber::getHeight() {
    VirtualGrabber* s = session();
    return s ? s->getSetupHeight() : 0;
}
bool LiveCameraGrabber::hasMCU() {
    VirtualGrabber* s = session();
    return s ? s->getMCU() != nullptr : false;
}
MODEL LiveCameraGrabber::getCameraModel() {
    WrapperGrabber* w = current();
    return w ? w->grabber().getCameraModel() : KOV_MODEL_UNKNOWN;
}

#define LCG_FORWARD(expr, fallback)    \
    do {                               \
        VirtualGrabber* s = session(); \
        return s ? s->expr : fallback; \
    } while (0)

unsigned char* LiveCameraGrabber::getPixels() {
    LCG_FORWARD(getPixels(), nullptr);
}
KOVmcu* LiveCameraGrabber::getMCU() {
    LCG_FORWARD(getMCU(), nullptr);
}
unsigned long long LiveCameraGrabber::getTimeStamp() {
    LCG_FORWARD(getTimeStamp(), 0);
}
float LiveCameraGrabber::getFPS() {
    LCG_FORWARD(getFPS(), 0.f);
}
int LiveCameraGrabber::getRequestedFPS() {
    LCG_FORWARD(getRequestedFPS(), 0);
}
int LiveCameraGrabber::getEffectiveWidth() {
    LCG_FORWARD(getEffectiveWidth(), 0);
}
int LiveCameraGrabber::getEffectiveHeight() {
    LCG_FORWARD(getEffectiveHeight(), 0);
}
unsigned int LiveCameraGrabber::getSerialNumber() {
    LCG_FORWARD(getSerialNumber(), 0u);
}
int LiveCameraGrabber::getFWVersion() {
    LCG_FORWARD(getFWVersion(), 0);
}
int LiveCameraGrabber::writeSerialNumber(int serial) {
    LCG_FORWARD(writeSerialNumber(serial), 0);
}
int LiveCameraGrabber::waitForNewFrame(int timeoutMs) {
    LCG_FORWARD(waitForNewFrame(timeoutMs), 1);
}
int LiveCameraGrabber::getSharpnessSetting() {
    LCG_FORWARD(getSharpnessSetting(), -1);
}
int LiveCameraGrabber::getROIforAECAGC(int side, Rect& roi) {
    LCG_FORWARD(getROIforAECAGC(side, roi), -1);
}
int LiveCameraGrabber::setROIforAECAGC(int side, Rect roi) {
    LCG_FORWARD(setROIforAECAGC(side, roi), -1);
}
int LiveCameraGrabber::resetROIforAECAGC(int side) {
    LCG_FORWARD(resetROIforAECAGC(side), -1);
}
int LiveCameraGrabber::enableECT() {
    LCG_FORWARD(enableECT(), 0);
}
int LiveCameraGrabber::disableECT() {
    LCG_FORWARD(disableECT(), 0);
}
std::string LiveCameraGrabber::getCameraSystemPath(int id) {
    LCG_FORWARD(getCameraSystemPath(id), std::string());
}

#undef LCG_FORWARD

int LiveCameraGrabber::getIMUPacket(IMUPacket& packet) {
    WrapperGrabber* w = current();
    return w ? w->getIMUPacket(packet) : 0;
}

void LiveCameraGrabber::setOutputBufferPtr(unsigned char* ptr) {
    if (VirtualGrabber* s = session())
        s->setOutputBufferPtr(ptr);
}
void LiveCameraGrabber::deleteWinVI() {
    if (VirtualGrabber* s = session())
        s->deleteWinVI();
}
void LiveCameraGrabber::enterCriticalSection() {
    if (VirtualGrabber* s = session())
        s->enterCriticalSection();
}
void LiveCameraGrabber::exitCriticalSection() {
    if (VirtualGrabber* s = session())
        s->exitCriticalSection();
}
void LiveCameraGrabber::afterGrab() {
    if (VirtualGrabber* s = session())
        s->afterGrab();
}

#define LCG_IMAGE_OP(name)             \
    int LiveCameraGrabber::name() {    \
        WrapperGrabber* w = current(); \
        return w ? w->name() : -1;     \
    }
LCG_IMAGE_OP(setDefaultGammaCurve)
LCG_IMAGE_OP(setEnhancedGammaCurve)
LCG_IMAGE_OP(setDefaultBLC)
LCG_IMAGE_OP(setEnhancedBLC)
LCG_IMAGE_OP(setDefaultSharpening)
LCG_IMAGE_OP(setEnhancedSharpening)
LCG_IMAGE_OP(setDefaultAWBGain)
LCG_IMAGE_OP(setEnhancedAWBGain)
#undef LCG_IMAGE_OP

}  // namespace bh
