// First stage of the altitude estimator: tracks the direction of gravity in
// the sensor frame and gives the vertical acceleration.
#pragma once

class KalmanFilter {
public:
    KalmanFilter(float ca, float sigmaGyro, float sigmaAccel);

    // gyro in rad/s, accel in g (scaled to m/s2 in place); returns the
    // vertical acceleration in m/s2.
    float estimate(float* gyro, float* accel, float dt);

    // Steps of estimate, usable on their own.
    void getPredictionCovariance(float covariance[3][3], const float* previousState, float dt) const;
    void getMeasurementCovariance(float covariance[3][3]) const;
    void predictState(float* predictedState, const float* gyro, const float* previousState, float dt) const;
    void predictErrorCovariance(float covariance[3][3], const float* gyro, const float* previousState,
                                float dt) const;
    void updateGain(float gain[3][3], const float errorCovariance[3][3]) const;
    void updateState(float* updatedState, const float* predictedState, const float gain[3][3],
                     const float* accel) const;
    // Keeps K H P as the new covariance (not (I - K H) P).
    void updateErrorCovariance(float covariance[3][3], const float errorCovariance[3][3],
                               const float gain[3][3]) const;

    float state[3] = {0.f, 0.f, 1.f};
    float covariance[3][3] = {{100.f, 0.f, 0.f}, {0.f, 100.f, 0.f}, {0.f, 0.f, 100.f}};
    float measurement[3][3] = {{9.81f, 0.f, 0.f}, {0.f, 9.81f, 0.f}, {0.f, 0.f, 9.81f}};
    float previous_sensor_accel[3] = {0.f, 0.f, 0.f};
    float ca;
    float sigma_gyro;
    float sigma_accel;
};
