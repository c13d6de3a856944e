// The three threads of the GMSL inertial reader: the gyroscope's FIFO and the
// accelerometer's data registers polled on their own descriptors and stamped
// with the host's monotonic clock, and the merge that resamples the
// accelerometer onto the gyroscope's times.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "bh_input/mcu/IMU/IMUGMSLReader.h"
#include "platform/Clock.h"

namespace {

void sleepUs(uint32_t us) {
    platform::clock().sleepFor(std::chrono::microseconds(us));
}

// -v within the int16 range (-(-32768) stays 32767).
int16_t negated(int16_t v) {
    return v == std::numeric_limits<int16_t>::min() ? std::numeric_limits<int16_t>::max()
                                                    : static_cast<int16_t>(-v);
}

bool turnedSubModel(uint8_t sub_model) {
    return sub_model == 30 || sub_model == 31;
}

}  // namespace

// ---------------------------------------------------------------------------
// Pure steps

int16_t IMUGMSLReader::lerp(int16_t a0, int16_t a1, double f) {
    if (!std::isfinite(f))
        return a0;
    const double value = static_cast<double>(a0) + (static_cast<double>(a1) - static_cast<double>(a0)) * f;
    if (value >= 32767.0)
        return std::numeric_limits<int16_t>::max();
    if (value <= -32768.0)
        return std::numeric_limits<int16_t>::min();
    return static_cast<int16_t>(value);  // the integer part
}

GMSLMergeAction gmslMergeStep(const bmi08x_sensor_data& g, const bmi08x_sensor_data& a0,
                              const bmi08x_sensor_data& a1, bmi08x_full_sensor_data& out) {
    if (g.timestamp < a0.timestamp)
        return GMSLMergeAction::DropGyro;
    if (g.timestamp > a1.timestamp)
        return GMSLMergeAction::PopAccel;
    // t0 <= tg <= t1. With t0 == t1 the fraction is 0/0; lerp keeps a0 then.
    const double f =
        static_cast<double>(g.timestamp - a0.timestamp) / static_cast<double>(a1.timestamp - a0.timestamp);
    out.gyro_x = g.x;
    out.gyro_y = g.y;
    out.gyro_z = g.z;
    out.acc_x = IMUGMSLReader::lerp(a0.x, a1.x, f);
    out.acc_y = IMUGMSLReader::lerp(a0.y, a1.y, f);
    out.acc_z = IMUGMSLReader::lerp(a0.z, a1.z, f);
    out.timestamp = g.timestamp;
    out.sync = g.sync == 1 ? 1 : 0;
    return GMSLMergeAction::Merge;
}

void IMUGMSLReader::turnAxes(bmi08x_sensor_data& s) {
    const int16_t chip_x = s.x;
    s.x = s.y;
    s.y = negated(chip_x);
}

void IMUGMSLReader::toCameraFrame(const bmi08x_full_sensor_data& in, int swap, int16_t gyro[3],
                                  int16_t acc[3]) {
    if (swap == 0) {
        gyro[0] = in.gyro_x;
        gyro[1] = negated(in.gyro_y);
        acc[0] = in.acc_x;
        acc[1] = negated(in.acc_y);
    } else {
        gyro[0] = negated(in.gyro_x);
        gyro[1] = in.gyro_y;
        acc[0] = negated(in.acc_x);
        acc[1] = in.acc_y;
    }
    gyro[2] = negated(in.gyro_z);
    acc[2] = negated(in.acc_z);
}

// ---------------------------------------------------------------------------
// Gyroscope

bool IMUGMSLReader::pollGyroOnce(GyroBatchClock& batch) {
    const uint64_t t = nowUs();
    uint8_t status = 0;
    if (bmi08g_get_data_int_status(&gyro_dev, &status) != BMI08X_OK || (status & BMI08G_INT_STAT_FIFO) == 0)
        return false;

    bmi08g_fifo_buffer fifo;
    fifo.data = fifo_buffer;
    fifo.capacity = FIFO_BUFFER_BYTES;
    const uint64_t read_start = nowUs();
    bmi08g_read_fifo_data(&gyro_dev, &fifo);
    bmi08x_sensor_data samples[FIFO_FRAMES];
    uint8_t n = FIFO_FRAMES;
    bmi08g_extract_gyro(samples, &n, &fifo);
    const uint64_t extract_us = nowUs() - read_start;

    // The chip's own clock is not used: the batch's samples are spread evenly
    // between the previous read and this one. The first batch has no
    // previous read to start from, and is dropped.
    if (batch.have_previous && n > 0) {
        const double interval = static_cast<double>(t - batch.previous_us) / n;
        for (int i = 0; i < n; ++i) {
            auto entry = std::make_shared<bmi08x_sensor_data>(samples[i]);
            entry->timestamp =
                static_cast<uint64_t>(static_cast<double>(batch.previous_us) + interval * (i + 1));
            if (turnedSubModel(sub_model))
                turnAxes(*entry);
            gyro_queue.push(std::move(entry));
        }
        const double period = static_cast<double>(period_us.load());
        if (verbose && std::fabs(interval - period) > period / n) {
            std::printf(
                "[WARNING] Huge Diff time : %.4lf   ms for an eff data count %d with a extract time = %d "
                "-- Avg T %d\n",
                static_cast<double>(t - batch.previous_us) / 1000.0, static_cast<int>(n),
                static_cast<int>(extract_us), static_cast<int>(interval));
        }
    }
    std::memset(fifo_buffer, 0, sizeof(fifo_buffer));
    batch.previous_us = t;
    batch.have_previous = true;
    batch.reads++;
    return true;
}

void IMUGMSLReader::readGyroThreadFunc() {
    GyroBatchClock batch;
    while (run_flag) {
        // Right after a read the watermark is clear: the next round sleeps.
        if (!pollGyroOnce(batch))
            sleepUs(POLL_US);
    }
}

// ---------------------------------------------------------------------------
// Accelerometer

bool IMUGMSLReader::pollAccOnce(uint32_t& count) {
    uint8_t status = 0;
    if (bmi08a_get_reg_int_status(&acc_dev, &status) != BMI08X_OK || (status & BMI08A_INT_STAT_DRDY) == 0)
        return false;
    bmi08x_sensor_data sample;
    sample.timestamp = nowUs();
    if (bmi08a_get_data(&acc_dev, &sample) != BMI08X_OK)
        return false;
    sample.sync = 0;
    if (turnedSubModel(sub_model))
        turnAxes(sample);
    acc_queue.push(std::make_shared<bmi08x_sensor_data>(sample));
    // The first sample reads the temperature too, so that it is known from
    // the start; then every hundredth.
    if (count % TEMPERATURE_EVERY == 0) {
        int32_t milli = 0;
        if (bmi08a_get_sensor_temperature(&acc_dev, &milli) == BMI08X_OK)
            temperature_milli = milli;
    }
    count++;
    return true;
}

void IMUGMSLReader::readAccThreadFunc() {
    uint32_t count = 0;
    while (run_flag) {
        pollAccOnce(count);
        sleepUs(POLL_US);
    }
}

// ---------------------------------------------------------------------------
// Merge

IMUGMSLReader::MergeOutcome IMUGMSLReader::mergeOnce(std::chrono::microseconds wait) {
    auto running = [this] { return run_flag.load() != 0; };
    if (!gyro_queue.waitFor(1, wait, running))
        return MergeOutcome::Idle;
    auto gyro = gyro_queue.front();
    if (!gyro || !acc_queue.waitFor(2, wait, running))
        return MergeOutcome::Idle;
    std::shared_ptr<bmi08x_sensor_data> acc0;
    std::shared_ptr<bmi08x_sensor_data> acc1;
    if (!acc_queue.frontTwo(acc0, acc1))
        return MergeOutcome::Idle;

    bmi08x_full_sensor_data merged;
    switch (gmslMergeStep(*gyro, *acc0, *acc1, merged)) {
        case GMSLMergeAction::DropGyro:
            gyro_queue.popIf(gyro);
            return MergeOutcome::DroppedGyro;
        case GMSLMergeAction::PopAccel:
            acc_queue.popIf(acc0);
            return MergeOutcome::PoppedAccel;
        case GMSLMergeAction::Merge:
            break;
    }
    gyro_queue.popIf(gyro);
    if (merged.sync)
        synchronised = 1;
    merged_queue.push(std::make_shared<bmi08x_full_sensor_data>(merged));
    return MergeOutcome::Merged;
}

void IMUGMSLReader::consumeThreadFunc() {
    // The waits for samples are bounded so that the run flag is seen even if
    // a wake-up were lost; stop wakes them anyway.
    const std::chrono::microseconds wait(20000);
    while (run_flag) {
        if (mergeOnce(wait) == MergeOutcome::Merged)
            sleepUs(static_cast<uint32_t>(period_us.load() / 2.0));
    }
}
