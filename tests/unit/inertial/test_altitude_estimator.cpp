#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "bh_input/mcu/IMU/AltitudeEstimator.h"
#include "bh_input/mcu/IMU/AltitudeMath.h"

namespace {

AltitudeEstimator makeEngineEstimator() {
    return AltitudeEstimator(0.008f, 0.09f, 0.18f, 0.25f, 0.05f);
}

const unsigned int kStepUs = 1250;  // 800 Hz

}  // namespace

// ------------------------------------------------------------ vector and matrix helpers

TEST(AltitudeMath, Vectors) {
    float a[3] = {1, 2, 3}, b[3] = {4, 5, 6}, r[3];
    subtractVectors(r, a, b);
    EXPECT_EQ(r[0], -3.f);
    sumVectors(r, a, b);
    EXPECT_EQ(r[2], 9.f);
    EXPECT_EQ(dotProductVectors(a, b), 32.f);
    crossProductVectors(r, a, b);  // (2*6 - 3*5, 3*4 - 1*6, 1*5 - 2*4)
    EXPECT_EQ(r[0], -3.f);
    EXPECT_EQ(r[1], 6.f);
    EXPECT_EQ(r[2], -3.f);
    copyVector(r, a);
    scaleVector(r, 2.f);
    EXPECT_EQ(r[1], 4.f);
    accumulateScaledVector(r, b, -1.f);
    EXPECT_EQ(r[0], -2.f);
    float v[3] = {0, 3, 4};
    EXPECT_EQ(vectorLength(v), 5.f);
    normalizeVector(v);
    EXPECT_FLOAT_EQ(v[2], 0.8f);
    float z[3] = {0, 0, 0};
    normalizeVector(z);
    EXPECT_EQ(z[0], 0.f);
    testing::internal::CaptureStdout();
    vecPrint(a);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "1.000000 2.000000 3.000000\n");
}

TEST(AltitudeMath, Matrices) {
    const float m[3][3] = {{2, 0, 1}, {1, 3, 0}, {0, 1, 4}};
    EXPECT_FLOAT_EQ(determinant3x3(m), 2 * 12 - 0 + 1 * 1);  // 25
    float inv[3][3], product[3][3];
    invert3x3(inv, m);
    matrixProduct3x3(product, m, inv);
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++)
            EXPECT_NEAR(product[i][j], i == j ? 1.f : 0.f, 1e-6) << i << j;
    float adj[3][3];
    adjoint3x3(adj, m);
    EXPECT_FLOAT_EQ(adj[0][0], 12.f);
    EXPECT_FLOAT_EQ(adj[0][2], -3.f);  // cofactor (2, 0) = 0 x 0 - 1 x 3
    float sadj[3][3];
    scaleAdjoint3x3(sadj, 0.5f, m);
    EXPECT_FLOAT_EQ(sadj[0][0], 6.f);

    const float singular[3][3] = {{1, 2, 3}, {2, 4, 6}, {0, 1, 1}};
    invert3x3(inv, singular);
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++)
            EXPECT_EQ(inv[i][j], 0.f);

    float t[3][3];
    transposeMatrix3x3(t, m);
    EXPECT_EQ(t[0][1], 1.f);
    EXPECT_EQ(t[1][0], 0.f);
    float id[3][3];
    identityMatrix3x3(id);
    scaleAndAccumulateMatrix3x3(id, 2.f, m);  // I + 2 m
    EXPECT_EQ(id[0][0], 5.f);
    EXPECT_EQ(id[2][1], 2.f);
    scaleMatrix3x3(id, 0.5f);
    EXPECT_EQ(id[0][0], 2.5f);
    float c[3][3];
    copyMatrix3x3(c, m);
    EXPECT_EQ(c[2][2], 4.f);

    // skew(v) w = v x w
    const float v[3] = {1, 2, 3}, w[3] = {-2, 0.5f, 4};
    float s[3][3], sw[3], cross[3];
    skew(s, v);
    matrixDotVector3x3(sw, s, w);
    crossProductVectors(cross, v, w);
    for (int i = 0; i < 3; i++)
        EXPECT_FLOAT_EQ(sw[i], cross[i]);
    testing::internal::CaptureStdout();
    printMatrix3X3(m);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "2.000000 0.000000 1.000000\n1.000000 3.000000 0.000000\n0.000000 1.000000 4.000000\n");
}

// ------------------------------------------------------------ complementary filter

TEST(AltitudeComplementaryFilter, GainsAndOneStep) {
    ComplementaryFilter f(0.008f, 0.18f, 0.05f);
    EXPECT_FLOAT_EQ(f.gain1, std::sqrt(2.f * 0.008f / 0.18f));
    EXPECT_FLOAT_EQ(f.gain2, 0.008f / 0.18f);
    float velocity = 0, altitude = 0;
    // e = 2 - 1 = 1; altitude = 1 + 0.1 ((g1 + 0.1 g2 / 2) 1 + 0.5) + 0.01 x 3 / 2
    f.estimate(&velocity, &altitude, 2.f, 1.f, 0.5f, 3.f, 0.1f);
    EXPECT_FLOAT_EQ(altitude,
                    1.f + 0.1f * ((f.gain1 + 0.1f * f.gain2 / 2.f) * 1.f + 0.5f) + 0.01f * 3.f / 2.f);
    EXPECT_FLOAT_EQ(velocity, 0.5f + 0.1f * (3.f + f.gain2 * 1.f));
    EXPECT_EQ(f.index, 1u);
    EXPECT_EQ(f.history[0], 3.f);
}

TEST(AltitudeComplementaryFilter, ZuptWithinFirstTwelveOnlyIfNewSamplesAreSmall) {
    ComplementaryFilter f(0.008f, 0.18f, 0.05f);
    // History starts at zero: one small sample is enough.
    EXPECT_EQ(f.ApplyZUPT(0.01f, 5.f), 0.f);
    // A large one holds the velocity for the next 11 samples, however small.
    EXPECT_EQ(f.ApplyZUPT(0.2f, 5.f), 5.f);
    for (int i = 0; i < 11; i++)
        EXPECT_EQ(f.ApplyZUPT(-0.05f, 5.f), 5.f) << i;  // at the threshold counts as small
    EXPECT_EQ(f.ApplyZUPT(0.f, 5.f), 0.f);              // the 0.2 has been overwritten
    EXPECT_EQ(f.index, 2u);

    ComplementaryFilter g(0.008f, 0.18f, 0.05f);
    float velocity = 0, altitude = 0;
    g.estimate(&velocity, &altitude, 0.f, 0.f, 1.0f, 0.f, 0.01f);
    EXPECT_EQ(velocity, 0.f);
    g.estimate(&velocity, &altitude, 0.f, 0.f, 1.0f, 0.06f, 0.01f);
    EXPECT_FLOAT_EQ(velocity, 1.0f + 0.01f * 0.06f);
}

// ------------------------------------------------------------ Kalman filter

TEST(AltitudeKalmanFilter, KeepsKHPAsCovariance) {
    KalmanFilter k(0.25f, 0.09f, 0.008f);
    float gyro[3] = {0.1f, -0.2f, 0.05f};
    float accel[3] = {0.1f, 0.0f, 1.0f};
    const float dt = 0.01f;

    float P[3][3], K[3][3], expected[3][3], KH[3][3];
    k.predictErrorCovariance(P, gyro, k.state, dt);
    k.updateGain(K, P);
    matrixProduct3x3(KH, K, k.measurement);
    matrixProduct3x3(expected, KH, P);
    // (I - K H) P would be P - K H P: clearly different here.
    float joseph[3][3];
    copyMatrix3x3(joseph, P);
    scaleAndAccumulateMatrix3x3(joseph, -1.f, expected);

    k.estimate(gyro, accel, dt);
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++) {
            EXPECT_FLOAT_EQ(k.covariance[i][j], expected[i][j]) << i << j;
        }
    EXPECT_GT(std::fabs(expected[0][0] - joseph[0][0]), 1.f);
    // accel was scaled to m/s2 in place.
    EXPECT_FLOAT_EQ(accel[2], 9.81f);
}

TEST(AltitudeKalmanFilter, MeasurementCovarianceUsesLastSensorAcceleration) {
    KalmanFilter k(0.25f, 0.09f, 0.008f);
    float R[3][3];
    k.getMeasurementCovariance(R);
    EXPECT_FLOAT_EQ(R[0][0], 0.008f * 0.008f);
    EXPECT_EQ(R[0][1], 0.f);
    k.previous_sensor_accel[0] = 3.f;
    k.previous_sensor_accel[1] = 4.f;
    k.getMeasurementCovariance(R);
    EXPECT_FLOAT_EQ(R[2][2], 0.008f * 0.008f + 0.25f * 0.25f / 3.f * 5.f);
    float Q[3][3];
    const float up[3] = {0, 0, 1};
    k.getPredictionCovariance(Q, up, 0.1f);
    // -dt^2 sigma^2 [z]x [z]x = dt^2 sigma^2 diag(1, 1, 0)
    EXPECT_FLOAT_EQ(Q[0][0], 0.01f * 0.09f * 0.09f);
    EXPECT_FLOAT_EQ(Q[1][1], 0.01f * 0.09f * 0.09f);
    EXPECT_NEAR(Q[2][2], 0.f, 1e-12);
}

TEST(AltitudeKalmanFilter, VerticalAccelerationOfALiftedSensor) {
    KalmanFilter k(0.25f, 0.09f, 0.008f);
    float out = 0;
    for (int i = 0; i < 2000; i++) {
        float gyro[3] = {0, 0, 0};
        float accel[3] = {0, 0, 1.1f};  // 1.1 g upwards: 0.981 m/s2 of lift
        out = k.estimate(gyro, accel, 0.00125f);
    }
    EXPECT_NEAR(k.state[2], 1.f, 1e-4f);
    // With the ca term the steady output is 0.981 / (1 - ca) ~ 0.98 to 1.31.
    EXPECT_GT(out, 0.9f);
    EXPECT_LT(out, 1.4f);
}

// ------------------------------------------------------------ estimator

TEST(AltitudeEstimator, FirstCallOnlyStores) {
    AltitudeEstimator e = makeEngineEstimator();
    float accel[3] = {0, 0, 1}, gyro[3] = {0, 0, 0};
    e.estimate(accel, gyro, 12.f, 1000);
    EXPECT_EQ(e.previous_time, 1000u);
    EXPECT_EQ(e.getAltitude(), 0.f);
    EXPECT_EQ(e.getVerticalVelocity(), 0.f);
    EXPECT_EQ(e.getVerticalAcceleration(), 0.f);
    EXPECT_EQ(e.last_accel[2], 1.f);
    e.estimate(accel, gyro, 12.f, 2000);
    EXPECT_GT(e.getAltitude(), 0.f);
    // The stored copy was scaled in place by the filter, then replaced.
    EXPECT_EQ(e.last_accel[2], 1.f);
    EXPECT_EQ(accel[2], 1.f);  // the caller's vector is left alone
}

TEST(AltitudeEstimator, LevelStillSensorKeepsGravityUp) {
    AltitudeEstimator e = makeEngineEstimator();
    unsigned int t = 1000;
    for (int i = 0; i < 8000; i++) {
        float accel[3] = {0, 0, 1}, gyro[3] = {0, 0, 0};
        e.estimate(accel, gyro, 0.f, t);
        t += kStepUs;
    }
    EXPECT_NEAR(e.kalman.state[0], 0.f, 1e-4f);
    EXPECT_NEAR(e.kalman.state[1], 0.f, 1e-4f);
    EXPECT_NEAR(e.kalman.state[2], 1.f, 1e-4f);
    EXPECT_NEAR(e.getVerticalAcceleration(), 0.f, 1e-3f);
    EXPECT_EQ(e.getVerticalVelocity(), 0.f);  // held by the zero-velocity rule
    EXPECT_NEAR(e.getAltitude(), 0.f, 1e-3f);
}

TEST(AltitudeEstimator, FollowsABarometricStep) {
    AltitudeEstimator e = makeEngineEstimator();
    unsigned int t = 1000;
    auto run = [&](int samples, float baro) {
        for (int i = 0; i < samples; i++) {
            float accel[3] = {0, 0, 1}, gyro[3] = {0, 0, 0};
            e.estimate(accel, gyro, baro, t);
            t += kStepUs;
        }
    };
    run(800, 0.f);
    EXPECT_NEAR(e.getAltitude(), 0.f, 1e-3f);
    run(800, 10.f);  // one second after the step: on the way
    const float afterOne = e.getAltitude();
    EXPECT_GT(afterOne, 1.f);
    EXPECT_LT(afterOne, 9.f);
    run(29 * 800, 10.f);
    EXPECT_NEAR(e.getAltitude(), 10.f, 0.05f);
    EXPECT_GT(e.getAltitude(), afterOne);
}

TEST(AltitudeEstimator, BackwardsTimeWrapsIntoHugeDt) {
    AltitudeEstimator e = makeEngineEstimator();
    float accel[3] = {0, 0, 1}, gyro[3] = {0, 0, 0};
    e.estimate(accel, gyro, 1.f, 1000);
    e.estimate(accel, gyro, 1.f, 2000);
    const AltitudeEstimator before = e;

    e.estimate(accel, gyro, 1.f, 1500);  // 500 us back
    const float dt = static_cast<float>(1500u - 2000u) / 1e6f;
    EXPECT_NEAR(dt, 4294.966796f, 1e-2f);

    // Replay the step by hand with that dt.
    KalmanFilter k = before.kalman;
    float g[3], a[3];
    copyVector(g, before.last_gyro);
    copyVector(a, before.last_accel);
    const float acceleration = k.estimate(g, a, dt);
    ComplementaryFilter c = before.complementary;
    float velocity = 0, altitude = 0;
    c.estimate(&velocity, &altitude, 1.f, before.altitude, before.vertical_velocity, acceleration, dt);
    EXPECT_EQ(e.getAltitude(), altitude);
    EXPECT_EQ(e.getVerticalVelocity(), velocity);
    EXPECT_GT(std::fabs(e.getAltitude()), 1e4f);  // nothing guards against it
    EXPECT_EQ(e.previous_time, 1500u);
}
