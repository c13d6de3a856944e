#include "bh_input/mcu/IMU/IMUStatus.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

// ---------------------------------------------------------------- StandardDeviation

void StandardDeviation::update(float value) {
    count++;
    if (count > window) {
        // End of the window: start over; the outlier flag stays as it is.
        count = 0;
        mean = 0.0;
        variance = 0.0;
        return;
    }
    if (count > 1) {
        const double d = value - mean;
        // Truncated on purpose: deviations below one unit never count.
        // |t| > 3 sqrt(variance) compared squared (the variance is never
        // negative here), which spares a square root per entry.
        const double t = std::trunc(d);
        outlier = t * t > 9.0 * variance;
        mean += d / count;
        variance += d * d / count - variance / (count - 1);
    }
}

// ---------------------------------------------------------------- ShockDetector

ShockDetector::ShockDetector(uint16_t window_, double factor_, double minimum_threshold_)
    : minimum_threshold(minimum_threshold_), factor(factor_), window(window_) {
    queue.assign(static_cast<std::size_t>(window) + 1, 0.0);
}

void ShockDetector::push(double value) {
    const std::size_t capacity = static_cast<std::size_t>(window) + 1;
    if (queue.size() != capacity) {  // window changed since the last sample
        queue.assign(capacity, 0.0);
        queue_head = 0;
        queue_size = 0;
    }
    queue[(queue_head + queue_size) % capacity] = value;
    queue_size++;
    if (queue_size > window) {  // drop the front
        queue_head = (queue_head + 1) % capacity;
        queue_size--;
    }
}

bool ShockDetector::update(float deviation, float standard_deviation) {
    push(standard_deviation);
    double limit;
    if (queue_size >= window && queue_size > 0) {
        limit = factor * queue[queue_head];
        if (limit < minimum_threshold)
            limit = minimum_threshold;
    } else {
        limit = minimum_threshold * 10.0;
    }
    shock = std::fabs(std::trunc(static_cast<double>(deviation))) > limit;
    return shock;
}

// ---------------------------------------------------------------- IMUStatus

namespace {

void defaultLogSink(const char* line, void*) {
    std::fputs(line, stderr);
    std::fputc('\n', stderr);
}

struct FlagLine {
    uint32_t flag;
    const char* line;
};

const FlagLine kFlagLines[] = {
    {IMUStatus::SHOCK_DETECTED, "IMU: SHOCK_DETECTED "},
    {IMUStatus::HIGH_VIBRATION_ACC, "IMU: HIGH_VIBRATION_ACC "},
    {IMUStatus::HIGH_VIBRATION_GYRO, "IMU: HIGH_VIBRATION_GYRO "},
    {IMUStatus::SATURATED_ACC, "IMU: SATURATED_ACC "},
    {IMUStatus::SATURATED_GYRO, "IMU: SATURATED_GYRO "},
    {IMUStatus::IRREGULAR_TIMESTAMP_DELTA, "IMU: IRREGULAR_TIMESTAMP_DELTA "},
};

// |v| truncated towards zero, as an integer would be.
inline float truncatedAbs(float v) {
    return std::fabs(std::trunc(v));
}

}  // namespace

IMUStatus::IMUStatus(float gyro_saturation_, float acc_saturation_, unsigned int rate_hz)
    : gyro_saturation(gyro_saturation_),
      acc_saturation(acc_saturation_),
      delta_minimum(rate_hz ? static_cast<uint64_t>(5e8 / rate_hz) : 0),
      delta_maximum(rate_hz ? static_cast<uint64_t>(1.5e9 / rate_hz) : UINT64_MAX),
      shock_detectors{ShockDetector(shock_window, shock_factor, shock_minimum),
                      ShockDetector(shock_window, shock_factor, shock_minimum),
                      ShockDetector(shock_window, shock_factor, shock_minimum)},
      log_sink(defaultLogSink) {
    // Staggered starts so that the windows overlap: 0, -16, -33.
    for (auto& axis : sd) {
        axis.reserve(window_count);
        for (int i = 0; i < window_count; i++)
            axis.emplace_back(window_length, -(i * window_length / window_count));
    }
}

void IMUStatus::setLogSink(LogSink sink, void* context) {
    log_sink = sink;
    log_context = context;
}

bool IMUStatus::is_moving(int window) const {
    if (window < 0 || static_cast<std::size_t>(window) >= sd[0].size())
        return false;
    for (const auto& axis : sd)
        if (static_cast<std::size_t>(window) < axis.size() && axis[window].outlier)
            return true;
    return false;
}

void IMUStatus::compute(float ax, float ay, float az, float gx, float gy, float gz, uint64_t timestamp) {
    status = 0;
    const float sample[6] = {ax, ay, az, gx, gy, gz};
    for (int axis = 0; axis < 6; axis++)
        for (auto& entry : sd[axis])
            entry.update(sample[axis]);

    // The current window: the most advanced entry of acc x.
    std::size_t current = 0;
    for (std::size_t i = 1; i < sd[0].size(); i++)
        if (sd[0][i].count > sd[0][current].count)
            current = i;
    const bool has_window = current < sd[0].size() && current < sd[1].size() && current < sd[2].size() &&
                            current < sd[3].size() && current < sd[4].size() && current < sd[5].size();

    if (has_window && is_moving(static_cast<int>(current)))
        still_samples = 0;
    if (still_samples < 3 * window_length) {
        still_samples++;
    } else if (has_window) {
        const double acc_var =
            std::fmax(sd[0][current].variance, std::fmax(sd[1][current].variance, sd[2][current].variance));
        const double gyro_var =
            std::fmax(sd[3][current].variance, std::fmax(sd[4][current].variance, sd[5][current].variance));
        if (acc_var > acc_variance_limit)
            status += HIGH_VIBRATION_ACC;
        if (gyro_var > gyro_variance_limit)
            status += HIGH_VIBRATION_GYRO;
    }

    // Shock flags are added up, not or-ed.
    for (int axis = 0; axis < 3; axis++) {
        const double mean = has_window ? sd[axis][current].mean : 0.0;
        const double variance = has_window ? sd[axis][current].variance : 0.0;
        if (shock_detectors[axis].update(static_cast<float>(sample[axis] - mean),
                                         static_cast<float>(std::sqrt(variance))))
            status += SHOCK_DETECTED;
    }

    const float acc_peak = std::fmax(truncatedAbs(ax), std::fmax(truncatedAbs(ay), truncatedAbs(az)));
    if (acc_peak >= acc_saturation)
        status += SATURATED_ACC;
    const float gyro_peak = std::fmax(truncatedAbs(gx), std::fmax(truncatedAbs(gy), truncatedAbs(gz)));
    if (gyro_peak >= gyro_saturation)
        status += SATURATED_GYRO;

    if (last_timestamp != 0) {
        const double delta = static_cast<double>(static_cast<int64_t>(timestamp - last_timestamp));
        if (delta < static_cast<double>(delta_minimum) || delta > static_cast<double>(delta_maximum))
            status += IRREGULAR_TIMESTAMP_DELTA;
    }
    last_timestamp = timestamp;

    if (status != 0 && log_sink != nullptr)
        for (const FlagLine& entry : kFlagLines)
            if (status & entry.flag)
                log_sink(entry.line, log_context);
}
