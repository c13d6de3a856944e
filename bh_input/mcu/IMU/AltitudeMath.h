// Fixed-size vector (float[3]) and matrix (float[3][3]) helpers of the
// altitude estimator. Results go to the first argument; inputs may alias it.
#pragma once

#include <cmath>

// a = b; result = a - b; result = a + b; a = s a; a = a + s b.
// normalizeVector leaves a null vector unchanged. scaleAndAccumulateMatrix3x3:
// a = a + s b. scaleAdjoint3x3: s adj(m). invert3x3: inverse by the adjugate;
// a singular matrix gives the zero matrix. skew(v) w = v x w.
// Defined inline: the altitude estimator runs them on every sample.
inline void copyVector(float* a, const float* b) {
#pragma GCC unroll 3
    for (int i = 0; i < 3; i++)
        a[i] = b[i];
}

inline void subtractVectors(float* result, const float* a, const float* b) {
#pragma GCC unroll 3
    for (int i = 0; i < 3; i++)
        result[i] = a[i] - b[i];
}

inline void sumVectors(float* result, const float* a, const float* b) {
#pragma GCC unroll 3
    for (int i = 0; i < 3; i++)
        result[i] = a[i] + b[i];
}

inline void scaleVector(float* a, float s) {
#pragma GCC unroll 3
    for (int i = 0; i < 3; i++)
        a[i] *= s;
}

inline void accumulateScaledVector(float* a, const float* b, float s) {
#pragma GCC unroll 3
    for (int i = 0; i < 3; i++)
        a[i] += s * b[i];
}

inline float dotProductVectors(const float* a, const float* b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

inline float vectorLength(const float* a) {
    return std::sqrt(dotProductVectors(a, a));
}

inline void normalizeVector(float* a) {
    const float length = vectorLength(a);
    if (length == 0.f)
        return;
    scaleVector(a, 1.0f / length);
}

inline void crossProductVectors(float* result, const float* a, const float* b) {
    const float x = a[1] * b[2] - a[2] * b[1];
    const float y = a[2] * b[0] - a[0] * b[2];
    const float z = a[0] * b[1] - a[1] * b[0];
    result[0] = x;
    result[1] = y;
    result[2] = z;
}

inline void identityMatrix3x3(float m[3][3]) {
#pragma GCC unroll 3
    for (int i = 0; i < 3; i++)
#pragma GCC unroll 3
        for (int j = 0; j < 3; j++)
            m[i][j] = i == j ? 1.f : 0.f;
}

inline void copyMatrix3x3(float a[3][3], const float b[3][3]) {
#pragma GCC unroll 3
    for (int i = 0; i < 3; i++)
#pragma GCC unroll 3
        for (int j = 0; j < 3; j++)
            a[i][j] = b[i][j];
}

inline void transposeMatrix3x3(float result[3][3], const float m[3][3]) {
    float t[3][3];
#pragma GCC unroll 3
    for (int i = 0; i < 3; i++)
#pragma GCC unroll 3
        for (int j = 0; j < 3; j++)
            t[j][i] = m[i][j];
    copyMatrix3x3(result, t);
}

inline void scaleMatrix3x3(float a[3][3], float s) {
#pragma GCC unroll 3
    for (int i = 0; i < 3; i++)
#pragma GCC unroll 3
        for (int j = 0; j < 3; j++)
            a[i][j] *= s;
}

inline void scaleAndAccumulateMatrix3x3(float a[3][3], float s, const float b[3][3]) {
#pragma GCC unroll 3
    for (int i = 0; i < 3; i++)
#pragma GCC unroll 3
        for (int j = 0; j < 3; j++)
            a[i][j] += s * b[i][j];
}

inline void matrixProduct3x3(float result[3][3], const float a[3][3], const float b[3][3]) {
    float t[3][3];
#pragma GCC unroll 3
    for (int i = 0; i < 3; i++)
#pragma GCC unroll 3
        for (int j = 0; j < 3; j++)
            t[i][j] = a[i][0] * b[0][j] + a[i][1] * b[1][j] + a[i][2] * b[2][j];
    copyMatrix3x3(result, t);
}

inline void matrixDotVector3x3(float* result, const float m[3][3], const float* v) {
    float t[3];
#pragma GCC unroll 3
    for (int i = 0; i < 3; i++)
        t[i] = m[i][0] * v[0] + m[i][1] * v[1] + m[i][2] * v[2];
    copyVector(result, t);
}

inline float determinant3x3(const float m[3][3]) {
    return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
           m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
           m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

inline void scaleAdjoint3x3(float result[3][3], float s, const float m[3][3]);

inline void adjoint3x3(float result[3][3], const float m[3][3]) {
    scaleAdjoint3x3(result, 1.0f, m);
}

inline void scaleAdjoint3x3(float result[3][3], float s, const float m[3][3]) {
    // Transposed cofactors.
    float t[3][3];
    t[0][0] = s * (m[1][1] * m[2][2] - m[1][2] * m[2][1]);
    t[0][1] = s * (m[0][2] * m[2][1] - m[0][1] * m[2][2]);
    t[0][2] = s * (m[0][1] * m[1][2] - m[0][2] * m[1][1]);
    t[1][0] = s * (m[1][2] * m[2][0] - m[1][0] * m[2][2]);
    t[1][1] = s * (m[0][0] * m[2][2] - m[0][2] * m[2][0]);
    t[1][2] = s * (m[0][2] * m[1][0] - m[0][0] * m[1][2]);
    t[2][0] = s * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    t[2][1] = s * (m[0][1] * m[2][0] - m[0][0] * m[2][1]);
    t[2][2] = s * (m[0][0] * m[1][1] - m[0][1] * m[1][0]);
    copyMatrix3x3(result, t);
}

inline void invert3x3(float result[3][3], const float m[3][3]) {
    const float det = determinant3x3(m);
    if (det == 0.f) {
#pragma GCC unroll 3
        for (int i = 0; i < 3; i++)
#pragma GCC unroll 3
            for (int j = 0; j < 3; j++)
                result[i][j] = 0.f;
        return;
    }
    scaleAdjoint3x3(result, 1.0f / det, m);
}

inline void skew(float result[3][3], const float* v) {
    result[0][0] = 0.f;
    result[0][1] = -v[2];
    result[0][2] = v[1];
    result[1][0] = v[2];
    result[1][1] = 0.f;
    result[1][2] = -v[0];
    result[2][0] = -v[1];
    result[2][1] = v[0];
    result[2][2] = 0.f;
}

void printMatrix3X3(const float m[3][3]);
void vecPrint(const float* a);
