#include "bh_input/mcu/IMU/AltitudeComplementaryFilter.h"

#include <cmath>

ComplementaryFilter::ComplementaryFilter(float sigmaAccel, float sigmaBaro, float accelThreshold)
    : gain1(std::sqrt(2.0f * sigmaAccel / sigmaBaro)),
      gain2(sigmaAccel / sigmaBaro),
      threshold(accelThreshold) {}

void ComplementaryFilter::estimate(float* velocity, float* altitude, float baroHeight, float pastAltitude,
                                   float pastVelocity, float acceleration, float dt) {
    const float error = baroHeight - pastAltitude;
    *altitude = pastAltitude + dt * ((gain1 + dt * gain2 / 2.0f) * error + pastVelocity) +
                dt * dt * acceleration / 2.0f;
    *velocity = pastVelocity + dt * (acceleration + gain2 * error);
    *velocity = ApplyZUPT(acceleration, *velocity);
}

float ComplementaryFilter::ApplyZUPT(float acceleration, float velocity) {
    history[index] = acceleration;
    index = (index + 1) % 12;
    for (float a : history)
        if (!(std::fabs(a) <= threshold))
            return velocity;
    return 0.f;
}
