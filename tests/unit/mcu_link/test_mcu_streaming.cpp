// The sample stream and its clock: rates, host timestamps, lock on frame
// triggers, clock ratio clamps, MCU counter resets, slow sensors, short reads
// and devices that disappear. Runs in simulated time (stepped clock).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "McuTestSupport.h"

using namespace mcutest;

namespace {

struct Stream {
    SimMachine sim;
    std::shared_ptr<sim::VirtualMcu> mcu;
    std::unique_ptr<IMUHidReader> reader;
    int triggers = 0;

    explicit Stream(sim::McuConfig c) {
        mcu = sim.add(c);
        sim.install();
        reader = std::make_unique<IMUHidReader>(false, VENDOR, c.productId);
        EXPECT_GT(reader->open(0, true, false), 0);
        EXPECT_TRUE(reader->sendStartDataStreamingCommand());
    }
    // One good sample; counts frame triggers.
    bool next() {
        for (int i = 0; i < 10; ++i) {
            if (reader->updateIMUData(true)) {
                if (reader->current_report.frame_sync == 1)
                    ++triggers;
                return true;
            }
        }
        return false;
    }
    bool untilTriggers(int n) {
        while (triggers < n)
            if (!next())
                return false;
        return true;
    }
};

sim::McuConfig streamConfig(int odr, double frameRate = 30.0) {
    auto c = config(12345678, 0x305, odr);
    c.frameRate = frameRate;
    return c;
}

}  // namespace

class StreamingAtRate : public ::testing::TestWithParam<int> {};

TEST_P(StreamingAtRate, SamplesArriveAtTheRateWithMonotonicHostTime) {
    const int odr = GetParam();
    const int hz = imuOdrToHz(odr);
    Stream s(streamConfig(odr));
    const int64_t start = s.sim.nowNs();
    uint64_t lastTs = 0;
    uint64_t lastMcu = 0;
    int samples = 0;
    while (s.sim.nowNs() - start < 5000000000LL) {
        ASSERT_TRUE(s.next());
        ++samples;
        const uint64_t ts = s.reader->getCurrentBHIMUTimestamp();
        EXPECT_GT(ts, lastTs) << "sample " << samples;
        lastTs = ts;
        const uint64_t mcu = s.reader->getCurrentMCUTimeStamp();
        if (samples > 1) {
            EXPECT_EQ(s.reader->getDeltaTime_us(), val(1000000u / hz));
            EXPECT_EQ(val(mcu - lastMcu), val(1000000u / hz));
        }
        lastMcu = mcu;
    }
    EXPECT_NEAR(samples, 5 * hz, 2);
    EXPECT_NEAR(s.triggers, 150, 2);
    EXPECT_EQ(val(s.reader->sample_counter), static_cast<uint32_t>(samples));
    // A ping goes out every 400 calls.
    EXPECT_GE(val(s.mcu->counters().pings), val(samples / 400 - 1));
}

TEST_P(StreamingAtRate, ClockLocksAfterSixSetsOfHundredTriggersThenFollowsTheMcu) {
    const int odr = GetParam();
    auto c = streamConfig(odr);
    c.clockScale = 1.001;  // the MCU's crystal runs a little fast
    Stream s(c);
    ASSERT_TRUE(s.untilTriggers(1));
    EXPECT_NE(val(s.reader->mcu_time_ns), 0u);  // the first trigger starts the MCU clock
    for (int set = 1; set <= 6; ++set) {
        ASSERT_TRUE(s.untilTriggers(1 + 100 * set - 1));
        EXPECT_EQ(val(s.reader->ts_locked), 0) << "set " << set;
        EXPECT_EQ(val(s.reader->ntp_count), val(set - 1));
        ASSERT_TRUE(s.untilTriggers(1 + 100 * set));
        EXPECT_EQ(val(s.reader->ntp_count), set);
    }
    EXPECT_EQ(val(s.reader->ts_locked), 1);
    // The first sets measure the drift: the ratio corrects it.
    EXPECT_NEAR(s.reader->clock_ratio, 1.0 / 1.001, 2e-4);

    // Locked: stamps come from the MCU clock, not from the host clock, and stay
    // close to it and monotonic.
    uint64_t last = s.reader->getCurrentBHIMUTimestamp();
    int differing = 0;
    for (int i = 0; i < 4000; ++i) {
        ASSERT_TRUE(s.next());
        const uint64_t ts = s.reader->getCurrentBHIMUTimestamp();
        EXPECT_EQ(ts, val(s.reader->mcu_time_ns));
        EXPECT_GT(ts, last);
        last = ts;
        const int64_t host = s.sim.clock->systemNanoseconds();
        EXPECT_LT(val(std::llabs(static_cast<long long>(ts) - host)), 20000000LL);
        if (static_cast<int64_t>(ts) != host)
            ++differing;
    }
    EXPECT_GT(differing, 1000);
}

INSTANTIATE_TEST_SUITE_P(Rates, StreamingAtRate, ::testing::Values(2, 3),
                         [](const ::testing::TestParamInfo<int>& i) {
                             return std::to_string(imuOdrToHz(i.param)) + "Hz";
                         });

TEST(StreamingClock, RatioOf1Point5IsUsedAs1Point2) {
    auto c = streamConfig(2);
    c.clockScale = 1.0 / 1.5;  // host runs 1.5 times as fast as the MCU counts
    Stream s(c);
    ASSERT_TRUE(s.untilTriggers(101));
    EXPECT_DOUBLE_EQ(s.reader->clock_ratio, 1.2);
}

TEST(StreamingClock, RatioBelow0Point8IsUsedAs0Point8) {
    auto c = streamConfig(3);
    c.clockScale = 1.5;
    Stream s(c);
    ASSERT_TRUE(s.untilTriggers(101));
    EXPECT_DOUBLE_EQ(s.reader->clock_ratio, 0.8);
}

TEST(StreamingClock, OffsetBeforeTheHundredthTriggerLocksAtNowMinusOffset) {
    Stream s(streamConfig(2));
    ASSERT_TRUE(s.untilTriggers(50));
    const long offset = 7000000;
    s.reader->setTSOffset(offset);
    ASSERT_TRUE(s.untilTriggers(100));
    EXPECT_EQ(val(s.reader->ts_locked), 0);
    ASSERT_TRUE(s.untilTriggers(101));
    EXPECT_EQ(val(s.reader->ts_locked), 1);
    EXPECT_EQ(val(s.reader->ts_offset_pending), 0);
    EXPECT_EQ(val(s.reader->ntp_count), 1);
    const int64_t now = s.sim.clock->systemNanoseconds();
    EXPECT_EQ(static_cast<int64_t>(s.reader->getCurrentBHIMUTimestamp()), val(now - offset));
}

TEST(StreamingClock, WithoutTriggerTheHostClockStampsTheSamples) {
    Stream s(streamConfig(2, 0.0));
    for (int i = 0; i < 2000; ++i) {
        ASSERT_TRUE(s.next());
        EXPECT_EQ(static_cast<int64_t>(s.reader->getCurrentBHIMUTimestamp()),
                  s.sim.clock->systemNanoseconds());
    }
    EXPECT_EQ(val(s.reader->mcu_time_ns), 0u);
    EXPECT_EQ(val(s.reader->ts_locked), 0);
    EXPECT_EQ(val(s.reader->current_report.sync_capabilities), 0);
}

TEST(StreamingClock, McuCounterResetKeepsTheTimelineSmooth) {
    for (int odr : {2, 3}) {
        const int hz = imuOdrToHz(odr);
        auto c = streamConfig(odr);
        c.clockJumpBackAfter = 21 * hz;  // after the lock (601 triggers at 30 Hz)
        Stream s(c);
        const uint64_t step = 1000000u / hz;
        uint64_t lastMcu = 0;
        uint64_t lastHost = 0;
        bool jumped = false;
        for (int i = 0; i < 25 * hz; ++i) {
            ASSERT_TRUE(s.next());
            const uint64_t mcu = s.reader->getCurrentMCUTimeStamp();
            const uint64_t host = s.reader->getCurrentBHIMUTimestamp();
            if (i > 0) {
                ASSERT_EQ(val(mcu - lastMcu), step) << "sample " << i;
                ASSERT_GT(host, lastHost) << "sample " << i;
            }
            if (s.reader->accumulated_ts_offset != 0 && !jumped) {
                jumped = true;
                EXPECT_EQ(val(s.reader->ts_locked), 1);
            }
            lastMcu = mcu;
            lastHost = host;
        }
        EXPECT_TRUE(jumped);
        EXPECT_EQ(s.reader->getDeltaTime_us(), step);
    }
}

TEST(StreamingSlowSensors, EnvironmentAndMagnetometerAtTheirRates) {
    auto c = streamConfig(2);
    c.productId = 0xF781;
    c.envRate = 25;
    c.magRate = 50;
    Stream s(c);
    int envNew = 0, magNew = 0;
    uint64_t lastEnvTs = 0;
    for (int i = 0; i < 4000; ++i) {  // 10 s
        ASSERT_TRUE(s.next());
        if (s.reader->current_report.env_valid == 2)
            ++envNew;
        if (s.reader->current_report.mag_valid == 2)
            ++magNew;
        if (s.reader->getCurrentBHEnvTimestamp() != lastEnvTs) {
            EXPECT_GT(s.reader->getCurrentBHEnvTimestamp(), lastEnvTs);
            lastEnvTs = s.reader->getCurrentBHEnvTimestamp();
        }
    }
    EXPECT_NEAR(envNew, 250, 2);
    EXPECT_NEAR(magNew, 500, 2);
    EXPECT_FLOAT_EQ(s.reader->getEnvTemperature(), 24.5f);
    EXPECT_FLOAT_EQ(s.reader->getEnvHumidity(), 45.f);
    EXPECT_NEAR(s.reader->getEnvPressure(), 1013.28f, 0.05f);
    EXPECT_FLOAT_EQ(s.reader->getMappedMagnetoX(), 30.f);
    EXPECT_FLOAT_EQ(s.reader->getMappedMagnetoY(), -20.f);
    EXPECT_FLOAT_EQ(s.reader->getMappedMagnetoZ(), 40.f);
    EXPECT_GT(s.reader->getCurrentMCUEnvTimeStamp(), 0u);
    EXPECT_GT(s.reader->getCurrentMCUMagTimeStamp(), 0u);
    EXPECT_LE(s.reader->getCurrentMCUMagTimeStamp(), s.reader->getCurrentMCUTimeStamp());
}

// ---------------------------------------------------------------------------
// Scripted reports: exact sequences

namespace {

struct Scripted {
    SimMachine sim;
    std::shared_ptr<ScriptedHid> dev = std::make_shared<ScriptedHid>();
    std::unique_ptr<IMUHidReader> reader;
    explicit Scripted(std::vector<McuSensorReport> reports) {
        for (const auto& r : reports)
            dev->stream.push_back(reportBytes(r));
        dev->features[mcu_id::STREAM] = {mcu_id::STREAM, 1};
        sim.machine->addHidDevice(dev);
        sim.install();
        reader = std::make_unique<IMUHidReader>(false, VENDOR, PICO);
        EXPECT_EQ(reader->open(0, false, false), 12345678);
    }
};

McuSensorReport env(uint64_t ticks, uint8_t valid, uint32_t pressure, uint32_t humidity, int16_t temp) {
    McuSensorReport r = sample(1, ticks);
    r.env_valid = valid;
    r.pressure = pressure;
    r.humidity = humidity;
    r.env_temperature = temp;
    return r;
}

}  // namespace

namespace {

// A scripted MCU of its own path and serial, streaming `count` samples.
std::shared_ptr<ScriptedHid> streamingDevice(const char* path, const wchar_t* serial, int count) {
    auto dev = std::make_shared<ScriptedHid>();
    dev->id.path = path;
    dev->id.serial = serial;
    dev->features[mcu_id::STREAM] = {mcu_id::STREAM, 1};
    for (int i = 1; i <= count; ++i)
        dev->stream.push_back(reportBytes(sample(1, static_cast<uint64_t>(i) * 64)));
    return dev;
}

size_t pingsOf(const ScriptedHid& dev) {
    const std::vector<uint8_t> ping = {mcu_id::STREAM, 0xF2};
    return static_cast<size_t>(std::count(dev.featureWrites.begin(), dev.featureWrites.end(), ping));
}

}  // namespace

// The calls are counted for every reader of the process together: from the
// 400th on, a call that got data pings and the count starts again at 1.
TEST(StreamingScripted, PingCountsTheCallsOfEveryReader) {
    SimMachine sim;
    auto first = streamingDevice("0001:0009:00", L"11111111", 600);
    auto second = streamingDevice("0001:000a:00", L"22222222", 600);
    sim.machine->addHidDevice(first);
    sim.machine->addHidDevice(second);
    sim.install();

    auto a = std::make_unique<IMUHidReader>(false, VENDOR, PICO);
    ASSERT_EQ(a->open(11111111, false, false), 11111111);
    int calls = 0;
    while (pingsOf(*first) == 0 && calls < 450) {
        a->updateIMUData(false);
        ++calls;
    }
    ASSERT_EQ(pingsOf(*first), 1u);  // the count is now 1
    for (int i = 0; i < 100; ++i)
        a->updateIMUData(false);  // 101
    EXPECT_EQ(pingsOf(*first), 1u);
    a.reset();

    auto b = std::make_unique<IMUHidReader>(false, VENDOR, PICO);
    ASSERT_EQ(b->open(22222222, false, false), 22222222);
    int b_calls = 0;
    while (pingsOf(*second) == 0 && b_calls < 450) {
        b->updateIMUData(false);
        ++b_calls;
    }
    EXPECT_EQ(pingsOf(*second), 1u);
    EXPECT_EQ(b_calls, 299);  // 102 .. 400
}

TEST(StreamingScripted, EnvValid1BeforeAny2FillsOnceLaterOnesChangeNothing) {
    Scripted s(
        {env(100, 1, 100000, 1024, 2000), env(200, 1, 200000, 2048, 3000), env(300, 2, 300000, 4096, 4000)});
    ASSERT_TRUE(s.reader->updateIMUData(false));
    EXPECT_FLOAT_EQ(s.reader->getEnvHumidity(), 1.f);
    EXPECT_FLOAT_EQ(s.reader->getEnvTemperature(), 20.f);
    EXPECT_EQ(val(s.reader->env_ticks), 100u);
    ASSERT_TRUE(s.reader->updateIMUData(false));
    EXPECT_FLOAT_EQ(s.reader->getEnvHumidity(), 1.f);
    EXPECT_FLOAT_EQ(s.reader->getEnvTemperature(), 20.f);
    EXPECT_EQ(val(s.reader->env_ticks), 100u);
    ASSERT_TRUE(s.reader->updateIMUData(false));
    EXPECT_FLOAT_EQ(s.reader->getEnvHumidity(), 4.f);
    EXPECT_FLOAT_EQ(s.reader->getEnvTemperature(), 40.f);
    EXPECT_EQ(val(s.reader->env_ticks), 300u);
}

TEST(StreamingScripted, EnvValid3ReadsAs0AndTheGettersGiveNaN) {
    Scripted s({env(100, 2, 100000, 1024, 2000), env(200, 3, 200000, 2048, 3000)});
    ASSERT_TRUE(s.reader->updateIMUData(false));
    EXPECT_FALSE(std::isnan(s.reader->getEnvTemperature()));
    ASSERT_TRUE(s.reader->updateIMUData(false));
    EXPECT_EQ(val(s.reader->current_report.env_valid), 0);
    EXPECT_TRUE(std::isnan(s.reader->getEnvTemperature()));
    EXPECT_TRUE(std::isnan(s.reader->getEnvHumidity()));
    EXPECT_TRUE(std::isnan(s.reader->getEnvPressure()));
    EXPECT_EQ(val(s.reader->env_humidity), 1024u);  // nothing stored
}

TEST(StreamingScripted, FirstTwoPressuresThroughTheFilterGiveZero) {
    Scripted s({env(100, 2, 101325, 0, 0), env(200, 2, 101330, 0, 0), env(300, 2, 101320, 0, 0)});
    ASSERT_TRUE(s.reader->updateIMUData(false));
    EXPECT_EQ(s.reader->getEnvPressure(), 0.f);
    ASSERT_TRUE(s.reader->updateIMUData(false));
    EXPECT_EQ(s.reader->getEnvPressure(), 0.f);
    ASSERT_TRUE(s.reader->updateIMUData(false));
    EXPECT_FLOAT_EQ(s.reader->getEnvPressure(), 1013.20f);
}

TEST(StreamingScripted, MagValidAbove2IsZeroedAndStoresNothing) {
    McuSensorReport a = sample(1, 100), b = sample(1, 200), c = sample(1, 300);
    a.mag_valid = 1;
    b.mag_valid = 1;
    c.mag_valid = 7;
    Scripted s({a, b, c});
    ASSERT_TRUE(s.reader->updateIMUData(false));
    EXPECT_EQ(val(s.reader->mag_ticks), 100u);
    ASSERT_TRUE(s.reader->updateIMUData(false));
    EXPECT_EQ(val(s.reader->mag_ticks), 100u);
    ASSERT_TRUE(s.reader->updateIMUData(false));
    EXPECT_EQ(val(s.reader->current_report.mag_valid), 0);
    EXPECT_TRUE(std::isnan(s.reader->getMappedMagnetoX()));
    EXPECT_EQ(val(s.reader->mag_ticks), 100u);
}

TEST(StreamingScripted, FrameSyncEvents) {
    McuSensorReport r[5] = {sample(1, 100), sample(1, 200), sample(1, 300), sample(1, 400), sample(1, 500)};
    r[1].frame_sync = 1;        // trigger, count unchanged: 1
    r[2].frame_sync_count = 1;  // count only: 1
    r[3].frame_sync = 1;        // both: 2
    r[3].frame_sync_count = 2;
    r[4].frame_sync_count = 2;  // neither: 0
    Scripted s({r[0], r[1], r[2], r[3], r[4]});
    const int expected[5] = {0, 1, 1, 2, 0};
    const uint64_t ticks[5] = {0, 200, 300, 400, 400};
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(s.reader->updateIMUData(false));
        EXPECT_EQ(val(s.reader->sync_event), val(expected[i])) << i;
        EXPECT_EQ(val(s.reader->sync_ticks), val(ticks[i])) << i;
    }
}

TEST(StreamingScripted, InvalidInertialSampleKeepsTheClockButIsNotDelivered) {
    McuSensorReport a = sample(1, 100), b = sample(1, 164), c = sample(1, 228);
    b.imu_not_valid = 1;
    Scripted s({a, b, c});
    ASSERT_TRUE(s.reader->updateIMUData(false));
    EXPECT_FALSE(s.reader->updateIMUData(false));
    EXPECT_EQ(s.reader->has_new_data, 0);
    EXPECT_EQ(val(s.reader->last_ticks), 164u);
    ASSERT_TRUE(s.reader->updateIMUData(false));
    EXPECT_EQ(s.reader->getDeltaTime_us(), 2500u);
}

TEST(StreamingScripted, CounterRestartPlacesTheSampleOneIntervalAfterTheLast) {
    Scripted s({sample(1, 1000), sample(1, 1064), sample(1, 0), sample(1, 64), sample(1, 128)});
    uint64_t expectTicks[5] = {1000, 1064, 1128, 1192, 1256};
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(s.reader->updateIMUData(false));
        EXPECT_EQ(val(s.reader->current_report.timestamp), val(expectTicks[i])) << i;
    }
    EXPECT_EQ(val(s.reader->accumulated_ts_offset), 1128u);
    EXPECT_EQ(s.reader->getDeltaTime_us(), 2500u);
}

TEST(StreamingScripted, ShortReadsReopenOnceThenMarkLostAndAGoodSampleClearsIt) {
    Scripted s({sample(1, 100), sample(1, 164), sample(1, 228), sample(1, 292), sample(1, 356)});
    s.dev->streamResults = {62, 30, 0, 61, 62};
    const int opensBefore = static_cast<int>(s.dev->featureWrites.size());
    ASSERT_TRUE(s.reader->updateIMUData(false));
    EXPECT_FALSE(s.reader->updateIMUData(false));
    EXPECT_EQ(val(s.reader->reopen_failures), 1);
    EXPECT_NE(val(s.reader->handle), nullptr);                              // reopened
    EXPECT_GT(static_cast<int>(s.dev->featureWrites.size()), opensBefore);  // streaming restarted
    EXPECT_EQ(s.reader->is_lost, 0);
    EXPECT_FALSE(s.reader->updateIMUData(false));
    EXPECT_EQ(s.reader->is_lost, 0);
    EXPECT_FALSE(s.reader->updateIMUData(false));
    EXPECT_EQ(s.reader->is_lost, 1);
    EXPECT_EQ(val(s.reader->reopen_failures), 3);
    EXPECT_TRUE(s.reader->updateIMUData(false));
    EXPECT_EQ(s.reader->is_lost, 0);
    EXPECT_EQ(val(s.reader->reopen_failures), 0);
}

TEST(StreamingScripted, LibraryErrorProcessesThePreviousBufferAgain) {
    Scripted s({sample(1, 100), sample(1, 164), sample(1, 228)});
    s.dev->streamResults = {62, -1};
    ASSERT_TRUE(s.reader->updateIMUData(false));
    // -1 passes the unsigned length test: the last sample comes again, no time passes.
    EXPECT_TRUE(s.reader->updateIMUData(false));
    EXPECT_EQ(val(s.reader->current_report.timestamp), 100u);
    EXPECT_EQ(s.reader->getDeltaTime_us(), 0u);
}

TEST(StreamingScripted, DeviceGoneBeforeTheReopenLeavesNoHandleAndNoCrash) {
    Scripted s({sample(1, 100)});
    ASSERT_TRUE(s.reader->updateIMUData(false));
    s.dev->isPresent = false;
    EXPECT_FALSE(s.reader->updateIMUData(false));  // time-out, reopen fails
    EXPECT_EQ(val(s.reader->handle), nullptr);
    for (int i = 0; i < 5; ++i)
        EXPECT_FALSE(s.reader->updateIMUData(false));
    EXPECT_FALSE(s.reader->isDataStreamEnabled());
    s.reader->close();
}

TEST(StreamingSim, InjectedShortReadsOnTheVirtualMcu) {
    Stream s(streamConfig(2));
    ASSERT_TRUE(s.next());
    s.mcu->injectShortReads(3, 20);
    EXPECT_FALSE(s.reader->updateIMUData(true));
    EXPECT_FALSE(s.reader->updateIMUData(true));
    EXPECT_FALSE(s.reader->updateIMUData(true));
    EXPECT_EQ(s.reader->is_lost, 1);
    EXPECT_TRUE(s.reader->updateIMUData(true));
    EXPECT_EQ(s.reader->is_lost, 0);
}

TEST(StreamingSim, StalledEndpointMidStreamEndsLostUntilReopened) {
    Stream s(streamConfig(2));
    ASSERT_TRUE(s.next());
    s.mcu->setStalled(true);
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(s.reader->updateIMUData(false));
    EXPECT_EQ(s.reader->is_lost, 1);
    EXPECT_FALSE(s.reader->sendStartDataStreamingCommand());
    // A new open clears the halt through the USB recovery.
    ASSERT_GT(s.reader->open(0, true, false), 0);
    ASSERT_TRUE(s.reader->sendStartDataStreamingCommand());
    EXPECT_TRUE(s.next());
}

TEST(StreamingSim, DeviceUnpluggedMidStreamDoesNotCrash) {
    auto c = streamConfig(2);
    c.unplugAfter = 50;
    Stream s(c);
    for (int i = 0; i < 50; ++i)
        ASSERT_TRUE(s.next());
    const uint64_t last = s.reader->current_report.timestamp;
    // hidapi's -1 counts as a full read: the last sample is handed over again
    // with no time between, and nothing else happens.
    for (int i = 0; i < 5; ++i) {
        s.reader->updateIMUData(false);
        EXPECT_EQ(val(s.reader->current_report.timestamp), last);
        EXPECT_EQ(s.reader->getDeltaTime_us(), 0u);
    }
    s.reader->close();
    EXPECT_EQ(s.reader->is_closed, 1);
}

TEST(StreamingSim, LegacyFirmwareStreamsAt800Hz) {
    auto c = config(12345678, 0x206, 2);
    Stream s(c);
    ASSERT_TRUE(s.next());
    const uint64_t start = s.reader->getCurrentMCUTimeStamp();
    int n = 0;
    while (s.reader->getCurrentMCUTimeStamp() - start < 1000000u) {
        ASSERT_TRUE(s.next());
        ++n;
        EXPECT_EQ(val(s.reader->current_report.report_id), 0);
        EXPECT_EQ(s.reader->getDeltaTime_us(), 1250u);
    }
    EXPECT_EQ(n, 800);
    EXPECT_FLOAT_EQ(s.reader->getCurrentIMUTemperatureInCelsius(false), 35.f);
}
