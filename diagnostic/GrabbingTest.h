#pragma once

// The rules of the grabbing test of the "Camera Test" node (KOVNode's
// CheckGrabbingStatus and CheckSingleResolution): the board classes, the list
// of modes, the progress arithmetic, the bandwidth run and its verdict.

#include <functional>
#include <string>
#include <vector>

#include "bh_input/grabber/GrabberWrapper.h"
#include "bh_input/grabber/defines.h"
#include "diagnostic/DiagnosticNode.h"

namespace grabbing {

// The Jetson's chip id, read as a decimal number.
constexpr const char* kChipIdFile = "/sys/module/tegra_fuse/parameters/tegra_chip_id";

struct ChipId {
    bool present = false;  // the file could be opened (a Jetson)
    int id = 0;            // meaningful only when present
};

// The number at the start of the file's text (blanks before it skipped, any
// text after it ignored). False when the text holds no decimal number or one
// that does not fit an int.
bool parseChipId(const std::string& text, int& id);

// Reads kChipIdFile through utils::sysPath. A file that holds no number
// counts as present with an id that matches no known board (id 0).
ChipId readChipId();

// 1 without the file (a desktop PC), 4 for id 33, 3 for id 24, 2 for id 25,
// 5 for any other id.
int boardClass(const ChipId& chip);

// The frame rate of the bandwidth run: 30 on chip id 33, otherwise 60.
int bandwidthFps(const ChipId& chip);

// One mode of the list.
struct GrabbingMode {
    const char* key;  // key of the mode's object in "resolutions"
    bh::RESOLUTION resolution;
    int fps;
    // Tested on boards of this class or less.
    int maxBoardClass;
};

// The list of an input type: ten USB modes, three GMSL ones, none for any
// other input.
const std::vector<GrabbingMode>& grabbingModes(bh::INPUT_TYPE type);
bool isModeTested(const GrabbingMode& mode, int boardClass);

// Whether a mode is the bandwidth run: one view of 1280 x 720 at the
// bandwidth frame rate.
bool isBandwidthRun(bh::RESOLUTION resolution, int fps, int bandwidthRate);

// The progress once `done` of `count` modes have run: start + (end - start) /
// count per mode.
float modeProgress(float start, float end, int count, int done);

// Progress of the bandwidth run: its value at the start plus elapsed seconds x
// 1.7985611, so that the 8.34 s run moves it by 15.
float bandwidthProgress(float startValue, double elapsedSeconds);

// Frames a run of `seconds` at `fps` should see, as a float: 500.4 for 60 fps
// over 8.34 s.
float expectedFrames(int fps, double seconds);

// Frames missing: the integer part of expected - received.
int droppedFrames(float expected, int received);

struct BandwidthVerdict {
    std::string message;
    DIAGNOSTIC_MESSAGE_LEVEL level;
};

// The verdict of the bandwidth run from the torn pairs, the drops, the frames
// received and the frames expected. An error with 15 torn pairs or more, or
// more than 37 drops; otherwise a warning with 15 to 37 drops; otherwise OK
// (valid) when a frame came at all, and a warning when none did. Both
// non-OK verdicts carry the low-bandwidth text.
BandwidthVerdict bandwidthVerdict(int tears, int drops, int frames, float expected);

// The low-bandwidth text, with the drops and tears out of the expected count.
std::string lowBandwidthText(int drops, int tears, float expected);

struct BandwidthCounts {
    int frames = 0;  // frames received
    int tears = 0;   // frame pairs with tearing
};

// The bandwidth run on a grabber that streams side-by-side YUYV frames of two
// views of viewWidth x viewHeight: polls the frame status until more than
// `seconds` have passed on platform::clock() (1 ms sleeps between polls, so
// the wait does not burn a core), copies each frame into one of two
// alternating buffers and compares it with the previous one. `onProgress`
// gets the elapsed seconds after every poll.
BandwidthCounts measureBandwidth(bh::LiveCameraGrabber& grabber, int viewWidth, int viewHeight,
                                 double seconds,
                                 const std::function<void(double elapsedSeconds)>& onProgress);

}  // namespace grabbing
