#include "sim/argus/GmslScenario.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <cmath>
#include <sstream>
#include <string>

#include "sim/argus/SimArgus.h"

namespace sim {

namespace {

constexpr double kLongestFaultDelaySeconds = 86400.0;

// A number as a person writes it: 0, 2.5, 1e+300.
std::string text(double v) {
    std::ostringstream out;
    out << v;
    return out.str();
}

// A required time in seconds, above 0, as nanoseconds.
int64_t readSeconds(const Entry& e, const std::string& key) {
    if (!e.has(key))
        e.fail(key, "missing (a number of seconds is required)");
    const double seconds = e.number(key, 0.0);
    if (!std::isfinite(seconds) || seconds <= 0.0 || seconds > kLongestFaultDelaySeconds)
        e.fail(key, "expected seconds above 0 and at most 86400, got " + text(seconds));
    return std::llround(seconds * 1e9);
}

// A pair [min, max] of numbers within [lowest, highest].
std::pair<double, double> readRange(const Entry& e, const std::string& key, double lowest, double highest,
                                    const std::string& example) {
    const QJsonValue v = e.json().value(QString::fromStdString(key));
    const QJsonArray a = v.toArray();
    if (!v.isArray() || a.size() != 2 || !a[0].isDouble() || !a[1].isDouble())
        e.fail(key, "expected [min, max], e.g. " + example);
    const double lo = a[0].toDouble();
    const double hi = a[1].toDouble();
    if (!(lo >= lowest && hi <= highest && lo <= hi))
        e.fail(key, "expected " + text(lowest) + " <= min <= max <= " + text(highest) + ", got [" + text(lo) +
                        ", " + text(hi) + "]");
    return {lo, hi};
}

}  // namespace

std::vector<ArgusSensorModeConfig> readSensorModes(const Entry& e) {
    std::vector<ArgusSensorModeConfig> modes;
    for (const Entry& m : e.objects("modes")) {
        m.allowOnly({"comment", "width", "height", "fps", "exposure_us", "analog_gain"});
        ArgusSensorModeConfig mode;
        mode.width = static_cast<uint32_t>(m.integer("width", 1, 16384));
        mode.height = static_cast<uint32_t>(m.integer("height", 1, 16384));
        const QJsonValue fps = m.json().value("fps");
        if (!fps.isArray() || fps.toArray().isEmpty())
            m.fail("fps", "expected a non-empty array of frame rates, e.g. [15, 30, 60]");
        for (const QJsonValue& v : fps.toArray()) {
            if (!v.isDouble() || v.toDouble() <= 0 || v.toDouble() > 1000)
                m.fail("fps", "each frame rate must be a number above 0 and at most 1000");
            mode.fps.push_back(v.toDouble());
        }
        if (m.has("exposure_us")) {
            const auto range = readRange(m, "exposure_us", 1, 10000000, "[28, 33333]");
            if (std::floor(range.first) != range.first || std::floor(range.second) != range.second)
                m.fail("exposure_us", "expected whole microseconds");
            mode.exposureMinNs = static_cast<uint64_t>(range.first) * 1000;
            mode.exposureMaxNs = static_cast<uint64_t>(range.second) * 1000;
        }
        if (m.has("analog_gain")) {
            const auto range = readRange(m, "analog_gain", 0.001, 1000, "[1, 16]");
            mode.analogGainMin = static_cast<float>(range.first);
            mode.analogGainMax = static_cast<float>(range.second);
        }
        modes.push_back(mode);
    }
    return modes;
}

ArgusCameraFaults readCameraFaults(const Entry& f, size_t sensors) {
    f.allowOnly({"comment", "freeze", "capture_error", "no_first_frame", "never_connect",
                 "second_sensor_lag_frames", "second_sensor_offset_us"});
    ArgusCameraFaults faults;
    if (f.has("freeze")) {
        const Entry z = f.object("freeze");
        z.allowOnly({"comment", "after_s", "count", "restart_failures"});
        faults.freezeAfterNs = readSeconds(z, "after_s");
        faults.freezeCount = static_cast<int>(z.integer("count", 1, 1, 1000));
        faults.freezeRestartFailures = static_cast<int>(z.integer("restart_failures", 0, 0, 100));
    }
    if (f.has("capture_error")) {
        const Entry c = f.object("capture_error");
        c.allowOnly({"comment", "after_s", "count"});
        faults.captureErrorAfterNs = readSeconds(c, "after_s");
        faults.captureErrorCount = static_cast<int>(c.integer("count", 1, 1, 1000));
    }
    faults.noFirstFrame = f.boolean("no_first_frame", false);
    faults.neverConnect = f.boolean("never_connect", false);
    faults.secondSensorLagFrames = static_cast<int>(f.integer("second_sensor_lag_frames", 0, 0, 8));
    faults.secondSensorOffsetUs = f.integer("second_sensor_offset_us", 0, -1000000, 1000000);
    for (const char* key : {"second_sensor_lag_frames", "second_sensor_offset_us"})
        if (f.has(key) && f.integer(key) != 0 && sensors < 2)
            f.fail(key,
                   "the camera has " + std::to_string(sensors) + " sensor(s): there is no second sensor");
    return faults;
}

void readServiceFaults(const Entry& e, SimArgus& argus) {
    const QJsonValue faults = e.json().value("faults");
    if (faults.isUndefined())
        return;
    if (!faults.isArray())
        e.fail("faults",
               "expected an array of faults, e.g. [\"provider_unavailable\"] or "
               "[{\"name\": \"provider_unavailable\", \"count\": 2}]");
    const QJsonArray list = faults.toArray();
    for (int i = 0; i < list.size(); ++i) {
        const QJsonValue& f = list[i];
        if (f.isObject()) {
            // {"name": "provider_unavailable", "count": N}: the first N calls fail.
            const Entry fe(f.toObject(), e.file(), e.field("faults[" + std::to_string(i) + "]"));
            fe.allowOnly({"comment", "name", "count"});
            if (fe.string("name") != "provider_unavailable")
                fe.fail("name", "unknown fault \"" + fe.string("name") + "\" (known: provider_unavailable)");
            if (fe.has("count"))
                argus.setProviderFailures(static_cast<int>(fe.integer("count", 1, 1000)));
            else
                argus.setProviderUnavailable(true);
            continue;
        }
        if (!f.isString())
            e.fail("faults", "each fault is a name or an object {\"name\", \"count\"}");
        if (f.toString() != "provider_unavailable")
            e.fail("faults",
                   "unknown fault \"" + f.toString().toStdString() + "\" (known: provider_unavailable)");
        argus.setProviderUnavailable(true);
    }
}

}  // namespace sim
