#include <gtest/gtest.h>

#include <Eigen/Geometry>

#include <cmath>
#include <cstdint>
#include <string>

#include "bh_input/mcu/IMU/ComplementaryFilter.h"

using imu_tools::ComplementaryFilter;

namespace {

const double kPi = 3.14159265358979323846;
const double kDt = 1.0 / 800.0;

double yawOf(double w, double x, double y, double z) {
    return std::atan2(2.0 * (w * z + x * y), 1.0 - 2.0 * (y * y + z * z));
}

// Angle between two attitudes, in radians.
double angleBetween(double w1, double x1, double y1, double z1, double w2, double x2, double y2, double z2) {
    double dot = std::fabs(w1 * w2 + x1 * x2 + y1 * y2 + z1 * z2);
    if (dot > 1)
        dot = 1;
    return 2.0 * std::acos(dot);
}

// Small deterministic noise in [-1, 1].
struct Lcg {
    uint32_t state = 12345;
    double next() {
        state = state * 1664525u + 1013904223u;
        return (static_cast<double>(state >> 8) / 8388608.0) * 2.0 - 1.0;
    }
};

}  // namespace

// ------------------------------------------------------------ edge cases

TEST(OrientationFilter, FirstUpdateLeavesRatesUnused) {
    ComplementaryFilter f;
    f.updateWithMadwick(0, 0, 9.81, 5.0, -3.0, 2.0, 0.01);
    EXPECT_TRUE(f.initialized);
    double w, x, y, z;
    f.getOrientation(w, x, y, z);
    EXPECT_EQ(w, 1.0);
    EXPECT_EQ(x, 0.0);
    EXPECT_EQ(y, 0.0);
    EXPECT_EQ(z, 0.0);
    EXPECT_EQ(f.first_call, 0u);
    EXPECT_EQ(f.normalised_beta, 0.f);
    EXPECT_TRUE(f.P.isZero(0));

    // Tilted: exactly the measurement, whatever the rates.
    ComplementaryFilter g;
    g.updateWithMadwick(1.0, 0.0, 1.0, 9.0, 9.0, 9.0, 0.01);
    double m0, m1, m2, m3;
    g.getMeasurement(1.0, 0.0, 1.0, m0, m1, m2, m3);
    EXPECT_EQ(g.q0, m0);
    EXPECT_EQ(g.q1, m1);
    EXPECT_EQ(g.q2, m2);
    EXPECT_EQ(g.q3, m3);

    // The classic path behaves the same.
    ComplementaryFilter c;
    c.update(0, 0, 9.81, 5.0, 5.0, 5.0, 0.01);
    c.getOrientation(w, x, y, z);
    EXPECT_EQ(w, 1.0);
    EXPECT_EQ(z, 0.0);
}

TEST(OrientationFilter, GyroNormOneGivesBetaFiveThousandthsOnBothSides) {
    double q0 = 1, q1 = 0, q2 = 0, q3 = 0;
    // |w| = 1 exactly: the "up to 1" branch gives 0.02 - 0.015.
    const float atOne = imu_tools::MadgwickAHRSupdateIMUAdaptative(q0, q1, q2, q3, 0, 0, 1, 0, 0, 1, 800);
    EXPECT_FLOAT_EQ(atOne, 0.005f);
    const float above =
        imu_tools::MadgwickAHRSupdateIMUAdaptative(q0, q1, q2, q3, 1.0001f, 0, 0, 0, 0, 1, 800);
    EXPECT_EQ(above, 0.005f);
    const float below =
        imu_tools::MadgwickAHRSupdateIMUAdaptative(q0, q1, q2, q3, 0.9999f, 0, 0, 0, 0, 1, 800);
    EXPECT_NEAR(below, 0.005f, 2e-6f);
    EXPECT_GT(below, 0.005f);
    const float atRest = imu_tools::MadgwickAHRSupdateIMUAdaptative(q0, q1, q2, q3, 0, 0, 0, 0, 0, 1, 800);
    EXPECT_FLOAT_EQ(atRest, 0.02f);
    const float half = imu_tools::MadgwickAHRSupdateIMUAdaptative(q0, q1, q2, q3, 0, 0.5f, 0, 0, 0, 1, 800);
    EXPECT_FLOAT_EQ(half, 0.0125f);
    // With a zero field the magnetometer form hands over to the IMU form.
    const float mag0 =
        imu_tools::MadgwickAHRSupdateAdaptative(q0, q1, q2, q3, 0, 0, 1, 0, 0, 1, 0, 0, 0, 800);
    EXPECT_FLOAT_EQ(mag0, 0.005f);
}

TEST(OrientationFilter, ZeroAccelerationSkipsCorrectionButIntegratesRates) {
    // Free function: (0, 0, 1) rad/s for 1/100 s from the identity gives
    // normalise(1, 0, 0, 0.005).
    double q0 = 1, q1 = 0, q2 = 0, q3 = 0;
    imu_tools::MadgwickAHRSupdateIMUAdaptative(q0, q1, q2, q3, 0, 0, 1, 0, 0, 0, 100);
    const double n = std::sqrt(1.0 + 0.005 * 0.005);
    EXPECT_NEAR(q0, 1.0 / n, 1e-12);
    EXPECT_NEAR(q3, 0.005 / n, 1e-12);
    EXPECT_EQ(q1, 0.0);
    EXPECT_EQ(q2, 0.0);

    // A tilted quaternion stays tilted: no pull towards the (absent) gravity.
    double t0 = std::cos(0.25), t1 = std::sin(0.25), t2 = 0, t3 = 0;
    imu_tools::MadgwickAHRSupdateIMUAdaptative(t0, t1, t2, t3, 0, 0, 0, 0, 0, 0, 100);
    EXPECT_NEAR(t0, std::cos(0.25), 1e-15);
    EXPECT_NEAR(t1, std::sin(0.25), 1e-15);

    // Through the filter: the first low-pass round gives the raw zero vector.
    ComplementaryFilter f;
    f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, 0.01);
    f.updateWithMadwick(0, 0, 0, 0, 0, 1.0, 0.01);
    double w, x, y, z;
    f.getOrientation(w, x, y, z);
    EXPECT_NEAR(w, 1.0 / n, 1e-9);
    EXPECT_NEAR(z, 0.005 / n, 1e-9);
    EXPECT_NEAR(x, 0.0, 1e-12);
    EXPECT_NEAR(y, 0.0, 1e-12);
}

TEST(OrientationFilter, ZeroDtOnFirstCallKeepsDtInverseAt800) {
    ComplementaryFilter f;
    EXPECT_EQ(f.dt_inverse, 800.0);
    f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, 0.0);  // initialisation
    EXPECT_EQ(f.dt_inverse, 800.0);
    f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, 0.0);  // first step, dt 0
    EXPECT_EQ(f.dt_inverse, 800.0);
    f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, 0.0025);  // the rate stays fixed
    EXPECT_EQ(f.dt_inverse, 800.0);

    ComplementaryFilter g;
    g.updateWithMadwick(0, 0, 9.81, 0, 0, 0, 0.0);
    g.updateWithMadwick(0, 0, 9.81, 0, 0, 0, 0.0025);
    EXPECT_EQ(g.dt_inverse, 400.0);
    g.updateWithMadwick(0, 0, 9.81, 0, 0, 0, 0.01);
    EXPECT_EQ(g.dt_inverse, 400.0);
}

TEST(OrientationFilter, ZeroDtSkipsCovarianceMeasurementStep) {
    ComplementaryFilter f;
    f.setInitialGyroCovariance(1e-3, 1e-3, 1e-3);
    f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, kDt);
    for (int i = 0; i < 10; i++)
        f.updateWithMadwick(0, 0, 9.81, 0.1, 0.2, 0.3, kDt);
    const ComplementaryFilter::Matrix4 before = f.P;
    f.updateWithMadwick(0, 0, 9.81, 0.1, 0.2, 0.3, 0.0);
    // F = I and no process noise with dt 0; no measurement step either.
    EXPECT_TRUE(f.P.isApprox(before, 0)) << f.P;
    EXPECT_EQ(f.acc_covariance(3, 3), 10.0f);
    EXPECT_EQ(f.acc_covariance(0, 0), 0.005f);
}

// ------------------------------------------------------------ interfaces

TEST(OrientationFilter, GainSettersAcceptZeroToOne) {
    ComplementaryFilter f;
    EXPECT_EQ(f.getGainAcc(), 0.001);
    EXPECT_EQ(f.getGainMag(), 0.01);
    EXPECT_EQ(f.getBiasAlpha(), 0.01);
    EXPECT_FALSE(f.setGainAcc(1.5));
    EXPECT_FALSE(f.setGainAcc(-0.1));
    EXPECT_EQ(f.getGainAcc(), 0.001);
    EXPECT_TRUE(f.setGainAcc(1.0));
    EXPECT_EQ(f.getGainAcc(), 1.0);
    EXPECT_TRUE(f.setGainMag(0.0));
    EXPECT_FALSE(f.setGainMag(2.0));
    EXPECT_EQ(f.getGainMag(), 0.0);
    EXPECT_FALSE(f.setBiasAlpha(1.01));
    EXPECT_TRUE(f.setBiasAlpha(0.5));
    EXPECT_EQ(f.getBiasAlpha(), 0.5);
    EXPECT_FALSE(f.getDoBiasEstimation());
    EXPECT_TRUE(f.getDoAdaptiveGain());
    f.setDoBiasEstimation(true);
    f.setDoAdaptiveGain(false);
    EXPECT_TRUE(f.getDoBiasEstimation());
    EXPECT_FALSE(f.getDoAdaptiveGain());
}

TEST(OrientationFilter, OrientationIsStoredInverted) {
    ComplementaryFilter f;
    const double h = std::sqrt(0.5);
    f.setOrientation(h, h, 0, 0);
    EXPECT_EQ(f.q0, h);
    EXPECT_EQ(f.q1, -h);
    double w, x, y, z;
    f.getOrientation(w, x, y, z);
    EXPECT_EQ(w, h);
    EXPECT_EQ(x, h);
    EXPECT_EQ(y, 0.0);
    EXPECT_EQ(z, 0.0);
    EXPECT_FALSE(f.initialized);
}

TEST(OrientationFilter, InitialCovariancesAddOneMillionth) {
    ComplementaryFilter f;
    f.setInitialGyroCovariance(0, 0, 0);
    EXPECT_EQ(static_cast<double>(f.gyro_covariance(0, 0)), 9.999999974752427e-7);
    EXPECT_EQ(static_cast<double>(f.gyro_covariance(2, 2)), 9.999999974752427e-7);
    EXPECT_EQ(f.gyro_covariance(0, 1), 0.f);
    f.setInitialAccCovariance(0.5, 0, 0);
    EXPECT_EQ(f.acc_covariance(0, 0), 0.5f + 1e-6f);
    EXPECT_EQ(static_cast<double>(f.acc_covariance(1, 1)), 9.999999974752427e-7);
}

TEST(OrientationFilter, AdaptiveGainFallsLinearlyBetweenLimits) {
    ComplementaryFilter f;
    f.setErrorLimits(0.1, 0.2);
    EXPECT_EQ(f.getAdaptiveGain(0.01, 0, 0, 9.81), 0.01);
    // e = 0.15: 0.01 x (1 + 0.05 / -0.1) = 0.005
    EXPECT_NEAR(f.getAdaptiveGain(0.01, 0, 0, 9.81 * 1.15), 0.005, 1e-12);
    EXPECT_NEAR(f.getAdaptiveGain(0.01, 0, 9.81 * 0.85, 0), 0.005, 1e-12);
    EXPECT_EQ(f.getAdaptiveGain(0.01, 9.81 * 1.25, 0, 0), 0.0);
    EXPECT_EQ(f.getAdaptiveGain(0.01, 0, 0, 0), 0.0);  // e = 1
    // Just below the low limit the gain is whole.
    EXPECT_EQ(f.getAdaptiveGain(0.01, 0, 0, 9.81 * 1.05), 0.01);
}

TEST(OrientationFilter, AdaptiveGainFromGyroPrintsAndLimits) {
    ComplementaryFilter f;
    testing::internal::CaptureStdout();
    const double still = f.getAdaptiveGainFromGyro(0.1, 0, 0, 0);
    const double half = f.getAdaptiveGainFromGyro(0.1, 0.5, 0, 0);
    const double fast = f.getAdaptiveGainFromGyro(0.1, 3, 0, 0);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(still, 0.1);
    EXPECT_NEAR(half, 0.1 - 0.95 * 0.1 * 0.5, 1e-15);
    EXPECT_NEAR(fast, 0.005, 1e-15);
    EXPECT_NE(out.find(" beta : "), std::string::npos);
    EXPECT_NE(out.find(" vma : "), std::string::npos);
}

TEST(OrientationFilter, MeasurementFromAcceleration) {
    ComplementaryFilter f;
    double w, x, y, z;
    f.getMeasurement(0, 0, 3, w, x, y, z);
    EXPECT_EQ(w, 1.0);
    EXPECT_EQ(x, 0.0);
    EXPECT_EQ(y, 0.0);
    EXPECT_EQ(z, 0.0);
    // az >= 0: w = sqrt((az + 1) / 2), y = ax / (2 w): 45 degrees about y.
    f.getMeasurement(1, 0, 1, w, x, y, z);
    EXPECT_NEAR(w, std::cos(kPi / 8), 1e-12);
    EXPECT_NEAR(y, std::sin(kPi / 8), 1e-12);
    EXPECT_EQ(z, 0.0);
    // az < 0: x = sqrt((1 - az) / 2), w = -ay / (2 x), z = ax / (2 x).
    f.getMeasurement(0, 0, -1, w, x, y, z);
    EXPECT_EQ(x, 1.0);
    EXPECT_EQ(w, 0.0);
    EXPECT_EQ(y, 0.0);
    EXPECT_EQ(z, 0.0);
    f.getMeasurement(0.6, -0.8, -0.0, w, x, y, z);  // az = -0 takes the first branch
    EXPECT_NEAR(w, std::sqrt(0.5), 1e-12);
}

TEST(OrientationFilter, MeasurementWithMagnetometerGivesYaw) {
    // Level sensor turned +30 degrees about z; world field (1, 0, -1).
    const double psi = kPi / 6;
    ComplementaryFilter f;
    double w, x, y, z;
    f.getMeasurement(0, 0, 9.81, std::cos(psi), -std::sin(psi), -1, w, x, y, z);
    // The state is the inverse attitude.
    EXPECT_NEAR(w, std::cos(psi / 2), 1e-12);
    EXPECT_NEAR(z, -std::sin(psi / 2), 1e-12);
    EXPECT_NEAR(x, 0.0, 1e-12);
    EXPECT_NEAR(y, 0.0, 1e-12);

    ComplementaryFilter g;
    g.updateWithMadwick(0, 0, 9.81, 0, 0, 0, std::cos(psi), -std::sin(psi), -1, kDt);
    g.getOrientation(w, x, y, z);
    EXPECT_NEAR(yawOf(w, x, y, z), psi, 1e-9);
}

TEST(OrientationFilter, NonGravitationalAccelerationOfClassicPath) {
    ComplementaryFilter f;
    f.calculateNonGravitationnal(1, 0, 0, 0, 0, 0, 9.81);
    float x, y, z;
    f.getNGAcc(x, y, z);
    EXPECT_EQ(x, 0.f);
    EXPECT_EQ(y, 0.f);
    EXPECT_EQ(z, 0.f);
    f.calculateNonGravitationnal(1, 0, 0, 0, 3, 0, 4);  // (0.6, 0, 0.8) - (0, 0, 1)
    f.getNGAcc(x, y, z);
    EXPECT_FLOAT_EQ(x, 0.6f);
    EXPECT_FLOAT_EQ(z, -0.2f);
}

TEST(OrientationFilter, ScaleQuaternionLerpAndSlerp) {
    // Below a dot of 0.9: LERP towards the identity, then normalised.
    double q0 = 0, q1 = 1, q2 = 0, q3 = 0;
    imu_tools::scaleQuaternion(0.5, q0, q1, q2, q3);
    EXPECT_NEAR(q0, std::sqrt(0.5), 1e-12);
    EXPECT_NEAR(q1, std::sqrt(0.5), 1e-12);
    // At and above 0.9: SLERP, which halves the angle exactly.
    const double a = 0.2;
    q0 = std::cos(a);
    q1 = std::sin(a);
    q2 = q3 = 0;
    imu_tools::scaleQuaternion(0.5, q0, q1, q2, q3);
    EXPECT_NEAR(q0, std::cos(a / 2), 1e-12);
    EXPECT_NEAR(q1, std::sin(a / 2), 1e-12);
    // No rotation at all stays the identity (no 0 / 0).
    q0 = 1;
    q1 = q2 = q3 = 0;
    imu_tools::scaleQuaternion(0.3, q0, q1, q2, q3);
    EXPECT_EQ(q0, 1.0);
    EXPECT_EQ(q1, 0.0);
}

TEST(OrientationFilter, RotateAndMultiplyHelpers) {
    double vx, vy, vz;
    const double h = std::sqrt(0.5);
    imu_tools::rotateVectorByQuaternion(1, 0, 0, h, 0, 0, h, vx, vy, vz);  // 90 degrees about z
    EXPECT_NEAR(vx, 0, 1e-12);
    EXPECT_NEAR(vy, 1, 1e-12);
    EXPECT_NEAR(vz, 0, 1e-12);
    double r0, r1, r2, r3;
    imu_tools::quaternionMultiplication(0, 1, 0, 0, 0, 0, 1, 0, r0, r1, r2, r3);
    EXPECT_EQ(r0, 0.0);
    EXPECT_EQ(r3, 1.0);
    double w = 2, x = 0, y = 0, z = 0;
    imu_tools::normalizeQuaternion(w, x, y, z);
    EXPECT_EQ(w, 1.0);
    double a = 0, b = 0, c = 0;
    imu_tools::normalizeVector(a, b, c);
    EXPECT_EQ(a, 0.0);
    double i0, i1, i2, i3;
    imu_tools::invertQuaternion(h, 0, h, 0, i0, i1, i2, i3);
    EXPECT_EQ(i0, h);
    EXPECT_EQ(i2, -h);
}

// ------------------------------------------------------------ behaviour

TEST(OrientationFilter, StillLevelSensorStaysAtIdentityWithFullConfidence) {
    ComplementaryFilter f;
    for (int i = 0; i < 8000; i++)
        f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, kDt);
    double w, x, y, z;
    f.getOrientation(w, x, y, z);
    EXPECT_NEAR(w, 1.0, 1e-12);
    EXPECT_NEAR(x, 0.0, 1e-12);
    EXPECT_NEAR(y, 0.0, 1e-12);
    EXPECT_NEAR(z, 0.0, 1e-12);
    EXPECT_NEAR(f.getNormalisedBeta(), 1.0f, 1e-5f);
    float nx, ny, nz;
    f.getNGAcc(nx, ny, nz);
    EXPECT_NEAR(nx, 0.f, 1e-6f);
    EXPECT_NEAR(nz, 0.f, 1e-6f);
    EXPECT_EQ(f.dt_inverse, 800.0);
}

TEST(OrientationFilter, NinetyDegreesPerSecondAboutZForOneSecond) {
    ComplementaryFilter f;
    f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, kDt);
    for (int i = 0; i < 800; i++)
        f.updateWithMadwick(0, 0, 9.81, 0, 0, kPi / 2, kDt);
    double w, x, y, z;
    f.getOrientation(w, x, y, z);
    EXPECT_NEAR(yawOf(w, x, y, z) * 180 / kPi, 90.0, 1.0);
    EXPECT_NEAR(f.getNormalisedBeta(), 0.0f, 1e-6f);  // turning fast: beta at its floor

    ComplementaryFilter c;  // the classic path integrates the same way
    c.update(0, 0, 9.81, 0, 0, 0, kDt);
    for (int i = 0; i < 800; i++)
        c.update(0, 0, 9.81, 0, 0, kPi / 2, kDt);
    c.getOrientation(w, x, y, z);
    EXPECT_NEAR(yawOf(w, x, y, z) * 180 / kPi, 90.0, 1.0);
}

TEST(OrientationFilter, TiltedStillSensorConvergesToGravityTilt) {
    // Gravity read as (0, sin 30, cos 30): the attitude is +30 degrees about x.
    const double tilt = kPi / 6;
    const double ay = 9.81 * std::sin(tilt), az = 9.81 * std::cos(tilt);
    ComplementaryFilter f;
    f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, kDt);  // starts level
    for (int i = 0; i < 60 * 800; i++)
        f.updateWithMadwick(0, ay, az, 0, 0, 0, kDt);
    double w, x, y, z;
    f.getOrientation(w, x, y, z);
    const double error = angleBetween(w, x, y, z, std::cos(tilt / 2), std::sin(tilt / 2), 0, 0);
    EXPECT_LT(error * 180 / kPi, 1.0) << w << " " << x << " " << y << " " << z;
    float nx, ny, nz;
    f.getNGAcc(nx, ny, nz);
    EXPECT_NEAR(ny, 0.f, 0.02f);
    EXPECT_NEAR(nz, 0.f, 0.02f);

    ComplementaryFilter c;
    c.update(0, 0, 9.81, 0, 0, 0, kDt);
    for (int i = 0; i < 20 * 800; i++)
        c.update(0, ay, az, 0, 0, 0, kDt);
    c.getOrientation(w, x, y, z);
    EXPECT_LT(angleBetween(w, x, y, z, std::cos(tilt / 2), std::sin(tilt / 2), 0, 0) * 180 / kPi, 1.0);
}

TEST(OrientationFilter, GravityAlignmentTakesAccelerationOntoGravity) {
    ComplementaryFilter f;
    f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, kDt);  // level
    const double tilt = 0.4;
    f.updateWithMadwick(0, 9.81 * std::sin(tilt), 9.81 * std::cos(tilt), 0, 0, 0, kDt);
    // First low-pass round: the raw (tilted) direction; gravity from the
    // still nearly level attitude.
    double w, x, y, z;
    f.getOrientation(w, x, y, z);
    // The vertical seen from the sensor: (0, 0, 1) turned by the inverse attitude.
    Eigen::Vector3d g(2.0 * (x * z - w * y), 2.0 * (w * x + y * z), w * w - x * x - y * y + z * z);
    g.normalize();
    const Eigen::Vector3d a(0, std::sin(tilt), std::cos(tilt));
    const Eigen::Matrix3d R = f.gravity_alignment.cast<double>();
    EXPECT_LT((R * a - g).norm(), 1e-6);
    EXPECT_LT((R * R.transpose() - Eigen::Matrix3d::Identity()).norm(), 1e-6);
    EXPECT_NEAR(R.determinant(), 1.0, 1e-6);
    // ng_acc is the difference of the two directions.
    float nx, ny, nz;
    f.getNGAcc(nx, ny, nz);
    EXPECT_NEAR(ny, a.y() - g.y(), 1e-6);
    EXPECT_NEAR(nz, a.z() - g.z(), 1e-6);
}

TEST(OrientationFilter, GravityAlignmentOfOppositeDirectionsIsAHalfTurn) {
    ComplementaryFilter f;
    f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, kDt);
    f.updateWithMadwick(0, 0, -9.81, 0, 0, 0, kDt);  // upside down against a level attitude
    const Eigen::Matrix3d R = f.gravity_alignment.cast<double>();
    EXPECT_TRUE(R.allFinite());
    EXPECT_LT((R * Eigen::Vector3d(0, 0, -1) - Eigen::Vector3d(0, 0, 1)).norm(), 1e-3);
    EXPECT_NEAR(R.determinant(), 1.0, 1e-6);
}

TEST(OrientationFilter, CovarianceStaysSymmetricAndFiniteOver100000Updates) {
    ComplementaryFilter f;
    f.setInitialAccCovariance(1e-3, 1e-3, 1e-3);
    f.setInitialGyroCovariance(1e-4, 2e-4, 3e-4);
    Lcg noise;
    f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, kDt);
    float worstAsymmetry = 0.f;
    for (int i = 0; i < 100000; i++) {
        const double t = i * kDt;
        f.updateWithMadwick(0.5 * std::sin(t) + 0.05 * noise.next(),
                            0.3 * std::cos(0.7 * t) + 0.05 * noise.next(), 9.81 + 0.05 * noise.next(),
                            0.8 * std::sin(0.3 * t), 2.0 * std::cos(0.2 * t), 0.5 + 0.01 * noise.next(), kDt);
        if (i % 97 == 0) {
            worstAsymmetry = std::fmax(worstAsymmetry, (f.P - f.P.transpose()).cwiseAbs().maxCoeff());
            ASSERT_TRUE(f.P.allFinite()) << "step " << i << "\n" << f.P;
        }
    }
    EXPECT_TRUE(f.P.allFinite());
    EXPECT_EQ(worstAsymmetry, 0.f);  // symmetrised at every step
    EXPECT_TRUE(f.P.isApprox(f.P.transpose()));
    for (int i = 0; i < 4; i++)
        EXPECT_GT(f.P(i, i), 0.f);
    EXPECT_LT(f.P.cwiseAbs().maxCoeff(), 1.f);
    // The attitude itself stayed a unit quaternion.
    EXPECT_NEAR(f.q0 * f.q0 + f.q1 * f.q1 + f.q2 * f.q2 + f.q3 * f.q3, 1.0, 1e-9);
    float out[16];
    f.getCovariance(out);
    EXPECT_EQ(out[1], f.P(0, 1));
    EXPECT_EQ(out[4], f.P(1, 0));
}

TEST(OrientationFilter, ExternalPriorReplacesTheStartingAttitude) {
    ComplementaryFilter f;
    f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, kDt);
    for (int i = 0; i < 10; i++)
        f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, kDt);
    const float half = static_cast<float>(kPi / 12);  // 30 degrees of yaw
    f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, kDt, RTQuaternion(std::cos(half), 0, 0, std::sin(half)));
    double w, x, y, z;
    f.getOrientation(w, x, y, z);
    EXPECT_NEAR(yawOf(w, x, y, z), kPi / 6, 1e-4);
    // Without a usable prior it is an ordinary step.
    f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, kDt, RTQuaternion());
    f.getOrientation(w, x, y, z);
    EXPECT_NEAR(yawOf(w, x, y, z), kPi / 6, 1e-4);
}

TEST(OrientationFilter, ClassicPathEstimatesGyroBiasWhenSteady) {
    ComplementaryFilter f;
    f.setDoBiasEstimation(true);
    f.update(0, 0, 9.81, 0.05, -0.02, 0.01, kDt);
    for (int i = 0; i < 2000; i++)
        f.update(0, 0, 9.81, 0.05, -0.02, 0.01, kDt);
    EXPECT_TRUE(f.getSteadyState());
    EXPECT_NEAR(f.getAngularVelocityBiasX(), 0.05, 1e-6);
    EXPECT_NEAR(f.getAngularVelocityBiasY(), -0.02, 1e-6);
    EXPECT_NEAR(f.getAngularVelocityBiasZ(), 0.01, 1e-6);
    // Off-gravity acceleration is not steady; the biases stay.
    f.update(0, 0, 12.0, 0.05, -0.02, 0.01, kDt);
    EXPECT_FALSE(f.getSteadyState());
    // A rate jump above 0.01 since the last sample is not steady either.
    f.update(0, 0, 9.81, 0.07, -0.02, 0.01, kDt);
    EXPECT_FALSE(f.getSteadyState());
    EXPECT_NEAR(f.getAngularVelocityBiasX(), 0.05, 1e-6);
}

TEST(OrientationFilter, MagnetometerMadgwickKeepsHeading) {
    const double psi = kPi / 6;
    ComplementaryFilter f;
    const double mx = std::cos(psi), my = -std::sin(psi), mz = -1;
    f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, mx, my, mz, kDt);
    for (int i = 0; i < 4000; i++)
        f.updateWithMadwick(0, 0, 9.81, 0, 0, 0, mx, my, mz, kDt);
    double w, x, y, z;
    f.getOrientation(w, x, y, z);
    EXPECT_NEAR(yawOf(w, x, y, z), psi, 1e-3);

    ComplementaryFilter c;
    c.update(0, 0, 9.81, 0, 0, 0, mx, my, mz, kDt);
    for (int i = 0; i < 4000; i++)
        c.update(0, 0, 9.81, 0, 0, 0, mx, my, mz, kDt);
    c.getOrientation(w, x, y, z);
    EXPECT_NEAR(yawOf(w, x, y, z), psi, 1e-3);
}
