#include "bh_input/mcu/IMU/RTMath.h"

#include <cmath>
#include <cstdio>
#include <iostream>

char RTMath::m_string[1000];

// ---------------------------------------------------------------- RTMath

const char* RTMath::displayRadians(const char* label, const RTVector3& vec) {
    std::snprintf(m_string, sizeof(m_string), "%s: x:%f, y:%f, z:%f\n", label, vec.x(), vec.y(), vec.z());
    return m_string;
}

const char* RTMath::displayDegrees(const char* label, const RTVector3& vec) {
    std::snprintf(m_string, sizeof(m_string), "%s: roll:%f, pitch:%f, yaw:%f", label,
                  vec.x() * RTMATH_RAD_TO_DEGREE, vec.y() * RTMATH_RAD_TO_DEGREE,
                  vec.z() * RTMATH_RAD_TO_DEGREE);
    return m_string;
}

const char* RTMath::display(const char* label, const RTQuaternion& quat) {
    std::snprintf(m_string, sizeof(m_string), "%s: scalar: %f, x:%f, y:%f, z:%f\n", label, quat.scalar(),
                  quat.x(), quat.y(), quat.z());
    return m_string;
}

const char* RTMath::display(const char* label, const RTMatrix4x4& mat) {
    std::snprintf(m_string, sizeof(m_string),
                  "%s(0): %f %f %f %f\n%s(1): %f %f %f %f\n%s(2): %f %f %f %f\n%s(3): %f %f %f %f\n", label,
                  mat.val(0, 0), mat.val(0, 1), mat.val(0, 2), mat.val(0, 3), label, mat.val(1, 0),
                  mat.val(1, 1), mat.val(1, 2), mat.val(1, 3), label, mat.val(2, 0), mat.val(2, 1),
                  mat.val(2, 2), mat.val(2, 3), label, mat.val(3, 0), mat.val(3, 1), mat.val(3, 2),
                  mat.val(3, 3));
    return m_string;
}

RTFLOAT RTMath::convertPressureToHeight(RTFLOAT pressure, RTFLOAT staticPressure) {
    return (1.0 - std::pow(pressure / staticPressure, 0.190263)) * 44330.8;
}

void RTMath::convertToVector(const unsigned char* rawData, RTVector3& vec, RTFLOAT scale, bool bigEndian) {
    for (int i = 0; i < 3; i++) {
        const unsigned char b0 = rawData[2 * i];
        const unsigned char b1 = rawData[2 * i + 1];
        const uint16_t word =
            bigEndian ? static_cast<uint16_t>((b0 << 8) | b1) : static_cast<uint16_t>((b1 << 8) | b0);
        vec.setData(i, static_cast<RTFLOAT>(static_cast<int16_t>(word)) * scale);
    }
}

RTVector3 RTMath::poseFromAccelMag(const RTVector3& accel, const RTVector3& mag) {
    RTVector3 result;
    accel.accelToEuler(result, 0);

    const RTFLOAT cosX2 = std::cos(result.x() / 2.0f);
    const RTFLOAT sinX2 = std::sin(result.x() / 2.0f);
    const RTFLOAT cosY2 = std::cos(result.y() / 2.0f);
    const RTFLOAT sinY2 = std::sin(result.y() / 2.0f);

    const RTQuaternion q(cosX2 * cosY2, sinX2 * cosY2, cosX2 * sinY2, -sinX2 * sinY2);
    const RTQuaternion m(0, mag.x(), mag.y(), mag.z());
    const RTQuaternion r = q * m * q.conjugate();
    result.setZ(-std::atan2(r.y(), r.x()));
    return result;
}

// ---------------------------------------------------------------- RTVector3

RTVector3::RTVector3() {
    zero();
}

RTVector3::RTVector3(RTFLOAT x, RTFLOAT y, RTFLOAT z) {
    m_data[0] = x;
    m_data[1] = y;
    m_data[2] = z;
}

RTVector3& RTVector3::operator=(const RTVector3& vec) {
    if (this == &vec)
        return *this;
    m_data[0] = vec.m_data[0];
    m_data[1] = vec.m_data[1];
    m_data[2] = vec.m_data[2];
    return *this;
}

const RTVector3& RTVector3::operator+=(const RTVector3& vec) {
    for (int i = 0; i < 3; i++)
        m_data[i] += vec.m_data[i];
    return *this;
}

const RTVector3& RTVector3::operator-=(const RTVector3& vec) {
    for (int i = 0; i < 3; i++)
        m_data[i] -= vec.m_data[i];
    return *this;
}

void RTVector3::zero() {
    for (int i = 0; i < 3; i++)
        m_data[i] = 0;
}

RTFLOAT RTVector3::dotProduct(const RTVector3& a, const RTVector3& b) {
    return a.x() * b.x() + a.y() * b.y() + a.z() * b.z();
}

void RTVector3::crossProduct(const RTVector3& a, const RTVector3& b, RTVector3& out) {
    const RTFLOAT x = a.y() * b.z() - a.z() * b.y();
    const RTFLOAT y = a.z() * b.x() - a.x() * b.z();
    const RTFLOAT z = a.x() * b.y() - a.y() * b.x();
    out.setX(x);
    out.setY(y);
    out.setZ(z);
}

void RTVector3::accelToEuler(RTVector3& rollPitchYaw, RTFLOAT yaw) const {
    RTVector3 normAccel = *this;
    normAccel.normalize();

    const RTFLOAT ax = normAccel.x();
    const RTFLOAT ay = normAccel.y();
    const RTFLOAT az = normAccel.z();
    const RTFLOAT sign = az >= 0 ? 1.0f : -1.0f;
    rollPitchYaw.setX(std::atan2(ay, sign * std::sqrt(ax * ax + az * az)));
    rollPitchYaw.setY(-std::atan2(ax, std::sqrt(ay * ay + az * az)));
    rollPitchYaw.setZ(yaw);
}

void RTVector3::accelToQuaternion(RTQuaternion& qPose, bool /*flag*/) const {
    RTVector3 normAccel = *this;
    normAccel.normalize();

    const RTFLOAT angle = std::acos(normAccel.z());
    RTVector3 axis(normAccel.y(), -normAccel.x(), 0);
    axis.normalize();

    const RTFLOAT sinHalf = std::sin(angle / 2.0f);
    qPose = RTQuaternion(std::cos(angle / 2.0f), axis.x() * sinHalf, axis.y() * sinHalf, axis.z() * sinHalf);
    std::cout << " QPose : " << qPose.x() << " " << qPose.y() << " " << qPose.z() << std::endl;
}

RTFLOAT RTVector3::length() const {
    return std::sqrt(m_data[0] * m_data[0] + m_data[1] * m_data[1] + m_data[2] * m_data[2]);
}

void RTVector3::normalize() {
    const RTFLOAT len = length();
    if (len == 0)
        return;
    for (int i = 0; i < 3; i++)
        m_data[i] /= len;
}

// ---------------------------------------------------------------- RTQuaternion

RTQuaternion::RTQuaternion() {
    zero();
}

RTQuaternion::RTQuaternion(RTFLOAT scalar, RTFLOAT x, RTFLOAT y, RTFLOAT z) {
    m_data[0] = scalar;
    m_data[1] = x;
    m_data[2] = y;
    m_data[3] = z;
}

RTQuaternion& RTQuaternion::operator=(const RTQuaternion& quat) {
    if (this == &quat)
        return *this;
    for (int i = 0; i < 4; i++)
        m_data[i] = quat.m_data[i];
    return *this;
}

RTQuaternion& RTQuaternion::operator+=(const RTQuaternion& quat) {
    for (int i = 0; i < 4; i++)
        m_data[i] += quat.m_data[i];
    return *this;
}

RTQuaternion& RTQuaternion::operator-=(const RTQuaternion& quat) {
    for (int i = 0; i < 4; i++)
        m_data[i] -= quat.m_data[i];
    return *this;
}

RTQuaternion& RTQuaternion::operator-=(const RTFLOAT val) {
    for (int i = 0; i < 4; i++)
        m_data[i] -= val;
    return *this;
}

RTQuaternion& RTQuaternion::operator*=(const RTQuaternion& qb) {
    const RTFLOAT a0 = m_data[0], a1 = m_data[1], a2 = m_data[2], a3 = m_data[3];
    const RTFLOAT b0 = qb.m_data[0], b1 = qb.m_data[1], b2 = qb.m_data[2], b3 = qb.m_data[3];
    m_data[0] = a0 * b0 - a1 * b1 - a2 * b2 - a3 * b3;
    m_data[1] = a0 * b1 + a1 * b0 + a2 * b3 - a3 * b2;
    m_data[2] = a0 * b2 - a1 * b3 + a2 * b0 + a3 * b1;
    m_data[3] = a0 * b3 + a1 * b2 - a2 * b1 + a3 * b0;
    return *this;
}

RTQuaternion& RTQuaternion::operator*=(const RTFLOAT val) {
    for (int i = 0; i < 4; i++)
        m_data[i] *= val;
    return *this;
}

const RTQuaternion RTQuaternion::operator*(const RTQuaternion& qb) const {
    RTQuaternion result = *this;
    result *= qb;
    return result;
}

const RTQuaternion RTQuaternion::operator*(const RTFLOAT val) const {
    RTQuaternion result = *this;
    result *= val;
    return result;
}

const RTQuaternion RTQuaternion::operator-(const RTQuaternion& qb) const {
    RTQuaternion result = *this;
    result -= qb;
    return result;
}

const RTQuaternion RTQuaternion::operator-(const RTFLOAT val) const {
    RTQuaternion result = *this;
    result -= val;
    return result;
}

void RTQuaternion::zero() {
    for (int i = 0; i < 4; i++)
        m_data[i] = 0;
}

void RTQuaternion::normalize() {
    const RTFLOAT length = std::sqrt(m_data[0] * m_data[0] + m_data[1] * m_data[1] + m_data[2] * m_data[2] +
                                     m_data[3] * m_data[3]);
    if (length == 0 || length == 1)
        return;
    for (int i = 0; i < 4; i++)
        m_data[i] /= length;
}

void RTQuaternion::toEuler(RTVector3& vec) const {
    const RTFLOAT q0 = m_data[0], q1 = m_data[1], q2 = m_data[2], q3 = m_data[3];
    vec.setX(std::atan2(2.0f * (q2 * q3 + q0 * q1), 1 - 2.0f * (q1 * q1 + q2 * q2)));
    RTFLOAT sinPitch = 2.0f * (q2 * q0 - q3 * q1);
    if (sinPitch > 1.0f)
        sinPitch = 1.0f;
    if (sinPitch < -1.0f)
        sinPitch = -1.0f;
    vec.setY(std::asin(sinPitch));
    vec.setZ(std::atan2(2.0f * (q1 * q2 + q3 * q0), 1 - 2.0f * (q2 * q2 + q3 * q3)));
}

void RTQuaternion::fromEuler(const RTVector3& vec) {
    const RTFLOAT cosX2 = std::cos(vec.x() / 2.0f);
    const RTFLOAT sinX2 = std::sin(vec.x() / 2.0f);
    const RTFLOAT cosY2 = std::cos(vec.y() / 2.0f);
    const RTFLOAT sinY2 = std::sin(vec.y() / 2.0f);
    const RTFLOAT cosZ2 = std::cos(vec.z() / 2.0f);
    const RTFLOAT sinZ2 = std::sin(vec.z() / 2.0f);

    m_data[0] = cosX2 * cosY2 * cosZ2 + sinX2 * sinY2 * sinZ2;
    m_data[1] = sinX2 * cosY2 * cosZ2 - cosX2 * sinY2 * sinZ2;
    m_data[2] = cosX2 * sinY2 * cosZ2 + sinX2 * cosY2 * sinZ2;
    m_data[3] = cosX2 * cosY2 * sinZ2 - sinX2 * sinY2 * cosZ2;
    normalize();
}

RTQuaternion RTQuaternion::conjugate() const {
    return RTQuaternion(m_data[0], -m_data[1], -m_data[2], -m_data[3]);
}

void RTQuaternion::toAngleVector(RTFLOAT& angle, RTVector3& vec) const {
    const RTFLOAT halfTheta = std::acos(m_data[0]);
    const RTFLOAT sinHalfTheta = std::sin(halfTheta);

    if (sinHalfTheta == 0) {
        vec = RTVector3(1.0f, 0.f, 0.f);
    } else {
        // Only x takes part: every component of the axis is x / sin.
        const RTFLOAT component = m_data[1] / sinHalfTheta;
        vec = RTVector3(component, component, component);
    }
    angle = 2.0f * halfTheta;
}

void RTQuaternion::fromAngleVector(const RTFLOAT& angle, const RTVector3& vec) {
    const RTFLOAT sinHalfTheta = std::sin(angle / 2.0f);
    m_data[0] = std::cos(angle / 2.0f);
    m_data[1] = vec.x() * sinHalfTheta;
    m_data[2] = vec.y() * sinHalfTheta;
    m_data[3] = vec.z() * sinHalfTheta;
}

// ---------------------------------------------------------------- RTMatrix4x4

RTMatrix4x4::RTMatrix4x4() {
    fill(0);
}

RTMatrix4x4& RTMatrix4x4::operator=(const RTMatrix4x4& mat) {
    if (this == &mat)
        return *this;
    for (int row = 0; row < 4; row++)
        for (int col = 0; col < 4; col++)
            m_data[row][col] = mat.m_data[row][col];
    return *this;
}

void RTMatrix4x4::fill(RTFLOAT val) {
    for (int row = 0; row < 4; row++)
        for (int col = 0; col < 4; col++)
            m_data[row][col] = val;
}

RTMatrix4x4& RTMatrix4x4::operator+=(const RTMatrix4x4& mat) {
    for (int row = 0; row < 4; row++)
        for (int col = 0; col < 4; col++)
            m_data[row][col] += mat.m_data[row][col];
    return *this;
}

RTMatrix4x4& RTMatrix4x4::operator-=(const RTMatrix4x4& mat) {
    for (int row = 0; row < 4; row++)
        for (int col = 0; col < 4; col++)
            m_data[row][col] -= mat.m_data[row][col];
    return *this;
}

RTMatrix4x4& RTMatrix4x4::operator*=(const RTFLOAT val) {
    for (int row = 0; row < 4; row++)
        for (int col = 0; col < 4; col++)
            m_data[row][col] *= val;
    return *this;
}

const RTMatrix4x4 RTMatrix4x4::operator+(const RTMatrix4x4& mat) const {
    RTMatrix4x4 result = *this;
    result += mat;
    return result;
}

const RTMatrix4x4 RTMatrix4x4::operator*(const RTFLOAT val) const {
    RTMatrix4x4 result = *this;
    result *= val;
    return result;
}

const RTMatrix4x4 RTMatrix4x4::operator*(const RTMatrix4x4& mat) const {
    RTMatrix4x4 result;
    for (int row = 0; row < 4; row++)
        for (int col = 0; col < 4; col++) {
            RTFLOAT sum = 0;
            for (int k = 0; k < 4; k++)
                sum += m_data[row][k] * mat.m_data[k][col];
            result.m_data[row][col] = sum;
        }
    return result;
}

const RTQuaternion RTMatrix4x4::operator*(const RTQuaternion& q) const {
    RTQuaternion result;
    for (int row = 0; row < 4; row++) {
        RTFLOAT sum = 0;
        for (int k = 0; k < 4; k++)
            sum += m_data[row][k] * q.data(k);
        result.setData(row, sum);
    }
    return result;
}

void RTMatrix4x4::setToIdentity() {
    for (int row = 0; row < 4; row++)
        for (int col = 0; col < 4; col++)
            m_data[row][col] = row == col ? 1.0f : 0.0f;
}

RTMatrix4x4 RTMatrix4x4::transposed() const {
    RTMatrix4x4 result;
    for (int row = 0; row < 4; row++)
        for (int col = 0; col < 4; col++)
            result.m_data[col][row] = m_data[row][col];
    return result;
}

RTFLOAT RTMatrix4x4::matMinor(const int row, const int col) const {
    // The 3x3 determinant of the matrix without `row` and `col`.
    int rows[3], cols[3];
    for (int i = 0, r = 0, c = 0; i < 4; i++) {
        if (i != row)
            rows[r++] = i;
        if (i != col)
            cols[c++] = i;
    }
    auto m = [&](int r, int c) { return m_data[rows[r]][cols[c]]; };
    return m(0, 0) * (m(1, 1) * m(2, 2) - m(1, 2) * m(2, 1)) -
           m(0, 1) * (m(1, 0) * m(2, 2) - m(1, 2) * m(2, 0)) +
           m(0, 2) * (m(1, 0) * m(2, 1) - m(1, 1) * m(2, 0));
}

RTFLOAT RTMatrix4x4::matDet() const {
    RTFLOAT det = 0;
    for (int col = 0; col < 4; col++) {
        const RTFLOAT term = m_data[0][col] * matMinor(0, col);
        det += (col % 2 == 0) ? term : -term;
    }
    return det;
}

RTMatrix4x4 RTMatrix4x4::inverted() const {
    RTMatrix4x4 result;
    const RTFLOAT det = matDet();
    if (det == 0) {
        result.setToIdentity();
        return result;
    }
    for (int row = 0; row < 4; row++)
        for (int col = 0; col < 4; col++) {
            // Adjugate: the cofactor of (col, row).
            const RTFLOAT minor = matMinor(col, row);
            result.m_data[row][col] = ((row + col) % 2 == 0 ? minor : -minor) / det;
        }
    return result;
}
