#pragma once

#include <cstdint>

#include <Eigen/Core>

// Records of the sensor engine's data path: the working sample of the fusion
// thread (RTIMU_DATA), the finished packet that the queues hold
// (bh::IMUPacket) and the pose record that the getters hand to the grabbers.

// One sample as the fusion thread works on it. Vectors are in the engine's
// frame: the reader's x, y, z become z, y, -x.
struct RTIMU_DATA {
    // times of the MCU, microseconds
    uint64_t timestamp = 0;
    uint64_t env_timestamp = 0;
    uint64_t mag_timestamp = 0;

    // pose
    bool fusion_pose_valid = false;
    float fusion_pose[3] = {0.f, 0.f, 0.f};  // roll, pitch, yaw (radians)
    bool fusion_quaternion_valid = false;
    float fusion_quaternion[4] = {1.f, 0.f, 0.f, 0.f};  // w, x, y, z

    // gyroscope
    bool gyro_valid = false;
    float gyro[3] = {0.f, 0.f, 0.f};           // calibrated, rad/s
    float gyro_variance[3] = {0.f, 0.f, 0.f};  // (rad/s)^2
    float gyro_raw[3] = {0.f, 0.f, 0.f};       // rad/s

    // accelerometer
    bool accel_valid = false;
    float accel[3] = {0.f, 0.f, 0.f};  // calibrated, g
    float accel_variance[3] = {0.f, 0.f, 0.f};
    float accel_raw[3] = {0.f, 0.f, 0.f};  // g

    // magnetometer
    bool mag_valid = false;
    float mag_raw[3] = {0.f, 0.f, 0.f};
    float mag[3] = {0.f, 0.f, 0.f};  // calibrated, microtesla

    bool pressure_valid = false;
    float pressure = 0.f;  // hPa
    bool temperature_valid = false;
    float temperature = 0.f;  // degrees Celsius
    bool humidity_valid = false;
    float humidity = 0.f;  // percent
    float altitude = 0.f;  // metres

    int32_t sync_event = 0;
    uint8_t bias_converged = 0;
    uint8_t imu_state = 0;

    // external pose: w, x, y, z, tx, ty, tz
    float ext_pose[7] = {1.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f};

    // host times, nanoseconds
    uint64_t host_timestamp = 0;
    uint64_t env_host_timestamp = 0;
    uint64_t mag_host_timestamp = 0;

    float imu_temperature = 0.f;

    uint8_t imager_temperature_valid = 0;
    float temperature_left = 0.f;
    float temperature_right = 0.f;
};

namespace bh {

// One fused sample, as the queues hold it. Vectors are in the camera's axes.
struct IMUPacket {
    bool valid = false;
    uint64_t timestamp = 0;       // MCU time, nanoseconds
    uint64_t host_timestamp = 0;  // host time of the sample, nanoseconds
    uint64_t env_timestamp = 0;
    uint64_t env_host_timestamp = 0;
    uint64_t mag_timestamp = 0;
    uint64_t mag_host_timestamp = 0;
    int32_t sync_event = 0;                       // 0 none, 1 frame trigger or count change, 2 both
    float orientation[4] = {0.f, 0.f, 0.f, 1.f};  // x, y, z, w
    float translation[3] = {0.f, 0.f, 0.f};
    float gyro_raw[3] = {0.f, 0.f, 0.f};       // degrees per second
    float acc_raw[3] = {0.f, 0.f, 0.f};        // m/s2
    float gyro[3] = {0.f, 0.f, 0.f};           // calibrated, degrees per second
    float acc[3] = {0.f, 0.f, 0.f};            // calibrated, m/s2
    float gyro_variance[3] = {0.f, 0.f, 0.f};  // (degrees per second)^2
    float acc_variance[3] = {0.f, 0.f, 0.f};   // (m/s2)^2
    float orientation_covariance[16] = {};
    uint8_t bias_converged = 0;
    uint8_t imu_state = 0;
    float imu_temperature = 0.f;
    uint8_t mag_valid = 0;
    uint8_t env_valid = 0;
    float mag_raw[3] = {0.f, 0.f, 0.f};
    float mag[3] = {0.f, 0.f, 0.f};
    int32_t mag_status = 3;  // 0 good, 1 fair, 2 poor, 3 not calibrated
    float mag_effective_rate = 0.f;
    float mag_heading = 0.f;  // radians, 0 to 2 pi
    float pressure = 0.f;
    float temperature = 0.f;
    float humidity = 0.f;
    float altitude = 0.f;
    uint8_t imager_temperature_valid = 0;
    float temperature_left = 0.f;
    float temperature_right = 0.f;
    float ext_pose[7] = {1.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f};
    uint8_t filter_confidence_valid = 0;
    float filter_confidence = 0.f;
};

// What the pose getters return: the packet re-expressed in the image frame,
// its pose as a 4 x 4 matrix (translation in metres) and the velocity of the
// translation estimate.
struct IMUPose {
    bool valid = false;
    uint64_t timestamp = 0;
    IMUPacket packet;
    Eigen::Matrix4f pose = Eigen::Matrix4f::Identity();
    Eigen::Vector3f velocity = Eigen::Vector3f::Zero();
};

}  // namespace bh
