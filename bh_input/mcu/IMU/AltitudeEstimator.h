// Altitude, vertical velocity and vertical acceleration from the barometric
// height and the inertial samples.
#pragma once

#include "bh_input/mcu/IMU/AltitudeComplementaryFilter.h"
#include "bh_input/mcu/IMU/AltitudeKalmanFilter.h"

class AltitudeEstimator {
public:
    AltitudeEstimator(float sigmaAccel, float sigmaGyro, float sigmaBaro, float ca, float accelThreshold);

    // accel in g, gyro in rad/s, baroHeight in metres, time in microseconds.
    // The first call only stores; the outputs stay 0 until the second.
    void estimate(float* accel, float* gyro, float baroHeight, unsigned int time_us);

    float getAltitude() const { return altitude; }
    float getVerticalVelocity() const { return vertical_velocity; }
    float getVerticalAcceleration() const { return vertical_acceleration; }

    float sigma_accel;
    float sigma_gyro;
    float sigma_baro;
    float ca;
    float accel_threshold;
    float gravity = 9.81f;
    unsigned int previous_time = 0;  // 0: no sample yet
    KalmanFilter kalman;
    ComplementaryFilter complementary;
    float vertical_acceleration = 0.f;
    float vertical_velocity = 0.f;
    float altitude = 0.f;
    float last_gyro[3] = {0.f, 0.f, 0.f};
    float last_accel[3] = {0.f, 0.f, 0.f};
    float kalman_output = 0.f;                   // vertical acceleration of the last step
    float complementary_output[2] = {0.f, 0.f};  // velocity, altitude of the last step
};
