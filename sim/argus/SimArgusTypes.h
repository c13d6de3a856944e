#pragma once

// What a scenario (or a test) tells the simulated camera service about its
// cameras and sensors, and what tests read back from it. See
// sim/argus/README.md for the behaviour these fields drive.

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/Argus.h"

namespace sim {

class GmslFrameSync;

struct ArgusSensorModeConfig {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<double> fps;  // frame rates the mode offers, ascending
    // Exposure time range; a maximum of 0 stands for the mode's longest
    // frame duration (1e9 / slowest rate).
    uint64_t exposureMinNs = 28000;
    uint64_t exposureMaxNs = 0;
    float analogGainMin = 1.0f;
    float analogGainMax = 16.0f;
};

struct ArgusSensorConfig {
    std::string modelName;     // ICameraProperties model name
    std::string moduleString;  // ICameraProperties module string
    std::string moduleId;      // ISyncSensorCalibrationData module id (at most 31 characters)
    std::vector<ArgusSensorModeConfig> modes;
    bool inUse = false;  // held by another process: capture sessions are refused
    int bus = -1;        // the I2C bus of its camera (information only)
    // The camera (SimArgus::addCamera) this sensor belongs to; -1 makes a
    // camera of its own. Sensors of one camera share one frame grid.
    int camera = -1;
    uint32_t minAeRegionWidth = 64;  // ICameraProperties::getMinAeRegionSize
    uint32_t minAeRegionHeight = 64;
};

// Faults of one camera. Times are on the steady clock of platform::clock().
struct ArgusCameraFaults {
    // The camera stops delivering freezeAfterNs after its first repeat under
    // a provider, until the provider is destroyed; freezeCount such freezes
    // (one per provider life). Each freeze makes the next
    // freezeRestartFailures createProvider calls fail (the service restarts).
    int64_t freezeAfterNs = -1;  // < 0: no freeze
    int freezeCount = 1;
    int freezeRestartFailures = 0;
    // Acquires fail with STATUS_DISCONNECTED captureErrorAfterNs after the
    // first repeat under a provider, until the provider is destroyed.
    int64_t captureErrorAfterNs = -1;  // < 0: none
    int captureErrorCount = 1;
    bool noFirstFrame = false;  // the sensors never deliver
    bool neverConnect = false;  // waitUntilConnected never succeeds on the camera's streams
    // The second sensor's frames become available this many periods after
    // their timestamp, and carry timestamps this much later than the grid.
    int secondSensorLagFrames = 0;
    int64_t secondSensorOffsetUs = 0;
};

struct ArgusCameraConfig {
    int bus = -1;  // information only
    ArgusCameraFaults faults;
    // The camera's frame-start line, set while its sensors deliver (null: none).
    std::shared_ptr<GmslFrameSync> frameSync;
};

// The settings of a request, as a repeat hands them to the sensor.
struct ArgusRequestSettings {
    platform::argus_types::Range<uint64_t> frameDurationNs;
    int sensorModeIndex = -1;  // index in the sensor's mode list; -1: none set (the first mode is used)
    platform::argus_types::Range<uint64_t> exposureTimeNs;
    platform::argus_types::Range<float> analogGain;
    platform::argus_types::Range<float> ispDigitalGain{1.0f, 256.0f};
    bool aeLock = false;
    std::vector<platform::argus_types::AcRegion> aeRegions;
    platform::argus_types::AeAntibandingMode aeAntibanding = platform::argus_types::AeAntibandingMode::Auto;
    platform::argus_types::AwbMode awbMode = platform::argus_types::AwbMode::Auto;
    platform::argus_types::BayerTuple wbGains;
    float exposureCompensation = 0.0f;
    float colorSaturation = 1.0f;
    bool colorSaturationEnabled = false;
    std::array<std::vector<float>, 3> toneMapCurves;  // per channel; empty: never set
    bool toneMapEnabled = false;
    platform::argus_types::EdgeEnhanceMode edgeEnhanceMode = platform::argus_types::EdgeEnhanceMode::Fast;
    float edgeEnhanceStrength = -1.0f;  // -1: the ISP's own choice
    platform::argus_types::DenoiseMode denoiseMode = platform::argus_types::DenoiseMode::Fast;
    float denoiseStrength = -1.0f;
    platform::argus_types::Rectangle sourceClip{0.0f, 0.0f, 1.0f, 1.0f};  // of the sensor's stream
};

// One sensor seen from a test.
struct ArgusSensorState {
    bool repeating = false;
    int64_t periodNs = 0;          // of the current repeat, or of the last one
    int64_t phaseNs = 0;           // frames start at phaseNs + k * periodNs
    uint64_t framesDelivered = 0;  // frames that reached the sensor's streams
    uint64_t framesAcquired = 0;   // frames handed out by acquireFrame
    int repeats = 0;               // repeat calls that started the sensor
    bool hasApplied = false;       // a repeat has applied settings
    ArgusRequestSettings applied;  // the settings of the latest repeat
};

}  // namespace sim
