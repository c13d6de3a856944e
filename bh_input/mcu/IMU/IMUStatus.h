// Health watch of the inertial samples: shocks, vibration, saturation and
// irregular timing, as flags written to the log. Runs once per sample on the
// fusion thread: no lock, no allocation after construction.
#pragma once

#include <cstdint>
#include <vector>

// Running mean and variance over a window of samples; restarts at the end of
// each window.
class StandardDeviation {
public:
    StandardDeviation() = default;
    StandardDeviation(int window, int start_count) : window(window), count(start_count) {}
    void update(float value);

    int window = 50;
    int count = 0;
    double mean = 0.0;
    double variance = 0.0;
    bool outlier = false;
};

// Flags a deviation far above the standard deviation seen `window` samples
// ago. The past deviations live in a fixed ring, so updates never allocate.
class ShockDetector {
public:
    ShockDetector(uint16_t window = 5, double factor = 5.0, double minimum_threshold = 30.0);
    bool update(float deviation, float standard_deviation);

    std::size_t queueSize() const { return queue_size; }
    double queueFront() const { return queue[queue_head]; }

    double minimum_threshold = 30.0;
    double factor = 5.0;
    uint16_t window = 5;
    bool shock = false;

private:
    void push(double value);
    std::vector<double> queue;  // ring of window + 1 entries
    std::size_t queue_head = 0;
    std::size_t queue_size = 0;
};

class IMUStatus {
public:
    enum STATUS_FLAG : uint32_t {
        SHOCK_DETECTED = 1,
        HIGH_VIBRATION_ACC = 2,
        HIGH_VIBRATION_GYRO = 4,
        SATURATED_ACC = 8,
        SATURATED_GYRO = 16,
        IRREGULAR_TIMESTAMP_DELTA = 32,
    };

    // Receives each log line ("IMU: SHOCK_DETECTED " ...). The owner points it
    // at its logger (info level); without one, lines go to standard error.
    typedef void (*LogSink)(const char* line, void* context);

    // Saturations at the full scales (rates in deg/s, accelerations in m/s2);
    // `rate_hz` sets the accepted gap between timestamps (0.5 to 1.5 periods).
    IMUStatus(float gyro_saturation = 1000.f, float acc_saturation = 156.9064f, unsigned int rate_hz = 800);

    void setLogSink(LogSink sink, void* context);

    bool is_moving(int window) const;
    // Accelerations in m/s2, rates in deg/s, timestamp in nanoseconds.
    void compute(float ax, float ay, float az, float gx, float gy, float gz, uint64_t timestamp);

    uint16_t window_count = 3;
    uint16_t window_length = 50;
    float acc_variance_limit = 900.0f;
    float gyro_variance_limit = 10000.0f;
    uint16_t shock_window = 5;
    double shock_factor = 5.0;
    double shock_minimum = 30.0;
    float gyro_saturation;
    float acc_saturation;
    uint32_t status = 0;
    // acc x, y, z, gyro x, y, z; `window_count` staggered entries each.
    std::vector<StandardDeviation> sd[6];
    uint64_t delta_minimum;
    uint64_t delta_maximum;
    uint64_t last_timestamp = 0;
    uint16_t still_samples = 0;
    ShockDetector shock_detectors[3];

private:
    LogSink log_sink = nullptr;
    void* log_context = nullptr;
};
