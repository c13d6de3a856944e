#include "bh_input/mcu/IMUCalibParam.h"

#include <cmath>
#include <sstream>

#include <Eigen/Geometry>

namespace bh {

void IMUCalibParam::reset() {
    *this = IMUCalibParam();
}

void IMUCalibParam::setup() {
    acc_full = acc_missalign * acc_scale;
    gyro_full = gyro_missalign * gyro_scale;
}

bool IMUCalibParam::isUnset() const {
    const Eigen::Matrix3f id = Eigen::Matrix3f::Identity();
    return acc_missalign == id && acc_scale == id && gyro_missalign == id && gyro_scale == id &&
           acc_bias.isZero(0.f) && acc_var.isZero(0.f) && acc_tscale.isZero(0.f) && gyro_bias.isZero(0.f) &&
           gyro_var.isZero(0.f) && gyro_tscale.isZero(0.f) && T.isZero(0.f) && R.isZero(0.f);
}

namespace {

void printMatrix(std::ostringstream& out, const char* label, const Eigen::Matrix3f& m) {
    out << label;
    for (int r = 0; r < 3; ++r) {
        out << m(r, 0) << " " << m(r, 1) << " " << m(r, 2) << "\n";
    }
}

void printVector(std::ostringstream& out, const char* label, const Eigen::Vector3f& v) {
    out << label << v(0) << " " << v(1) << " " << v(2) << "\n";
}

}  // namespace

std::string IMUCalibParam::toString() const {
    std::ostringstream out;
    out << "IMU calibration\n";
    out << "Accel\n";
    printMatrix(out, "MissAlign\n", acc_missalign);
    printMatrix(out, "Scale\n", acc_scale);
    printVector(out, "Bias\n", acc_bias);
    printVector(out, "Var\n", acc_var);
    printVector(out, "T-Scale\n", acc_tscale);
    out << "Gyro\n";
    printMatrix(out, "MissAlign\n", gyro_missalign);
    printMatrix(out, "Scale\n", gyro_scale);
    printVector(out, "Bias\n", gyro_bias);
    printVector(out, "Var\n", gyro_var);
    printVector(out, "T-Scale\n", gyro_tscale);
    printVector(out, "R\n", R);
    printVector(out, "T\n", T);
    return out.str();
}

Eigen::Vector4f so3ExpQuaternion(const Eigen::Vector3f& omega) {
    const double t = static_cast<double>(omega.squaredNorm());
    double real;
    double imag;
    if (std::sqrt(t) < 1e-5) {
        // series of cos(theta/2) and sin(theta/2)/theta around 0
        real = 1.0 - t / 8.0 + t * t / 384.0;
        imag = 0.5 - t / 48.0 + t * t / 3840.0;
    } else {
        const double theta = std::sqrt(t);
        const double half = 0.5 * theta;
        real = std::cos(half);
        imag = std::sin(half) / theta;
    }
    return Eigen::Vector4f(static_cast<float>(real), static_cast<float>(imag * omega.x()),
                           static_cast<float>(imag * omega.y()), static_cast<float>(imag * omega.z()));
}

bool so3Exp(const Eigen::Vector3f& omega, Eigen::Matrix3f& rotation, std::string* error) {
    const Eigen::Vector4f q = so3ExpQuaternion(omega);
    const float norm = q.norm();
    if (!(norm >= 1e-5f)) {
        if (error) {
            *error = "Quaternion is (near) zero!";
        }
        rotation.setIdentity();
        return false;
    }
    const Eigen::Quaternionf unit(q(0) / norm, q(1) / norm, q(2) / norm, q(3) / norm);
    rotation = unit.toRotationMatrix();
    return true;
}

Eigen::Matrix4f cameraIMUTransform(const Eigen::Vector3f& rotation_vector,
                                   const Eigen::Vector3f& translation_mm, std::string* error) {
    Eigen::Matrix4f transform = Eigen::Matrix4f::Identity();
    Eigen::Matrix3f rotation;
    so3Exp(rotation_vector, rotation, error);
    transform.block<3, 3>(0, 0) = rotation;
    transform.block<3, 1>(0, 3) = translation_mm * 0.001f;
    return transform;
}

bool rotationVectorUsable(const Eigen::Vector3f& r) {
    if (!r.allFinite()) {
        return false;
    }
    return !(r.norm() > 3140.f);
}

}  // namespace bh
