#include "bh_input/mcu/IMU/AltitudeKalmanFilter.h"

#include "bh_input/mcu/IMU/AltitudeMath.h"

namespace {
constexpr float kGravity = 9.81f;
}

KalmanFilter::KalmanFilter(float ca_, float sigmaGyro, float sigmaAccel)
    : ca(ca_), sigma_gyro(sigmaGyro), sigma_accel(sigmaAccel) {}

void KalmanFilter::getPredictionCovariance(float result[3][3], const float* previousState, float dt) const {
    // Q = -dt^2 [x]x (sigma_gyro^2 I) [x]x
    float skewState[3][3];
    skew(skewState, previousState);
    float noise[3][3];
    identityMatrix3x3(noise);
    scaleMatrix3x3(noise, sigma_gyro * sigma_gyro);
    float product[3][3];
    matrixProduct3x3(product, skewState, noise);
    matrixProduct3x3(result, product, skewState);
    scaleMatrix3x3(result, -dt * dt);
}

void KalmanFilter::getMeasurementCovariance(float result[3][3]) const {
    // R = sigma_accel^2 I + (ca^2 / 3) |previous sensor acceleration| I
    const float value = sigma_accel * sigma_accel + ca * ca / 3.0f * vectorLength(previous_sensor_accel);
    identityMatrix3x3(result);
    scaleMatrix3x3(result, value);
}

void KalmanFilter::predictState(float* predictedState, const float* gyro, const float* previousState,
                                float dt) const {
    // A = I - dt [w]x
    float A[3][3];
    float skewGyro[3][3];
    identityMatrix3x3(A);
    skew(skewGyro, gyro);
    scaleAndAccumulateMatrix3x3(A, -dt, skewGyro);
    matrixDotVector3x3(predictedState, A, previousState);
    normalizeVector(predictedState);
}

void KalmanFilter::predictErrorCovariance(float result[3][3], const float* gyro, const float* previousState,
                                          float dt) const {
    float A[3][3];
    float skewGyro[3][3];
    identityMatrix3x3(A);
    skew(skewGyro, gyro);
    scaleAndAccumulateMatrix3x3(A, -dt, skewGyro);
    float At[3][3];
    transposeMatrix3x3(At, A);
    float Q[3][3];
    getPredictionCovariance(Q, previousState, dt);
    float tmp[3][3];
    matrixProduct3x3(tmp, A, covariance);
    matrixProduct3x3(result, tmp, At);
    scaleAndAccumulateMatrix3x3(result, 1.0f, Q);
}

void KalmanFilter::updateGain(float gain[3][3], const float errorCovariance[3][3]) const {
    // K = P H^T (H P H^T + R)^-1
    float R[3][3];
    getMeasurementCovariance(R);
    float Ht[3][3];
    transposeMatrix3x3(Ht, measurement);
    float PHt[3][3];
    matrixProduct3x3(PHt, errorCovariance, Ht);
    float S[3][3];
    matrixProduct3x3(S, measurement, PHt);
    scaleAndAccumulateMatrix3x3(S, 1.0f, R);
    float Sinv[3][3];
    invert3x3(Sinv, S);
    matrixProduct3x3(gain, PHt, Sinv);
}

void KalmanFilter::updateState(float* updatedState, const float* predictedState, const float gain[3][3],
                               const float* accel) const {
    // innovation = a - ca a_prev - H x_pred
    float expected[3];
    matrixDotVector3x3(expected, measurement, predictedState);
    float innovation[3];
    copyVector(innovation, accel);
    accumulateScaledVector(innovation, previous_sensor_accel, -ca);
    accumulateScaledVector(innovation, expected, -1.0f);
    float correction[3];
    matrixDotVector3x3(correction, gain, innovation);
    sumVectors(updatedState, predictedState, correction);
    normalizeVector(updatedState);
}

void KalmanFilter::updateErrorCovariance(float result[3][3], const float errorCovariance[3][3],
                                         const float gain[3][3]) const {
    // The identity of (I - K H) is built but not used: K H P is what is kept.
    float scratch[3][3];
    identityMatrix3x3(scratch);
    float KH[3][3];
    matrixProduct3x3(KH, gain, measurement);
    scaleAndAccumulateMatrix3x3(scratch, -1.0f, KH);
    (void)scratch;
    matrixProduct3x3(result, KH, errorCovariance);
}

float KalmanFilter::estimate(float* gyro, float* accel, float dt) {
    scaleVector(accel, kGravity);  // g to m/s2, in place

    float predicted[3];
    predictState(predicted, gyro, state, dt);
    float P[3][3];
    predictErrorCovariance(P, gyro, state, dt);
    float K[3][3];
    updateGain(K, P);
    float updated[3];
    updateState(updated, predicted, K, accel);
    updateErrorCovariance(covariance, P, K);

    copyVector(state, updated);
    float sensorAccel[3];
    copyVector(sensorAccel, accel);
    accumulateScaledVector(sensorAccel, updated, -kGravity);
    copyVector(previous_sensor_accel, sensorAccel);
    return dotProductVectors(sensorAccel, updated);
}
