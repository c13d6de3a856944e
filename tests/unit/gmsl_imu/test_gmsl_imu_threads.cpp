// The three threads of the GMSL inertial reader against a fake chip that
// produces samples by itself in real time: merged samples come out in order,
// and every way out (stop, close, destruction) joins the threads. Also the
// sensor engine on the reader that the GMSL models get by default. Runs under
// the thread sanitizer too.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "GmslImuTestSupport.h"
#include "bh_input/mcu/IMU/IMUGMSLReader.h"
#include "bh_input/mcu/KOVmcu.h"
#include "sim/ScaledClock.h"

using namespace gmslimu;

namespace {

constexpr uint32_t kSerial = 20123456;

struct LiveRig : Rig {
    LiveRig() : Rig(std::make_shared<sim::ScaledClock>(1.0)) {
        bus->addCamera(30, 0x55, kSerial, 2);
        bus->accel(30)->auto_produce = true;
        bus->gyro(30)->auto_produce = true;
        bus->gyro(30)->sync_every = 10;
    }
};

struct Taken {
    uint64_t us;
    int16_t gyro_x;
    uint8_t sync;
};

// Takes samples the way the engine's thread does, for at most `limit` of real time.
std::vector<Taken> take(IMUGMSLReader& reader, size_t wanted,
                        std::chrono::seconds limit = std::chrono::seconds(10)) {
    std::vector<Taken> out;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (out.size() < wanted && std::chrono::steady_clock::now() < deadline) {
        if (reader.updateIMUData(true))
            out.push_back({reader.getCurrentMCUTimeStamp(), reader.current_report.gyro_x,
                           reader.current_report.frame_sync});
    }
    return out;
}

}  // namespace

TEST(GmslImuThreads, MergedSamplesComeOutInOrderAndStopJoins) {
    LiveRig rig;
    IMUGMSLReader reader(false, 0x2B03, 0xA081);
    ASSERT_GT(reader.open(kSerial, true, false), 0);
    ASSERT_TRUE(reader.sendStartDataStreamingCommand());
    const std::vector<Taken> samples = take(reader, 80);
    ASSERT_EQ(samples.size(), 80u);
    int syncs = 0;
    for (size_t i = 1; i < samples.size(); ++i) {
        EXPECT_GT(samples[i].us, samples[i - 1].us) << i;
        // The chip counts its frames in x: no frame comes twice or out of order.
        const int step = (samples[i].gyro_x - samples[i - 1].gyro_x + 2000) % 2000;
        EXPECT_GE(step, 1) << i;
        syncs += samples[i].sync;
    }
    // 400 Hz: 2.5 ms a sample; bounds kept generous for a loaded machine.
    const double mean_us = static_cast<double>(samples.back().us - samples.front().us) / (samples.size() - 1);
    EXPECT_GT(mean_us, 1000.0);
    EXPECT_LT(mean_us, 10000.0);
    EXPECT_GE(syncs, 1) << "every tenth frame carries the frame-start mark";
    EXPECT_EQ(val(reader.getSensorData().sync_capabilities), 1);

    ASSERT_TRUE(reader.sendStopDataStreamingCommand());
    EXPECT_FALSE(reader.threadsJoinable());
    EXPECT_FALSE(reader.isDataStreamEnabled());
    // Nothing more comes once what was merged is taken.
    while (reader.updateIMUData(false)) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(reader.updateIMUData(true));

    // A second start streams again.
    ASSERT_TRUE(reader.sendStartDataStreamingCommand());
    EXPECT_EQ(take(reader, 20).size(), 20u);
    reader.close();
    EXPECT_FALSE(reader.threadsJoinable());
    EXPECT_EQ(rig.bus->openDescriptors(), 0);
}

TEST(GmslImuThreads, StartNeedsAnOpenReaderAndStopSwitchesTheWatermarkOff) {
    LiveRig rig;
    IMUGMSLReader reader(false, 0x2B03, 0xA081);
    EXPECT_FALSE(reader.sendStartDataStreamingCommand());
    EXPECT_FALSE(reader.sendStopDataStreamingCommand());
    EXPECT_FALSE(reader.threadsJoinable());
    ASSERT_GT(reader.open(kSerial, true, false), 0);
    ASSERT_TRUE(reader.sendStartDataStreamingCommand());
    EXPECT_TRUE(reader.isDataStreamEnabled());
    EXPECT_TRUE(reader.threadsJoinable());
    ASSERT_TRUE(reader.sendStopDataStreamingCommand());
    EXPECT_FALSE(reader.threadsJoinable());
    EXPECT_EQ(rig.bus->gyroRegister(30, 0x1E), 0x08);
    // A new start switches it on again, or the FIFO would never be read.
    ASSERT_TRUE(reader.sendStartDataStreamingCommand());
    EXPECT_EQ(rig.bus->gyroRegister(30, 0x1E), 0x88);
    reader.close();
}

TEST(GmslImuThreads, CloseWhileStreamingJoins) {
    LiveRig rig;
    IMUGMSLReader reader(false, 0x2B03, 0xA081);
    ASSERT_GT(reader.open(kSerial, true, false), 0);
    ASSERT_TRUE(reader.sendStartDataStreamingCommand());
    ASSERT_EQ(take(reader, 3).size(), 3u);
    reader.close();
    EXPECT_FALSE(reader.threadsJoinable());
    EXPECT_FALSE(reader.isDataStreamEnabled());
    EXPECT_EQ(rig.bus->openDescriptors(), 0);
    EXPECT_FALSE(reader.updateIMUData(true));
}

TEST(GmslImuThreads, DestructionWhileStreamingJoins) {
    LiveRig rig;
    auto reader = std::make_unique<IMUGMSLReader>(false, 0x2B03, 0xA081);
    ASSERT_GT(reader->open(kSerial, true, false), 0);
    ASSERT_TRUE(reader->sendStartDataStreamingCommand());
    ASSERT_EQ(take(*reader, 3).size(), 3u);
    reader.reset();  // a joinable thread destroyed would end the process
    EXPECT_EQ(rig.bus->openDescriptors(), 0);
}

TEST(GmslImuThreads, ReopenWhileStreamingJoinsFirst) {
    LiveRig rig;
    IMUGMSLReader reader(false, 0x2B03, 0xA081);
    ASSERT_GT(reader.open(kSerial, true, false), 0);
    ASSERT_TRUE(reader.sendStartDataStreamingCommand());
    ASSERT_GT(reader.open(kSerial, true, false), 0);
    EXPECT_FALSE(reader.threadsJoinable());
    EXPECT_EQ(rig.bus->openDescriptors(), 2);
}

TEST(GmslImuThreads, TheEngineRunsOnTheDefaultGmslReader) {
    LiveRig rig;
    bh::KOVmcu engine(false, 0x2B03, bh::KOV_Q);
    ASSERT_NE(dynamic_cast<IMUGMSLReader*>(engine.imu_reader.get()), nullptr);
    ASSERT_EQ(engine.open(kSerial, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    EXPECT_EQ(engine.getMCUSerialNumber(), static_cast<int>(kSerial));
    EXPECT_EQ(engine.getMCUFirmwareVersion(), IMUGMSLReader::FIRMWARE_VERSION);
    ASSERT_TRUE(engine.startCapture(0.f)) << "a first sample within five seconds";
    bool synced = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!synced && std::chrono::steady_clock::now() < deadline) {
        synced = engine.hasMCUSyncCapabilities();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(synced);
    engine.close();
    EXPECT_EQ(rig.bus->openDescriptors(), 0);
}
