#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <Eigen/Core>

namespace bh {

// The engine's form of the inertial calibration.
struct IMUCalibParam {
    Eigen::Matrix3f acc_missalign = Eigen::Matrix3f::Identity();
    Eigen::Matrix3f acc_scale = Eigen::Matrix3f::Identity();
    Eigen::Vector3f acc_bias = Eigen::Vector3f::Zero();
    Eigen::Vector3f acc_var = Eigen::Vector3f::Zero();
    Eigen::Vector3f acc_tscale = Eigen::Vector3f::Zero();  // per degree
    Eigen::Matrix3f acc_full = Eigen::Matrix3f::Identity();

    Eigen::Matrix3f gyro_missalign = Eigen::Matrix3f::Identity();
    Eigen::Matrix3f gyro_scale = Eigen::Matrix3f::Identity();
    Eigen::Vector3f gyro_bias = Eigen::Vector3f::Zero();
    Eigen::Vector3f gyro_var = Eigen::Vector3f::Zero();
    Eigen::Vector3f gyro_tscale = Eigen::Vector3f::Zero();
    Eigen::Matrix3f gyro_full = Eigen::Matrix3f::Identity();

    Eigen::Vector3f T = Eigen::Vector3f::Zero();  // position of the IMU, millimetres
    Eigen::Vector3f R = Eigen::Vector3f::Zero();  // camera to IMU rotation vector

    // Identity matrices and zero vectors.
    void reset();

    // full = misalignment x scale, for both sensors.
    void setup();

    // True for a structure nobody filled: identity misalignment and scale, all
    // else zero (the full matrices are not looked at).
    bool isUnset() const;

    // The labelled text of the verbose print.
    std::string toString() const;
};

// What calibrateIMU(calibrationIMUParams&) takes and returns.
struct calibrationIMUParams {
    int32_t samples = 0;
    float gyro_bias[3] = {0.f, 0.f, 0.f};
    float acc_bias[3] = {0.f, 0.f, 0.f};
    float gyro_variance[3] = {0.f, 0.f, 0.f};
    float acc_variance[3] = {0.f, 0.f, 0.f};
    int32_t firmware_version = 0;
    int32_t serial_number = 0;
    int32_t status = 0;
};

// The SO(3) exponential map of a rotation vector, through the unit quaternion.
// Returns false with `error` set when the quaternion comes out (near) zero,
// which only a non-finite vector can cause; `rotation` is the identity then.
bool so3Exp(const Eigen::Vector3f& omega, Eigen::Matrix3f& rotation, std::string* error = nullptr);

// The unit quaternion (w, x, y, z) of the exponential map, not normalised yet.
Eigen::Vector4f so3ExpQuaternion(const Eigen::Vector3f& omega);

// The camera to IMU transform: rotation exp(rotation_vector), translation
// `translation_mm` x 0.001 (metres).
Eigen::Matrix4f cameraIMUTransform(const Eigen::Vector3f& rotation_vector,
                                   const Eigen::Vector3f& translation_mm, std::string* error = nullptr);

// A rotation vector is usable when finite and of norm at most 3140.
bool rotationVectorUsable(const Eigen::Vector3f& r);

}  // namespace bh
