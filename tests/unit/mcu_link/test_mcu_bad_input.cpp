// Bad device answers: table and fuzz tests of the report parsing (stream
// reports, feature records, legacy answers), wrong record ids, short and
// over-long reports, and bad arguments. Nothing may crash; each case gives the
// described result.
#include <gtest/gtest.h>

#include <random>

#include "McuTestSupport.h"

using namespace mcutest;

namespace {

struct Scripted {
    SimMachine sim;
    std::shared_ptr<ScriptedHid> dev = std::make_shared<ScriptedHid>();
    std::unique_ptr<IMUHidReader> reader;
    explicit Scripted(uint16_t fw = 0x305) {
        dev->id.releaseNumber = fw;
        dev->features[mcu_id::STREAM] = {mcu_id::STREAM, 0};
        sim.machine->addHidDevice(dev);
        sim.install();
        reader = std::make_unique<IMUHidReader>(false, VENDOR, PICO);
        EXPECT_EQ(reader->open(0, false, false), 12345678);
    }
};

}  // namespace

TEST(BadReports, TableOfStreamReports) {
    struct Row {
        const char* name;
        std::vector<uint8_t> bytes;
        int result;
        bool delivered;
    };
    McuSensorReport good = sample(1, 1000);
    std::vector<uint8_t> g = reportBytes(good);
    std::vector<uint8_t> wrongId = g;
    wrongId[0] = 2;
    std::vector<uint8_t> invalid = g;
    invalid[1] = 1;
    std::vector<uint8_t> longer = g;
    longer.resize(64, 0xEE);
    const std::vector<Row> rows = {
        {"good", g, 62, true},
        {"short by one", g, 61, false},
        {"empty", {}, 0, false},
        {"over-long answer", longer, 64, true},
        {"report id 2", wrongId, 62, false},
        {"report id 0 on feature firmware", std::vector<uint8_t>(62, 0), 62, false},
        {"imu not valid", invalid, 62, false},
    };
    for (const Row& row : rows) {
        Scripted s;
        s.dev->stream = {row.bytes};
        s.dev->streamResults = {row.result};
        EXPECT_EQ(s.reader->updateIMUData(false), val(row.delivered)) << row.name;
        EXPECT_EQ(s.reader->has_new_data, val(row.delivered ? 1 : 0)) << row.name;
    }
}

TEST(BadReports, FuzzedStreamNeverCrashesAndOnlyDeliversValidReports) {
    std::mt19937 rng(20261121);
    for (uint16_t fw : {0x305, 0x206}) {
        Scripted s(fw);
        const uint8_t id = fw > 0x300 ? 1 : 0;
        std::uniform_int_distribution<int> byte(0, 255), len(0, 80), pick(0, 9);
        for (int i = 0; i < 3000; ++i) {
            std::vector<uint8_t> r(static_cast<size_t>(len(rng)));
            for (auto& b : r)
                b = static_cast<uint8_t>(byte(rng));
            // Mostly plausible ids so that the parsing past the id is exercised.
            if (!r.empty() && pick(rng) < 7)
                r[0] = id;
            if (r.size() > 1 && pick(rng) < 5)
                r[1] = 0;
            s.dev->stream.push_back(r);
            const int choice = pick(rng);
            s.dev->streamResults.push_back(choice == 0 ? -1
                                                       : static_cast<int>(std::min<size_t>(r.size(), 62)));
        }
        int delivered = 0;
        for (size_t i = 0; i < s.dev->stream.size(); ++i) {
            if (!s.reader->handle)
                break;  // a reopen failed: nothing more to read
            if (s.reader->updateIMUData(false)) {
                ++delivered;
                EXPECT_EQ(val(s.reader->current_report.report_id), id);
                EXPECT_EQ(val(s.reader->current_report.imu_not_valid), 0);
                EXPECT_LE(val(s.reader->current_report.env_valid), 2);
                EXPECT_LE(val(s.reader->current_report.mag_valid), 2);
            }
            (void)s.reader->getEnvPressure();
            (void)s.reader->getMappedMagnetoX();
            (void)s.reader->getCurrentIMUTemperatureInCelsius(true);
            (void)s.reader->getCurrentMCUTimeStamp();
        }
        EXPECT_GT(delivered, 100) << std::hex << fw;
    }
}

TEST(BadReports, FuzzedFeatureRecordsNeverCrash) {
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> byte(0, 255), len(0, 70), coin(0, 3);
    for (int round = 0; round < 200; ++round) {
        Scripted s;
        for (int id = 0x21; id <= 0x45; ++id) {
            if (coin(rng) == 0)
                continue;  // no answer at all (-1)
            std::vector<uint8_t> r(static_cast<size_t>(len(rng)));
            for (auto& b : r)
                b = static_cast<uint8_t>(byte(rng));
            if (!r.empty() && coin(rng) != 0)
                r[0] = static_cast<uint8_t>(id);
            s.dev->features[static_cast<uint8_t>(id)] = r;
        }
        s.dev->featureWriteResult = coin(rng) == 0 ? -1 : -2;
        (void)s.reader->updateEepromMemory(true);
        (void)s.reader->isDataStreamEnabled();
        (void)s.reader->getImuRetrimmingStatus();
        std::string t;
        if (s.reader->getDataSavingTime(t)) {
            EXPECT_LE(t.size(), 24u);
        }
        for (int res = 0; res < 4; ++res)
            for (int side = 0; side < 2; ++side)
                (void)s.reader->sendReadCalibMonoCommand(res, side);
        (void)s.reader->sendReadBaromCalibCommand();
        (void)s.reader->sendReadImuFreq();
        eepromMemoryStrc e = s.reader->getEepromMemory(false);
        (void)e;
    }
}

TEST(BadReports, WrongRecordIdFailsTheFeatureRead) {
    Scripted s;
    std::vector<uint8_t> bias(25, 0);
    bias[0] = mcu_id::VARIANCE;  // answers with the wrong record
    s.dev->features[mcu_id::BIAS] = bias;
    s.reader->eeprom.bias.gyro_bias[0] = 0.05f;
    EXPECT_FALSE(s.reader->sendReadBiasCommand());
    EXPECT_FLOAT_EQ(s.reader->eeprom.bias.gyro_bias[0], 0.05f);
    // Short answer of the right id fails too.
    s.dev->features[mcu_id::BIAS] = {mcu_id::BIAS, 1, 2};
    EXPECT_FALSE(s.reader->sendReadBiasCommand());
}

TEST(BadReports, FeatureReadOfADeadDeviceHasNoPerRecordVerdict) {
    Scripted s;
    s.dev->features.clear();  // every get fails with -1
    s.reader->eeprom.serial.serial_body = 55;
    EXPECT_FALSE(s.reader->updateEepromMemory(true));  // total below zero
    // Records hold what stood in the buffer: the id byte and zeros.
    EXPECT_EQ(val(s.reader->eeprom.serial.id), mcu_id::SERIAL);
    EXPECT_EQ(val(s.reader->eeprom.serial.serial_body), 0);
}

TEST(BadReports, LegacyAnswersWithWrongIdsAreSkipped) {
    Scripted s(0x206);
    // Answers with other ids, then a sample, then the right one.
    std::vector<uint8_t> wrong(64, 0), right(64, 0);
    wrong[0] = 3;
    right[0] = 2;
    float v = 0.25f;
    std::memcpy(&right[13], &v, 4);
    s.dev->stream = {wrong, reportBytes(sample(0, 10)), right};
    EXPECT_TRUE(s.reader->sendReadBiasCommand());
    EXPECT_FLOAT_EQ(s.reader->eeprom.bias.acc_bias[0], 0.25f);
    // Nothing but wrong answers: the command gives up after its rounds.
    s.dev->stream.assign(600, wrong);
    s.dev->next = 0;
    EXPECT_FALSE(s.reader->sendReadBiasCommand());
    // A write whose echo does not match is not a success.
    s.dev->stream.assign(600, right);  // echo holds 0.25, the write sends 0.5
    s.dev->next = 0;
    EXPECT_FALSE(s.reader->sendWriteBiasCommand(0, 0, 0, 0.5f, 0, 0));
}

TEST(BadReports, FuzzedLegacyAnswersEndEveryCommand) {
    std::mt19937 rng(3);
    std::uniform_int_distribution<int> byte(0, 255), len(0, 70), idPick(0, 20);
    Scripted s(0x206);
    for (int i = 0; i < 20000; ++i) {
        std::vector<uint8_t> r(static_cast<size_t>(len(rng)));
        for (auto& b : r)
            b = static_cast<uint8_t>(byte(rng));
        if (!r.empty())
            r[0] = static_cast<uint8_t>(idPick(rng));
        s.dev->stream.push_back(r);
    }
    (void)s.reader->sendReadSNCommand();
    (void)s.reader->sendReadBiasCommand();
    (void)s.reader->sendReadCalibStereoCommand();
    (void)s.reader->updateEepromMemory(true);
    (void)s.reader->sendStartDataStreamingCommand();
    // Every command ended within its bounded number of reads.
    EXPECT_GT(val(s.dev->next), 0u);
    EXPECT_LE(val(s.dev->next), val(3u * 502 + 2 * 5001 + 504));
}

TEST(BadArguments, CommandsRefuseOutOfRangeIndicesWithoutTraffic) {
    Scripted s;
    const size_t before = s.dev->featureWrites.size();
    calib_mono_data m{};
    EXPECT_FALSE(s.reader->sendWriteCalibMonoCommand(4, 0, m));
    EXPECT_FALSE(s.reader->sendWriteCalibMonoCommand(0, 2, m));
    EXPECT_FALSE(s.reader->sendWriteCalibMonoCommand(-1, 1, m));
    EXPECT_FALSE(s.reader->sendReadCalibMonoCommand(3, -1));
    EXPECT_FALSE(s.reader->sendReadCalibMonoCommand(100, 0));
    float b[4] = {};
    EXPECT_FALSE(s.reader->sendWriteCalibStereoCommand(0, 0, 0, nullptr, b, b));
    EXPECT_FALSE(s.reader->sendWriteCalibStereoCommand(0, 0, 0, b, b, nullptr));
    EXPECT_EQ(s.dev->featureWrites.size(), before);
}

TEST(BadArguments, ReaderWithoutDeviceAnswersEverythingSafely) {
    SimMachine sim;
    sim.install();
    IMUHidReader r(false, VENDOR, PICO);
    EXPECT_EQ(r.is_lost, 1);
    EXPECT_FALSE(r.updateIMUData(true));
    EXPECT_FALSE(r.isDataStreamEnabled());
    EXPECT_FALSE(r.sendStartDataStreamingCommand());
    EXPECT_FALSE(r.updateEepromMemory(true));
    EXPECT_FALSE(r.sendDFUEnterCommand());  // tries to reopen, nothing there
    r.is_lost = 0;
    EXPECT_FALSE(r.readReportCommand(nullptr, 0));
    uint8_t buf[2] = {mcu_id::STREAM, 0};
    EXPECT_FALSE(r.readReportCommand(buf, 2));
    EXPECT_FALSE(r.writeReportCommand(buf, 2));
    EXPECT_EQ(r.tryWrite(nullptr, buf), -1);
    EXPECT_EQ(r.tryRead(nullptr, buf, 2), -1);
    r.close();
    EXPECT_TRUE(std::isnan(r.getEnvPressure()));
}
