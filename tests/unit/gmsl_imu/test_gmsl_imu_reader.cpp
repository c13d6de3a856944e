// The GMSL inertial reader without its threads: the camera search, the chip's
// programming, one round of each thread at a time on a stepped clock, the
// samples handed to the engine, and the commands without meaning here.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>

#include "GmslImuTestSupport.h"
#include "bh_input/mcu/IMU/IMUGMSLReader.h"

using namespace gmslimu;

namespace {

constexpr uint32_t kSerial = 20123456;

// A clock that moves only when the test steps it: the bus's own short waits
// (which go through the clock too) leave the times the test reasons about
// exact.
class StillClock final : public platform::Clock {
public:
    int64_t steadyNanoseconds() override { return now_.load(); }
    int64_t systemNanoseconds() override { return 1767225600LL * 1000000000LL + now_.load(); }
    void sleepFor(std::chrono::nanoseconds) override {}
    void advance(int64_t ns) { now_ += ns; }

private:
    std::atomic<int64_t> now_{1000000000LL};
};

struct ReaderRig : Rig {
    explicit ReaderRig(uint8_t sub_model = 2) : Rig(std::make_shared<StillClock>()) {
        bus->addCamera(30, 0x55, kSerial, sub_model);
    }
    std::unique_ptr<IMUGMSLReader> reader = std::make_unique<IMUGMSLReader>(false, 0x2B03, 0xA081);
    FakeAccel& chipA() { return *bus->accel(30); }
    FakeGyro& chipG() { return *bus->gyro(30); }
    void stepUs(int64_t us) { static_cast<StillClock&>(*clock).advance(us * 1000); }
    uint64_t nowUs() { return static_cast<uint64_t>(nowNs() / 1000); }
    void pushFrames(int n, int16_t x = 0, int16_t y = 0, int16_t z = 0) {
        for (int i = 0; i < n; ++i)
            chipG().pushFrame(x, y, z);
    }
};

std::shared_ptr<bmi08x_sensor_data> entry(uint64_t t, int16_t x, int16_t y, int16_t z, uint8_t sync = 0) {
    auto s = std::make_shared<bmi08x_sensor_data>();
    s->timestamp = t;
    s->x = x;
    s->y = y;
    s->z = z;
    s->sync = sync;
    return s;
}

}  // namespace

// ---------------------------------------------------------------- the search

TEST(GmslImuOpen, WrongSerialIsRefusedWithItsMessage) {
    ReaderRig r;
    testing::internal::CaptureStdout();
    EXPECT_EQ(r.reader->open(static_cast<unsigned int>(-1), true, false), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[IMUGMSL][CRITICAL] Wrong Serial Number -- Camera Not Configured\n");
    EXPECT_TRUE(r.bus->openedPaths().empty()) << "no bus is touched";
    EXPECT_EQ(r.reader->is_open, 0);
}

TEST(GmslImuOpen, SerialZeroTakesTheFirstCameraFound) {
    Rig rig;
    rig.bus->addEmptyBus(30);
    rig.bus->addCamera(31, 0x57, 111, 2);
    rig.bus->addCamera(32, 0x55, 222, 3);
    IMUGMSLReader reader(false, 0x2B03, 0xA081);
    EXPECT_EQ(reader.open(0, true, false), 111);
    EXPECT_EQ(reader.i2c_bus, 31);
    EXPECT_EQ(reader.eeprom_address, 0x57);
    EXPECT_EQ(reader.serial_number, 111u);
    EXPECT_EQ(reader.device_path, "/dev/i2c-31");
    EXPECT_EQ(reader.is_open, 1);
    EXPECT_EQ(reader.firmware_version, IMUGMSLReader::FIRMWARE_VERSION);
    EXPECT_GT(reader.firmware_version, 774);
    // The buses in their order: 30 (nothing there) before 31.
    const auto paths = rig.bus->openedPaths();
    ASSERT_GE(paths.size(), 2u);
    EXPECT_EQ(paths[0], "/dev/i2c-30");
    EXPECT_EQ(paths[1], "/dev/i2c-31");
}

TEST(GmslImuOpen, ASerialIsLookedForOnEveryBus) {
    Rig rig;
    rig.bus->addCamera(31, 0x57, 111, 2);
    rig.bus->addCamera(9, 0x55, 222, 31);
    IMUGMSLReader reader(false, 0x2B03, 0xA081);
    EXPECT_EQ(reader.open(222, true, false), 222);
    EXPECT_EQ(reader.i2c_bus, 9);
    EXPECT_EQ(reader.sub_model, 31);
    EXPECT_EQ(reader.version_byte, 0x11);
}

TEST(GmslImuOpen, NoMatchingCameraGivesMinusOne) {
    ReaderRig r;
    EXPECT_EQ(r.reader->open(999, true, false), -1);
    EXPECT_EQ(r.reader->is_open, 0);
    EXPECT_EQ(r.bus->openDescriptors(), 0);
    EXPECT_TRUE(r.bus->writesTo(0x18).empty());
}

TEST(GmslImuOpen, NoChipGivesMinusTwo) {
    Rig rig;
    rig.bus->addCamera(30, 0x55, kSerial, 2, false);
    IMUGMSLReader reader(false, 0x2B03, 0xA081);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(reader.open(kSerial, true, false), -2);
    testing::internal::GetCapturedStderr();
    EXPECT_NE(testing::internal::GetCapturedStdout().find("/dev/i2c-30"), std::string::npos);
    EXPECT_EQ(reader.is_open, 0);
    EXPECT_EQ(rig.bus->openDescriptors(), 0) << "the chip's descriptors are closed again";
}

TEST(GmslImuOpen, AWrongChipIdGivesMinusTwo) {
    ReaderRig r;
    r.chipG().regs[0x00] = 0x55;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(r.reader->open(kSerial, true, false), -2);
    const std::string err = testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
    EXPECT_NE(err.find("bmi08g_init"), std::string::npos) << err;
    EXPECT_TRUE(r.bus->writesTo(0x68).empty()) << "a chip of another identity is not programmed";
    EXPECT_EQ(r.bus->openDescriptors(), 0);
}

// ---------------------------------------------------------------- programming

TEST(GmslImuOpen, ProgramsBothPartsAsAgreed) {
    ReaderRig r;
    ASSERT_EQ(r.reader->open(kSerial, true, false), static_cast<int>(kSerial));
    const Expected acc = {
        {0x7E, {0xB6}},  // soft reset
        {0x7C, {0x00}},  // active
        {0x7D, {0x04}},  // on
        {0x40, {0xA9}},  // bandwidth normal, 200 Hz
        {0x41, {0x02}},  // +-12 g
        {0x53, {0x0A}},  // INT1 output, push-pull, active high
        {0x58, {0x04}},  // data ready on INT1
    };
    EXPECT_EQ(writesOf(*r.bus, 0x18), acc) << describe(writesOf(*r.bus, 0x18));
    const Expected gyro = {
        {0x14, {0xB6}},  // soft reset
        {0x11, {0x00}},  // normal power
        {0x0F, {0x01}},  // +-1000 deg/s
        {0x10, {0x03}},  // 400 Hz
        {0x16, {0x04}},  // INT4 active high
        {0x18, {0x20}},  // FIFO on INT4
        {0x15, {0x40}},  // FIFO interrupt
        {0x1E, {0x88}},  // watermark interrupt on
        {0x34, {0x20}},  // external FIFO sync, input INT3
        {0x3D, {0x06}},  // watermark 6 frames
        {0x3E, {0x80}},  // stream mode, x y z
    };
    EXPECT_EQ(writesOf(*r.bus, 0x68), gyro) << describe(writesOf(*r.bus, 0x68));
    EXPECT_EQ(r.reader->periodUs(), 2500u);
    EXPECT_EQ(r.bus->openDescriptors(), 2) << "one descriptor per part";
    r.reader->close();
    EXPECT_EQ(r.bus->openDescriptors(), 0);
    EXPECT_EQ(r.reader->is_open, 0);
    EXPECT_EQ(r.reader->is_closed, 1);
}

TEST(GmslImuOpen, RateFieldOneRunsAt200Hz) {
    ReaderRig r;
    EXPECT_TRUE(r.reader->setRate(IMU_ODR_200));
    EXPECT_EQ(r.reader->periodUs(), 5000u);
    ASSERT_GT(r.reader->open(kSerial, true, false), 0);
    EXPECT_EQ(r.chipA().regs[0x40], 0xA8) << "accelerometer 100 Hz";
    EXPECT_EQ(r.chipG().regs[0x10] & 0x7F, 0x04) << "gyroscope 200 Hz";
    // Back to 400 Hz while open and idle: the chip is reprogrammed at once.
    r.bus->clearLog();
    EXPECT_TRUE(r.reader->sendWriteImuFreq(IMU_ODR_400));
    EXPECT_EQ(r.reader->periodUs(), 2500u);
    EXPECT_EQ(writesOf(*r.bus, 0x18), (Expected{{0x40, {0xA9}}, {0x41, {0x02}}}));
    EXPECT_EQ(writesOf(*r.bus, 0x68), (Expected{{0x0F, {0x01}}, {0x10, {0x03}}}));
    // The same rate again writes nothing.
    r.bus->clearLog();
    EXPECT_TRUE(r.reader->sendWriteImuFreq(IMU_ODR_400));
    EXPECT_TRUE(r.bus->writesTo(0x18).empty());
}

TEST(GmslImuOpen, ScalesGoToTheRangeRegisters) {
    ReaderRig r;
    r.reader->setScale(IMUGMSLReader::ACC_24G, IMUGMSLReader::GYRO_2000DPS);
    EXPECT_FLOAT_EQ(r.reader->acc_range_g, 24.f);
    EXPECT_FLOAT_EQ(r.reader->gyro_range_dps, 2000.f);
    ASSERT_GT(r.reader->open(kSerial, true, false), 0);
    EXPECT_EQ(r.chipA().regs[0x41], 0x03);
    EXPECT_EQ(r.chipG().regs[0x0F], 0x00);
    r.reader->setScale(IMUGMSLReader::ACC_3G, IMUGMSLReader::GYRO_125DPS);
    EXPECT_FLOAT_EQ(r.reader->acc_range_g, 3.f);
    EXPECT_FLOAT_EQ(r.reader->gyro_range_dps, 125.f);
    EXPECT_EQ(r.chipA().regs[0x41], 0x00);
    EXPECT_EQ(r.chipG().regs[0x0F], 0x04);
    testing::internal::CaptureStdout();
    r.reader->setScale(static_cast<IMUGMSLReader::ScaleAcc>(4), IMUGMSLReader::GYRO_125DPS);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("out of range"), std::string::npos);
    EXPECT_FLOAT_EQ(r.reader->acc_range_g, 3.f);
}

// ---------------------------------------------------------------- gyroscope rounds

TEST(GmslImuGyro, NoWatermarkNoRead) {
    ReaderRig r;
    ASSERT_GT(r.reader->open(kSerial, true, false), 0);
    r.pushFrames(5);
    IMUGMSLReader::GyroBatchClock batch;
    EXPECT_FALSE(r.reader->pollGyroOnce(batch));
    EXPECT_EQ(r.chipG().fifo.size(), 5u) << "below the watermark the FIFO is left alone";
}

TEST(GmslImuGyro, FirstFifoReadYieldsNoSamplesThenTimesAreSpread) {
    ReaderRig r;
    ASSERT_GT(r.reader->open(kSerial, true, false), 0);
    IMUGMSLReader::GyroBatchClock batch;
    r.pushFrames(6, 1, 2, 4);
    const uint64_t t0 = r.nowUs();
    ASSERT_TRUE(r.reader->pollGyroOnce(batch));
    EXPECT_EQ(r.reader->gyro_queue.size(), 0u);
    EXPECT_EQ(r.chipG().fifo.size(), 0u) << "the first content was read and dropped";
    EXPECT_EQ(batch.reads, 1u);

    // The next batch, 15 ms later: six samples spread evenly over the
    // interval between the two reads' times (the bus's own waits, which go
    // through the same clock, count in it).
    r.stepUs(15000);
    for (int i = 0; i < 6; ++i)
        r.chipG().pushFrame(static_cast<int16_t>(10 + i), -3, static_cast<int16_t>(i == 4 ? 9 : 8));
    const uint64_t t1 = r.nowUs();
    ASSERT_GE(t1, t0 + 15000u);
    ASSERT_TRUE(r.reader->pollGyroOnce(batch));
    ASSERT_EQ(r.reader->gyro_queue.size(), 6u);
    const double interval = static_cast<double>(t1 - t0) / 6.0;
    for (int i = 0; i < 6; ++i) {
        auto s = r.reader->gyro_queue.pop();
        EXPECT_EQ(s->timestamp, t0 + static_cast<uint64_t>(interval * (i + 1))) << i;
        EXPECT_EQ(s->x, 10 + i);
        EXPECT_EQ(s->y, -3);
        EXPECT_EQ(s->sync, i == 4 ? 1 : 0) << i;
    }
}

TEST(GmslImuGyro, HugeDiffLineWhenVerbose) {
    ReaderRig r;
    r.reader->verbose = 1;
    ASSERT_GT(r.reader->open(kSerial, true, false), 0);
    IMUGMSLReader::GyroBatchClock batch;
    r.pushFrames(6);
    ASSERT_TRUE(r.reader->pollGyroOnce(batch));
    r.stepUs(15000);
    r.pushFrames(6);
    testing::internal::CaptureStdout();
    ASSERT_TRUE(r.reader->pollGyroOnce(batch));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "2.5 ms a sample is the period";
    r.stepUs(30000);  // 5 ms a sample: off by more than the period / 6
    r.pushFrames(6);
    testing::internal::CaptureStdout();
    ASSERT_TRUE(r.reader->pollGyroOnce(batch));
    const std::string line = testing::internal::GetCapturedStdout();
    EXPECT_EQ(
        line.rfind("[WARNING] Huge Diff time : 30.0000   ms for an eff data count 6 with a extract time = ",
                   0),
        0u)
        << line;
    EXPECT_NE(line.find("-- Avg T 5000"), std::string::npos) << line;
}

TEST(GmslImuGyro, SubModel30TurnsTheAxes) {
    ReaderRig r(30);
    ASSERT_GT(r.reader->open(kSerial, true, false), 0);
    IMUGMSLReader::GyroBatchClock batch;
    r.pushFrames(6);
    ASSERT_TRUE(r.reader->pollGyroOnce(batch));
    r.stepUs(15000);
    r.pushFrames(6, 1000, 0, 0);  // a rotation about the chip's x axis
    ASSERT_TRUE(r.reader->pollGyroOnce(batch));
    auto s = r.reader->gyro_queue.pop();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->x, 0);
    EXPECT_EQ(s->y, -1000);
}

// ---------------------------------------------------------------- accelerometer rounds

TEST(GmslImuAccel, DataReadyTakesAStampedSampleAndTheTemperature) {
    ReaderRig r;
    ASSERT_GT(r.reader->open(kSerial, true, false), 0);
    uint32_t count = 0;
    EXPECT_FALSE(r.reader->pollAccOnce(count)) << "no data ready";
    r.chipA().setTemperature(0x04, 0x40);  // 27.25 degC
    r.chipA().setSample(100, -200, 2048);
    ASSERT_TRUE(r.reader->pollAccOnce(count));
    EXPECT_EQ(count, 1u);
    auto s = r.reader->acc_queue.pop();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->x, 100);
    EXPECT_EQ(s->y, -200);
    EXPECT_EQ(s->z, 2048);
    EXPECT_EQ(s->timestamp, r.nowUs());
    EXPECT_FLOAT_EQ(r.reader->getCurrentIMUTemperatureInCelsius(false), 27.25f);

    // Then every hundredth sample.
    r.chipA().setTemperature(0x00, 0x00);  // 23 degC
    for (int i = 1; i < 100; ++i) {
        r.chipA().setSample(1, 2, 3);
        ASSERT_TRUE(r.reader->pollAccOnce(count));
    }
    EXPECT_FLOAT_EQ(r.reader->getCurrentIMUTemperatureInCelsius(false), 27.25f);
    r.chipA().setSample(1, 2, 3);
    ASSERT_TRUE(r.reader->pollAccOnce(count));
    EXPECT_FLOAT_EQ(r.reader->getCurrentIMUTemperatureInCelsius(true), 23.f);
}

// ---------------------------------------------------------------- merge rounds

TEST(GmslImuMerge, DropPopAndMergeOnTheQueues) {
    ReaderRig r;
    IMUGMSLReader& rd = *r.reader;
    const auto wait = std::chrono::microseconds(0);
    EXPECT_EQ(rd.mergeOnce(wait), IMUGMSLReader::MergeOutcome::Idle);
    rd.gyro_queue.push(entry(900, 1, 1, 1));
    EXPECT_EQ(rd.mergeOnce(wait), IMUGMSLReader::MergeOutcome::Idle) << "two accelerometer samples needed";
    rd.acc_queue.push(entry(1000, 0, 0, 0));
    rd.acc_queue.push(entry(2000, 100, 0, 0));
    rd.acc_queue.push(entry(3000, 300, 0, 0));
    EXPECT_EQ(rd.mergeOnce(wait), IMUGMSLReader::MergeOutcome::DroppedGyro);
    EXPECT_EQ(rd.gyro_queue.size(), 0u);

    rd.gyro_queue.push(entry(2500, 5, 6, 7, 1));
    EXPECT_EQ(rd.mergeOnce(wait), IMUGMSLReader::MergeOutcome::PoppedAccel);
    EXPECT_EQ(rd.acc_queue.size(), 2u);
    EXPECT_EQ(rd.gyro_queue.size(), 1u);
    EXPECT_EQ(rd.synchronised, 0);
    EXPECT_EQ(rd.mergeOnce(wait), IMUGMSLReader::MergeOutcome::Merged);
    EXPECT_EQ(rd.gyro_queue.size(), 0u);
    EXPECT_EQ(rd.acc_queue.size(), 2u) << "the accelerometer samples stay for the next gyroscope sample";
    EXPECT_EQ(rd.synchronised, 1);
    auto m = rd.merged_queue.pop();
    ASSERT_TRUE(m);
    EXPECT_EQ(m->acc_x, 200);
    EXPECT_EQ(m->gyro_x, 5);
    EXPECT_EQ(m->timestamp, 2500u);
    EXPECT_EQ(m->sync, 1);
}

// ---------------------------------------------------------------- samples to the engine

TEST(GmslImuUpdate, EmptyQueueReturnsAtOnce) {
    ReaderRig r;
    EXPECT_FALSE(r.reader->updateIMUData(true)) << "not open";
    ASSERT_GT(r.reader->open(kSerial, true, false), 0);
    r.reader->has_new_data = 1;
    EXPECT_FALSE(r.reader->updateIMUData(true));
    EXPECT_EQ(r.reader->has_new_data, 0);
}

TEST(GmslImuUpdate, SampleCountsTimesAndSync) {
    ReaderRig r;
    ASSERT_GT(r.reader->open(kSerial, true, false), 0);
    IMUGMSLReader& rd = *r.reader;
    rd.temperature_milli = 31500;
    auto push = [&](uint64_t t, uint8_t sync) {
        auto m = std::make_shared<bmi08x_full_sensor_data>();
        m->gyro_x = 1;
        m->gyro_y = 2;
        m->gyro_z = 3;
        m->acc_x = 10;
        m->acc_y = 20;
        m->acc_z = 30;
        m->timestamp = t;
        m->sync = sync;
        rd.merged_queue.push(m);
    };
    push(5000000, 0);
    push(5002500, 1);

    ASSERT_TRUE(rd.updateIMUData(false));
    EXPECT_EQ(rd.has_new_data, 1);
    EXPECT_EQ(val(rd.current_report.gyro_x), 1);
    EXPECT_EQ(val(rd.current_report.gyro_y), -2);
    EXPECT_EQ(val(rd.current_report.gyro_z), -3);
    EXPECT_EQ(val(rd.current_report.acc_x), 10);
    EXPECT_EQ(val(rd.current_report.acc_y), -20);
    EXPECT_EQ(val(rd.current_report.acc_z), -30);
    EXPECT_EQ(val(rd.current_report.imu_not_valid), 0);
    EXPECT_EQ(val(rd.current_report.frame_sync), 0);
    EXPECT_EQ(rd.sync_event, 0);
    EXPECT_EQ(rd.getCurrentMCUTimeStamp(), 5000000u);
    // The host time on the wall clock: the stepped clock's wall clock is its
    // steady time plus its epoch.
    const uint64_t epoch = static_cast<uint64_t>(r.clock->systemNanoseconds() - r.clock->steadyNanoseconds());
    EXPECT_EQ(rd.getCurrentBHIMUTimestamp(), 5000000000ull + epoch);
    EXPECT_EQ(val(rd.getSensorData().sync_capabilities), 0);

    rd.synchronised = 1;  // as the merge sets it with a marked sample
    rd.setSwapLR(1);
    ASSERT_TRUE(rd.updateIMUData(false));
    EXPECT_EQ(val(rd.current_report.gyro_x), -1);
    EXPECT_EQ(val(rd.current_report.gyro_y), 2);
    EXPECT_EQ(val(rd.current_report.gyro_z), -3);
    EXPECT_EQ(val(rd.current_report.acc_x), -10);
    EXPECT_EQ(val(rd.current_report.acc_y), 20);
    EXPECT_EQ(val(rd.current_report.frame_sync), 1);
    EXPECT_EQ(rd.sync_event, 1);
    EXPECT_EQ(rd.getDeltaTime_us(), 2500u);
    EXPECT_EQ(rd.getCurrentBHIMUTimestamp(), 5002500000ull + epoch);
    EXPECT_EQ(val(rd.getSensorData().sync_capabilities), 1);
    EXPECT_FLOAT_EQ(rd.getCurrentIMUTemperatureInCelsius(false), 31.5f);
    EXPECT_FALSE(rd.updateIMUData(false));
}

// ---------------------------------------------------------------- commands without meaning here

TEST(GmslImuCommands, EraseSaysItIsNotImplemented) {
    ReaderRig r;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(r.reader->sendEraseCommandwithSN(2, 123456));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[IMU GMSL] {sendEraseCommandwithSN} Not Implemented\n");
}

TEST(GmslImuCommands, ReportCommandsDoNothing) {
    ReaderRig r;
    ASSERT_GT(r.reader->open(kSerial, true, false), 0);
    r.bus->clearLog();
    IMUGMSLReader& rd = *r.reader;
    EXPECT_FALSE(rd.sendReadCalibStereoCommand());
    EXPECT_FALSE(rd.sendReadSNCommand());
    EXPECT_FALSE(rd.sendReadBiasCommand());
    EXPECT_FALSE(rd.sendReadImuFreq());
    EXPECT_FALSE(rd.sendMcuResetCommand());
    EXPECT_FALSE(rd.sendDFUEnterCommand());
    EXPECT_FALSE(rd.startImuRetrimming());
    EXPECT_EQ(rd.getImuRetrimmingStatus(), 5);
    EXPECT_TRUE(rd.reset());
    EXPECT_TRUE(std::isnan(rd.getMappedMagnetoX()));
    EXPECT_TRUE(std::isnan(rd.getEnvPressure()));
    EXPECT_TRUE(r.bus->writesTo(0x55).empty());
    EXPECT_TRUE(r.bus->writesTo(0x56).empty());
    EXPECT_TRUE(r.bus->writesTo(0x18).empty());
}
