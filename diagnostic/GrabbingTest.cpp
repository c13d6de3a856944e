#include "diagnostic/GrabbingTest.h"

#include <QJsonObject>
#include <QString>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "diagnostic/DiagnosticRunner.h"
#include "diagnostic/KOVNode.h"
#include "diagnostic/TearingTest.h"
#include "platform/Clock.h"
#include "support/KLogger.h"
#include "support/SiteConfig.h"
#include "utils/SysPath.h"

namespace grabbing {

namespace {

// Board classes above this one are not Jetsons that stream every mode.
constexpr int kAlways = 5;
constexpr int kCapableBoards = 3;
// Chip ids with a class of their own.
constexpr int kChipId33 = 33;
constexpr int kChipId24 = 24;
constexpr int kChipId25 = 25;
// Percent a second of the bandwidth run: 15 over 8.34 s.
constexpr double kBandwidthProgressPerSecond = 1.7985611;
// Verdict limits.
constexpr int kMostTolerated = 14;
constexpr int kMostDropsForAWarning = 37;

const char* const kLowBandwidthText =
    "<b>Low USB bandwidth</b> <br/> Read our FAQ to troubleshoot your USB connection issues. <a "
    "href='{SUPPORT_SITE}/hc/en-us/articles/207635225' style='color: #d9ff42;' >Learn more</a>";

}  // namespace

bool parseChipId(const std::string& text, int& id) {
    size_t pos = 0;
    while (pos < text.size() && std::isspace(static_cast<unsigned char>(text[pos])))
        ++pos;
    const size_t signEnd = pos + ((pos < text.size() && (text[pos] == '-' || text[pos] == '+')) ? 1 : 0);
    if (signEnd >= text.size() || !std::isdigit(static_cast<unsigned char>(text[signEnd])))
        return false;
    errno = 0;
    char* end = nullptr;
    const long value = std::strtol(text.c_str() + pos, &end, 10);
    if (errno == ERANGE || value > INT_MAX || value < INT_MIN)
        return false;
    id = static_cast<int>(value);
    return true;
}

ChipId readChipId() {
    ChipId chip;
    std::ifstream in(utils::sysPath(kChipIdFile));
    if (!in)
        return chip;
    chip.present = true;
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!parseChipId(text, chip.id)) {
        chip.id = 0;
        KLOG(bh::LOGGER_NAME::SDK, warn, "{} holds no chip id; the board is taken as an unknown Jetson",
             kChipIdFile);
    }
    return chip;
}

int boardClass(const ChipId& chip) {
    if (!chip.present)
        return 1;
    switch (chip.id) {
        case kChipId33:
            return 4;
        case kChipId24:
            return 3;
        case kChipId25:
            return 2;
        default:
            return 5;
    }
}

int bandwidthFps(const ChipId& chip) {
    return chip.present && chip.id == kChipId33 ? 30 : 60;
}

const std::vector<GrabbingMode>& grabbingModes(bh::INPUT_TYPE type) {
    static const std::vector<GrabbingMode> usb = {
        {"VGA@15", bh::VGA, 15, kAlways},
        {"VGA@30", bh::VGA, 30, kAlways},
        {"VGA@60", bh::VGA, 60, kAlways},
        {"VGA@100", bh::VGA, 100, kCapableBoards},
        {"HD720@15", bh::HD720, 15, kAlways},
        {"HD720@30", bh::HD720, 30, kAlways},
        {"HD720@60", bh::HD720, 60, kCapableBoards},
        {"HD1080@15", bh::HD1080, 15, kAlways},
        {"HD1080@30", bh::HD1080, 30, kCapableBoards},
        {"HD2K@15", bh::HD2K, 15, kCapableBoards},
    };
    static const std::vector<GrabbingMode> gmsl = {
        {"HD1200@30", bh::HD1200, 30, kAlways},
        {"HD1200@60", bh::HD1200, 60, kAlways},
        {"SVGA@120", bh::SVGA, 120, kAlways},
    };
    static const std::vector<GrabbingMode> none;
    if (type == bh::USB_INPUT)
        return usb;
    if (type == bh::GMSL_INPUT)
        return gmsl;
    return none;
}

bool isModeTested(const GrabbingMode& mode, int boardClass) {
    return boardClass <= mode.maxBoardClass;
}

bool isBandwidthRun(bh::RESOLUTION resolution, int fps, int bandwidthRate) {
    const bh::Resolution& size = bh::cameraResolution[resolution];
    return size.width == 1280 && size.height == 720 && fps == bandwidthRate;
}

float modeProgress(float start, float end, int count, int done) {
    if (count <= 0)
        return start;
    return start + (end - start) / static_cast<float>(count) * static_cast<float>(done);
}

float bandwidthProgress(float startValue, double elapsedSeconds) {
    return static_cast<float>(startValue + elapsedSeconds * kBandwidthProgressPerSecond);
}

float expectedFrames(int fps, double seconds) {
    return static_cast<float>(fps * seconds);
}

int droppedFrames(float expected, int received) {
    return static_cast<int>(expected - static_cast<float>(received));
}

std::string lowBandwidthText(int drops, int tears, float expected) {
    const std::string outOf = "/" + std::to_string(static_cast<int>(expected));
    return site::expand(kLowBandwidthText) + "<br/> <b>Frame drops:</b> " + std::to_string(drops) + outOf +
           "<br/> <b>Frame tearing:</b> " + std::to_string(tears) + outOf;
}

BandwidthVerdict bandwidthVerdict(int tears, int drops, int frames, float expected) {
    if (tears > kMostTolerated || drops > kMostDropsForAWarning)
        return {lowBandwidthText(drops, tears, expected), DIAGNOSTIC_ERROR};
    if (drops > kMostTolerated)
        return {lowBandwidthText(drops, tears, expected), DIAGNOSTIC_WARNING};
    if (frames > 0)
        return {"<b>USB Bandwidth: </b> OK", DIAGNOSTIC_VALID};
    return {lowBandwidthText(drops, tears, expected), DIAGNOSTIC_WARNING};
}

BandwidthCounts measureBandwidth(bh::LiveCameraGrabber& grabber, int viewWidth, int viewHeight,
                                 double seconds,
                                 const std::function<void(double elapsedSeconds)>& onProgress) {
    BandwidthCounts counts;
    const size_t bufferBytes = static_cast<size_t>(viewWidth) * static_cast<size_t>(viewHeight) * 4;
    // Two buffers take turns: one always holds the previous frame.
    std::vector<uint8_t> buffers[2] = {std::vector<uint8_t>(bufferBytes), std::vector<uint8_t>(bufferBytes)};
    int current = 0;
    bool havePrevious = false;

    platform::Clock& clock = platform::clock();
    const int64_t start = clock.steadyNanoseconds();
    const auto elapsed = [&] { return static_cast<double>(clock.steadyNanoseconds() - start) / 1e9; };
    while (elapsed() <= seconds) {
        if (grabber.getFrameStatus() == bh::GRABBER_STATE_FRAME) {
            ++counts.frames;
            // A frame smaller than asked for is copied as far as it goes.
            const size_t frameBytes = static_cast<size_t>(std::max(0, grabber.getEffectiveWidth())) *
                                      static_cast<size_t>(std::max(0, grabber.getEffectiveHeight())) * 4;
            // The session writes the next frame into the same buffer: read it
            // inside its critical section.
            grabber.enterCriticalSection();
            const unsigned char* pixels = grabber.getPixels();
            const bool copied = pixels != nullptr;
            if (copied)
                std::memcpy(buffers[current].data(), pixels, std::min(bufferBytes, frameBytes));
            grabber.exitCriticalSection();
            grabber.afterGrab();
            if (copied && havePrevious &&
                tearing::isTorn(buffers[1 - current].data(), buffers[current].data(), viewWidth, viewHeight))
                ++counts.tears;
            havePrevious = copied;
            if (copied)
                current = 1 - current;
        }
        if (onProgress)
            onProgress(elapsed());
        clock.sleepFor(std::chrono::milliseconds(1));
    }
    return counts;
}

}  // namespace grabbing

// ---------------------------------------------------------------------------
// KOVNode's grabbing test

void KOVNode::CheckGrabbingStatus(QJsonObject& root, float start, float end) {
    const int board = grabbing::boardClass(grabbing::readChipId());
    QJsonObject placeholder;
    placeholder.insert("initCode", true);
    QJsonObject resolutions;

    const std::vector<grabbing::GrabbingMode>& modes = grabbing::grabbingModes(input_type);
    const int count = static_cast<int>(modes.size());
    for (int i = 0; i < count; ++i) {
        const grabbing::GrabbingMode& mode = modes[static_cast<size_t>(i)];
        const QJsonObject result = grabbing::isModeTested(mode, board)
                                       ? CheckSingleResolution(mode.resolution, mode.fps)
                                       : placeholder;
        resolutions.insert(mode.key, result);
        setProgress(grabbing::modeProgress(start, end, count, i + 1));
    }

    bool allAvailable = true;
    for (const grabbing::GrabbingMode& mode : modes) {
        const QJsonValue status = resolutions.value(mode.key).toObject().value("status");
        if (!status.isBool() || !status.toBool())
            allAvailable = false;
    }
    if (!allAvailable && !camera_test_thrown_firmware_error)
        addMessage(
            root, DIAGNOSTIC_ERROR,
            "<b>Specific resolutions are not available</b> <br/> Replug your device or connect the camera to "
            "another <b>USB 3.0</b> port.");

    setProgress(end);
    root.insert("resolutions", resolutions);
}

QJsonObject KOVNode::CheckSingleResolution(bh::RESOLUTION resolution, int fps) {
    QJsonObject result;
    const int bandwidthRate = grabbing::bandwidthFps(grabbing::readChipId());
    const bool bandwidthRun = grabbing::isBandwidthRun(resolution, fps, bandwidthRate);
    const bh::Resolution size = bh::cameraResolution[resolution];
    const int width = static_cast<int>(size.width);
    const int height = static_cast<int>(size.height);

    grabber = std::make_unique<bh::LiveCameraGrabber>(input_type);
    int id = 0;
    int code = -1;
    for (int attempt = 0; attempt < 9 && code != 0; ++attempt) {
        code = grabber->setUp(id, 2 * width, height, fps, 4, !bandwidthRun, IMU_ODR_400, false);
        pause(setUpPause);
    }
    result.insert("status", code == 0);
    result.insert("initialization", bh::setupCodeText(code));
    if (code != 0) {
        grabber.reset();
        return result;
    }

    grabber->endSetup(nullptr);
    const int outWidth = grabber->getEffectiveWidth();
    const int outHeight = grabber->getEffectiveHeight();
    const float outFps = grabber->getFPS();
    if (outWidth == width && outHeight == height && outFps == static_cast<float>(fps) && serial == -1)
        serial = static_cast<int32_t>(grabber->getSerialNumber());
    result.insert("width (input)", width);
    result.insert("height (input)", height);
    result.insert("width (output)", outWidth);
    result.insert("height (output)", outHeight);
    result.insert("fps (input)", fps);
    result.insert("fps (output)", static_cast<double>(outFps));
    if (!bandwidthRun) {
        grabber.reset();
        return result;
    }

    const float progressAtStart = getPercent();
    const grabbing::BandwidthCounts counts = grabbing::measureBandwidth(
        *grabber, width, height, bandwidthRunSeconds,
        [&](double elapsed) { setPercent(grabbing::bandwidthProgress(progressAtStart, elapsed)); });
    const float expected = grabbing::expectedFrames(bandwidthRate, bandwidthRunSeconds);
    const int drops = grabbing::droppedFrames(expected, counts.frames);
    const grabbing::BandwidthVerdict verdict =
        grabbing::bandwidthVerdict(counts.tears, drops, counts.frames, expected);
    camera_test_bandwidth_message = verdict.message;
    camera_test_bandwidth_message_level = verdict.level;
    result.insert("imageCount", counts.frames);
    result.insert("dropCount", drops);
    result.insert("tearingCount", counts.tears);
    if (counts.tears != 0)
        tearing_seen = true;
    grabber.reset();
    return result;
}
