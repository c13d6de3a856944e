// The fusion thread and the packet getters, on an in-memory MCU: order of the
// packets, the sync queue, a still sensor that stays level, a rotation that
// shows up, the bounded queues, the altitude reference, the getters.
#include <gtest/gtest.h>

#include <cmath>

#include <Eigen/Geometry>

#include "tests/unit/engine/EngineTestSupport.h"

namespace {

// Packet vectors are in the camera's axes (y, -z, -x of the engine frame).
Eigen::Vector3f engineFromPacket(const float v[3]) {
    return Eigen::Vector3f(-v[2], v[0], -v[1]);
}

Eigen::Quaternionf orientationOf(const bh::IMUPacket& p) {
    return Eigen::Quaternionf(p.orientation[3], p.orientation[0], p.orientation[1], p.orientation[2]);
}

// Degrees between the vertical that the orientation gives and the measured
// gravity (both in the engine frame).
float tiltError(const bh::IMUPacket& p) {
    const Eigen::Vector3f a = engineFromPacket(p.acc).normalized();
    const Eigen::Vector3f up = orientationOf(p).normalized() * a;
    return std::acos(std::min(1.f, std::max(-1.f, up.dot(Eigen::Vector3f::UnitZ())))) * 57.29578f;
}

// Prepares the fusion state as a start of capture does, without the thread.
void startRounds(bh::KOVmcu& engine) {
    engine.updateCameraIMUcalibration();
    engine.beginFusion();
}

// Runs fusion rounds on the caller's thread until `count` packets exist.
void runRounds(bh::KOVmcu& engine, int count) {
    int guard = 0;
    while (static_cast<int>(engine.batch_queue.size()) < count && guard++ < count * 10) {
        engine.fusionRound();
    }
}

std::vector<bh::IMUPacket> allPackets(bh::KOVmcu& engine) {
    std::vector<bh::IMUPacket> out;
    for (size_t i = 0; i < engine.imu_queue.size(); ++i) {
        out.push_back(engine.imu_queue.atBegin(i));
    }
    return out;
}

}  // namespace

TEST(EnginePipeline, TeraAt400HzStreamsLevelOrderedAndSynchronised) {
    EngineOnMemory e(bh::KOVT, 0x305);
    MemoryIMUReader& r = *e.reader;
    r.sync_every = 13;  // frame triggers at about 30 Hz
    r.mag_every = 8;
    r.env_every = 16;
    r.pace_us = 50;
    // 2.5 s of samples at 400 Hz still, then 0.5 s turning at 60 deg/s about the reader's x
    const int64_t still = 1000;
    const int64_t turning = 200;
    const int16_t rate_counts = static_cast<int16_t>(60.0 / (1000.0 / 32768.0));
    r.motion = [=](uint64_t i) {
        MemoryIMUReader::Motion m;
        if (static_cast<int64_t>(i) >= still && static_cast<int64_t>(i) < still + turning) {
            m.gyro[0] = rate_counts;
        }
        return m;
    };
    r.max_samples = still + turning + 100;
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    ASSERT_EQ(e.engine->rate_hz, 400);

    ASSERT_TRUE(e.engine->startCapture(0.f));
    size_t max_size = 0;
    uint64_t last_ts = 0;
    bool ordered = true;
    for (int i = 0; i < 20000 && r.produced < static_cast<uint64_t>(r.max_samples); ++i) {
        max_size = std::max({max_size, e.engine->imu_queue.size(), e.engine->sync_queue.size(),
                             e.engine->batch_queue.size()});
        const bh::IMUPose pose = e.engine->getIMUPose(0);
        if (pose.valid) {
            ordered = ordered && pose.timestamp >= last_ts;
            last_ts = pose.timestamp;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    e.engine->stopCapture();
    EXPECT_TRUE(ordered);
    EXPECT_LE(max_size, 1000u);
    EXPECT_EQ(e.engine->imu_queue.size(), 1000u);
    EXPECT_EQ(e.engine->batch_queue.size(), 1000u);

    // strictly increasing MCU time, one sample interval apart (2.5 ms)
    const std::vector<bh::IMUPacket> packets = allPackets(*e.engine);
    for (size_t i = 1; i < packets.size(); ++i) {
        ASSERT_GT(packets[i].timestamp, packets[i - 1].timestamp);
        ASSERT_NEAR(static_cast<double>(packets[i].timestamp - packets[i - 1].timestamp), 2.5e6, 1e3);
        ASSERT_TRUE(packets[i].valid);
    }
    // only packets with a sync event in the sync queue
    ASSERT_GT(e.engine->sync_queue.size(), 50u);
    for (size_t i = 0; i < e.engine->sync_queue.size(); ++i) {
        ASSERT_GT(e.engine->sync_queue.atBegin(i).sync_event, 0);
    }
    size_t with_sync = 0;
    for (const auto& p : packets) {
        with_sync += p.sync_event > 0 ? 1 : 0;
    }
    EXPECT_GT(with_sync, 0u);
    EXPECT_LT(with_sync, packets.size());

    // the still camera stayed level: its vertical matches gravity. The still
    // packet is the last one before the turn (queue index 700 of samples 300 to 1299).
    const bh::IMUPacket still_packet = packets[700 - 1];
    ASSERT_NEAR(still_packet.gyro_raw[1], 0.f, 1e-6f);
    ASSERT_NEAR(packets[700].gyro_raw[1], 60.f, 0.1f);
    for (size_t i = 0; i < 700; ++i) {
        ASSERT_LT(tiltError(packets[i]), 1.0f) << i;
    }
    EXPECT_LT(tiltError(still_packet), 1.0f);
    EXPECT_NEAR(still_packet.acc[1], -9.80665f,
                0.05f);  // camera axes: the reaction points up, image y is down
    EXPECT_NEAR(still_packet.gyro[0], 0.f, 1e-3f);

    // the rotation shows up: 0.5 s at 60 deg/s = 30 degrees between the still
    // orientation and the one after the turn
    const bh::IMUPacket after = e.engine->imu_queue.atEnd(0);
    const float turned = orientationOf(still_packet).angularDistance(orientationOf(after)) * 57.29578f;
    EXPECT_NEAR(turned, 30.f, 2.f);
    bool saw_rate = false;
    for (const auto& p : packets) {
        // reader x is camera y
        saw_rate = saw_rate || std::fabs(p.gyro_raw[1] - 60.f) < 0.1f;
    }
    EXPECT_TRUE(saw_rate);
    EXPECT_EQ(after.filter_confidence_valid, 1);
    EXPECT_GT(after.mag_valid, 0);
    EXPECT_GT(after.env_valid, 0);
    EXPECT_NEAR(after.temperature_left, 30.f, 1e-4f);
    EXPECT_EQ(after.imager_temperature_valid, 1);
}

TEST(EnginePipeline, TeraWaitsForTheMagnetometerBeforeTheFirstEstimate) {
    EngineOnMemory e(bh::KOVT, 0x305);
    e.reader->mag_every = 0;  // no magnetometer
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    startRounds(*e.engine);
    runRounds(*e.engine, 50);
    EXPECT_EQ(e.engine->round_counter, 50u);
    EXPECT_EQ(e.engine->first_estimate_target, 50u);
    EXPECT_FALSE(e.engine->filter.initialized);

    EngineOnMemory p(bh::KOV_P, 0x305);
    ASSERT_EQ(p.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    startRounds(*p.engine);
    runRounds(*p.engine, 50);
    EXPECT_EQ(p.engine->first_estimate_target, 4u);
}

TEST(EnginePipeline, FirstEstimateTakesTheTiltFromGravity) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    // tilted: gravity reaction partly along reader y
    e.reader->gravity[0] = -2896;
    e.reader->gravity[1] = 2896;
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    startRounds(*e.engine);
    runRounds(*e.engine, 5);
    const bh::IMUPacket before = e.engine->imu_queue.atBegin(3);
    const bh::IMUPacket first = e.engine->imu_queue.atBegin(4);
    EXPECT_FLOAT_EQ(before.orientation[3], 1.f);  // identity before the estimate
    EXPECT_LT(tiltError(first), 0.1f);
    EXPECT_NEAR(orientationOf(first).angularDistance(Eigen::Quaternionf::Identity()) * 57.29578f, 45.f, 0.5f);
}

TEST(EnginePipeline, PressureOf800NeverEntersTheReferenceAndTheTwentiethValueSetsIt) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    e.reader->env_every = 1;
    // 30 samples at exactly 800 hPa, then distinct values above it
    e.reader->pressure_hpa = [](uint64_t i) { return i < 30 ? 800.f : 900.f + 0.5f * static_cast<float>(i); };
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    startRounds(*e.engine);
    runRounds(*e.engine, 30);
    EXPECT_EQ(e.engine->pressure_count, 0);
    EXPECT_FLOAT_EQ(e.engine->reference_pressure, 0.f);
    runRounds(*e.engine, 30 + 19);
    EXPECT_EQ(e.engine->pressure_count, 19);
    EXPECT_FLOAT_EQ(e.engine->reference_pressure, 0.f);
    e.engine->fusionRound();
    EXPECT_EQ(e.engine->pressure_count, 20);
    // mean of 900 + 0.5 i for i = 30 .. 49
    EXPECT_NEAR(e.engine->reference_pressure, 900.f + 0.5f * 39.5f, 1e-3f);
    for (int i = 0; i < 50; ++i) {
        e.engine->fusionRound();
    }
    const bh::IMUPacket last = e.engine->imu_queue.atEnd(0);
    EXPECT_TRUE(std::isfinite(last.altitude));
    EXPECT_NE(last.altitude, 0.f);  // pressure keeps rising: the altitude moves
}

TEST(EnginePipeline, APacketWithoutSyncEventNeverEntersTheSyncQueue) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    e.reader->sync_every = 0;
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    startRounds(*e.engine);
    runRounds(*e.engine, 100);
    EXPECT_EQ(e.engine->imu_queue.size(), 100u);
    EXPECT_EQ(e.engine->sync_queue.size(), 0u);
    const bh::IMUPose none = e.engine->getIMUPoseAtImage(0);
    EXPECT_FALSE(none.valid);
    EXPECT_EQ(none.timestamp, 0u);
}

TEST(EnginePipeline, ImuStateByteAndSteadiness) {
    EngineOnMemory e(bh::KOVT, 0x305);
    e.reader->imu_state_byte = 1;
    e.reader->mag_every = 1;
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    startRounds(*e.engine);
    runRounds(*e.engine, 3);
    EXPECT_EQ(e.engine->imu_queue.atEnd(0).imu_state, 2);

    EngineOnMemory p(bh::KOV_P, 0x305);
    p.reader->imu_state_byte = 1;  // KOV Pico ignores the byte
    ASSERT_EQ(p.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    startRounds(*p.engine);
    runRounds(*p.engine, 3);
    EXPECT_EQ(p.engine->imu_queue.atEnd(0).imu_state, 1);  // not steady yet
}

TEST(EnginePipeline, GettersPickByOffsetAndBoundTheWalk) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    e.reader->sync_every = 5;
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    startRounds(*e.engine);

    // empty queues: zeros
    EXPECT_FALSE(e.engine->getIMUPose(0).valid);
    EXPECT_FALSE(e.engine->getClosestIMUPoseSubImage(123, 0).valid);

    runRounds(*e.engine, 3);
    // 1 to n packets: the oldest
    EXPECT_EQ(e.engine->getIMUPose(5).timestamp, e.engine->imu_queue.atBegin(0).timestamp);
    EXPECT_EQ(e.engine->getClosestIMUPoseSubImage(1, 5).timestamp, e.engine->imu_queue.atBegin(0).timestamp);
    // at most n + 10: zeros
    EXPECT_FALSE(e.engine->getClosestIMUPoseSubImage(e.engine->imu_queue.atEnd(0).timestamp, 1).valid);

    runRounds(*e.engine, 100);
    EXPECT_EQ(e.engine->getIMUPose(0).timestamp, e.engine->imu_queue.atEnd(0).timestamp);
    EXPECT_EQ(e.engine->getIMUPose(7).timestamp, e.engine->imu_queue.atEnd(7).timestamp);
    EXPECT_EQ(e.engine->getIMUPoseAtImage(1).timestamp, e.engine->sync_queue.atEnd(1).timestamp);

    // the closest walk: find the timestamp, then step n toward the newest
    const uint64_t seen = e.engine->imu_queue.atEnd(20).timestamp;
    EXPECT_EQ(e.engine->getClosestIMUPoseSubImage(seen, 3).timestamp,
              e.engine->imu_queue.atEnd(17).timestamp);
    EXPECT_EQ(e.engine->getClosestIMUPoseSubImage(e.engine->imu_queue.atEnd(2).timestamp, 5).timestamp,
              e.engine->imu_queue.atEnd(0).timestamp);  // not past the newest
    // a timestamp that no packet has: the walk ends at the queue's end with nothing
    const bh::IMUPose missing = e.engine->getClosestIMUPoseSubImage(seen + 1, 3);
    EXPECT_FALSE(missing.valid);
    EXPECT_EQ(missing.timestamp, 0u);
}

TEST(EnginePipeline, PacketBatchIsHalfOpen) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    startRounds(*e.engine);
    runRounds(*e.engine, 50);
    const uint64_t t10 = e.engine->batch_queue.atBegin(10).timestamp;
    const uint64_t t20 = e.engine->batch_queue.atBegin(20).timestamp;
    EXPECT_TRUE(e.engine->getIMUPacketBatch(t10, t10).empty());
    const std::vector<bh::IMUPacket> batch = e.engine->getIMUPacketBatch(t10, t20);
    ASSERT_EQ(batch.size(), 10u);
    // taken while walking from the newest: the newest comes first
    EXPECT_EQ(batch.front().timestamp, t20);
    EXPECT_EQ(batch.back().timestamp, e.engine->batch_queue.atBegin(11).timestamp);
    EXPECT_TRUE(e.engine->getIMUPacketBatch(t20, t10).empty());
}

TEST(EnginePipeline, PacketBatchWalksTheWholeQueue) {
    bh::KOVmcu engine(false, 11011, bh::KOV_P, std::unique_ptr<VirtualIMUReader>());
    for (uint64_t ts : {30u, 10u, 20u, 50u, 40u}) {
        bh::IMUPacket p;
        p.valid = true;
        p.timestamp = ts;
        engine.batch_queue.pushBounded(p);
    }
    // every packet with 15 < timestamp <= 40, newest first, also past an older one
    const std::vector<bh::IMUPacket> batch = engine.getIMUPacketBatch(15, 40);
    ASSERT_EQ(batch.size(), 3u);
    EXPECT_EQ(batch[0].timestamp, 40u);
    EXPECT_EQ(batch[1].timestamp, 20u);
    EXPECT_EQ(batch[2].timestamp, 30u);
}

TEST(EnginePipeline, TransformAndPriorOrientationAreInverse) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    bh::IMUPacket p;
    p.valid = true;
    const Eigen::Quaternionf q(Eigen::AngleAxisf(0.4f, Eigen::Vector3f(1.f, 2.f, 3.f).normalized()));
    p.orientation[0] = q.x();
    p.orientation[1] = q.y();
    p.orientation[2] = q.z();
    p.orientation[3] = q.w();
    p.acc[0] = 1.f;
    p.acc[1] = 2.f;
    p.acc[2] = 3.f;
    const bh::IMUPose pose = e.engine->transformData(p, false);
    EXPECT_FLOAT_EQ(pose.packet.acc[0], 2.f);
    EXPECT_FLOAT_EQ(pose.packet.acc[1], 1.f);
    EXPECT_FLOAT_EQ(pose.packet.acc[2], -3.f);
    const Eigen::Matrix3f& R = bh::Reader2ImageRotation();
    const Eigen::Matrix3f expected = R * q.toRotationMatrix() * R.transpose();
    const Eigen::Matrix3f got = pose.pose.block<3, 3>(0, 0);
    EXPECT_TRUE(got.isApprox(expected, 1e-5f));

    bh::IMUPacket image = pose.packet;
    e.engine->setPriorOrientation(image);
    EXPECT_TRUE(e.engine->prior_pending);
    const Eigen::Quaternionf back(e.engine->prior_quaternion(0), e.engine->prior_quaternion(1),
                                  e.engine->prior_quaternion(2), e.engine->prior_quaternion(3));
    EXPECT_LT(back.angularDistance(q), 1e-4f);
}

TEST(EnginePipeline, PriorOrientationIsTakenByTheNextRound) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    startRounds(*e.engine);
    runRounds(*e.engine, 20);
    bh::IMUPacket p;
    const Eigen::Quaternionf q(Eigen::AngleAxisf(0.5f, Eigen::Vector3f::UnitZ()));
    p.orientation[0] = q.x();
    p.orientation[1] = q.y();
    p.orientation[2] = q.z();
    p.orientation[3] = q.w();
    e.engine->setPriorOrientation(p);
    ASSERT_TRUE(e.engine->fusionRound());
    EXPECT_FALSE(e.engine->prior_pending);
}

TEST(EnginePipeline, TranslationStaysAtRestForAStillSensor) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    startRounds(*e.engine);
    runRounds(*e.engine, 400);
    EXPECT_EQ(e.engine->translation_state, 2);
    EXPECT_LT(e.engine->trans_position.norm(), 1e-3f);
    const bh::IMUPacket p = e.engine->imu_queue.atEnd(0);
    EXPECT_FLOAT_EQ(p.translation[0], 0.f);  // not carried in the packets
}

TEST(EnginePipeline, ResetQuaternionKeepsItsYawAtTheNextStart) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    const Eigen::Vector4f q = bh::KOVmcu::toQuaternion(0.0, 0.0, 0.7);
    e.engine->setResetQuaternion(q(0), q(1), q(2), q(3));
    startRounds(*e.engine);
    runRounds(*e.engine, 6);
    EXPECT_FALSE(e.engine->reset_orientation);
    const bh::IMUPacket first = e.engine->imu_queue.atBegin(4);
    RTQuaternion rq(first.orientation[3], first.orientation[0], first.orientation[1], first.orientation[2]);
    RTVector3 euler;
    rq.toEuler(euler);
    EXPECT_NEAR(euler.z(), 0.7f, 1e-3f);
}
