#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "bh_input/mcu/IMU/RTMath.h"

namespace {
const float kPi = 3.14159265358979f;
}

TEST(RTVector3, DefaultIsZeroAndOperatorsWork) {
    RTVector3 v;
    EXPECT_EQ(v.x(), 0.f);
    EXPECT_EQ(v.y(), 0.f);
    EXPECT_EQ(v.z(), 0.f);
    RTVector3 a(1, 2, 3), b(4, 5, 6);
    a += b;
    EXPECT_EQ(a.x(), 5.f);
    EXPECT_EQ(a.z(), 9.f);
    a -= b;
    EXPECT_EQ(a.y(), 2.f);
    EXPECT_EQ(RTVector3::dotProduct(RTVector3(1, 2, 3), b), 32.f);
    RTVector3 c;
    RTVector3::crossProduct(RTVector3(1, 0, 0), RTVector3(0, 1, 0), c);
    EXPECT_EQ(c.x(), 0.f);
    EXPECT_EQ(c.y(), 0.f);
    EXPECT_EQ(c.z(), 1.f);
    EXPECT_FLOAT_EQ(RTVector3(3, 4, 0).length(), 5.f);
    RTVector3 n(0, 3, 4);
    n.normalize();
    EXPECT_FLOAT_EQ(n.y(), 0.6f);
    EXPECT_FLOAT_EQ(n.z(), 0.8f);
}

TEST(RTVector3, ZeroVectorNormalizeAndAccelToEuler) {
    RTVector3 zero;
    zero.normalize();
    EXPECT_EQ(zero.x(), 0.f);
    EXPECT_EQ(zero.y(), 0.f);
    EXPECT_EQ(zero.z(), 0.f);

    RTVector3 euler;
    zero.accelToEuler(euler, 0.25f);
    EXPECT_EQ(euler.x(), std::atan2(0.f, 0.f));
    EXPECT_EQ(euler.x(), 0.f);
    EXPECT_EQ(euler.y(), 0.f);  // -atan2(0, 0) is -0, equal to 0
    EXPECT_EQ(euler.z(), 0.25f);
}

TEST(RTVector3, AccelToEulerAxes) {
    RTVector3 e;
    RTVector3(0, 0, 9.81f).accelToEuler(e, 0);
    EXPECT_FLOAT_EQ(e.x(), 0.f);
    EXPECT_FLOAT_EQ(e.y(), 0.f);
    RTVector3(0, 1, 0).accelToEuler(e, 0);
    EXPECT_FLOAT_EQ(e.x(), kPi / 2);  // atan2(1, +0)
    EXPECT_FLOAT_EQ(e.y(), 0.f);
    RTVector3(1, 0, 0).accelToEuler(e, 0);
    EXPECT_FLOAT_EQ(e.x(), 0.f);
    EXPECT_FLOAT_EQ(e.y(), -kPi / 2);
    // A negative z flips the sign of the denominator: roll of pi upside down.
    RTVector3(0, 0, -2).accelToEuler(e, 1.f);
    EXPECT_FLOAT_EQ(e.x(), kPi);
    EXPECT_FLOAT_EQ(e.y(), 0.f);
    EXPECT_EQ(e.z(), 1.f);
}

TEST(RTVector3, AccelToQuaternionPrintsAndTilts) {
    RTQuaternion q;
    testing::internal::CaptureStdout();
    RTVector3(2, 0, 0).accelToQuaternion(q, true);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind(" QPose : ", 0), 0u) << out;
    // Angle acos(0) = pi/2 about the axis (0, -1, 0).
    EXPECT_NEAR(q.scalar(), std::cos(kPi / 4), 1e-6);
    EXPECT_NEAR(q.x(), 0.f, 1e-7);
    EXPECT_NEAR(q.y(), -std::sin(kPi / 4), 1e-6);
    EXPECT_NEAR(q.z(), 0.f, 1e-7);

    testing::internal::CaptureStdout();
    RTVector3(0, 0, 5).accelToQuaternion(q, false);
    testing::internal::GetCapturedStdout();
    EXPECT_FLOAT_EQ(q.scalar(), 1.f);  // null axis left as it is
    EXPECT_EQ(q.x(), 0.f);
    EXPECT_EQ(q.y(), 0.f);
    EXPECT_EQ(q.z(), 0.f);
}

TEST(RTQuaternion, DefaultIsAllZeroAndHamiltonProduct) {
    RTQuaternion q;
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(q.data(i), 0.f);
    const RTQuaternion i(0, 1, 0, 0), j(0, 0, 1, 0);
    const RTQuaternion k = i * j;
    EXPECT_EQ(k.scalar(), 0.f);
    EXPECT_EQ(k.x(), 0.f);
    EXPECT_EQ(k.y(), 0.f);
    EXPECT_EQ(k.z(), 1.f);
    const RTQuaternion mk = j * i;
    EXPECT_EQ(mk.z(), -1.f);
    RTQuaternion s(1, 2, 3, 4);
    s *= 2.f;
    EXPECT_EQ(s.z(), 8.f);
    s -= 1.f;
    EXPECT_EQ(s.scalar(), 1.f);
    EXPECT_EQ(s.x(), 3.f);
    const RTQuaternion d = s - RTQuaternion(1, 1, 1, 1);
    EXPECT_EQ(d.scalar(), 0.f);
    EXPECT_EQ(d.z(), 6.f);
    const RTQuaternion c = RTQuaternion(1, 2, 3, 4).conjugate();
    EXPECT_EQ(c.scalar(), 1.f);
    EXPECT_EQ(c.x(), -2.f);
    EXPECT_EQ(c.y(), -3.f);
    EXPECT_EQ(c.z(), -4.f);
}

TEST(RTQuaternion, NormalizeLeavesZeroAndUnitAlone) {
    RTQuaternion z;
    z.normalize();
    EXPECT_EQ(z.scalar(), 0.f);
    RTQuaternion u(2, 0, 0, 0);
    u.normalize();
    EXPECT_EQ(u.scalar(), 1.f);
    RTQuaternion g(1, 1, 1, 1);
    g.normalize();
    EXPECT_FLOAT_EQ(g.x(), 0.5f);
}

TEST(RTQuaternion, ToAngleVectorScalarOne) {
    RTFLOAT angle = -1;
    RTVector3 axis(5, 5, 5);
    RTQuaternion(1, 0, 0, 0).toAngleVector(angle, axis);
    EXPECT_EQ(angle, 0.f);
    EXPECT_EQ(axis.x(), 1.f);
    EXPECT_EQ(axis.y(), 0.f);
    EXPECT_EQ(axis.z(), 0.f);
}

TEST(RTQuaternion, ToAngleVectorUsesOnlyX) {
    RTFLOAT angle = 0;
    RTVector3 axis(5, 5, 5);
    RTQuaternion(0, 0, 1, 0).toAngleVector(angle, axis);
    EXPECT_EQ(axis.x(), 0.f);
    EXPECT_EQ(axis.y(), 0.f);
    EXPECT_EQ(axis.z(), 0.f);
    EXPECT_FLOAT_EQ(angle, kPi);

    // Half a turn about x: every component is x / sin(pi / 2) = 1.
    RTQuaternion(0, 1, 0, 0).toAngleVector(angle, axis);
    EXPECT_FLOAT_EQ(axis.x(), 1.f);
    EXPECT_FLOAT_EQ(axis.y(), 1.f);
    EXPECT_FLOAT_EQ(axis.z(), 1.f);
}

TEST(RTQuaternion, FromAngleVector) {
    RTQuaternion q;
    q.fromAngleVector(kPi / 2, RTVector3(0, 0, 1));
    EXPECT_FLOAT_EQ(q.scalar(), std::cos(kPi / 4));
    EXPECT_FLOAT_EQ(q.z(), std::sin(kPi / 4));
    EXPECT_EQ(q.x(), 0.f);
}

TEST(RTQuaternion, AsinClampedForUnnormalisedQuaternion) {
    RTVector3 e;
    RTQuaternion(2, 0, 2, 0).toEuler(e);  // 2 (q2 q0 - q3 q1) = 8
    EXPECT_FALSE(std::isnan(e.y()));
    EXPECT_FLOAT_EQ(e.y(), kPi / 2);
    RTQuaternion(2, 0, -2, 0).toEuler(e);
    EXPECT_FALSE(std::isnan(e.y()));
    EXPECT_FLOAT_EQ(e.y(), -kPi / 2);
}

TEST(RTQuaternion, EulerRoundTrip) {
    RTQuaternion q;
    q.fromEuler(RTVector3(0, 0, 0));
    EXPECT_EQ(q.scalar(), 1.f);
    EXPECT_EQ(q.x(), 0.f);

    q.fromEuler(RTVector3(0.1f, -0.2f, 0.3f));
    RTVector3 e;
    q.toEuler(e);
    EXPECT_NEAR(e.x(), 0.1f, 1e-5);
    EXPECT_NEAR(e.y(), -0.2f, 1e-5);
    EXPECT_NEAR(e.z(), 0.3f, 1e-5);

    // Pure yaw: scalar cos(z / 2), z sin(z / 2).
    q.fromEuler(RTVector3(0, 0, kPi / 2));
    EXPECT_NEAR(q.scalar(), std::cos(kPi / 4), 1e-6);
    EXPECT_NEAR(q.z(), std::sin(kPi / 4), 1e-6);
}

TEST(RTMatrix4x4, IdentityTransposeDeterminant) {
    RTMatrix4x4 m;
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++)
            EXPECT_EQ(m.val(r, c), 0.f);
    m.setToIdentity();
    EXPECT_EQ(m.matDet(), 1.f);
    RTMatrix4x4 d;
    d.setVal(0, 0, 2);
    d.setVal(1, 1, 4);
    d.setVal(2, 2, 5);
    d.setVal(3, 3, 10);
    d.setVal(0, 3, 7);
    EXPECT_FLOAT_EQ(d.matDet(), 400.f);
    EXPECT_EQ(d.transposed().val(3, 0), 7.f);
    EXPECT_EQ(d.transposed().val(0, 3), 0.f);
    // Minor of (0, 0): det(diag(4, 5, 10)) = 200.
    EXPECT_FLOAT_EQ(d.matMinor(0, 0), 200.f);

    RTMatrix4x4 f;
    f.fill(3);
    EXPECT_EQ(f.val(2, 1), 3.f);
    f *= 2;
    EXPECT_EQ(f.val(3, 3), 6.f);
    const RTMatrix4x4 s = f + m;
    EXPECT_EQ(s.val(1, 1), 7.f);
    EXPECT_EQ(s.val(1, 2), 6.f);
    const RTMatrix4x4 p = d * m;
    EXPECT_EQ(p.val(0, 3), 7.f);
    const RTQuaternion v = d * RTQuaternion(1, 1, 1, 1);
    EXPECT_EQ(v.scalar(), 9.f);
    EXPECT_EQ(v.z(), 10.f);
}

TEST(RTMatrix4x4, InvertedOfSingularIsIdentity) {
    RTMatrix4x4 singular;
    singular.fill(1);  // rank 1
    const RTMatrix4x4 inv = singular.inverted();
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++)
            EXPECT_EQ(inv.val(r, c), r == c ? 1.f : 0.f);
    const RTMatrix4x4 zeroInv = RTMatrix4x4().inverted();
    EXPECT_EQ(zeroInv.val(2, 2), 1.f);
}

TEST(RTMatrix4x4, InvertedGeneralMatrix) {
    RTMatrix4x4 m;
    const float values[4][4] = {{4, 7, 2, 3}, {0, 5, 1, 2}, {1, 0, 6, 1}, {2, 3, 0, 8}};
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++)
            m.setVal(r, c, values[r][c]);
    const RTMatrix4x4 product = m * m.inverted();
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++)
            EXPECT_NEAR(product.val(r, c), r == c ? 1.f : 0.f, 1e-5) << r << "," << c;
    // Non-symmetric: the adjugate's transpose matters.
    RTMatrix4x4 d;
    d.setToIdentity();
    d.setVal(0, 1, 2);
    const RTMatrix4x4 di = d.inverted();
    EXPECT_EQ(di.val(0, 1), -2.f);
    EXPECT_EQ(di.val(1, 0), 0.f);
}

TEST(RTMath, DisplayFormats) {
    EXPECT_STREQ(RTMath::displayRadians("acc", RTVector3(1, 2, 3)),
                 "acc: x:1.000000, y:2.000000, z:3.000000\n");
    EXPECT_STREQ(RTMath::displayDegrees("pose", RTVector3(1, 0, -1)),
                 "pose: roll:57.295780, pitch:0.000000, yaw:-57.295780");
    EXPECT_STREQ(RTMath::display("q", RTQuaternion(1, 0, 0.5f, 0)),
                 "q: scalar: 1.000000, x:0.000000, y:0.500000, z:0.000000\n");
    RTMatrix4x4 m;
    m.setToIdentity();
    EXPECT_STREQ(RTMath::display("m", m),
                 "m(0): 1.000000 0.000000 0.000000 0.000000\n"
                 "m(1): 0.000000 1.000000 0.000000 0.000000\n"
                 "m(2): 0.000000 0.000000 1.000000 0.000000\n"
                 "m(3): 0.000000 0.000000 0.000000 1.000000\n");
    // One shared buffer: the last call wins.
    const char* first = RTMath::displayRadians("a", RTVector3());
    const char* second = RTMath::displayRadians("b", RTVector3());
    EXPECT_EQ(first, second);
    EXPECT_EQ(std::string(first).substr(0, 2), "b:");
}

TEST(RTMath, PressureToHeight) {
    EXPECT_FLOAT_EQ(RTMath::convertPressureToHeight(1013.25f, 1013.25f), 0.f);
    // (1 - 0.5^0.190263) x 44330.8 = 5477.2506
    EXPECT_NEAR(RTMath::convertPressureToHeight(500.f, 1000.f), 5477.2506f, 0.01f);
    EXPECT_NEAR(RTMath::convertPressureToHeight(506.625f), 5477.2506f, 0.01f);
}

TEST(RTMath, ConvertToVectorBothEndians) {
    const unsigned char raw[6] = {0x01, 0x02, 0xFF, 0xFF, 0x00, 0x80};
    RTVector3 v;
    RTMath::convertToVector(raw, v, 0.5f, false);  // 0x0201, -1, 0x8000
    EXPECT_EQ(v.x(), 256.5f);
    EXPECT_EQ(v.y(), -0.5f);
    EXPECT_EQ(v.z(), -16384.f);
    RTMath::convertToVector(raw, v, 0.5f, true);  // 0x0102, -1, 0x0080
    EXPECT_EQ(v.x(), 129.f);
    EXPECT_EQ(v.y(), -0.5f);
    EXPECT_EQ(v.z(), 64.f);
}

TEST(RTMath, PoseFromAccelMag) {
    // Level: roll and pitch 0, heading from the horizontal field.
    RTVector3 pose = RTMath::poseFromAccelMag(RTVector3(0, 0, 1), RTVector3(0.3f, 0, -0.4f));
    EXPECT_FLOAT_EQ(pose.x(), 0.f);
    EXPECT_FLOAT_EQ(pose.y(), 0.f);
    EXPECT_NEAR(pose.z(), 0.f, 1e-7);
    pose = RTMath::poseFromAccelMag(RTVector3(0, 0, 1), RTVector3(0, 0.3f, -0.4f));
    EXPECT_FLOAT_EQ(pose.z(), -kPi / 2);
    pose = RTMath::poseFromAccelMag(RTVector3(0, 0, 1), RTVector3(-0.3f, 0.3f, 0));
    EXPECT_FLOAT_EQ(pose.z(), -3 * kPi / 4);
}

TEST(RTMath, ConvertToVectorTable) {
    struct Row {
        unsigned char bytes[2];
        bool bigEndian;
        float expected;  // scale 1
    };
    const Row rows[] = {
        {{0x00, 0x00}, false, 0.f},    {{0x00, 0x00}, true, 0.f},       {{0xFF, 0x7F}, false, 32767.f},
        {{0x7F, 0xFF}, true, 32767.f}, {{0x00, 0x80}, false, -32768.f}, {{0x80, 0x00}, true, -32768.f},
        {{0x01, 0x00}, false, 1.f},    {{0x01, 0x00}, true, 256.f},     {{0xFE, 0xFF}, false, -2.f},
        {{0xFF, 0xFE}, true, -2.f},
    };
    for (const Row& row : rows) {
        // The same two bytes on each of the three axes.
        const unsigned char raw[6] = {row.bytes[0], row.bytes[1], row.bytes[0],
                                      row.bytes[1], row.bytes[0], row.bytes[1]};
        RTVector3 v(9, 9, 9);
        RTMath::convertToVector(raw, v, 1.f, row.bigEndian);
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(v.data(i), row.expected)
                << std::hex << int(row.bytes[0]) << " " << int(row.bytes[1]) << " big " << row.bigEndian;
    }
}
