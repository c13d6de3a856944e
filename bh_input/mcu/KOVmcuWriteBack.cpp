// EEPROM write-back and the operations that take the MCU away from normal
// running. Each write stops the stream and the fusion thread, sends one record
// and re-reads the image, so that the mirror shows what the MCU now holds.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "bh_input/mcu/KOVmcu.h"
#include "platform/Clock.h"
#include "support/KLogger.h"

namespace bh {

namespace {

void sleepMs(int ms) {
    platform::clock().sleepFor(std::chrono::milliseconds(ms));
}

void logFailure() {
    KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "MCU_STATUS::FAILURE");
}

// Default mono record of a resolution: the first four floats, the rest zero.
calib_mono_data defaultMono(int resolution) {
    static const float table[4][4] = {
        {1400.f, 1400.f, 1104.f, 621.f},
        {1400.f, 1400.f, 960.f, 540.f},
        {700.f, 700.f, 640.f, 360.f},
        {350.f, 350.f, 336.f, 188.f},
    };
    calib_mono_data mono;
    std::memset(&mono, 0, sizeof(mono));
    for (int i = 0; i < 4; ++i) {
        mono.values[i] = table[resolution][i];
    }
    return mono;
}

}  // namespace

MCU_STATUS KOVmcu::checkReader(const char*) {
    if (!imu_reader) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "MCU_STATUS::FAILURE");
        return MCU_STATUS::FAILURE;
    }
    if (!imu_reader->is_open) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "MCU_STATUS::NOT_OPEN");
        return MCU_STATUS::NOT_OPEN;
    }
    return MCU_STATUS::SUCCESS;
}

// Steps 2 and 3 of every write: remember and stop the stream, then the thread.
// False when the stream would not stop; the capture is then left as it was.
bool KOVmcu::writePrologue(const char*, bool& stream_was_on, bool stop_capture) {
    stream_was_on = imu_reader->isDataStreamEnabled();
    if (stream_was_on && !imu_reader->sendStopDataStreamingCommand()) {
        logFailure();
        return false;
    }
    if (stop_capture) {
        stopCapture();
    }
    return true;
}

// Steps 5 and 6: let the EEPROM settle, re-read the image, restart the stream.
MCU_STATUS KOVmcu::writeEpilogue(bool stream_was_on, bool reread, bool camera_calib) {
    sleepMs(5);
    if (reread) {
        if (!imu_reader->updateEepromMemory(camera_calib)) {
            logFailure();
            return MCU_STATUS::FAILURE;
        }
        eeprom = imu_reader->getEepromMemory(false);
    }
    if (stream_was_on) {
        imu_reader->sendStartDataStreamingCommand();
    }
    return MCU_STATUS::SUCCESS;
}

MCU_STATUS KOVmcu::writeSNinEEprom(int prefix, int body) {
    const MCU_STATUS check = checkReader("writeSNinEEprom");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    bool was_on = false;
    if (!writePrologue("writeSNinEEprom", was_on)) {
        return MCU_STATUS::FAILURE;
    }
    if (!imu_reader->sendWriteSNCommand(prefix, body)) {
        logFailure();
        return MCU_STATUS::FAILURE;
    }
    return writeEpilogue(was_on, true, false);
}

MCU_STATUS KOVmcu::writeBiasinEEprom(std::vector<float>& values, bool keep_stopped) {
    const MCU_STATUS check = checkReader("writeBiasinEEprom");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    if (values.size() < 6) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "writeBiasinEEprom: 6 values expected, {} given",
             values.size());
        return MCU_STATUS::FAILURE;
    }
    bool was_on = false;
    if (!writePrologue("writeBiasinEEprom", was_on)) {
        return MCU_STATUS::FAILURE;
    }
    if (!imu_reader->sendWriteBiasCommand(values[0], values[1], values[2], values[3], values[4], values[5])) {
        logFailure();
        return MCU_STATUS::FAILURE;
    }
    return writeEpilogue(was_on, !keep_stopped, false);
}

MCU_STATUS KOVmcu::writeVarianceinEEprom(std::vector<float>& values, bool keep_stopped) {
    const MCU_STATUS check = checkReader("writeVarianceinEEprom");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    if (values.size() < 6) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "writeVarianceinEEprom: 6 values expected, {} given",
             values.size());
        return MCU_STATUS::FAILURE;
    }
    bool was_on = false;
    if (!writePrologue("writeVarianceinEEprom", was_on)) {
        return MCU_STATUS::FAILURE;
    }
    if (!imu_reader->sendWriteVarianceCommand(values[0], values[1], values[2], values[3], values[4],
                                              values[5])) {
        logFailure();
        return MCU_STATUS::FAILURE;
    }
    return writeEpilogue(was_on, !keep_stopped, false);
}

MCU_STATUS KOVmcu::writeVarianceinEEprom(variance_data& record, bool keep_stopped) {
    std::vector<float> values = {record.gyro_var[0], record.gyro_var[1], record.gyro_var[2],
                                 record.acc_var[0],  record.acc_var[1],  record.acc_var[2]};
    return writeVarianceinEEprom(values, keep_stopped);
}

MCU_STATUS KOVmcu::writeBarometerCalibInEEprom(float scale, float offset) {
    const MCU_STATUS check = checkReader("writeBarometerCalibInEEprom");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    bool was_on = false;
    if (!writePrologue("writeBarometerCalibInEEprom", was_on)) {
        return MCU_STATUS::FAILURE;
    }
    if (!imu_reader->sendWriteBaromCalibCommand(scale, offset)) {
        logFailure();
        return MCU_STATUS::FAILURE;
    }
    return writeEpilogue(was_on, true, false);
}

MCU_STATUS KOVmcu::writeKlibinEEprom(float x, float y, float z, bool keep_stopped) {
    const MCU_STATUS check = checkReader("writeKlibinEEprom");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    bool was_on = false;
    if (!writePrologue("writeKlibinEEprom", was_on)) {
        return MCU_STATUS::FAILURE;
    }
    if (!imu_reader->sendWriteKlibCommand(x, y, z)) {
        logFailure();
        return MCU_STATUS::FAILURE;
    }
    return writeEpilogue(was_on, !keep_stopped, false);
}

MCU_STATUS KOVmcu::writeExtendedGyroCalibInEEprom(_extended_gyro_calib_data& data, bool keep_stopped) {
    const MCU_STATUS check = checkReader("writeExtendedGyroCalibInEEprom");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    bool was_on = false;
    if (!writePrologue("writeExtendedGyroCalibInEEprom", was_on)) {
        return MCU_STATUS::FAILURE;
    }
    if (!imu_reader->sendWriteExtGyroCalibCommand(data)) {
        logFailure();
        return MCU_STATUS::FAILURE;
    }
    return writeEpilogue(was_on, !keep_stopped, false);
}

MCU_STATUS KOVmcu::writeExtendedAccCalibInEEprom(_extended_acc_calib_data& data, bool keep_stopped) {
    const MCU_STATUS check = checkReader("writeExtendedAccCalibInEEprom");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    bool was_on = false;
    if (!writePrologue("writeExtendedAccCalibInEEprom", was_on)) {
        return MCU_STATUS::FAILURE;
    }
    if (!imu_reader->sendWriteExtAccCalibCommand(data)) {
        logFailure();
        return MCU_STATUS::FAILURE;
    }
    return writeEpilogue(was_on, !keep_stopped, false);
}

MCU_STATUS KOVmcu::writeMagCalibInEEprom(_mag_calib_data& data) {
    const MCU_STATUS check = checkReader("writeMagCalibInEEprom");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    bool was_on = false;
    if (!writePrologue("writeMagCalibInEEprom", was_on)) {
        return MCU_STATUS::FAILURE;
    }
    if (!imu_reader->sendWriteMagCalibCommand(data)) {
        logFailure();
        return MCU_STATUS::FAILURE;
    }
    return writeEpilogue(was_on, true, false);
}

MCU_STATUS KOVmcu::writeMonoCalibinEEprom(int resolution, int side, calib_mono_data& data) {
    const MCU_STATUS check = checkReader("writeMonoCalibinEEprom");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    if (resolution < 0 || resolution > 3 || side < 0 || side > 1) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "writeMonoCalibinEEprom: no record for resolution {} side {}",
             resolution, side);
        return MCU_STATUS::FAILURE;
    }
    bool was_on = false;
    if (!writePrologue("writeMonoCalibinEEprom", was_on)) {
        return MCU_STATUS::FAILURE;
    }
    if (!imu_reader->sendWriteCalibMonoCommand(resolution, side, data)) {
        logFailure();
        return MCU_STATUS::FAILURE;
    }
    return writeEpilogue(was_on, true, true);
}

MCU_STATUS KOVmcu::writeStereoCalibinEEprom(float p0, float p1, float p2, float* block1, float* block2,
                                            float* block3) {
    const MCU_STATUS check = checkReader("writeStereoCalibinEEprom");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    if (block1 == nullptr || block2 == nullptr || block3 == nullptr) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "writeStereoCalibinEEprom: missing block");
        return MCU_STATUS::FAILURE;
    }
    bool was_on = false;
    if (!writePrologue("writeStereoCalibinEEprom", was_on)) {
        return MCU_STATUS::FAILURE;
    }
    if (!imu_reader->sendWriteCalibStereoCommand(p0, p1, p2, block1, block2, block3)) {
        logFailure();
        return MCU_STATUS::FAILURE;
    }
    return writeEpilogue(was_on, true, true);
}

MCU_STATUS KOVmcu::writeStereoCalibinEEprom(_calib_stereo_data& data) {
    // the record is packed: its blocks are copied to aligned arrays first
    float b1[4], b2[4], b3[4];
    std::memcpy(b1, reinterpret_cast<const uint8_t*>(&data) + offsetof(_calib_stereo_data, block1),
                sizeof(b1));
    std::memcpy(b2, reinterpret_cast<const uint8_t*>(&data) + offsetof(_calib_stereo_data, block2),
                sizeof(b2));
    std::memcpy(b3, reinterpret_cast<const uint8_t*>(&data) + offsetof(_calib_stereo_data, block3),
                sizeof(b3));
    return writeStereoCalibinEEprom(data.params[0], data.params[1], data.params[2], b1, b2, b3);
}

MCU_STATUS KOVmcu::writeImuFrequencyinEEprom(_imu_odr rate) {
    const MCU_STATUS check = checkReader("writeImuFrequencyinEEprom");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    bool was_on = false;
    if (!writePrologue("writeImuFrequencyinEEprom", was_on, false)) {
        return MCU_STATUS::FAILURE;
    }
    if (!imu_reader->sendWriteImuFreq(rate)) {
        logFailure();
        return MCU_STATUS::FAILURE;
    }
    return writeEpilogue(was_on, true, false);
}

MCU_STATUS KOVmcu::writeFullCalibinEEprom(std::vector<std::pair<calib_mono_data, calib_mono_data>>& pairs,
                                          _calib_stereo_data& stereo, _extended_acc_calib_data& acc,
                                          _extended_gyro_calib_data& gyro, _mag_calib_data& mag,
                                          variance_data& variance, _bias_data& bias) {
    const MCU_STATUS check = checkReader("writeFullCalibinEEprom");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    if (pairs.size() > 4) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "writeFullCalibinEEprom: {} resolutions given, 4 at most",
             pairs.size());
        return MCU_STATUS::FAILURE;
    }
    stopCapture();
    VirtualIMUReader& r = *imu_reader;
    auto step = [](bool ok) {
        sleepMs(15);
        if (!ok) {
            logFailure();
        }
        return ok;
    };
    for (size_t i = 0; i < pairs.size(); ++i) {
        const int res = static_cast<int>(i);
        if (!step(r.sendWriteCalibMonoCommand(res, 0, pairs[i].first)) ||
            !step(r.sendWriteCalibMonoCommand(res, 1, pairs[i].second))) {
            return MCU_STATUS::FAILURE;
        }
    }
    if (!step(r.sendWriteCalibStereoCommand(stereo.params[0], stereo.params[1], stereo.params[2],
                                            stereo.block1, stereo.block2, stereo.block3)) ||
        !step(r.sendWriteMagCalibCommand(mag)) || !step(r.sendWriteBaromCalibCommand(1.f, 0.f)) ||
        !step(r.sendWriteExtAccCalibCommand(acc)) || !step(r.sendWriteExtGyroCalibCommand(gyro)) ||
        !step(r.sendWriteVarianceCommand(variance.gyro_var[0], variance.gyro_var[1], variance.gyro_var[2],
                                         variance.acc_var[0], variance.acc_var[1], variance.acc_var[2])) ||
        !step(r.sendWriteBiasCommand(bias.gyro_bias[0], bias.gyro_bias[1], bias.gyro_bias[2],
                                     bias.acc_bias[0], bias.acc_bias[1], bias.acc_bias[2]))) {
        return MCU_STATUS::FAILURE;
    }
    if (!r.updateEepromMemory(true)) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error,
             "KOVmcu::writeFullCalibinEEprom: can not update Eeprom Memory");
        return MCU_STATUS::FAILURE;
    }
    eeprom = r.getEepromMemory(false);
    return MCU_STATUS::SUCCESS;
}

MCU_STATUS KOVmcu::formatFullEEprom(int prefix, int body) {
    const MCU_STATUS check = checkReader("formatFullEEprom");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    stopCapture();
    VirtualIMUReader& r = *imu_reader;
    const int fw = r.firmware_version;

    if (fw < 514) {
        const bool ok = r.sendWriteSNCommand(prefix, body) && (sleepMs(10), true) &&
                        r.sendWriteBiasCommand(0.f, 0.f, 0.f, 0.f, 0.f, 0.f) && (sleepMs(10), true) &&
                        r.sendWriteVarianceCommand(0.f, 0.f, 0.f, 0.f, 0.f, 0.f) && (sleepMs(10), true) &&
                        r.sendWriteKlibCommand(0.f, 0.f, 0.f) && (sleepMs(10), true) &&
                        r.updateEepromMemory(false);
        if (!ok) {
            logFailure();
            return MCU_STATUS::FAILURE;
        }
        eeprom = r.getEepromMemory(false);
        return MCU_STATUS::SUCCESS;
    }

    if (fw <= mcu_fw::LEGACY_MAX) {
        const bool erased = r.sendEraseCommandwithSN(prefix, body);
        sleepMs(10);
        if (!erased || !r.updateEepromMemory(false)) {
            logFailure();
            return MCU_STATUS::FAILURE;
        }
    }

    int failures = 0;
    auto count = [&failures](bool ok) {
        if (!ok) {
            ++failures;
        }
    };
    count(r.sendWriteSNCommand(prefix, body));
    count(r.sendWriteBiasCommand(0.f, 0.f, 0.f, 0.f, 0.f, 0.f));
    count(r.sendWriteVarianceCommand(0.f, 0.f, 0.f, 0.f, 0.f, 0.f));
    count(r.sendWriteKlibCommand(0.f, 0.f, 0.f));
    float zeros1[4] = {0.f, 0.f, 0.f, 0.f};
    float zeros2[4] = {0.f, 0.f, 0.f, 0.f};
    float zeros3[4] = {0.f, 0.f, 0.f, 0.f};
    const float first = (prefix & ~2) == 0 ? 120.f : 60.f;
    count(r.sendWriteCalibStereoCommand(first, 0.f, 0.f, zeros1, zeros2, zeros3));
    for (int res = 0; res < 4; ++res) {
        for (int side = 0; side < 2; ++side) {
            calib_mono_data mono = defaultMono(res);
            count(r.sendWriteCalibMonoCommand(res, side, mono));
        }
    }
    count(r.sendWriteBaromCalibCommand(1.f, 0.f));
    _extended_acc_calib_data acc;
    std::memset(&acc, 0, sizeof(acc));
    acc.id = mcu_id::EXT_ACC;
    acc.scale[0] = acc.scale[1] = acc.scale[2] = 1.f;
    count(r.sendWriteExtAccCalibCommand(acc));
    _extended_gyro_calib_data gyro;
    std::memset(&gyro, 0, sizeof(gyro));
    gyro.id = mcu_id::EXT_GYRO;
    gyro.scale[0] = gyro.scale[1] = gyro.scale[2] = 1.f;
    count(r.sendWriteExtGyroCalibCommand(gyro));

    const bool read = r.updateEepromMemory(true);
    if (read) {
        eeprom = r.getEepromMemory(false);
    }
    if (failures != 0 || !read) {
        logFailure();
        return MCU_STATUS::FAILURE;
    }
    return MCU_STATUS::SUCCESS;
}

MCU_STATUS KOVmcu::readFullEEprom(eepromMemoryStrc& out) {
    const MCU_STATUS check = checkReader("readFullEEprom");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    stopCapture();
    if (!imu_reader->updateEepromMemory(true)) {
        logFailure();
        return MCU_STATUS::FAILURE;
    }
    const eepromMemoryStrc image = imu_reader->getEepromMemory(false);
    std::memcpy(&out, &image, sizeof(eepromMemoryStrc));
    return MCU_STATUS::SUCCESS;
}

MCU_STATUS KOVmcu::switchToDFU() {
    const MCU_STATUS check = checkReader("switchToDFU");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    stopCapture();
    if (!imu_reader->sendDFUEnterCommand()) {
        logFailure();
        return MCU_STATUS::FAILURE;
    }
    return MCU_STATUS::SUCCESS;
}

MCU_STATUS KOVmcu::resetOV580() {
    const MCU_STATUS check = checkReader("resetOV580");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    stopCapture();
    imu_reader->sendOV580ResetCommand();
    return MCU_STATUS::SUCCESS;
}

MCU_STATUS KOVmcu::resetHW() {
    const MCU_STATUS check = checkReader("resetHW");
    if (check != MCU_STATUS::SUCCESS) {
        return check;
    }
    stopCapture();
    imu_reader->sendMcuResetCommand();
    return MCU_STATUS::SUCCESS;
}

IMUCalibExport KOVmcu::exportCalib() {
    const Eigen::Matrix3f& R = Reader2ImageRotation();
    auto turn = [&R](const Eigen::Matrix3f& m) -> Eigen::Matrix3f { return R * m * R.transpose(); };
    constexpr float kRadToDeg = 57.295776f;
    IMUCalibExport out;
    out.acc_scale = turn(calib.acc_scale);
    out.acc_missalign = turn(calib.acc_missalign);
    out.acc_full = turn(calib.acc_full);
    out.acc_bias = R * calib.acc_bias;
    out.gyro_scale = turn(calib.gyro_scale);
    out.gyro_missalign = turn(calib.gyro_missalign);
    out.gyro_full = turn(calib.gyro_full);
    out.gyro_bias = R * (calib.gyro_bias * kRadToDeg);
    return out;
}

bool KOVmcu::writeInFileEepromMemory() {
    if (!imu_reader) {
        return false;
    }
    FILE* f = std::fopen("imu_calibration.txt", "w");
    if (f == nullptr) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "imu_calibration.txt can not be written");
        return false;
    }
    const _bias_data& b = eeprom.bias;
    const _extended_acc_calib_data& a = eeprom.ext_acc_calib;
    const _extended_gyro_calib_data& g = eeprom.ext_gyro_calib;
    const variance_data& v = eeprom.variance;
    auto d = [](float x) { return static_cast<double>(x); };
    std::fprintf(f,
                 "Online Biases\n Acc: [%f, %f, %f]\nGyro: [%f, %f, %f]\n\n"
                 "Calibrated Biases\n Acc: [%f, %f, %f]\nGyro: [%f, %f, %f]\n\n"
                 "Calibrated Scales\n Acc: [%f, %f, %f]\nGyro: [%f, %f, %f]\n\n"
                 "Calibrated Misalignments\n Acc: [%f, %f, %f]\nGyro: [%f, %f, %f,%f, %f, %f]\n\n"
                 "Calibrated variances\n Acc: [%f, %f, %f]\nGyro: [%f, %f, %f]\n\n"
                 "Calibrated temperature coefficient\n Acc: [%f, %f, %f]\nGyro: [%f, %f, %f]\n\n",
                 d(b.acc_bias[0]), d(b.acc_bias[1]), d(b.acc_bias[2]), d(b.gyro_bias[0]), d(b.gyro_bias[1]),
                 d(b.gyro_bias[2]), d(a.bias[0]), d(a.bias[1]), d(a.bias[2]), d(g.bias[0]), d(g.bias[1]),
                 d(g.bias[2]), d(a.scale[0]), d(a.scale[1]), d(a.scale[2]), d(g.scale[0]), d(g.scale[1]),
                 d(g.scale[2]), d(a.misalign[0]), d(a.misalign[1]), d(a.misalign[2]), d(g.misalign[0]),
                 d(g.misalign[1]), d(g.misalign[2]), d(g.misalign[3]), d(g.misalign[4]), d(g.misalign[5]),
                 d(v.acc_var[0]), d(v.acc_var[1]), d(v.acc_var[2]), d(v.gyro_var[0]), d(v.gyro_var[1]),
                 d(v.gyro_var[2]), d(a.temp_scale[0]), d(a.temp_scale[1]), d(a.temp_scale[2]),
                 d(g.temp_scale[0]), d(g.temp_scale[1]), d(g.temp_scale[2]));
    std::fclose(f);
    return true;
}

}  // namespace bh
