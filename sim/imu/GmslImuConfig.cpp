#include "sim/imu/GmslImuConfig.h"

#include <QJsonArray>
#include <QJsonValue>
#include <cmath>
#include <sstream>

namespace sim {

namespace {

std::string text(double v) {
    std::ostringstream out;
    out << v;
    return out.str();
}

double numberIn(const Entry& e, const std::string& key, double fallback, double min, double max) {
    const double v = e.number(key, fallback);
    if (!std::isfinite(v) || v < min || v > max)
        e.fail(key, "value " + text(v) + " is out of range " + text(min) + ".." + text(max));
    return v;
}

// Seconds of a time fault: absent means never.
double secondsOrNever(const Entry& e, const std::string& key) {
    if (!e.has(key))
        return -1;
    return numberIn(e, key, 0, 0, 1e6);
}

std::array<double, 3> vector3(const Entry& e, const std::string& key, const std::array<double, 3>& fallback,
                              double limit) {
    if (!e.has(key))
        return fallback;
    const QJsonValue v = e.json().value(QString::fromStdString(key));
    if (!v.isArray() || v.toArray().size() != 3)
        e.fail(key, "expected an array of three numbers [x, y, z]");
    std::array<double, 3> out{};
    const QJsonArray a = v.toArray();
    for (int i = 0; i < 3; ++i) {
        const std::string item = key + "[" + std::to_string(i) + "]";
        if (!a[i].isDouble())
            e.fail(item, "expected a number");
        out[static_cast<size_t>(i)] = a[i].toDouble();
        if (std::fabs(out[static_cast<size_t>(i)]) > limit)
            e.fail(item, "value " + text(a[i].toDouble()) + " is out of range " + text(-limit) + ".." +
                             text(limit));
    }
    return out;
}

CalibrationImageKind imageKind(const Entry& e) {
    const std::string kind = e.choice("calibration_image", {"valid", "blank", "absent"}, "valid");
    if (kind == "blank")
        return CalibrationImageKind::Blank;
    if (kind == "absent")
        return CalibrationImageKind::Absent;
    return CalibrationImageKind::Valid;
}

}  // namespace

GmslImuConfig readGmslImuConfig(const Entry& e) {
    e.allowOnly({"comment", "present", "acc_chip_id", "gyro_chip_id", "stop_after_s", "nack_after_s",
                 "acc_drift_ppm", "gyro_drift_ppm", "angular_rate_dps", "gravity_g", "acc_noise_mg",
                 "gyro_noise_dps", "noise_seed", "temperature_c", "calibration_image", "image_imu_odr"});
    GmslImuConfig c;
    c.present = e.boolean("present", c.present);
    c.accChipId = static_cast<uint8_t>(e.integer("acc_chip_id", c.accChipId, 0, 255));
    c.gyroChipId = static_cast<uint8_t>(e.integer("gyro_chip_id", c.gyroChipId, 0, 255));
    c.stopAfterSeconds = secondsOrNever(e, "stop_after_s");
    c.nackAfterSeconds = secondsOrNever(e, "nack_after_s");
    c.accDriftPpm = numberIn(e, "acc_drift_ppm", c.accDriftPpm, -1000, 1000);
    c.gyroDriftPpm = numberIn(e, "gyro_drift_ppm", c.gyroDriftPpm, -1000, 1000);
    c.angularRateDps = vector3(e, "angular_rate_dps", c.angularRateDps, 10000);
    c.gravityG = vector3(e, "gravity_g", c.gravityG, 100);
    c.accNoiseMg = numberIn(e, "acc_noise_mg", c.accNoiseMg, 0, 1000);
    c.gyroNoiseDps = numberIn(e, "gyro_noise_dps", c.gyroNoiseDps, 0, 100);
    c.noiseSeed = static_cast<uint32_t>(e.integer("noise_seed", c.noiseSeed, 0, 0xFFFFFFFFLL));
    // The temperature registers hold -105..150.875 degC.
    c.temperatureC = numberIn(e, "temperature_c", c.temperatureC, -104, 150);
    c.image = imageKind(e);
    c.imageImuOdr = static_cast<uint8_t>(e.integer("image_imu_odr", c.imageImuOdr, 0, 3));
    return c;
}

}  // namespace sim
