#include "bh_input/mcu/IMU/ComplementaryFilter.h"

#include <Eigen/Cholesky>
#include <Eigen/Geometry>
#include <cmath>
#include <iostream>
#include <limits>

namespace imu_tools {

namespace {

constexpr double kTwoPi = 6.283185307179586;

// Beta of the gradient step: 0.02 at rest, falling linearly to 0.005 at a
// rotation speed of 1 rad/s and staying there above.
inline float adaptiveBeta(float gx, float gy, float gz) {
    const float m = std::sqrt(gx * gx + gy * gy + gz * gz);
    return m <= 1.0f ? 0.02f - 0.015f * m : 0.005f;
}

// Rotation taking the unit vector v1 onto the unit vector v2:
// I + [v]x + [v]x^2 / (1 + c) with v = v1 x v2 and c = v1 . v2. Near-opposite
// vectors (c below -0.99) get the half-turn about an axis normal to v1.
Eigen::Matrix3d rotationFromV1ToV2Unit(const Eigen::Vector3d& v1, const Eigen::Vector3d& v2) {
    double c = v1.dot(v2);
    if (c < -1.0)
        c = -1.0;
    if (c < -0.99) {
        Eigen::Vector3d axis = v1.unitOrthogonal();
        return 2.0 * axis * axis.transpose() - Eigen::Matrix3d::Identity();
    }
    const Eigen::Vector3d v = v1.cross(v2);
    Eigen::Matrix3d vx;
    vx << 0, -v.z(), v.y(), v.z(), 0, -v.x(), -v.y(), v.x(), 0;
    // [v]x^2 = v v^T - |v|^2 I
    const double k = 1.0 / (1.0 + c);
    Eigen::Matrix3d R = (k * v) * v.transpose() + vx;
    R.diagonal().array() += 1.0 - k * v.squaredNorm();
    return R;
}

}  // namespace

// ---------------------------------------------------------------- free helpers

void normalizeVector(double& x, double& y, double& z) {
    const double norm = std::sqrt(x * x + y * y + z * z);
    if (norm == 0)
        return;
    x /= norm;
    y /= norm;
    z /= norm;
}

void normalizeQuaternion(double& q0, double& q1, double& q2, double& q3) {
    const double norm = std::sqrt(q0 * q0 + q1 * q1 + q2 * q2 + q3 * q3);
    if (norm == 0)
        return;
    q0 /= norm;
    q1 /= norm;
    q2 /= norm;
    q3 /= norm;
}

// Inverse of a unit quaternion: its conjugate.
void invertQuaternion(double q0, double q1, double q2, double q3, double& q0_inv, double& q1_inv,
                      double& q2_inv, double& q3_inv) {
    q0_inv = q0;
    q1_inv = -q1;
    q2_inv = -q2;
    q3_inv = -q3;
}

void scaleQuaternion(double gain, double& dq0, double& dq1, double& dq2, double& dq3) {
    bool lerp = dq0 < 0.9;
    if (!lerp) {
        const double angle = std::acos(dq0 > 1.0 ? 1.0 : dq0);
        const double sinAngle = std::sin(angle);
        if (sinAngle > 1e-12) {
            const double A = std::sin(angle * (1.0 - gain)) / sinAngle;
            const double B = std::sin(angle * gain) / sinAngle;
            dq0 = A + B * dq0;
            dq1 = B * dq1;
            dq2 = B * dq2;
            dq3 = B * dq3;
        } else {
            lerp = true;  // no rotation: SLERP degenerates to LERP
        }
    }
    if (lerp) {
        dq0 = (1.0 - gain) + gain * dq0;
        dq1 = gain * dq1;
        dq2 = gain * dq2;
        dq3 = gain * dq3;
    }
    normalizeQuaternion(dq0, dq1, dq2, dq3);
}

void quaternionMultiplication(double p0, double p1, double p2, double p3, double q0, double q1, double q2,
                              double q3, double& r0, double& r1, double& r2, double& r3) {
    r0 = p0 * q0 - p1 * q1 - p2 * q2 - p3 * q3;
    r1 = p0 * q1 + p1 * q0 + p2 * q3 - p3 * q2;
    r2 = p0 * q2 - p1 * q3 + p2 * q0 + p3 * q1;
    r3 = p0 * q3 + p1 * q2 - p2 * q1 + p3 * q0;
}

// v' = q v q*, for a unit quaternion q.
void rotateVectorByQuaternion(double x, double y, double z, double q0, double q1, double q2, double q3,
                              double& vx, double& vy, double& vz) {
    vx = (q0 * q0 + q1 * q1 - q2 * q2 - q3 * q3) * x + 2 * (q1 * q2 - q0 * q3) * y +
         2 * (q1 * q3 + q0 * q2) * z;
    vy = 2 * (q1 * q2 + q0 * q3) * x + (q0 * q0 - q1 * q1 + q2 * q2 - q3 * q3) * y +
         2 * (q2 * q3 - q0 * q1) * z;
    vz = 2 * (q1 * q3 - q0 * q2) * x + 2 * (q2 * q3 + q0 * q1) * y +
         (q0 * q0 - q1 * q1 - q2 * q2 + q3 * q3) * z;
}

// ---------------------------------------------------------------- Madgwick

namespace {

// One gradient step with the given beta. The objective is the gravity
// direction (and, with a field, the magnetic reference (bx, 0, bz)) predicted
// by the attitude minus the measured one; the step follows -J^T f.
void madgwickGradientStep(double& q0, double& q1, double& q2, double& q3, float gx, float gy, float gz,
                          float ax, float ay, float az, float mx, float my, float mz, bool useMag, float beta,
                          float sampleFreq) {
    // Rate of change from the gyroscope: 0.5 q x (0, w).
    double qDot0 = 0.5 * (-q1 * gx - q2 * gy - q3 * gz);
    double qDot1 = 0.5 * (q0 * gx + q2 * gz - q3 * gy);
    double qDot2 = 0.5 * (q0 * gy - q1 * gz + q3 * gx);
    double qDot3 = 0.5 * (q0 * gz + q1 * gy - q2 * gx);

    if (!(ax == 0.0f && ay == 0.0f && az == 0.0f)) {
        double a[3] = {ax, ay, az};
        normalizeVector(a[0], a[1], a[2]);

        // Gravity objective and its Jacobian.
        const double f1 = 2.0 * (q1 * q3 - q0 * q2) - a[0];
        const double f2 = 2.0 * (q0 * q1 + q2 * q3) - a[1];
        const double f3 = 2.0 * (0.5 - q1 * q1 - q2 * q2) - a[2];
        double s0 = -2.0 * q2 * f1 + 2.0 * q1 * f2;
        double s1 = 2.0 * q3 * f1 + 2.0 * q0 * f2 - 4.0 * q1 * f3;
        double s2 = -2.0 * q0 * f1 + 2.0 * q3 * f2 - 4.0 * q2 * f3;
        double s3 = 2.0 * q1 * f1 + 2.0 * q2 * f2;

        if (useMag) {
            double m[3] = {mx, my, mz};
            normalizeVector(m[0], m[1], m[2]);
            // Reference field: the measured one in the earth frame, turned
            // into the x-z plane.
            double hx, hy, hz;
            rotateVectorByQuaternion(m[0], m[1], m[2], q0, q1, q2, q3, hx, hy, hz);
            const double bx = std::sqrt(hx * hx + hy * hy);
            const double bz = hz;
            const double f4 = 2.0 * bx * (0.5 - q2 * q2 - q3 * q3) + 2.0 * bz * (q1 * q3 - q0 * q2) - m[0];
            const double f5 = 2.0 * bx * (q1 * q2 - q0 * q3) + 2.0 * bz * (q0 * q1 + q2 * q3) - m[1];
            const double f6 = 2.0 * bx * (q0 * q2 + q1 * q3) + 2.0 * bz * (0.5 - q1 * q1 - q2 * q2) - m[2];
            s0 += -2.0 * bz * q2 * f4 + (-2.0 * bx * q3 + 2.0 * bz * q1) * f5 + 2.0 * bx * q2 * f6;
            s1 += 2.0 * bz * q3 * f4 + (2.0 * bx * q2 + 2.0 * bz * q0) * f5 +
                  (2.0 * bx * q3 - 4.0 * bz * q1) * f6;
            s2 += (-4.0 * bx * q2 - 2.0 * bz * q0) * f4 + (2.0 * bx * q1 + 2.0 * bz * q3) * f5 +
                  (2.0 * bx * q0 - 4.0 * bz * q2) * f6;
            s3 += (-4.0 * bx * q3 + 2.0 * bz * q1) * f4 + (-2.0 * bx * q0 + 2.0 * bz * q2) * f5 +
                  2.0 * bx * q1 * f6;
        }

        const double sNorm = std::sqrt(s0 * s0 + s1 * s1 + s2 * s2 + s3 * s3);
        if (sNorm > 0.0) {  // an exact fit has no direction to follow
            qDot0 -= beta * s0 / sNorm;
            qDot1 -= beta * s1 / sNorm;
            qDot2 -= beta * s2 / sNorm;
            qDot3 -= beta * s3 / sNorm;
        }
    }

    const double step = 1.0 / static_cast<double>(sampleFreq);
    q0 += qDot0 * step;
    q1 += qDot1 * step;
    q2 += qDot2 * step;
    q3 += qDot3 * step;
    normalizeQuaternion(q0, q1, q2, q3);
}

}  // namespace

void MadgwickAHRSupdateIMU(double& q0, double& q1, double& q2, double& q3, float gx, float gy, float gz,
                           float ax, float ay, float az, float sampleFreq) {
    madgwickGradientStep(q0, q1, q2, q3, gx, gy, gz, ax, ay, az, 0.f, 0.f, 0.f, false, 0.005f, sampleFreq);
}

float MadgwickAHRSupdateIMUAdaptative(double& q0, double& q1, double& q2, double& q3, float gx, float gy,
                                      float gz, float ax, float ay, float az, float sampleFreq) {
    const float beta = adaptiveBeta(gx, gy, gz);
    madgwickGradientStep(q0, q1, q2, q3, gx, gy, gz, ax, ay, az, 0.f, 0.f, 0.f, false, beta, sampleFreq);
    return beta;
}

float MadgwickAHRSupdateAdaptative(double& q0, double& q1, double& q2, double& q3, float gx, float gy,
                                   float gz, float ax, float ay, float az, float mx, float my, float mz,
                                   float sampleFreq) {
    if (mx == 0.0f && my == 0.0f && mz == 0.0f)
        return MadgwickAHRSupdateIMUAdaptative(q0, q1, q2, q3, gx, gy, gz, ax, ay, az, sampleFreq);
    const float beta = adaptiveBeta(gx, gy, gz);
    madgwickGradientStep(q0, q1, q2, q3, gx, gy, gz, ax, ay, az, mx, my, mz, true, beta, sampleFreq);
    return beta;
}

// ---------------------------------------------------------------- ComplementaryFilter

ComplementaryFilter::ComplementaryFilter() {
    acc_covariance.setZero();
    gyro_covariance.setZero();
    P.setZero();
    gravity_alignment.setIdentity();
}

ComplementaryFilter::~ComplementaryFilter() = default;

bool ComplementaryFilter::setGainAcc(double gain) {
    if (gain >= 0 && gain <= 1.0) {
        gain_acc = gain;
        return true;
    }
    return false;
}

bool ComplementaryFilter::setGainMag(double gain) {
    if (gain >= 0 && gain <= 1.0) {
        gain_mag = gain;
        return true;
    }
    return false;
}

bool ComplementaryFilter::setBiasAlpha(double alpha) {
    if (alpha >= 0 && alpha <= 1.0) {
        bias_alpha = alpha;
        return true;
    }
    return false;
}

void ComplementaryFilter::setDoBiasEstimation(bool value) {
    do_bias_estimation = value;
}

void ComplementaryFilter::setDoAdaptiveGain(bool value) {
    do_adaptive_gain = value;
}

void ComplementaryFilter::setOrientation(double w, double x, double y, double z) {
    invertQuaternion(w, x, y, z, q0, q1, q2, q3);
}

void ComplementaryFilter::getOrientation(double& w, double& x, double& y, double& z) const {
    invertQuaternion(q0, q1, q2, q3, w, x, y, z);
}

void ComplementaryFilter::setErrorLimits(double low, double high) {
    error_limit_low = low;
    error_limit_high = high;
}

void ComplementaryFilter::setInitialAccCovariance(double x, double y, double z) {
    const float epsilon = 1e-6f;
    acc_covariance(0, 0) = static_cast<float>(x) + epsilon;
    acc_covariance(1, 1) = static_cast<float>(y) + epsilon;
    acc_covariance(2, 2) = static_cast<float>(z) + epsilon;
}

void ComplementaryFilter::setInitialGyroCovariance(double x, double y, double z) {
    const float epsilon = 1e-6f;
    gyro_covariance(0, 0) = static_cast<float>(x) + epsilon;
    gyro_covariance(1, 1) = static_cast<float>(y) + epsilon;
    gyro_covariance(2, 2) = static_cast<float>(z) + epsilon;
}

void ComplementaryFilter::getNGAcc(float& x, float& y, float& z) const {
    x = ng_acc[0];
    y = ng_acc[1];
    z = ng_acc[2];
}

void ComplementaryFilter::getCovariance(float out[16]) const {
    for (int row = 0; row < 4; row++)
        for (int col = 0; col < 4; col++)
            out[row * 4 + col] = P(row, col);
}

// ---------------------------------------------------------------- Madgwick path

double ComplementaryFilter::lowPassFilter(AxisLowPass& axis, double raw) const {
    double period = 1.0 / dt_inverse;
    if (!(period >= minimum_dt))
        period = minimum_dt;

    // Smoothing factor 1 / (1 / (2 pi fc) / Te + 1), written as r / (r + 1)
    // with r = 2 pi fc Te: the same value with one division.
    const double derivative = axis.has_previous_raw ? (raw - axis.previous_raw) * dt_inverse : 0.0;
    const double rd = kTwoPi * derivative_cutoff * period;
    const double smoothing = rd / (rd + 1.0);
    const double smoothed = axis.has_smoothed_derivative
                                ? smoothing * derivative + (1.0 - smoothing) * axis.smoothed_derivative
                                : derivative;
    axis.previous_derivative = derivative;
    axis.smoothed_derivative = smoothed;
    axis.has_smoothed_derivative = true;

    // The cutoff rises with the speed of the signal: little lag on fast
    // changes, strong smoothing at rest.
    const double cutoff = cutoff_base + cutoff_slope * std::fabs(smoothed);
    const double ra = kTwoPi * cutoff * period;
    const double alpha = ra / (ra + 1.0);
    const double filtered =
        axis.has_previous_raw ? alpha * raw + (1.0 - alpha) * axis.previous_filtered : raw;

    axis.previous_raw = raw;
    axis.has_previous_raw = true;
    axis.previous_filtered = filtered;
    return filtered;
}

void ComplementaryFilter::updateWithMadwick(double ax, double ay, double az, double wx, double wy, double wz,
                                            double dt) {
    if (!initialized) {
        getMeasurement(ax, ay, az, q0, q1, q2, q3);
        initialized = true;
        return;
    }
    madgwickStep(ax, ay, az, wx, wy, wz, 0.0, 0.0, 0.0, dt);
}

void ComplementaryFilter::updateWithMadwick(double ax, double ay, double az, double wx, double wy, double wz,
                                            double mx, double my, double mz, double dt) {
    if (!initialized) {
        getMeasurement(ax, ay, az, mx, my, mz, q0, q1, q2, q3);
        initialized = true;
        return;
    }
    madgwickStep(ax, ay, az, wx, wy, wz, mx, my, mz, dt);
}

void ComplementaryFilter::updateWithMadwick(double ax, double ay, double az, double wx, double wy, double wz,
                                            double dt, const RTQuaternion& prior) {
    double w = prior.scalar(), x = prior.x(), y = prior.y(), z = prior.z();
    normalizeQuaternion(w, x, y, z);
    if (w == 0 && x == 0 && y == 0 && z == 0) {
        // No usable prior: an ordinary step.
        updateWithMadwick(ax, ay, az, wx, wy, wz, dt);
        return;
    }
    setOrientation(w, x, y, z);
    initialized = true;
    madgwickStep(ax, ay, az, wx, wy, wz, 0.0, 0.0, 0.0, dt);
}

void ComplementaryFilter::madgwickStep(double ax, double ay, double az, double wx, double wy, double wz,
                                       double mx, double my, double mz, double dt) {
    // The rate of the low-pass is fixed by the first step.
    if (first_call == 0)
        dt_inverse = dt > 0 ? 1.0 / dt : sample_rate;
    first_call++;

    const double fx = lowPassFilter(low_pass[0], ax);
    const double fy = lowPassFilter(low_pass[1], ay);
    const double fz = lowPassFilter(low_pass[2], az);
    double a[3] = {ax, ay, az};
    const double norm = std::sqrt(fx * fx + fy * fy + fz * fz);
    if (norm > 0) {
        a[0] = fx / norm;
        a[1] = fy / norm;
        a[2] = fz / norm;
    }

    // Madgwick works on the attitude, the filter keeps its inverse.
    double aq0 = q0, aq1 = -q1, aq2 = -q2, aq3 = -q3;
    const float rate = dt > 0 ? static_cast<float>(1.0 / dt) : std::numeric_limits<float>::infinity();
    const float beta = MadgwickAHRSupdateAdaptative(
        aq0, aq1, aq2, aq3, static_cast<float>(wx), static_cast<float>(wy), static_cast<float>(wz),
        static_cast<float>(a[0]), static_cast<float>(a[1]), static_cast<float>(a[2]), static_cast<float>(mx),
        static_cast<float>(my), static_cast<float>(mz), rate);
    q0 = aq0;
    q1 = -aq1;
    q2 = -aq2;
    q3 = -aq3;

    // Gravity in the sensor frame from the new attitude.
    Eigen::Vector3d gravity(2.0 * (aq1 * aq3 - aq0 * aq2), 2.0 * (aq0 * aq1 + aq2 * aq3),
                            aq0 * aq0 - aq1 * aq1 - aq2 * aq2 + aq3 * aq3);
    Eigen::Vector3d acc(a[0], a[1], a[2]);
    if (gravity.norm() > 0)
        gravity.normalize();
    if (acc.norm() > 0)
        acc.normalize();
    gravity_alignment = rotationFromV1ToV2Unit(acc, gravity).cast<float>();

    normalised_beta = (beta - 0.005f) / 0.015f;
    for (int i = 0; i < 3; i++)
        ng_acc[i] = static_cast<float>(acc[i] - gravity[i]);

    q_hat[0] = aq0;
    q_hat[1] = aq1;
    q_hat[2] = aq2;
    q_hat[3] = aq3;
    updateCovariance(normalised_beta, ax, ay, az, wx, wy, wz, dt);
}

void ComplementaryFilter::updateGyroCovariance(double wx, double wy, double wz, double dt) {
    // Quaternion kinematics q' = 0.5 q x (0, w): F = I + 0.5 dt Omega(w), and
    // the rate noise enters through 0.5 dt Xi(q).
    const float h = static_cast<float>(0.5 * dt);
    const float x = static_cast<float>(wx) * h, y = static_cast<float>(wy) * h,
                z = static_cast<float>(wz) * h;
    Matrix4 F;
    F << 1, -x, -y, -z,  //
        x, 1, z, -y,     //
        y, -z, 1, x,     //
        z, y, -x, 1;
    const float w0 = static_cast<float>(q_hat[0]), w1 = static_cast<float>(q_hat[1]),
                w2 = static_cast<float>(q_hat[2]), w3 = static_cast<float>(q_hat[3]);
    Eigen::Matrix<float, 4, 3> G;
    G << -w1, -w2, -w3,  //
        w0, -w3, w2,     //
        w3, w0, -w1,     //
        -w2, w1, w0;
    G *= h;
    P = F * P * F.transpose() + G * gyro_covariance * G.transpose();
}

void ComplementaryFilter::updateAccCovariance(float /*normalisedBeta*/, double /*ax*/, double /*ay*/,
                                              double /*az*/) {
    acc_covariance.setZero();
    acc_covariance(0, 0) = 0.005f;
    acc_covariance(1, 1) = 0.005f;
    acc_covariance(2, 2) = 0.005f;
    acc_covariance(3, 3) = 10.0f;
}

void ComplementaryFilter::updateCovariance(float normalisedBeta, double ax, double ay, double az, double wx,
                                           double wy, double wz, double dt) {
    updateGyroCovariance(wx, wy, wz, dt);
    updateAccCovariance(normalisedBeta, ax, ay, az);
    if (dt == 0)
        return;

    // Measurement of the quaternion itself (H = I): S = P + R, K = P S^-1.
    const Matrix4 S = P + acc_covariance;
    const Eigen::LLT<Matrix4> llt(S);
    const Matrix4 L = llt.matrixL();
    // K^T = S^-1 P by forward and back substitution on each column of P
    // (Eigen's matrix right-hand-side solver is a blocked general kernel,
    // several times slower at this size).
    float inverseDiagonal[4];
#pragma GCC unroll 4
    for (int i = 0; i < 4; i++)
        inverseDiagonal[i] = 1.0f / L(i, i);
    Matrix4 Kt;
#pragma GCC unroll 4
    for (int c = 0; c < 4; c++) {
        float y[4];
#pragma GCC unroll 4
        for (int i = 0; i < 4; i++) {
            float sum = P(i, c);
#pragma GCC unroll 4
            for (int k = 0; k < i; k++)
                sum -= L(i, k) * y[k];
            y[i] = sum * inverseDiagonal[i];
        }
#pragma GCC unroll 4
        for (int i = 3; i >= 0; i--) {
            float sum = y[i];
#pragma GCC unroll 4
            for (int k = i + 1; k < 4; k++)
                sum -= L(k, i) * Kt(k, c);
            Kt(i, c) = sum * inverseDiagonal[i];
        }
    }
    const Matrix4 K = Kt.transpose();
    const Matrix4 IKH = Matrix4::Identity() - K;
    // R is diagonal (updateAccCovariance), so K R K^T scales the columns of K.
    P = IKH * P * IKH.transpose() + (K * acc_covariance.diagonal().asDiagonal()) * K.transpose();
    P = 0.5f * (P + P.transpose()).eval();
}

// ---------------------------------------------------------------- classic path

// The step both classic updates share: bias update, gyro prediction, then the
// accelerometer correction scaled by the (adaptive) gain, written to r0..r3.
void ComplementaryFilter::predictAndCorrectWithAcc(double ax, double ay, double az, double wx, double wy,
                                                   double wz, double dt, double& r0, double& r1, double& r2,
                                                   double& r3) {
    if (do_bias_estimation)
        updateBiases(ax, ay, az, wx, wy, wz);

    double q0_pred, q1_pred, q2_pred, q3_pred;
    getPrediction(wx, wy, wz, dt, q0_pred, q1_pred, q2_pred, q3_pred);

    double dq0_acc, dq1_acc, dq2_acc, dq3_acc;
    getAccCorrection(ax, ay, az, q0_pred, q1_pred, q2_pred, q3_pred, dq0_acc, dq1_acc, dq2_acc, dq3_acc);
    const double gain = do_adaptive_gain ? getAdaptiveGain(gain_acc, ax, ay, az) : gain_acc;
    scaleQuaternion(gain, dq0_acc, dq1_acc, dq2_acc, dq3_acc);

    quaternionMultiplication(q0_pred, q1_pred, q2_pred, q3_pred, dq0_acc, dq1_acc, dq2_acc, dq3_acc, r0, r1,
                             r2, r3);
}

void ComplementaryFilter::update(double ax, double ay, double az, double wx, double wy, double wz,
                                 double dt) {
    if (!initialized) {
        getMeasurement(ax, ay, az, q0, q1, q2, q3);
        initialized = true;
        return;
    }
    predictAndCorrectWithAcc(ax, ay, az, wx, wy, wz, dt, q0, q1, q2, q3);
    normalizeQuaternion(q0, q1, q2, q3);
    calculateNonGravitationnal(q0, q1, q2, q3, ax, ay, az);
}

void ComplementaryFilter::update(double ax, double ay, double az, double wx, double wy, double wz, double mx,
                                 double my, double mz, double dt) {
    if (!initialized) {
        getMeasurement(ax, ay, az, mx, my, mz, q0, q1, q2, q3);
        initialized = true;
        return;
    }
    double q0_temp, q1_temp, q2_temp, q3_temp;
    predictAndCorrectWithAcc(ax, ay, az, wx, wy, wz, dt, q0_temp, q1_temp, q2_temp, q3_temp);

    double dq0_mag, dq1_mag, dq2_mag, dq3_mag;
    getMagCorrection(mx, my, mz, q0_temp, q1_temp, q2_temp, q3_temp, dq0_mag, dq1_mag, dq2_mag, dq3_mag);
    scaleQuaternion(gain_mag, dq0_mag, dq1_mag, dq2_mag, dq3_mag);

    quaternionMultiplication(q0_temp, q1_temp, q2_temp, q3_temp, dq0_mag, dq1_mag, dq2_mag, dq3_mag, q0, q1,
                             q2, q3);
    normalizeQuaternion(q0, q1, q2, q3);
    calculateNonGravitationnal(q0, q1, q2, q3, ax, ay, az);
}

bool ComplementaryFilter::checkState(double ax, double ay, double az, double wx, double wy, double wz) const {
    const double acc_magnitude = std::sqrt(ax * ax + ay * ay + az * az);
    if (std::fabs(acc_magnitude - kGravity) > kAccelerationThreshold)
        return false;
    if (std::fabs(wx - wx_prev) > kDeltaAngularVelocityThreshold ||
        std::fabs(wy - wy_prev) > kDeltaAngularVelocityThreshold ||
        std::fabs(wz - wz_prev) > kDeltaAngularVelocityThreshold)
        return false;
    if (std::fabs(wx - wx_bias) > kAngularVelocityThreshold ||
        std::fabs(wy - wy_bias) > kAngularVelocityThreshold ||
        std::fabs(wz - wz_bias) > kAngularVelocityThreshold)
        return false;
    return true;
}

void ComplementaryFilter::updateBiases(double ax, double ay, double az, double wx, double wy, double wz) {
    steady_state = checkState(ax, ay, az, wx, wy, wz);
    if (steady_state) {
        wx_bias += bias_alpha * (wx - wx_bias);
        wy_bias += bias_alpha * (wy - wy_bias);
        wz_bias += bias_alpha * (wz - wz_bias);
    }
    wx_prev = wx;
    wy_prev = wy;
    wz_prev = wz;
}

void ComplementaryFilter::getPrediction(double wx, double wy, double wz, double dt, double& q0_pred,
                                        double& q1_pred, double& q2_pred, double& q3_pred) const {
    const double wx_unb = wx - wx_bias;
    const double wy_unb = wy - wy_bias;
    const double wz_unb = wz - wz_bias;
    // The state is the inverse attitude: q' = -0.5 (0, w) x q.
    q0_pred = q0 + 0.5 * dt * (wx_unb * q1 + wy_unb * q2 + wz_unb * q3);
    q1_pred = q1 + 0.5 * dt * (-wx_unb * q0 - wy_unb * q3 + wz_unb * q2);
    q2_pred = q2 + 0.5 * dt * (wx_unb * q3 - wy_unb * q0 - wz_unb * q1);
    q3_pred = q3 + 0.5 * dt * (-wx_unb * q2 + wy_unb * q1 - wz_unb * q0);
    normalizeQuaternion(q0_pred, q1_pred, q2_pred, q3_pred);
}

void ComplementaryFilter::getAccCorrection(double ax, double ay, double az, double p0, double p1, double p2,
                                           double p3, double& dq0, double& dq1, double& dq2,
                                           double& dq3) const {
    normalizeVector(ax, ay, az);
    // Measured gravity brought into the world frame by the predicted attitude.
    double gx, gy, gz;
    rotateVectorByQuaternion(ax, ay, az, p0, -p1, -p2, -p3, gx, gy, gz);
    // Rotation taking it back onto the vertical.
    dq0 = std::sqrt((gz + 1) * 0.5);
    if (!(dq0 > 1e-12)) {  // measured gravity exactly upside down: no usable correction
        dq0 = 1.0;
        dq1 = dq2 = dq3 = 0.0;
        return;
    }
    dq1 = -gy / (2.0 * dq0);
    dq2 = gx / (2.0 * dq0);
    dq3 = 0.0;
}

void ComplementaryFilter::getMagCorrection(double mx, double my, double mz, double p0, double p1, double p2,
                                           double p3, double& dq0, double& dq1, double& dq2,
                                           double& dq3) const {
    // The field in the world frame; the correction turns its horizontal part
    // onto x.
    double lx, ly, lz;
    rotateVectorByQuaternion(mx, my, mz, p0, -p1, -p2, -p3, lx, ly, lz);
    const double gamma = lx * lx + ly * ly;
    dq1 = dq2 = 0.0;
    if (!(gamma > 0)) {
        dq0 = 1.0;
        dq3 = 0.0;
        return;
    }
    const double sqrtGamma = std::sqrt(gamma);
    if (lx >= 0) {
        const double beta = std::sqrt(gamma + lx * sqrtGamma);
        dq0 = beta / std::sqrt(2.0 * gamma);
        dq3 = ly / (std::sqrt(2.0) * beta);
    } else {
        const double beta = std::sqrt(gamma - lx * sqrtGamma);
        dq0 = ly / (std::sqrt(2.0) * beta);
        dq3 = beta / std::sqrt(2.0 * gamma);
    }
}

double ComplementaryFilter::getAdaptiveGain(double alpha, double ax, double ay, double az) const {
    const double a_mag = std::sqrt(ax * ax + ay * ay + az * az);
    const double error = std::fabs(a_mag - kGravity) / kGravity;
    if (error < error_limit_low)
        return alpha;
    if (error >= error_limit_high)
        return 0.0;
    return alpha * (1.0 + (error - error_limit_low) / (error_limit_low - error_limit_high));
}

double ComplementaryFilter::getAdaptiveGainFromGyro(double beta, double wx, double wy, double wz) const {
    double m = std::sqrt(wx * wx + wy * wy + wz * wz);
    if (m > 1.0)
        m = 1.0;
    double result = beta - 0.95 * beta * m;
    if (result < 0)
        result = 0;
    if (result > beta)
        result = beta;
    std::cout << " beta : " << result << " vma : " << m << std::endl;
    return result;
}

void ComplementaryFilter::getMeasurement(double ax, double ay, double az, double& q0_meas, double& q1_meas,
                                         double& q2_meas, double& q3_meas) const {
    normalizeVector(ax, ay, az);
    if (az >= 0) {
        q0_meas = std::sqrt((az + 1) * 0.5);
        q1_meas = -ay / (2.0 * q0_meas);
        q2_meas = ax / (2.0 * q0_meas);
        q3_meas = 0;
    } else {
        const double x = std::sqrt((1 - az) * 0.5);
        q0_meas = -ay / (2.0 * x);
        q1_meas = x;
        q2_meas = 0;
        q3_meas = ax / (2.0 * x);
    }
}

void ComplementaryFilter::getMeasurement(double ax, double ay, double az, double mx, double my, double mz,
                                         double& q0_meas, double& q1_meas, double& q2_meas,
                                         double& q3_meas) const {
    double q0_acc, q1_acc, q2_acc, q3_acc;
    getMeasurement(ax, ay, az, q0_acc, q1_acc, q2_acc, q3_acc);

    double q0_mag, q1_mag, q2_mag, q3_mag;
    getMagCorrection(mx, my, mz, q0_acc, q1_acc, q2_acc, q3_acc, q0_mag, q1_mag, q2_mag, q3_mag);

    quaternionMultiplication(q0_acc, q1_acc, q2_acc, q3_acc, q0_mag, q1_mag, q2_mag, q3_mag, q0_meas, q1_meas,
                             q2_meas, q3_meas);
}

void ComplementaryFilter::calculateNonGravitationnal(double w, double x, double y, double z, double ax,
                                                     double ay, double az) {
    normalizeVector(ax, ay, az);
    // The vertical seen from the sensor: (0, 0, 1) turned by the state.
    const double gx = 2.0 * (x * z + w * y);
    const double gy = 2.0 * (y * z - w * x);
    const double gz = w * w - x * x - y * y + z * z;
    ng_acc[0] = static_cast<float>(ax - gx);
    ng_acc[1] = static_cast<float>(ay - gy);
    ng_acc[2] = static_cast<float>(az - gz);
}

}  // namespace imu_tools
