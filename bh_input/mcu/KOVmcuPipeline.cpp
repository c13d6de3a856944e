// The fusion thread of the sensor engine and the getters of its packets: one
// reader sample in, one calibrated, filtered IMUPacket out.
#include <cmath>
#include <cstdio>

#include <Eigen/Geometry>

#include "bh_input/mcu/KOVmcu.h"
#include "platform/Clock.h"
#include "support/KLogger.h"

namespace bh {

namespace {

constexpr float kDegToRad = 0.017453292f;
constexpr float kGravity = 9.80665f;
constexpr float kRadToDeg = 57.29578f;
constexpr float kGyroVarToRad = 0.00030461742f;  // (pi/180)^2
constexpr float kGyroVarToDeg = 3282.8064f;      // (180/pi)^2
constexpr float kAccVarToMetric = 96.17039f;     // 9.80665^2
constexpr float kTwoPi = 6.283185307f;
constexpr uint32_t kTranslationFrom = 101;
constexpr uint32_t kRoundWrap = 999999;

// engine frame -> camera axes: (y, -z, -x)
inline void toCamera(const float in[3], float out[3], float scale) {
    out[0] = in[1] * scale;
    out[1] = -in[2] * scale;
    out[2] = -in[0] * scale;
}

inline void imuStatusLog(const char* line, void*) {
    KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "{}", line);
}

Eigen::Quaternionf packetQuaternion(const IMUPacket& packet) {
    Eigen::Quaternionf q(packet.orientation[3], packet.orientation[0], packet.orientation[1],
                         packet.orientation[2]);
    if (!(q.norm() > 1e-6f)) {
        return Eigen::Quaternionf::Identity();
    }
    q.normalize();
    return q;
}

void storeQuaternion(const Eigen::Quaternionf& q, float out[4]) {
    out[0] = q.x();
    out[1] = q.y();
    out[2] = q.z();
    out[3] = q.w();
}

// The yaw of a rotation, as the angle about the vertical (z) axis of the
// engine's frame.
float extractYawOfYZXEuler(const Eigen::Matrix3f& r) {
    return std::atan2(r(1, 0), r(0, 0));
}

}  // namespace

// ---------------------------------------------------------------- values

void KOVmcu::getGyroValue(Eigen::Vector3f& value, bool calibrated, bool remove_bias) {
    const McuSensorReport& report = imu_reader->current_report;
    const float k = gyro_lsb * kDegToRad;
    value = Eigen::Vector3f(report.gyro_x * k, report.gyro_y * k, report.gyro_z * k);
    if (!calibrated) {
        return;
    }
    const float t = imu_reader->getCurrentIMUTemperatureInCelsius(false);
    value -= t * calib.gyro_tscale;
    value -= calib.gyro_bias;
    value = calib.gyro_full * value;
    if (remove_bias) {
        fusion_bias.update(value.x(), value.y(), value.z());
        value -= Eigen::Vector3f(fusion_bias.bias[0], fusion_bias.bias[1], fusion_bias.bias[2]);
    }
}

void KOVmcu::getAccelValue(Eigen::Vector3f& value, bool calibrated) {
    const McuSensorReport& report = imu_reader->current_report;
    value = Eigen::Vector3f(report.acc_x * accel_lsb, report.acc_y * accel_lsb, report.acc_z * accel_lsb);
    if (!calibrated) {
        return;
    }
    const float t = imu_reader->getCurrentIMUTemperatureInCelsius(false);
    Eigen::Vector3f v = value * kGravity - t * calib.acc_tscale - calib.acc_bias;
    value = (calib.acc_full * v) / kGravity;
}

// ---------------------------------------------------------------- one sample

void KOVmcu::updateTime() {
    VirtualIMUReader& r = *imu_reader;
    sample.host_timestamp = r.getCurrentBHIMUTimestamp();
    sample.env_host_timestamp = r.getCurrentBHEnvTimestamp();
    sample.mag_host_timestamp = r.getCurrentBHMagTimestamp();
    sample.timestamp = r.getCurrentMCUTimeStamp();
    sample.env_timestamp = r.getCurrentMCUEnvTimeStamp();
    sample.mag_timestamp = r.getCurrentMCUMagTimeStamp();
}

bool KOVmcu::readIMUData() {
    VirtualIMUReader& r = *imu_reader;
    const McuSensorReport& report = r.current_report;

    // external pose: the reader keeps x, y, z, w, then the translation
    const float* e = r.ext_quaternion;
    sample.ext_pose[0] = e[3];
    sample.ext_pose[1] = e[0];
    sample.ext_pose[2] = e[1];
    sample.ext_pose[3] = e[2];
    sample.ext_pose[4] = e[4];
    sample.ext_pose[5] = e[5];
    sample.ext_pose[6] = e[6];
    sample.imu_temperature = r.getCurrentIMUTemperatureInCelsius(false);

    // uncalibrated
    Eigen::Vector3f gyro_raw;
    Eigen::Vector3f acc_raw;
    getGyroValue(gyro_raw, false, false);
    getAccelValue(acc_raw, false);
    if (debug_static) {
        if (FILE* f = std::fopen("gyro_val.txt", "a")) {
            std::fprintf(f, "%llu %f %f %f %f\n", static_cast<unsigned long long>(sample.host_timestamp),
                         static_cast<double>(fusion_bias.bias[0]), static_cast<double>(fusion_bias.bias[1]),
                         static_cast<double>(fusion_bias.bias[2]),
                         static_cast<double>(sample.imu_temperature));
            std::fclose(f);
        }
    }

    // calibrated, online bias removed; reader x, y, z -> z, y, -x
    Eigen::Vector3f gyro;
    Eigen::Vector3f acc;
    getGyroValue(gyro, true, true);
    getAccelValue(acc, true);
    sample.gyro_valid = true;
    sample.gyro[0] = gyro.z();
    sample.gyro[1] = gyro.y();
    sample.gyro[2] = -gyro.x();
    sample.gyro_raw[0] = gyro_raw.z();
    sample.gyro_raw[1] = gyro_raw.y();
    sample.gyro_raw[2] = -gyro_raw.x();
    sample.gyro_variance[0] = calib.gyro_var.z() * kGyroVarToRad;
    sample.gyro_variance[1] = calib.gyro_var.y() * kGyroVarToRad;
    sample.gyro_variance[2] = calib.gyro_var.x() * kGyroVarToRad;
    sample.accel_valid = true;
    sample.accel[0] = acc.z();
    sample.accel[1] = acc.y();
    sample.accel[2] = -acc.x();
    sample.accel_raw[0] = acc_raw.z();
    sample.accel_raw[1] = acc_raw.y();
    sample.accel_raw[2] = -acc_raw.x();
    sample.accel_variance[0] = calib.acc_var.z();
    sample.accel_variance[1] = calib.acc_var.y();
    sample.accel_variance[2] = calib.acc_var.x();

    sample.sync_event = r.sync_event;
    sample.bias_converged = fusion_bias.steady ? 1 : 0;
    if (device != BH_DEVICE_KOV_P_MCU && report.imu_state == 1) {
        sample.imu_state = 2;
    } else {
        sample.imu_state = fusion_bias.steady ? 0 : 1;
    }

    sample.mag_valid = report.mag_valid != 0;
    if (sample.mag_valid) {
        sample.mag_raw[0] = r.getMappedMagnetoX();
        sample.mag_raw[1] = r.getMappedMagnetoY();
        sample.mag_raw[2] = r.getMappedMagnetoZ();
        for (int i = 0; i < 3; ++i) {
            sample.mag[i] = (sample.mag_raw[i] - eeprom.mag_calib.offset[i]) * eeprom.mag_calib.scale[i];
        }
    }

    const bool env = report.env_valid != 0;
    sample.pressure_valid = env;
    sample.temperature_valid = env;
    sample.humidity_valid = env;
    if (env) {
        sample.pressure = barometer_scale * r.getEnvPressure() + barometer_offset;
        sample.temperature = r.getEnvTemperature();
        sample.humidity = r.getEnvHumidity();
    }
    sample.imager_temperature_valid =
        (env && report.temp_cam_left >= -27314 && report.temp_cam_right >= -27314) ? 1 : 0;
    if (sample.imager_temperature_valid) {
        sample.temperature_left = r.getOnBoardLeftTemperature();
        sample.temperature_right = r.getOnBoardRightTemperature();
    }
    return true;
}

IMUPacket KOVmcu::convertFromRTIMUData(const RTIMU_DATA& d) const {
    IMUPacket p;
    p.timestamp = d.timestamp * 1000;
    p.host_timestamp = d.host_timestamp;
    p.env_timestamp = d.env_timestamp * 1000;
    p.env_host_timestamp = d.env_host_timestamp;
    p.mag_timestamp = d.mag_timestamp * 1000;
    p.mag_host_timestamp = d.mag_host_timestamp;
    p.sync_event = d.sync_event;
    toCamera(d.gyro_raw, p.gyro_raw, kRadToDeg);
    toCamera(d.accel_raw, p.acc_raw, kGravity);
    toCamera(d.gyro, p.gyro, kRadToDeg);
    toCamera(d.accel, p.acc, kGravity);
    // variances carry no sign
    p.gyro_variance[0] = d.gyro_variance[1] * kGyroVarToDeg;
    p.gyro_variance[1] = d.gyro_variance[2] * kGyroVarToDeg;
    p.gyro_variance[2] = d.gyro_variance[0] * kGyroVarToDeg;
    p.acc_variance[0] = d.accel_variance[1] * kAccVarToMetric;
    p.acc_variance[1] = d.accel_variance[2] * kAccVarToMetric;
    p.acc_variance[2] = d.accel_variance[0] * kAccVarToMetric;
    p.bias_converged = d.bias_converged;
    p.imu_state = d.imu_state;
    p.imu_temperature = d.imu_temperature;
    p.mag_valid = d.mag_valid ? 1 : 0;
    p.env_valid = d.pressure_valid ? 1 : 0;
    p.mag_raw[0] = d.mag_raw[1];
    p.mag_raw[1] = d.mag_raw[0];
    p.mag_raw[2] = -d.mag_raw[2];
    p.mag[0] = d.mag[1];
    p.mag[1] = d.mag[0];
    p.mag[2] = -d.mag[2];
    p.pressure = d.pressure;
    p.temperature = d.temperature;
    p.humidity = d.humidity;
    p.altitude = d.altitude;
    p.imager_temperature_valid = d.imager_temperature_valid;
    p.temperature_left = d.temperature_left;
    p.temperature_right = d.temperature_right;
    for (int i = 0; i < 7; ++i) {
        p.ext_pose[i] = d.ext_pose[i];
    }
    p.filter_confidence_valid = 1;
    return p;
}

void KOVmcu::calculateFirstIMUData(RTIMU_DATA& d, RTQuaternion& quaternion, bool use_given) {
    Eigen::Matrix3f tilt;
    if (use_given) {
        Eigen::Quaternionf q(d.ext_pose[0], d.ext_pose[1], d.ext_pose[2], d.ext_pose[3]);
        if (!(q.norm() > 1e-6f)) {
            q = Eigen::Quaternionf::Identity();
        }
        tilt = q.normalized().toRotationMatrix();
    } else {
        Eigen::Vector3f a(d.accel[0], d.accel[1], d.accel[2]);
        if (!(a.norm() > 0.f)) {
            a = Eigen::Vector3f::UnitZ();
        }
        a.normalize();
        const Eigen::Vector3f up = Eigen::Vector3f::UnitZ();
        const Eigen::Vector3f v = a.cross(up);
        float c = a.dot(up);
        if (c < -1.f) {
            c = -1.f;
        }
        if (c < -0.99f) {
            // opposite vectors: the closed form divides by zero, take the flip
            tilt = Eigen::Vector3f(1.f, -1.f, -1.f).asDiagonal();
        } else {
            Eigen::Matrix3f vx;
            vx << 0.f, -v.z(), v.y(), v.z(), 0.f, -v.x(), -v.y(), v.x(), 0.f;
            tilt = Eigen::Matrix3f::Identity() + vx + vx * vx / (1.f + c);
        }
    }
    // keep the yaw of the given attitude
    Eigen::Quaternionf given(quaternion.scalar(), quaternion.x(), quaternion.y(), quaternion.z());
    if (!(given.norm() > 1e-6f)) {
        given = Eigen::Quaternionf::Identity();
    }
    const float yaw = extractYawOfYZXEuler(given.normalized().toRotationMatrix());
    const Eigen::Matrix3f rotation =
        Eigen::AngleAxisf(yaw, Eigen::Vector3f::UnitZ()).toRotationMatrix() * tilt;
    Eigen::Quaternionf result(rotation);
    result.normalize();
    d.fusion_quaternion_valid = true;
    d.fusion_quaternion[0] = result.w();
    d.fusion_quaternion[1] = result.x();
    d.fusion_quaternion[2] = result.y();
    d.fusion_quaternion[3] = result.z();
    RTQuaternion rq(result.w(), result.x(), result.y(), result.z());
    RTVector3 euler;
    rq.toEuler(euler);
    d.fusion_pose_valid = true;
    d.fusion_pose[0] = euler.x();
    d.fusion_pose[1] = euler.y();
    d.fusion_pose[2] = euler.z();
}

// ---------------------------------------------------------------- thread

void KOVmcu::beginFusion() {
    sample = RTIMU_DATA();
    if (!reset_orientation) {
        std::lock_guard<std::mutex> lock(queue_mutex);
        current_orientation = RTQuaternion(1.f, 0.f, 0.f, 0.f);
    }
    const double low = (device == BH_DEVICE_KOVT_MCU || device == BH_DEVICE_KOVTr_MCU) ? 0.06 : 0.1;
    filter.setErrorLimits(low, 0.2);
    altitude_estimator = std::make_unique<AltitudeEstimator>(0.008f, 0.09f, 0.18f, 0.25f, 0.05f);
    if (imu_status) {
        imu_status->setLogSink(&imuStatusLog, nullptr);
    }
    round_counter = 0;
    first_estimate_target = 4;
    previous_timestamp = 0;
    previous_acc.setZero();
    pressure_sum = 0.0;
    pressure_count = 0;
    last_pressure = 0.f;
    reference_pressure = 0.f;
    resetTranslation();
    translation_state = 0;
    translation_counter = 0;
}

void KOVmcu::runIMUFusion() {
    beginFusion();
    while (running) {
        fusionRound();
    }
}

bool KOVmcu::fusionRound() {
    VirtualIMUReader& r = *imu_reader;
    if (!r.updateIMUData(true) || !r.has_new_data) {
        platform::clock().sleepFor(std::chrono::microseconds(1));
        return false;
    }
    first_sample_seen = true;
    updateTime();
    readIMUData();

    RTQuaternion orientation;
    {
        std::lock_guard<std::mutex> lock(queue_mutex);
        orientation = current_orientation;
    }
    const Eigen::Vector3f acc(sample.accel[0], sample.accel[1], sample.accel[2]);

    if (round_counter == first_estimate_target &&
        (device == BH_DEVICE_KOVT_MCU || device == BH_DEVICE_KOVTr_MCU) && !sample.mag_valid) {
        // wait for the first magnetometer sample
        ++first_estimate_target;
    }

    if (round_counter == first_estimate_target) {
        RTQuaternion q(1.f, 0.f, 0.f, 0.f);
        RTVector3 acc_rt(acc.x(), acc.y(), acc.z());
        if (reset_orientation) {
            RTVector3 euler;
            orientation.toEuler(euler);
            reset_orientation = false;
            const float yaw = r.is_replay ? start_yaw : euler.z();
            RTVector3 pose;
            acc_rt.accelToEuler(pose, yaw);
            q.fromEuler(pose);
        } else if (r.is_replay) {
            RTVector3 pose;
            acc_rt.accelToEuler(pose, start_yaw);
            q.fromEuler(pose);
        } else {
            RTIMU_DATA averaged = sample;
            for (int i = 0; i < 3; ++i) {
                averaged.accel[i] = 0.5f * (previous_acc[i] + acc[i]);
            }
            calculateFirstIMUData(averaged, orientation, false);
            q = RTQuaternion(averaged.fusion_quaternion[0], averaged.fusion_quaternion[1],
                             averaged.fusion_quaternion[2], averaged.fusion_quaternion[3]);
            sample.fusion_quaternion_valid = true;
            filter.setInitialAccCovariance(sample.accel_variance[0], sample.accel_variance[1],
                                           sample.accel_variance[2]);
            filter.setInitialGyroCovariance(sample.gyro_variance[0], sample.gyro_variance[1],
                                            sample.gyro_variance[2]);
        }
        filter.setOrientation(q.scalar(), q.x(), q.y(), q.z());
        orientation = q;
        pressure_sum = 0.0;
        pressure_count = 0;
    } else if (round_counter > first_estimate_target) {
        const double dt = static_cast<double>(sample.timestamp - previous_timestamp) / 1e6;
        if (prior_pending.exchange(false)) {
            RTQuaternion prior;
            {
                std::lock_guard<std::mutex> lock(prior_mutex);
                prior = RTQuaternion(prior_quaternion(0), prior_quaternion(1), prior_quaternion(2),
                                     prior_quaternion(3));
            }
            filter.updateWithMadwick(acc.x(), acc.y(), acc.z(), sample.gyro[0], sample.gyro[1],
                                     sample.gyro[2], dt, prior);
        } else {
            filter.updateWithMadwick(acc.x(), acc.y(), acc.z(), sample.gyro[0], sample.gyro[1],
                                     sample.gyro[2], dt);
        }
        double w, x, y, z;
        filter.getOrientation(w, x, y, z);
        orientation = RTQuaternion(static_cast<float>(w), static_cast<float>(x), static_cast<float>(y),
                                   static_cast<float>(z));
        if (round_counter >= kTranslationFrom) {
            estimateTranslation(static_cast<float>(dt));
        }

        // altitude: a reference pressure first, from 20 distinct values above 800 hPa
        if (reference_pressure > 0.f) {
            if (sample.pressure_valid) {
                const float height =
                    convertPressureToAltitude(sample.pressure, reference_pressure, sample.temperature);
                float a[3] = {sample.accel[0], sample.accel[1], sample.accel[2]};
                float g[3] = {sample.gyro[0], sample.gyro[1], sample.gyro[2]};
                altitude_estimator->estimate(a, g, height,
                                             static_cast<unsigned int>(sample.host_timestamp / 1000));
                sample.altitude = altitude_estimator->getAltitude();
            }
        } else {
            if (sample.pressure_valid && sample.pressure > 800.f && sample.pressure != last_pressure) {
                pressure_sum += sample.pressure;
                ++pressure_count;
                if (pressure_count == 20) {
                    reference_pressure = static_cast<float>(pressure_sum / 20.0);
                }
            }
            if (sample.pressure_valid) {
                last_pressure = sample.pressure;
            }
            sample.altitude = 0.f;
        }
    }

    IMUPacket packet = convertFromRTIMUData(sample);
    packet.orientation[0] = orientation.x();
    packet.orientation[1] = orientation.y();
    packet.orientation[2] = orientation.z();
    packet.orientation[3] = orientation.scalar();
    calcMagHeading(packet);
    if (imu_status) {
        imu_status->compute(packet.acc_raw[0], packet.acc_raw[1], packet.acc_raw[2], packet.gyro_raw[0],
                            packet.gyro_raw[1], packet.gyro_raw[2], packet.timestamp);
    }
    packet.valid = true;
    filter.getCovariance(packet.orientation_covariance);
    packet.filter_confidence = filter.getNormalisedBeta();
    pushPacket(packet, orientation);

    previous_acc = acc;
    previous_timestamp = sample.timestamp;
    ++round_counter;
    if (round_counter > kRoundWrap) {
        round_counter = kTranslationFrom;
    }
    return true;
}

void KOVmcu::pushPacket(const IMUPacket& packet, const RTQuaternion& orientation) {
    std::lock_guard<std::mutex> lock(queue_mutex);
    current_orientation = orientation;
    pose_position = trans_position;
    pose_velocity = trans_velocity;
    imu_queue.pushBounded(packet);
    batch_queue.pushBounded(packet);
    if (packet.sync_event > 0) {
        sync_queue.pushBounded(packet);
    }
}

// ---------------------------------------------------------------- translation

Eigen::Vector3f KOVmcu::getNGAcc() {
    float x = 0.f, y = 0.f, z = 0.f;
    filter.getNGAcc(x, y, z);
    return Eigen::Vector3f(x, y, z);
}

void KOVmcu::seuilVelocity(Eigen::Vector3f& value, float band) {
    for (int i = 0; i < 3; ++i) {
        if (std::fabs(value[i]) < band) {
            value[i] = 0.f;
        }
    }
}

void KOVmcu::clampVelocity(Eigen::Vector3f& value, float limit) {
    for (int i = 0; i < 3; ++i) {
        value[i] = keepInsideRange(value[i], -limit, limit);
    }
}

float KOVmcu::keepInsideRange(float value, float low, float high) {
    return value < low ? low : (value > high ? high : value);
}

void KOVmcu::resetTranslation() {
    trans_position.setZero();
    trans_velocity.setZero();
    trans_velocity_prev.setZero();
}

void KOVmcu::estimateTranslation(float dt) {
    Eigen::Vector3f a = -(getNGAcc() * kGravity);
    const float jerk = dt > 0.f ? ((a - trans_acc_prev) / dt).norm() / 5000.f : 0.f;
    seuilVelocity(a, (0.3f - jerk) * kGravity);
    if (translation_state == 0) {
        trans_acc_prev = a;
        translation_state = 1;
        return;
    }
    if (translation_state == 1) {
        trans_acc_prev = a;
        trans_velocity_prev = trans_velocity;
        translation_state = 2;
        return;
    }
    trans_velocity = trans_velocity_prev + 0.5f * (trans_acc_prev + a) * dt;
    trans_position += 0.5f * (trans_velocity_prev + trans_velocity) * dt;
    seuilVelocity(trans_velocity, 0.005f);
    trans_velocity_prev = trans_velocity;
    trans_acc_prev = a;
    ++translation_counter;
    if (translation_counter % 1000 == 0) {
        resetTranslation();
    }
}

// ---------------------------------------------------------------- magnetometer, pressure

float KOVmcu::calcMagHeading(const Eigen::Vector3f& mag, const Eigen::Vector3f& acc) {
    const float roll = std::atan2(acc.y(), acc.z());
    const float pitch = std::atan2(-acc.x(), std::sqrt(acc.y() * acc.y() + acc.z() * acc.z()));
    const float cr = std::cos(roll), sr = std::sin(roll);
    const float cp = std::cos(pitch), sp = std::sin(pitch);
    const float xh = mag.x() * cp + mag.y() * sr * sp + mag.z() * cr * sp;
    const float yh = mag.y() * cr - mag.z() * sr;
    float heading = std::atan2(-yh, xh);
    if (heading < 0.f) {
        heading += kTwoPi;
    }
    return heading;
}

void KOVmcu::calcMagHeading(IMUPacket& p) {
    if (!p.mag_valid) {
        return;
    }
    if (p.mag[0] == p.mag_raw[0] && p.mag[1] == p.mag_raw[1] && p.mag[2] == p.mag_raw[2]) {
        p.mag_status = 3;
        return;
    }
    const Eigen::Vector3f mag(p.mag[0], p.mag[1], p.mag[2]);
    const float quality = 1.f - std::fabs(1.f - mag.norm());
    if (quality < 0.f) {
        p.mag_status = 2;
        p.mag_effective_rate = 0.f;
    } else {
        p.mag_effective_rate = quality;
        p.mag_status = quality >= 0.75f ? 0 : (quality >= 0.5f ? 1 : 2);
    }
    p.mag_heading = calcMagHeading(mag, Eigen::Vector3f(p.acc[0], p.acc[1], p.acc[2]));
}

float KOVmcu::convertPressureToAltitude(float pressure, float reference, float temperature) {
    return (std::pow(reference / pressure, 0.19022256f) - 1.f) * (temperature + 273.15f) / 0.0065f;
}

Eigen::Vector4f KOVmcu::toQuaternion(double roll, double pitch, double yaw) {
    const double cr = std::cos(roll * 0.5), sr = std::sin(roll * 0.5);
    const double cp = std::cos(pitch * 0.5), sp = std::sin(pitch * 0.5);
    const double cy = std::cos(yaw * 0.5), sy = std::sin(yaw * 0.5);
    return Eigen::Vector4f(
        static_cast<float>(cr * cp * cy + sr * sp * sy), static_cast<float>(sr * cp * cy - cr * sp * sy),
        static_cast<float>(cr * sp * cy + sr * cp * sy), static_cast<float>(cr * cp * sy - sr * sp * cy));
}

// ---------------------------------------------------------------- getters

IMUPose KOVmcu::transformData(const IMUPacket& packet, bool with_velocity) {
    const Eigen::Matrix3f& R = Reader2ImageRotation();
    IMUPose out;
    out.valid = packet.valid;
    out.timestamp = packet.timestamp;
    out.packet = packet;
    const Eigen::Matrix3f rotation = R * packetQuaternion(packet).toRotationMatrix() * R.transpose();
    storeQuaternion(Eigen::Quaternionf(rotation).normalized(), out.packet.orientation);
    auto turn = [&R](float v[3]) {
        const Eigen::Vector3f t = R * Eigen::Vector3f(v[0], v[1], v[2]);
        v[0] = t.x();
        v[1] = t.y();
        v[2] = t.z();
    };
    turn(out.packet.gyro);
    turn(out.packet.acc);
    turn(out.packet.gyro_raw);
    turn(out.packet.acc_raw);
    turn(out.packet.mag);
    turn(out.packet.mag_raw);
    Eigen::Matrix4f pose = Eigen::Matrix4f::Identity();
    pose.block<3, 3>(0, 0) = rotation;
    if (with_velocity) {
        pose.block<3, 1>(0, 3) = pose_position;
        out.velocity = pose_velocity;
    }
    out.pose = pose * cam_imu_transform;
    last_delivered = out;
    return out;
}

IMUPose KOVmcu::getIMUPose(int offset) {
    std::lock_guard<std::mutex> lock(queue_mutex);
    const size_t n = offset < 0 ? 0 : static_cast<size_t>(offset);
    const size_t size = imu_queue.size();
    IMUPacket packet;
    if (size > 0 && size <= n) {
        packet = imu_queue.atBegin(0);
    } else if (size > n) {
        packet = imu_queue.atEnd(n);
    }
    return transformData(packet, true);
}

IMUPose KOVmcu::getIMUPoseAtImage(int offset) {
    std::lock_guard<std::mutex> lock(queue_mutex);
    const size_t n = offset < 0 ? 0 : static_cast<size_t>(offset);
    const size_t size = sync_queue.size();
    IMUPacket packet;
    if (size > 0 && size <= n) {
        packet = sync_queue.atBegin(0);
    } else if (size > n) {
        packet = sync_queue.atEnd(n);
    }
    return transformData(packet, true);
}

IMUPose KOVmcu::getClosestIMUPoseSubImage(uint64_t timestamp, int offset) {
    std::lock_guard<std::mutex> lock(queue_mutex);
    const size_t n = offset < 0 ? 0 : static_cast<size_t>(offset);
    const size_t size = imu_queue.size();
    IMUPacket packet;
    if (size >= 1 && size <= n) {
        packet = imu_queue.atBegin(0);
    } else if (size > n + 10) {
        // walk from the newest to the packet of this timestamp; the walk is
        // bounded by the queue: a timestamp that no packet has gives nothing
        size_t found = size;
        for (size_t i = 0; i < size; ++i) {
            if (imu_queue.atEnd(i).timestamp == timestamp) {
                found = i;
                break;
            }
        }
        if (found < size) {
            packet = imu_queue.atEnd(found >= n ? found - n : 0);
        }
    }
    return transformData(packet, true);
}

IMUPose KOVmcu::getIMUPoseFromAccel(int offset, bool use_image_frame) {
    IMUPacket packet;
    {
        std::lock_guard<std::mutex> lock(queue_mutex);
        const size_t n = offset < 0 ? 0 : static_cast<size_t>(offset);
        if (imu_queue.size() > n) {
            packet = imu_queue.atEnd(n);
        } else if (!imu_queue.empty()) {
            packet = imu_queue.atBegin(0);
        }
    }
    if (packet.valid) {
        // camera axes -> engine frame: (y, -z, -x) inverted
        RTIMU_DATA d;
        d.accel[0] = -packet.acc[2];
        d.accel[1] = packet.acc[0];
        d.accel[2] = -packet.acc[1];
        RTQuaternion identity(1.f, 0.f, 0.f, 0.f);
        calculateFirstIMUData(d, identity, false);
        packet.orientation[0] = d.fusion_quaternion[1];
        packet.orientation[1] = d.fusion_quaternion[2];
        packet.orientation[2] = d.fusion_quaternion[3];
        packet.orientation[3] = d.fusion_quaternion[0];
    }
    std::lock_guard<std::mutex> lock(queue_mutex);
    if (use_image_frame) {
        return transformData(packet, false);
    }
    IMUPose out;
    out.valid = packet.valid;
    out.timestamp = packet.timestamp;
    out.packet = packet;
    const Eigen::Quaternionf q = packetQuaternion(packet);
    out.pose.block<3, 3>(0, 0) = q.toRotationMatrix();
    return out;
}

std::vector<IMUPacket> KOVmcu::getIMUPacketBatch(uint64_t start, uint64_t end) {
    // Every packet of the queue is looked at, from the newest, and taken in
    // that order: newest first.
    std::vector<IMUPacket> batch;
    std::lock_guard<std::mutex> lock(queue_mutex);
    const size_t size = batch_queue.size();
    for (size_t i = 0; i < size; ++i) {
        const IMUPacket packet = batch_queue.atEnd(i);
        if (packet.timestamp > start && packet.timestamp <= end) {
            batch.push_back(packet);
        }
    }
    return batch;
}

void KOVmcu::setPriorOrientation(IMUPacket& packet) {
    const Eigen::Matrix3f& R = Reader2ImageRotation();
    const Eigen::Matrix3f in_reader = R.transpose() * packetQuaternion(packet).toRotationMatrix() * R;
    Eigen::Quaternionf q(in_reader);
    q.normalize();
    prior_pending = false;
    {
        std::lock_guard<std::mutex> lock(prior_mutex);
        prior_quaternion = Eigen::Vector4f(q.w(), q.x(), q.y(), q.z());
    }
    prior_pending = true;
}

void KOVmcu::setResetQuaternion(float w, float x, float y, float z) {
    std::lock_guard<std::mutex> lock(queue_mutex);
    current_orientation = RTQuaternion(w, x, y, z);
    reset_orientation = true;
}

Eigen::Matrix4f KOVmcu::getPoseInImuFromPoseInImage(const Eigen::Matrix4f& pose_in_image) const {
    Eigen::Matrix4f r = Eigen::Matrix4f::Identity();
    r.block<3, 3>(0, 0) = Reader2ImageRotation();
    return r.transpose() * pose_in_image * r;
}

}  // namespace bh
