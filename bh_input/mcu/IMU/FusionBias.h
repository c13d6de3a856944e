// On-line gyroscope bias tracker: decides from the noise statistics of the
// rates that the sensor lies still, and only then pulls the bias slowly
// towards the measured rate.
#pragma once

class FusionBias {
public:
    void initialise(float dt);
    void setInitBias(float x, float y, float z);
    void setup(float vx, float vy, float vz);  // gyroscope noise variances
    void update(float x, float y, float z);
    void update_state(float dx, float dy, float dz, float rx, float ry, float rz);
    void reset();
    void dynamic_motion_reset();
    bool isActive() const;  // still for at least 1 s
    void close();

    struct LowPass {
        float alpha = 0.05f;
        float value = 0.f;
        bool seeded = false;
    };

    float dt = 0.f;
    float stationary_time = 0.f;
    float bias[3] = {0.f, 0.f, 0.f};
    bool steady = false;
    bool refine = false;
    float previous[3] = {0.f, 0.f, 0.f};
    bool enabled = false;
    float variance[3] = {0.f, 0.f, 0.f};
    float gate[3] = {0.f, 0.f, 0.f};
    float bias_min[3] = {-0.1f, -0.1f, -0.1f};
    float bias_max[3] = {0.1f, 0.1f, 0.1f};
    float steady_ratio = 0.99f;
    int in_band[3] = {0, 0, 0};
    int total[3] = {0, 0, 0};
    float inverse_spread[3] = {0.f, 0.f, 0.f};
    float normalised_limit = 4.0f;
    float refine_ratio = 0.99f;
    LowPass low_pass[3];
    bool updated = false;

private:
    void clearCounters();
};
