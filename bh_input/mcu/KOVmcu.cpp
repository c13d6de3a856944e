// Lifecycle of the sensor engine: construction by model, open with every
// firmware generation, start and stop of the fusion thread, close with the
// write-back of the online gyroscope bias, and the reader getters.
#include "bh_input/mcu/KOVmcu.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bh_input/mcu/IMU/IMUGMSLReader.h"
#include "bh_input/mcu/IMU/IMUHidReader.h"
#include "platform/Clock.h"
#include "support/KLogger.h"

namespace bh {

namespace {

constexpr float kDegToRad = 0.017453292f;
constexpr float kGravity = 9.80665f;
constexpr unsigned int kUnprogrammedSerial = 990123456u;

std::mutex& factoryMutex() {
    static std::mutex mutex;
    return mutex;
}

// The GMSL models read their inertial chip over I2C; tests put a reader of
// their own in its place, or none.
KOVmcu::ReaderFactory& gmslFactory() {
    static KOVmcu::ReaderFactory factory = [](bool verbose, uint16_t vendor_id, uint16_t product_id,
                                              bool allow_recording, const std::string& sid_path) {
        return std::unique_ptr<VirtualIMUReader>(
            new IMUGMSLReader(verbose, vendor_id, product_id, allow_recording, sid_path));
    };
    return factory;
}

void sleepMicroseconds(int64_t us) {
    platform::clock().sleepFor(std::chrono::microseconds(us));
}

// Packed record fields go in by value: a reference to them would be misaligned.
Eigen::Vector3f vec3(float x, float y, float z) {
    return Eigen::Vector3f(x, y, z);
}

bool badSerial(int value) {
    return value == 0 || static_cast<unsigned int>(value) == kUnprogrammedSerial;
}

}  // namespace

const Eigen::Matrix3f& Reader2ImageRotation() {
    static const Eigen::Matrix3f rotation = [] {
        Eigen::Matrix3f m;
        m << 0.f, 1.f, 0.f, 1.f, 0.f, 0.f, 0.f, 0.f, -1.f;
        return m;
    }();
    return rotation;
}

void KOVmcu::setGMSLReaderFactory(ReaderFactory factory) {
    std::lock_guard<std::mutex> lock(factoryMutex());
    gmslFactory() = std::move(factory);
}

void KOVmcu::construct(bool verbose_flag, uint16_t vendor, MODEL model_value) {
    verbose = verbose_flag ? 1 : 0;
    vendor_id = vendor;
    model = model_value;
    model_info = mcuModelInfo(model_value);
    accel_lsb = model_info.accel_lsb;
    gyro_lsb = model_info.gyro_lsb;
    device = model_info.device;
    imu_position_default = model_info.default_imu_position;
    fusion_bias.steady_ratio = 0.99f;
    fusion_bias.normalised_limit = 4.0f;
    fusion_bias.refine_ratio = 0.99f;
    for (auto& lp : fusion_bias.low_pass) {
        lp.alpha = 0.05f;
    }
    fusion_bias.enabled = false;
    current_orientation = RTQuaternion(1.f, 0.f, 0.f, 0.f);
}

KOVmcu::KOVmcu(bool verbose_flag, uint16_t vendor, MODEL model_value, bool allow_recording,
               std::string sid_path)
    : imu_queue(1000), batch_queue(1000), sync_queue(1000) {
    construct(verbose_flag, vendor, model_value);
    if (model_info.reader == IMU_READER_KIND::GMSL) {
        ReaderFactory factory;
        {
            std::lock_guard<std::mutex> lock(factoryMutex());
            factory = gmslFactory();
        }
        if (factory) {
            imu_reader = factory(verbose_flag, vendor, model_info.product_id, allow_recording, sid_path);
        }
    } else {
        imu_reader = std::make_unique<IMUHidReader>(verbose_flag, vendor, model_info.product_id,
                                                    allow_recording, sid_path);
    }
}

KOVmcu::KOVmcu(bool verbose_flag, uint16_t vendor, MODEL model_value,
               std::unique_ptr<VirtualIMUReader> reader)
    : imu_queue(1000), batch_queue(1000), sync_queue(1000) {
    construct(verbose_flag, vendor, model_value);
    imu_reader = std::move(reader);
}

KOVmcu::~KOVmcu() {
    if (imu_reader) {
        close();
    } else if (capture_thread.joinable()) {
        running = false;
        capture_thread.join();
    }
}

MCU_STATUS KOVmcu::open(unsigned int serial, bool skip_eeprom, _imu_odr rate, float* bias, float* variance,
                        bool recover, bool force) {
    if (!imu_reader) {
        return MCU_STATUS::FAILURE;
    }
    VirtualIMUReader& reader = *imu_reader;

    // 1. the reader
    if (!reader.is_open) {
        reader.setRate(rate);
        int value = reader.open(serial, recover, force);
        if (value < 0) {
            return MCU_STATUS::HID_OPEN_FAILED;
        }
        if (!force && badSerial(value)) {
            value = reader.open(serial, false, false);
            if (value < 0) {
                return MCU_STATUS::HID_OPEN_FAILED;
            }
            if (badSerial(value)) {
                return MCU_STATUS::INVALID_SERIAL;
            }
        }
    }

    // 2. a fresh calibration and image
    calib.reset();
    std::memset(&eeprom, 0, sizeof(eeprom));

    if (reader.is_replay) {
        eeprom = reader.getEepromMemory(false);
    } else if (!skip_eeprom && serial != 0) {
        if (!reader.updateEepromMemory(false)) {
            return MCU_STATUS::EEPROM_FAILURE;
        }
        eeprom = reader.getEepromMemory(false);
    }

    const int fw = reader.firmware_version;
    if (bias != nullptr && variance != nullptr) {
        // an external calibration: accelerometer x, y, z then gyroscope x, y, z
        calib.acc_bias = Eigen::Vector3f(bias[0], bias[1], bias[2]);
        calib.gyro_bias = Eigen::Vector3f(bias[3], bias[4], bias[5]);
        calib.acc_var = Eigen::Vector3f(variance[0], variance[1], variance[2]);
        calib.gyro_var = Eigen::Vector3f(variance[3], variance[4], variance[5]);
        calib.setup();
    } else {
        fillCalibrationFromEeprom();
    }

    // 3. barometer and orientation marks
    barometer_scale = eeprom.barom_calib.scale;
    barometer_offset = eeprom.barom_calib.offset;
    first_sample_seen = false;
    prior_pending = false;
    {
        std::lock_guard<std::mutex> lock(queue_mutex);
        current_orientation = RTQuaternion(1.f, 0.f, 0.f, 0.f);
    }

    // 4. output rate
    if (fw == mcu_fw::ODR_SETTABLE_LEGACY || fw > mcu_fw::LEGACY_MAX) {
        rate_hz = imuOdrToHz(static_cast<int>(rate));
        if (reader.sendWriteImuFreq(rate)) {
            reader.updateEepromMemory(true);
            eeprom = reader.getEepromMemory(false);
        }
        fusion_bias.initialise(1.f / static_cast<float>(rate_hz));
    } else {
        rate_hz = 800;
        if (reader.sendWriteImuFreq(IMU_ODR_800)) {
            reader.updateEepromMemory(true);
            eeprom = reader.getEepromMemory(false);
        }
        fusion_bias.initialise(0.00125f);
    }
    float gx = eeprom.bias.gyro_bias[0];
    float gy = eeprom.bias.gyro_bias[1];
    float gz = eeprom.bias.gyro_bias[2];
    if (fw < mcu_fw::NO_IMU_TEMP_BELOW) {
        const float k = gyro_lsb * kDegToRad;
        gx *= k;
        gy *= k;
        gz *= k;
    }
    fusion_bias.setInitBias(gx, gy, gz);
    fusion_bias.enabled = true;

    // 5. health watch
    imu_status = std::make_unique<IMUStatus>(gyro_lsb * 32768.f, accel_lsb * kGravity * 32768.f, rate_hz);

    // 6. static debug mode
    if (std::getenv("KOV_SDK_ENABLE_STATIC_IMU_DEBUG") != nullptr) {
        std::printf("In IMU Debug mode...\n");
        std::fflush(stdout);
        debug_static = 1;
        writeInFileEepromMemory();
    }
    return MCU_STATUS::SUCCESS;
}

void KOVmcu::fillCalibrationFromEeprom() {
    const int fw = imu_reader ? imu_reader->firmware_version : 0;
    const variance_data& var = eeprom.variance;
    if (fw < mcu_fw::EXT_CALIB_FROM) {
        // old raw format: identities, variances in counts, no bias
        const float ka = accel_lsb / kGravity;
        const float kg = gyro_lsb * kDegToRad;
        calib.acc_var = vec3(var.acc_var[0] * ka, var.acc_var[1] * ka, var.acc_var[2] * ka);
        calib.gyro_var = vec3(var.gyro_var[0] * kg, var.gyro_var[1] * kg, var.gyro_var[2] * kg);
        calib.setup();
        return;
    }

    const _extended_gyro_calib_data& g = eeprom.ext_gyro_calib;
    const _extended_acc_calib_data& a = eeprom.ext_acc_calib;
    const bool full_terms = fw <= mcu_fw::LEGACY_MAX || fw > mcu_fw::CROSS_AXIS_ABOVE;

    calib.gyro_scale = vec3(g.scale[0], g.scale[1], g.scale[2]).asDiagonal();
    calib.gyro_missalign.setIdentity();
    calib.gyro_missalign(1, 0) = g.misalign[0];
    calib.gyro_missalign(2, 0) = g.misalign[1];
    calib.gyro_missalign(0, 1) = g.misalign[2];
    calib.gyro_missalign(2, 1) = g.misalign[3];
    calib.gyro_missalign(0, 2) = g.misalign[4];
    calib.gyro_missalign(1, 2) = g.misalign[5];
    if (full_terms) {
        calib.gyro_bias = vec3(g.bias[0], g.bias[1], g.bias[2]);
        calib.gyro_tscale = vec3(g.temp_scale[0], g.temp_scale[1], g.temp_scale[2]);
        calib.acc_tscale = vec3(a.temp_scale[0], a.temp_scale[1], a.temp_scale[2]);
    }

    calib.acc_scale = vec3(a.scale[0], a.scale[1], a.scale[2]).asDiagonal();
    calib.acc_missalign.setIdentity();
    calib.acc_missalign(1, 0) = a.misalign[0];
    calib.acc_missalign(2, 0) = a.misalign[1];
    calib.acc_missalign(2, 1) = a.misalign[2];
    calib.acc_bias = vec3(a.bias[0], a.bias[1], a.bias[2]);

    calib.gyro_var = vec3(var.gyro_var[0], var.gyro_var[1], var.gyro_var[2]);
    calib.acc_var = vec3(var.acc_var[0], var.acc_var[1], var.acc_var[2]);

    Eigen::Vector3f rot = vec3(eeprom.cam_imu.rot[0], eeprom.cam_imu.rot[1], eeprom.cam_imu.rot[2]);
    if (fw > mcu_fw::LEGACY_MAX && !rotationVectorUsable(rot)) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "Eeprom calib is corrupted {} {} {}", rot.z(), rot.y(),
             rot.x());
        rot.setZero();
    }
    calib.R = rot;
    calib.T = imu_position_default;
    calib.setup();
}

bool KOVmcu::startCapture(float yaw) {
    if (!imu_reader) {
        return false;
    }
    if (running) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, warn,
             "IMU reading already started -- call getIMUPose() to get data");
    } else {
        imu_queue.clear();
        sync_queue.clear();
        start_yaw = yaw;
        updateCameraIMUcalibration();
        fusion_bias.reset();
        if (imu_reader->is_replay) {
            start_yaw = imu_reader->start_yaw;
            std::printf(" IMU from File : start with yaw : %f\n", static_cast<double>(start_yaw));
        }
        first_sample_seen = false;
        imu_reader->enableSIDRecording(start_yaw);
        imu_reader->sendStartDataStreamingCommand();
        if (capture_thread.joinable()) {
            capture_thread.join();
        }
        running = true;
        thread_started = true;
        capture_thread = std::thread(&KOVmcu::runIMUFusion, this);
    }
    for (int i = 0; i < first_sample_wait_rounds && !first_sample_seen; ++i) {
        sleepMicroseconds(5000);
    }
    return first_sample_seen;
}

bool KOVmcu::stopCapture() {
    if (!imu_reader) {
        return false;
    }
    if (running) {
        running = false;
        sleepMicroseconds(100);
    }
    // The thread is joined before the tracker is reset, so that the reset
    // never races the thread's last round.
    if (capture_thread.joinable()) {
        capture_thread.join();
        thread_started = false;
        fusion_bias.reset();
        prior_pending = false;
        std::lock_guard<std::mutex> lock(queue_mutex);
        current_orientation.zero();
    }
    return imu_reader->sendStopDataStreamingCommand();
}

void KOVmcu::resetPosition(float) {
    if (!imu_reader) {
        return;
    }
    reset_orientation = true;
    RTVector3 euler;
    {
        std::lock_guard<std::mutex> lock(queue_mutex);
        current_orientation.toEuler(euler);
    }
    const float yaw = euler.z();
    stopCapture();
    startCapture(yaw);
    sleepMicroseconds(200);
}

void KOVmcu::close() {
    stopCapture();
    imu_status.reset();

    if (imu_reader && imu_reader->is_open && !imu_reader->is_replay && fusion_bias.updated &&
        (device == BH_DEVICE_KOV_P_MCU || device == BH_DEVICE_KOVT_MCU || device == BH_DEVICE_KOVTr_MCU ||
         device == BH_DEVICE_GMSL_IMU)) {
        std::vector<float> values(6, 0.f);
        for (int i = 0; i < 3; ++i) {
            float estimate = fusion_bias.bias[i];
            if (device == BH_DEVICE_KOV_P_MCU && imu_reader->firmware_version < mcu_fw::EXT_CALIB_FROM) {
                estimate /= gyro_lsb * kDegToRad;
            }
            values[static_cast<size_t>(i)] = estimate < 0.2f ? estimate : 0.f;
        }
        writeBiasinEEprom(values, false);
    }
    fusion_bias.close();

    if (imu_reader) {
        imu_reader->close();
        imu_reader.reset();
    }
    imu_queue.clear();
    batch_queue.clear();
    sync_queue.clear();
    altitude_estimator.reset();
}

int KOVmcu::getMCUSerialNumber() {
    if (!imu_reader || !imu_reader->is_open) {
        return -1;
    }
    return static_cast<int>(imu_reader->serial_number);
}

int KOVmcu::getMCUFirmwareVersion() {
    if (!imu_reader || !imu_reader->is_open) {
        return -1;
    }
    return imu_reader->firmware_version;
}

bool KOVmcu::getMCUDataSavingTime(std::string& text) {
    if (!imu_reader) {
        return false;
    }
    return imu_reader->getDataSavingTime(text);
}

bool KOVmcu::hasMCUSyncCapabilities() {
    if (!imu_reader || !imu_reader->is_open) {
        return false;
    }
    return imu_reader->getSensorData().sync_capabilities != 0;
}

Eigen::Matrix4f KOVmcu::getIMUCameraTransform() {
    Eigen::Matrix4f transform = cam_imu_transform;
    transform.block<3, 1>(0, 3) *= 1000.f;
    return transform;
}

McuSensorReport KOVmcu::getIMUReaderData() {
    if (!imu_reader) {
        McuSensorReport zero;
        std::memset(&zero, 0, sizeof(zero));
        return zero;
    }
    return imu_reader->getSensorData();
}

int KOVmcu::getIMUReaderNtpCount() {
    if (!imu_reader) {
        return -1;
    }
    return imu_reader->ntp_count;
}

void KOVmcu::setIMUReaderTSOffset(uint64_t offset) {
    if (imu_reader) {
        imu_reader->setTSOffset(static_cast<long>(offset));
    }
}

bool KOVmcu::getGyroRawData(short* x, short* y, short* z) {
    if (!imu_reader) {
        return false;
    }
    const McuSensorReport report = imu_reader->getSensorData();
    if (x)
        *x = report.gyro_x;
    if (y)
        *y = report.gyro_y;
    if (z)
        *z = report.gyro_z;
    return imu_reader->has_new_data != 0;
}

bool KOVmcu::getAccelRawData(short* x, short* y, short* z) {
    if (!imu_reader) {
        return false;
    }
    const McuSensorReport report = imu_reader->getSensorData();
    if (x)
        *x = report.acc_x;
    if (y)
        *y = report.acc_y;
    if (z)
        *z = report.acc_z;
    return imu_reader->has_new_data != 0;
}

}  // namespace bh
