#include "bh_input/mcu/IMU/AltitudeMath.h"

#include <cmath>
#include <cstdio>

void copyVector(float* a, const float* b) {
    for (int i = 0; i < 3; i++)
        a[i] = b[i];
}

void subtractVectors(float* result, const float* a, const float* b) {
    for (int i = 0; i < 3; i++)
        result[i] = a[i] - b[i];
}

void sumVectors(float* result, const float* a, const float* b) {
    for (int i = 0; i < 3; i++)
        result[i] = a[i] + b[i];
}

void scaleVector(float* a, float s) {
    for (int i = 0; i < 3; i++)
        a[i] *= s;
}

void accumulateScaledVector(float* a, const float* b, float s) {
    for (int i = 0; i < 3; i++)
        a[i] += s * b[i];
}

float dotProductVectors(const float* a, const float* b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

float vectorLength(const float* a) {
    return std::sqrt(dotProductVectors(a, a));
}

void normalizeVector(float* a) {
    const float length = vectorLength(a);
    if (length == 0.f)
        return;
    scaleVector(a, 1.0f / length);
}

void crossProductVectors(float* result, const float* a, const float* b) {
    const float x = a[1] * b[2] - a[2] * b[1];
    const float y = a[2] * b[0] - a[0] * b[2];
    const float z = a[0] * b[1] - a[1] * b[0];
    result[0] = x;
    result[1] = y;
    result[2] = z;
}

void identityMatrix3x3(float m[3][3]) {
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++)
            m[i][j] = i == j ? 1.f : 0.f;
}

void copyMatrix3x3(float a[3][3], const float b[3][3]) {
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++)
            a[i][j] = b[i][j];
}

void transposeMatrix3x3(float result[3][3], const float m[3][3]) {
    float t[3][3];
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++)
            t[j][i] = m[i][j];
    copyMatrix3x3(result, t);
}

void scaleMatrix3x3(float a[3][3], float s) {
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++)
            a[i][j] *= s;
}

void scaleAndAccumulateMatrix3x3(float a[3][3], float s, const float b[3][3]) {
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++)
            a[i][j] += s * b[i][j];
}

void matrixProduct3x3(float result[3][3], const float a[3][3], const float b[3][3]) {
    float t[3][3];
    for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++)
            t[i][j] = a[i][0] * b[0][j] + a[i][1] * b[1][j] + a[i][2] * b[2][j];
    copyMatrix3x3(result, t);
}

void matrixDotVector3x3(float* result, const float m[3][3], const float* v) {
    float t[3];
    for (int i = 0; i < 3; i++)
        t[i] = m[i][0] * v[0] + m[i][1] * v[1] + m[i][2] * v[2];
    copyVector(result, t);
}

float determinant3x3(const float m[3][3]) {
    return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
           m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
           m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

void adjoint3x3(float result[3][3], const float m[3][3]) {
    scaleAdjoint3x3(result, 1.0f, m);
}

void scaleAdjoint3x3(float result[3][3], float s, const float m[3][3]) {
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

void invert3x3(float result[3][3], const float m[3][3]) {
    const float det = determinant3x3(m);
    if (det == 0.f) {
        for (int i = 0; i < 3; i++)
            for (int j = 0; j < 3; j++)
                result[i][j] = 0.f;
        return;
    }
    scaleAdjoint3x3(result, 1.0f / det, m);
}

void skew(float result[3][3], const float* v) {
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

void printMatrix3X3(const float m[3][3]) {
    for (int i = 0; i < 3; i++)
        std::printf("%f %f %f\n", m[i][0], m[i][1], m[i][2]);
}

void vecPrint(const float* a) {
    std::printf("%f %f %f\n", a[0], a[1], a[2]);
}
