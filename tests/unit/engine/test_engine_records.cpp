// Records of the sensor engine: the bounded queue, the calibration structure,
// the SO(3) exponential, the model table and the packet conversion.
#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include <Eigen/Geometry>

#include "bh_input/mcu/IMUCalibParam.h"
#include "bh_input/mcu/IMUPacket.h"
#include "bh_input/mcu/KOVmcu.h"
#include "bh_input/mcu/KOVmcuModels.h"
#include "bh_input/mcu/synchronizedQVector.h"

namespace {

bh::IMUPacket packetAt(uint64_t ts) {
    bh::IMUPacket p;
    p.valid = true;
    p.timestamp = ts;
    return p;
}

}  // namespace

// ---------------------------------------------------------------- queue

TEST(SynchronizedQVector, PushRefusesAtTheLimitAndPushPopDropsTheOldest) {
    synchronizedQVector<int> q(3);
    EXPECT_TRUE(q.push(1));
    EXPECT_TRUE(q.push(2));
    EXPECT_TRUE(q.push(3));
    EXPECT_FALSE(q.push(4));
    EXPECT_EQ(q.size(), 3u);
    q.pushPop(4);
    EXPECT_EQ(q.size(), 3u);
    EXPECT_EQ(q.atBegin(0), 2);
    EXPECT_EQ(q.atEnd(0), 4);
    EXPECT_EQ(q.atEnd(2), 2);
    EXPECT_EQ(q.indexAtEnd(0), 3u);  // running index keeps counting
}

TEST(SynchronizedQVector, BoundedPushStaysAtOneThousand) {
    synchronizedQVector<bh::IMUPacket> q;
    EXPECT_EQ(q.limit(), 1000u);
    for (uint64_t i = 0; i < 2500; ++i) {
        q.pushBounded(packetAt(i));
        ASSERT_LE(q.size(), 1000u);
    }
    EXPECT_EQ(q.size(), 1000u);
    EXPECT_EQ(q.atBegin(0).timestamp, 1500u);
    EXPECT_EQ(q.atEnd(0).timestamp, 2499u);
}

TEST(SynchronizedQVector, OutOfRangeAccessThrowsAndClearEmpties) {
    synchronizedQVector<int> q(5);
    EXPECT_THROW(q.atEnd(0), std::out_of_range);
    EXPECT_THROW(q.atBegin(0), std::out_of_range);
    q.push(7);
    EXPECT_THROW(q.atEnd(1), std::out_of_range);
    q.clear();
    EXPECT_TRUE(q.empty());
}

TEST(SynchronizedQVector, ConcurrentWriterAndReaderKeepTheBound) {
    synchronizedQVector<int> q(100);
    std::thread writer([&q] {
        for (int i = 0; i < 20000; ++i) {
            q.pushBounded(i);
        }
    });
    size_t max_seen = 0;
    for (int i = 0; i < 20000; ++i) {
        max_seen = std::max(max_seen, q.size());
        if (!q.empty()) {
            (void)q.atBegin(0);
        }
    }
    writer.join();
    EXPECT_LE(max_seen, 100u);
    EXPECT_EQ(q.atEnd(0), 19999);
    EXPECT_TRUE(q.waitForSize(100, std::chrono::milliseconds(1)));
    EXPECT_FALSE(q.waitForSize(101, std::chrono::milliseconds(1)));
}

// ---------------------------------------------------------------- calibration structure

TEST(IMUCalibParam, StartsAsIdentityAndZeroAndIsUnset) {
    bh::IMUCalibParam c;
    EXPECT_TRUE(c.acc_missalign.isIdentity());
    EXPECT_TRUE(c.gyro_scale.isIdentity());
    EXPECT_TRUE(c.acc_bias.isZero());
    EXPECT_TRUE(c.isUnset());
    c.gyro_var.x() = 1e-6f;
    EXPECT_FALSE(c.isUnset());
    c.reset();
    EXPECT_TRUE(c.isUnset());
}

TEST(IMUCalibParam, SetupMultipliesMisalignmentByScale) {
    bh::IMUCalibParam c;
    c.acc_missalign(1, 0) = 0.01f;
    c.acc_scale = Eigen::Vector3f(1.1f, 0.9f, 1.0f).asDiagonal();
    c.gyro_missalign(0, 2) = -0.02f;
    c.gyro_scale = Eigen::Vector3f(2.f, 3.f, 4.f).asDiagonal();
    c.setup();
    EXPECT_TRUE(c.acc_full.isApprox(c.acc_missalign * c.acc_scale));
    EXPECT_FLOAT_EQ(c.acc_full(1, 0), 0.011f);
    EXPECT_FLOAT_EQ(c.gyro_full(0, 2), -0.08f);
}

TEST(IMUCalibParam, VerbosePrintCarriesTheLabels) {
    bh::IMUCalibParam c;
    const std::string text = c.toString();
    for (const char* label : {"IMU calibration\n", "Accel\n", "Gyro\n", "MissAlign\n", "Scale\n", "Bias\n",
                              "Var\n", "T-Scale\n", "R\n", "T\n"}) {
        EXPECT_NE(text.find(label), std::string::npos) << label;
    }
}

// ---------------------------------------------------------------- SO(3)

TEST(So3Exp, MatchesTheAngleAxisRotation) {
    const Eigen::Vector3f omega(0.3f, -0.2f, 0.9f);
    Eigen::Matrix3f r;
    ASSERT_TRUE(bh::so3Exp(omega, r));
    const Eigen::Matrix3f expected = Eigen::AngleAxisf(omega.norm(), omega.normalized()).toRotationMatrix();
    EXPECT_TRUE(r.isApprox(expected, 1e-5f));
}

TEST(So3Exp, SmallAnglesUseTheSeries) {
    const Eigen::Vector3f omega(1e-6f, -2e-6f, 3e-6f);
    const Eigen::Vector4f q = bh::so3ExpQuaternion(omega);
    const double t = omega.squaredNorm();
    EXPECT_FLOAT_EQ(q(0), static_cast<float>(1.0 - t / 8.0 + t * t / 384.0));
    EXPECT_FLOAT_EQ(q(1), static_cast<float>((0.5 - t / 48.0 + t * t / 3840.0) * 1e-6));
    Eigen::Matrix3f r;
    ASSERT_TRUE(bh::so3Exp(omega, r));
    EXPECT_TRUE(r.isApprox(Eigen::Matrix3f::Identity(), 1e-5f));
    ASSERT_TRUE(bh::so3Exp(Eigen::Vector3f::Zero(), r));
    EXPECT_TRUE(r.isIdentity());
}

TEST(So3Exp, NonFiniteVectorFailsWithTheText) {
    Eigen::Matrix3f r;
    std::string error;
    EXPECT_FALSE(bh::so3Exp(Eigen::Vector3f(NAN, 0.f, 0.f), r, &error));
    EXPECT_EQ(error, "Quaternion is (near) zero!");
    EXPECT_TRUE(r.isIdentity());
}

TEST(So3Exp, CameraTransformCarriesMetres) {
    const Eigen::Matrix4f t = bh::cameraIMUTransform(Eigen::Vector3f(0.f, 0.f, 1.5707963f),
                                                     Eigen::Vector3f(23.061f, -0.217f, -2.0f));
    EXPECT_NEAR(t(0, 3), 0.023061f, 1e-7f);
    EXPECT_NEAR(t(1, 3), -0.000217f, 1e-7f);
    EXPECT_NEAR(t(2, 3), -0.002f, 1e-7f);
    EXPECT_NEAR(t(0, 1), -1.f, 1e-6f);
    EXPECT_NEAR(t(1, 0), 1.f, 1e-6f);
    EXPECT_FLOAT_EQ(t(3, 3), 1.f);
}

TEST(So3Exp, RotationVectorLimit) {
    EXPECT_TRUE(bh::rotationVectorUsable(Eigen::Vector3f(3140.f, 0.f, 0.f)));
    EXPECT_FALSE(bh::rotationVectorUsable(Eigen::Vector3f(3141.f, 0.f, 0.f)));
    EXPECT_FALSE(bh::rotationVectorUsable(Eigen::Vector3f(INFINITY, 0.f, 0.f)));
}

// ---------------------------------------------------------------- model table

TEST(ModelTable, ProductIdsByModelMinusOne) {
    EXPECT_EQ(bh::mcuProductId(bh::KOV), 0);
    EXPECT_EQ(bh::mcuProductId(bh::KOV_P), 0xF681);
    EXPECT_EQ(bh::mcuProductId(bh::KOVT), 0xF781);
    EXPECT_EQ(bh::mcuProductId(bh::KOVTr), 0xF881);
    EXPECT_EQ(bh::mcuProductId(bh::KOV_Q), 0xA081);
    EXPECT_EQ(bh::mcuProductId(bh::KOV_QP), 0xA081);
    EXPECT_EQ(bh::mcuProductId(bh::KOV_QS_A), 0xA081);
    EXPECT_EQ(bh::mcuProductId(bh::KOV_QS_B), 0xA081);
    EXPECT_EQ(bh::mcuProductId(bh::KOV_MODEL_UNKNOWN), 0);
    // Values the enumeration does not name (a model byte read from a device).
    for (int value : {6, 29, -3, 1000}) {
        EXPECT_EQ(bh::mcuProductId(static_cast<bh::MODEL>(value)), 0) << value;
    }
}

TEST(ModelTable, EnumerationValuesMatchTheTableIndex) {
    // The product id table is indexed by the numeric model value.
    EXPECT_EQ(bh::KOV_P, 1);
    EXPECT_EQ(bh::KOVTr, 3);
    EXPECT_EQ(bh::KOV_QP, 5);
    EXPECT_EQ(bh::KOV_QS_A, 30);
    EXPECT_EQ(bh::KOV_QS_B, 31);
    EXPECT_EQ(bh::BH_DEVICE_KOV_P_MCU, 12);
    EXPECT_EQ(bh::BH_DEVICE_KOVTr_MCU, 14);
    EXPECT_EQ(bh::BH_DEVICE_GMSL_IMU, 16);
    EXPECT_EQ(bh::BH_DEVICE_NONE, 17);
}

TEST(ModelTable, ReaderScalesDevicesAndPositions) {
    const bh::MCUModelInfo pico = bh::mcuModelInfo(bh::KOV_P);
    EXPECT_EQ(pico.reader, bh::IMU_READER_KIND::HID);
    EXPECT_FLOAT_EQ(pico.accel_lsb, 1.f / 4096.f);
    EXPECT_FLOAT_EQ(pico.gyro_lsb, 1000.f / 32768.f);
    EXPECT_EQ(pico.device, bh::BH_DEVICE_KOV_P_MCU);
    EXPECT_TRUE(pico.default_imu_position.isApprox(Eigen::Vector3f(15.238f, 1.706f, -2.0f)));

    EXPECT_EQ(bh::mcuModelInfo(bh::KOVT).device, bh::BH_DEVICE_KOVT_MCU);
    EXPECT_EQ(bh::mcuModelInfo(bh::KOVTr).device, bh::BH_DEVICE_KOVTr_MCU);
    EXPECT_TRUE(
        bh::mcuModelInfo(bh::KOVTr).default_imu_position.isApprox(Eigen::Vector3f(23.061f, -0.217f, -2.0f)));

    for (bh::MODEL gmsl : {bh::KOV_Q, bh::KOV_QP, bh::KOV_QS_A, bh::KOV_QS_B}) {
        const bh::MCUModelInfo info = bh::mcuModelInfo(gmsl);
        EXPECT_EQ(info.reader, bh::IMU_READER_KIND::GMSL) << gmsl;
        EXPECT_FLOAT_EQ(info.accel_lsb, 0.0003662109375f);
        EXPECT_EQ(info.device, bh::BH_DEVICE_GMSL_IMU);
        EXPECT_EQ(info.product_id, 0xA081);
    }
    EXPECT_TRUE(
        bh::mcuModelInfo(bh::KOV_Q).default_imu_position.isApprox(Eigen::Vector3f(35.649f, 0.147f, 0.f)));
    EXPECT_TRUE(
        bh::mcuModelInfo(bh::KOV_QP).default_imu_position.isApprox(Eigen::Vector3f(34.502f, 4.356f, 0.f)));
    EXPECT_TRUE(bh::mcuModelInfo(bh::KOV_QS_A).default_imu_position.isZero());

    for (bh::MODEL none : {bh::KOV, bh::KOV_MODEL_UNKNOWN}) {
        const bh::MCUModelInfo other = bh::mcuModelInfo(none);
        EXPECT_EQ(other.reader, bh::IMU_READER_KIND::HID);
        EXPECT_EQ(other.device, bh::BH_DEVICE_NONE);
        EXPECT_EQ(other.product_id, 0);
    }
}

// ---------------------------------------------------------------- frames and conversions

TEST(EngineFrames, ReaderToImageRotationIsAProperRotation) {
    const Eigen::Matrix3f& r = bh::Reader2ImageRotation();
    EXPECT_FLOAT_EQ(r(0, 1), 1.f);
    EXPECT_FLOAT_EQ(r(1, 0), 1.f);
    EXPECT_FLOAT_EQ(r(2, 2), -1.f);
    EXPECT_FLOAT_EQ(r.determinant(), 1.f);
    EXPECT_TRUE((r * r.transpose()).isIdentity());
}

TEST(EngineFrames, ConvertFromRTIMUDataScalesAndReorders) {
    bh::KOVmcu engine(false, 11011, bh::KOVT, std::unique_ptr<VirtualIMUReader>());
    RTIMU_DATA d;
    d.timestamp = 1234;
    d.env_timestamp = 5;
    d.mag_timestamp = 6;
    d.host_timestamp = 777;
    d.gyro[0] = 1.f;  // engine x
    d.gyro[1] = 2.f;
    d.gyro[2] = 3.f;
    d.accel[0] = 0.1f;
    d.accel[1] = 0.2f;
    d.accel[2] = 0.3f;
    d.gyro_variance[0] = 1.f;
    d.gyro_variance[1] = 2.f;
    d.gyro_variance[2] = 3.f;
    d.accel_variance[0] = 1.f;
    d.mag_raw[0] = 10.f;
    d.mag_raw[1] = 20.f;
    d.mag_raw[2] = 30.f;
    d.sync_event = 2;
    const bh::IMUPacket p = engine.convertFromRTIMUData(d);
    EXPECT_EQ(p.timestamp, 1234000u);
    EXPECT_EQ(p.env_timestamp, 5000u);
    EXPECT_EQ(p.mag_timestamp, 6000u);
    EXPECT_EQ(p.host_timestamp, 777u);
    EXPECT_EQ(p.sync_event, 2);
    // (y, -z, -x)
    EXPECT_FLOAT_EQ(p.gyro[0], 2.f * 57.29578f);
    EXPECT_FLOAT_EQ(p.gyro[1], -3.f * 57.29578f);
    EXPECT_FLOAT_EQ(p.gyro[2], -1.f * 57.29578f);
    EXPECT_FLOAT_EQ(p.acc[0], 0.2f * 9.80665f);
    EXPECT_FLOAT_EQ(p.acc[1], -0.3f * 9.80665f);
    EXPECT_FLOAT_EQ(p.acc[2], -0.1f * 9.80665f);
    EXPECT_FLOAT_EQ(p.gyro_variance[0], 2.f * 3282.8064f);
    EXPECT_FLOAT_EQ(p.gyro_variance[2], 1.f * 3282.8064f);
    EXPECT_FLOAT_EQ(p.acc_variance[2], 96.17039f);
    // magnetometer raw as (y, x, -z)
    EXPECT_FLOAT_EQ(p.mag_raw[0], 20.f);
    EXPECT_FLOAT_EQ(p.mag_raw[1], 10.f);
    EXPECT_FLOAT_EQ(p.mag_raw[2], -30.f);
    EXPECT_EQ(p.filter_confidence_valid, 1);
}

TEST(EngineFrames, ReaderAxesEndInTheImageAxes) {
    // reader (x, y, z) -> engine (z, y, -x) -> packet (y, -z, -x) == Reader2ImageRotation x reader
    bh::KOVmcu engine(false, 11011, bh::KOVT, std::unique_ptr<VirtualIMUReader>());
    const Eigen::Vector3f reader(0.1f, 0.2f, 0.3f);
    RTIMU_DATA d;
    d.accel[0] = reader.z();
    d.accel[1] = reader.y();
    d.accel[2] = -reader.x();
    const bh::IMUPacket p = engine.convertFromRTIMUData(d);
    const Eigen::Vector3f expected = bh::Reader2ImageRotation() * reader * 9.80665f;
    EXPECT_TRUE(Eigen::Vector3f(p.acc[0], p.acc[1], p.acc[2]).isApprox(expected));
}

TEST(EngineMath, PressureToAltitude) {
    EXPECT_FLOAT_EQ(bh::KOVmcu::convertPressureToAltitude(1013.25f, 1013.25f, 15.f), 0.f);
    const float h = bh::KOVmcu::convertPressureToAltitude(1000.f, 1013.25f, 15.f);
    const float expected = (std::pow(1013.25f / 1000.f, 0.19022256f) - 1.f) * 288.15f / 0.0065f;
    EXPECT_FLOAT_EQ(h, expected);
    EXPECT_NEAR(h, 110.9f, 0.5f);
}

TEST(EngineMath, MagHeadingStatusAndQuality) {
    bh::IMUPacket p;
    p.mag_valid = 1;
    p.mag_raw[0] = p.mag[0] = 0.3f;
    p.mag_raw[1] = p.mag[1] = 0.1f;
    p.mag_raw[2] = p.mag[2] = 0.2f;
    bh::KOVmcu::calcMagHeading(p);
    EXPECT_EQ(p.mag_status, 3);  // no calibration applied

    p.mag_raw[0] = 40.f;
    p.mag[0] = 1.f;
    p.mag[1] = 0.f;
    p.mag[2] = 0.f;
    p.acc[2] = 9.80665f;
    bh::KOVmcu::calcMagHeading(p);
    EXPECT_EQ(p.mag_status, 0);
    EXPECT_FLOAT_EQ(p.mag_effective_rate, 1.f);
    EXPECT_NEAR(p.mag_heading, 0.f, 1e-6f);

    p.mag[0] = 0.f;
    p.mag[1] = 0.6f;  // quality 0.6: fair
    bh::KOVmcu::calcMagHeading(p);
    EXPECT_EQ(p.mag_status, 1);
    EXPECT_NEAR(p.mag_effective_rate, 0.6f, 1e-6f);
    EXPECT_GE(p.mag_heading, 0.f);
    EXPECT_LT(p.mag_heading, 6.2832f);
    EXPECT_NEAR(p.mag_heading, 3.f * 3.14159265f / 2.f, 1e-5f);  // negative angle + 2 pi

    p.mag[1] = 0.3f;  // quality 0.3: poor
    bh::KOVmcu::calcMagHeading(p);
    EXPECT_EQ(p.mag_status, 2);

    p.mag[1] = 2.5f;  // quality below 0
    bh::KOVmcu::calcMagHeading(p);
    EXPECT_EQ(p.mag_status, 2);
    EXPECT_FLOAT_EQ(p.mag_effective_rate, 0.f);

    bh::IMUPacket none;
    none.mag_valid = 0;
    bh::KOVmcu::calcMagHeading(none);
    EXPECT_EQ(none.mag_status, 3);
    EXPECT_FLOAT_EQ(none.mag_heading, 0.f);
}

TEST(EngineMath, DeadBandsAndRanges) {
    Eigen::Vector3f v(0.1f, -0.5f, 0.29f);
    bh::KOVmcu::seuilVelocity(v, 0.3f);
    EXPECT_TRUE(v.isApprox(Eigen::Vector3f(0.f, -0.5f, 0.f)));
    Eigen::Vector3f c(3.f, -3.f, 0.5f);
    bh::KOVmcu::clampVelocity(c, 1.f);
    EXPECT_TRUE(c.isApprox(Eigen::Vector3f(1.f, -1.f, 0.5f)));
    EXPECT_FLOAT_EQ(bh::KOVmcu::keepInsideRange(5.f, 0.f, 2.f), 2.f);
    EXPECT_FLOAT_EQ(bh::KOVmcu::keepInsideRange(-5.f, 0.f, 2.f), 0.f);
}

TEST(EngineMath, ToQuaternionFromEulerAngles) {
    const Eigen::Vector4f q = bh::KOVmcu::toQuaternion(0.0, 0.0, 1.5707963);
    EXPECT_NEAR(q(0), std::sqrt(0.5f), 1e-6f);
    EXPECT_NEAR(q(3), std::sqrt(0.5f), 1e-6f);
    EXPECT_NEAR(q(1), 0.f, 1e-6f);
}
