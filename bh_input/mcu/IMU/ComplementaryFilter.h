// Orientation filter of the fusion thread. The state quaternion (q0..q3,
// w x y z) is the inverse of the sensor's attitude; setOrientation and
// getOrientation speak in attitudes.
//
// Two paths share the class:
// - updateWithMadwick: adaptive low-pass on the accelerations, a Madgwick
//   gradient step with a beta that falls with the rotation speed, the
//   non-gravitational acceleration, and an EKF-style covariance P of the
//   quaternion beside it (P feeds only the covariance outputs).
// - update: the classic complementary filter (prediction, accelerometer and
//   magnetometer corrections, adaptive gain, gyroscope bias estimation).
#pragma once

#include <Eigen/Core>
#include <cstdint>

#include "bh_input/mcu/IMU/RTMath.h"

namespace imu_tools {

class ComplementaryFilter {
public:
    typedef Eigen::Matrix<float, 4, 4> Matrix4;
    typedef Eigen::Matrix<float, 3, 3> Matrix3;

    ComplementaryFilter();
    virtual ~ComplementaryFilter();

    bool setGainAcc(double gain);  // 0 to 1, otherwise false and unchanged
    bool setGainMag(double gain);
    double getGainAcc() const { return gain_acc; }
    double getGainMag() const { return gain_mag; }

    bool setBiasAlpha(double bias_alpha);
    double getBiasAlpha() const { return bias_alpha; }

    void setDoBiasEstimation(bool do_bias_estimation);
    bool getDoBiasEstimation() const { return do_bias_estimation; }

    void setDoAdaptiveGain(bool do_adaptive_gain);
    bool getDoAdaptiveGain() const { return do_adaptive_gain; }

    bool getSteadyState() const { return steady_state; }
    double getAngularVelocityBiasX() const { return wx_bias; }
    double getAngularVelocityBiasY() const { return wy_bias; }
    double getAngularVelocityBiasZ() const { return wz_bias; }

    // The attitude (w, x, y, z). The filter keeps its inverse. This does not
    // mark the filter initialised: the first update still takes its
    // orientation from the acceleration.
    void setOrientation(double q0, double q1, double q2, double q3);
    void getOrientation(double& q0, double& q1, double& q2, double& q3) const;

    void setErrorLimits(double low, double high);

    // Diagonal values; 1e-6 (as a float) is added to each.
    void setInitialAccCovariance(double x, double y, double z);
    void setInitialGyroCovariance(double x, double y, double z);

    // Classic path. Accelerations in m/s2 (the steady test uses 9.81), rates
    // in rad/s, dt in seconds.
    void update(double ax, double ay, double az, double wx, double wy, double wz, double dt);
    void update(double ax, double ay, double az, double wx, double wy, double wz, double mx, double my,
                double mz, double dt);

    // Madgwick path, run by the engine on every sample.
    void updateWithMadwick(double ax, double ay, double az, double wx, double wy, double wz, double dt);
    void updateWithMadwick(double ax, double ay, double az, double wx, double wy, double wz, double mx,
                           double my, double mz, double dt);
    // With an external attitude (w, x, y, z): the step starts from `prior`
    // instead of the filter's own orientation, then runs as above.
    void updateWithMadwick(double ax, double ay, double az, double wx, double wy, double wz, double dt,
                           const RTQuaternion& prior);

    void getNGAcc(float& x, float& y, float& z) const;
    float getNormalisedBeta() const { return normalised_beta; }
    // Row-major copy of P.
    void getCovariance(float out[16]) const;

    double getAdaptiveGain(double alpha, double ax, double ay, double az) const;
    // Tuning aid, prints on every call.
    double getAdaptiveGainFromGyro(double beta, double wx, double wy, double wz) const;

    // Attitude-inverse quaternion with no yaw from the acceleration.
    void getMeasurement(double ax, double ay, double az, double& q0_meas, double& q1_meas, double& q2_meas,
                        double& q3_meas) const;
    // The same, with the yaw from the magnetic field.
    void getMeasurement(double ax, double ay, double az, double mx, double my, double mz, double& q0_meas,
                        double& q1_meas, double& q2_meas, double& q3_meas) const;

    // ng_acc = normalised acceleration - gravity direction of the state
    // quaternion (q0..q3, filter convention).
    void calculateNonGravitationnal(double q0, double q1, double q2, double q3, double ax, double ay,
                                    double az);

    // --- data (plain and public, as the engine reads it) ---
    static constexpr double kGravity = 9.81;
    static constexpr double kAccelerationThreshold = 0.1;
    static constexpr double kDeltaAngularVelocityThreshold = 0.01;
    static constexpr double kAngularVelocityThreshold = 0.2;

    double gain_acc = 0.001;
    double gain_mag = 0.01;
    double bias_alpha = 0.01;
    bool do_bias_estimation = false;
    bool do_adaptive_gain = true;
    bool initialized = false;
    bool steady_state = false;

    double q0 = 1, q1 = 0, q2 = 0, q3 = 0;
    double wx_prev = 0, wy_prev = 0, wz_prev = 0;
    double wx_bias = 0, wy_bias = 0, wz_bias = 0;
    float ng_acc[3] = {0.f, 0.f, 0.f};

    double error_limit_low = 0.001;
    double error_limit_high = 0.01;

    Matrix4 acc_covariance;          // measurement noise of the covariance path
    Matrix3 gyro_covariance;         // process noise of the covariance path
    Matrix4 P;                       // covariance of the quaternion
    double q_hat[4] = {1, 0, 0, 0};  // attitude of the covariance path (w x y z)
    Matrix3 gravity_alignment;       // rotation from the acceleration to gravity, last step
    float normalised_beta = 0.f;

    // Adaptive low-pass on the accelerations.
    struct AxisLowPass {
        double previous_raw = 0;
        bool has_previous_raw = false;
        double previous_filtered = 0;
        double previous_derivative = 0;
        double smoothed_derivative = 0;
        bool has_smoothed_derivative = false;
    };
    double sample_rate = 800;
    double dt_inverse = 800;
    double cutoff_base = 1;
    double cutoff_slope = 100;
    double derivative_cutoff = 1;
    uint64_t first_call = 0;
    AxisLowPass low_pass[3];
    static constexpr double minimum_dt = 1e-9;

    double lowPassFilter(AxisLowPass& axis, double raw) const;

    void updateCovariance(float normalisedBeta, double ax, double ay, double az, double wx, double wy,
                          double wz, double dt);
    void updateGyroCovariance(double wx, double wy, double wz, double dt);
    void updateAccCovariance(float normalisedBeta, double ax, double ay, double az);

private:
    void predictAndCorrectWithAcc(double ax, double ay, double az, double wx, double wy, double wz, double dt,
                                  double& r0, double& r1, double& r2, double& r3);
    void madgwickStep(double ax, double ay, double az, double wx, double wy, double wz, double mx, double my,
                      double mz, double dt);
    bool checkState(double ax, double ay, double az, double wx, double wy, double wz) const;
    void updateBiases(double ax, double ay, double az, double wx, double wy, double wz);
    void getPrediction(double wx, double wy, double wz, double dt, double& q0_pred, double& q1_pred,
                       double& q2_pred, double& q3_pred) const;
    void getAccCorrection(double ax, double ay, double az, double p0, double p1, double p2, double p3,
                          double& dq0, double& dq1, double& dq2, double& dq3) const;
    void getMagCorrection(double mx, double my, double mz, double p0, double p1, double p2, double p3,
                          double& dq0, double& dq1, double& dq2, double& dq3) const;
};

// Free helpers on doubles (w x y z quaternions).
void normalizeVector(double& x, double& y, double& z);
void normalizeQuaternion(double& q0, double& q1, double& q2, double& q3);
void invertQuaternion(double q0, double q1, double q2, double q3, double& q0_inv, double& q1_inv,
                      double& q2_inv, double& q3_inv);
// LERP towards the identity below a dot of 0.9, SLERP at and above.
void scaleQuaternion(double gain, double& dq0, double& dq1, double& dq2, double& dq3);
void quaternionMultiplication(double p0, double p1, double p2, double p3, double q0, double q1, double q2,
                              double q3, double& r0, double& r1, double& r2, double& r3);
void rotateVectorByQuaternion(double x, double y, double z, double q0, double q1, double q2, double q3,
                              double& vx, double& vy, double& vz);

// Madgwick gradient-descent steps on an attitude quaternion (w x y z).
// `sampleFreq` in Hz; the Adaptative forms return the beta they used.
void MadgwickAHRSupdateIMU(double& q0, double& q1, double& q2, double& q3, float gx, float gy, float gz,
                           float ax, float ay, float az, float sampleFreq);
float MadgwickAHRSupdateIMUAdaptative(double& q0, double& q1, double& q2, double& q3, float gx, float gy,
                                      float gz, float ax, float ay, float az, float sampleFreq);
float MadgwickAHRSupdateAdaptative(double& q0, double& q1, double& q2, double& q3, float gx, float gy,
                                   float gz, float ax, float ay, float az, float mx, float my, float mz,
                                   float sampleFreq);

}  // namespace imu_tools
