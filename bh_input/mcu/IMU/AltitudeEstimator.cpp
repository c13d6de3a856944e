#include "bh_input/mcu/IMU/AltitudeEstimator.h"

#include "bh_input/mcu/IMU/AltitudeMath.h"

AltitudeEstimator::AltitudeEstimator(float sigmaAccel, float sigmaGyro, float sigmaBaro, float ca_,
                                     float accelThreshold)
    : sigma_accel(sigmaAccel),
      sigma_gyro(sigmaGyro),
      sigma_baro(sigmaBaro),
      ca(ca_),
      accel_threshold(accelThreshold),
      kalman(ca_, sigmaGyro, sigmaAccel),
      complementary(sigmaAccel, sigmaBaro, accelThreshold) {}

void AltitudeEstimator::estimate(float* accel, float* gyro, float baroHeight, unsigned int time_us) {
    if (previous_time == 0) {
        copyVector(last_gyro, gyro);
        copyVector(last_accel, accel);
        previous_time = time_us;
        vertical_acceleration = 0.f;
        vertical_velocity = 0.f;
        altitude = 0.f;
        return;
    }
    // A clock that goes backwards wraps here into a huge dt.
    const float dt = static_cast<float>(time_us - previous_time) / 1e6f;

    // The stored vectors are scaled in place by the filter.
    vertical_acceleration = kalman.estimate(last_gyro, last_accel, dt);
    complementary.estimate(&vertical_velocity, &altitude, baroHeight, altitude, vertical_velocity,
                           vertical_acceleration, dt);

    copyVector(last_gyro, gyro);
    copyVector(last_accel, accel);
    previous_time = time_us;
    kalman_output = vertical_acceleration;
    complementary_output[0] = vertical_velocity;
    complementary_output[1] = altitude;
}
