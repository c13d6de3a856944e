// Second stage of the altitude estimator: blends the vertical acceleration
// with the barometric height and holds the velocity at zero while the
// acceleration stays small. Not the orientation filter of imu_tools.
#pragma once

#include <cstdint>

class ComplementaryFilter {
public:
    ComplementaryFilter(float sigmaAccel, float sigmaBaro, float accelThreshold);

    void estimate(float* velocity, float* altitude, float baroHeight, float pastAltitude, float pastVelocity,
                  float acceleration, float dt);
    // Records `acceleration`; returns 0 when the last 12 all stay within the
    // threshold, otherwise `velocity`.
    float ApplyZUPT(float acceleration, float velocity);

    float gain1;
    float gain2;
    float threshold;
    uint32_t index = 0;
    float history[12] = {0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f};
};
