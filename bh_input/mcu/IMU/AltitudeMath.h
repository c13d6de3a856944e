// Fixed-size vector (float[3]) and matrix (float[3][3]) helpers of the
// altitude estimator. Results go to the first argument; inputs may alias it.
#pragma once

void copyVector(float* a, const float* b);                            // a = b
void subtractVectors(float* result, const float* a, const float* b);  // a - b
void sumVectors(float* result, const float* a, const float* b);       // a + b
void scaleVector(float* a, float s);                                  // a = s a
void accumulateScaledVector(float* a, const float* b, float s);       // a = a + s b
float dotProductVectors(const float* a, const float* b);
float vectorLength(const float* a);
void normalizeVector(float* a);  // unchanged if its length is 0
void crossProductVectors(float* result, const float* a, const float* b);

void identityMatrix3x3(float m[3][3]);
void copyMatrix3x3(float a[3][3], const float b[3][3]);  // a = b
void transposeMatrix3x3(float result[3][3], const float m[3][3]);
void scaleMatrix3x3(float a[3][3], float s);                                    // a = s a
void scaleAndAccumulateMatrix3x3(float a[3][3], float s, const float b[3][3]);  // a = a + s b
void matrixProduct3x3(float result[3][3], const float a[3][3], const float b[3][3]);
void matrixDotVector3x3(float* result, const float m[3][3], const float* v);
float determinant3x3(const float m[3][3]);
void adjoint3x3(float result[3][3], const float m[3][3]);
void scaleAdjoint3x3(float result[3][3], float s, const float m[3][3]);  // s adj(m)
// Inverse by the adjugate; a singular matrix gives the zero matrix.
void invert3x3(float result[3][3], const float m[3][3]);
void skew(float result[3][3], const float* v);  // [v]x: skew(v) w = v x w
void printMatrix3X3(const float m[3][3]);
void vecPrint(const float* a);
