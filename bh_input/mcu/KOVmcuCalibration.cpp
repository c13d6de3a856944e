// Calibration procedures of the sensor engine: the camera to IMU transform
// built at every start, the stationary measurement of biases and noise, and
// the retrimming that the MCU runs on the inertial chip.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "bh_input/mcu/IMU/IMUHidReader.h"
#include "bh_input/mcu/KOVmcu.h"
#include "platform/Clock.h"
#include "support/KLogger.h"

namespace bh {

void KOVmcu::setCalibrationParameters(IMUCalibParam& param) {
    if (param.isUnset()) {
        return;
    }
    calib = param;
}

void KOVmcu::updateCameraIMUcalibration() {
    if (verbose) {
        std::fputs(calib.toString().c_str(), stdout);
        std::fflush(stdout);
    }
    fusion_bias.setup(calib.gyro_var.x(), calib.gyro_var.y(), calib.gyro_var.z());

    // packed fields: copied by value
    const float rx = eeprom.cam_imu.rot[0], ry = eeprom.cam_imu.rot[1], rz = eeprom.cam_imu.rot[2];
    Eigen::Vector3f record(rx, ry, rz);
    if (!rotationVectorUsable(record)) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "Eeprom calib is corrupted {} {} {}", record.z(), record.y(),
             record.x());
        record.setZero();
    }
    KLOG(bh::LOGGER_NAME::SDK_INPUT, debug, "Serial {}", imu_reader ? imu_reader->serial_number : 0u);

    const Eigen::Vector3f rotation = calib.R.norm() > 0.f ? calib.R : record;
    const Eigen::Vector3f translation = calib.T.norm() > 0.f ? calib.T : imu_position_default;
    std::string error;
    cam_imu_transform = cameraIMUTransform(rotation, translation, &error);
    if (!error.empty()) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "{}", error);
    }
}

bool KOVmcu::calibrateIMUInternal(Eigen::Vector3f& acc, Eigen::Vector3f& gyro, int samples) {
    acc.setZero();
    gyro.setZero();
    if (samples <= 0) {
        return true;
    }
    int32_t acc_y = 0, acc_z = 0, gyro_x = 0, gyro_y = 0, gyro_z = 0;
    int32_t ref_acc_y = 0, ref_acc_z = 0, ref_gyro_z = 0;
    for (int i = 0; i < samples; ++i) {
        if (!imu_reader->updateIMUData(true)) {
            return false;
        }
        const McuSensorReport& r = imu_reader->current_report;
        if (i == 0) {
            // reference of the relative means
            ref_acc_y = r.acc_y;
            ref_acc_z = r.acc_z;
            ref_gyro_z = r.gyro_z;
            continue;
        }
        acc_y += r.acc_y - ref_acc_y;
        acc_z += r.acc_z - ref_acc_z;
        gyro_z += r.gyro_z - ref_gyro_z;
        gyro_x += r.gyro_x;
        gyro_y += r.gyro_y;
    }
    const float n = static_cast<float>(samples);
    acc = Eigen::Vector3f(0.f, acc_y / n, acc_z / n);
    gyro = Eigen::Vector3f(gyro_x / n, gyro_y / n, gyro_z / n);
    return true;
}

bool KOVmcu::calibrateIMUInternal(Eigen::Vector3f& gyro_bias, Eigen::Vector3f& acc_bias,
                                  Eigen::Vector3f& gyro_variance, Eigen::Vector3f& acc_variance,
                                  int samples) {
    gyro_bias.setZero();
    acc_bias.setZero();
    gyro_variance.setZero();
    acc_variance.setZero();
    if (samples < 1) {
        return true;
    }
    const int step = samples / 10;
    float acc_sum[3] = {0.f, 0.f, 0.f}, acc_sq[3] = {0.f, 0.f, 0.f};
    float gyro_sum[3] = {0.f, 0.f, 0.f}, gyro_sq[3] = {0.f, 0.f, 0.f};
    for (int i = 0; i < samples; ++i) {
        if (verbose && step > 0 && i % step == 0) {
            std::printf("In progress.... %d %%\n", static_cast<int>(100LL * i / samples));
            std::fflush(stdout);
        }
        if (!imu_reader->updateIMUData(true)) {
            return false;
        }
        const McuSensorReport& r = imu_reader->current_report;
        const float a[3] = {r.acc_x * accel_lsb, r.acc_y * accel_lsb, r.acc_z * accel_lsb};
        const float g[3] = {r.gyro_x * gyro_lsb, r.gyro_y * gyro_lsb, r.gyro_z * gyro_lsb};
        for (int k = 0; k < 3; ++k) {
            acc_sum[k] += a[k];
            acc_sq[k] += a[k] * a[k];
            gyro_sum[k] += g[k];
            gyro_sq[k] += g[k] * g[k];
        }
    }
    const float n = static_cast<float>(samples);
    for (int k = 0; k < 3; ++k) {
        const float am = acc_sum[k] / n;
        const float gm = gyro_sum[k] / n;
        acc_bias[k] = am;
        gyro_bias[k] = gm;
        acc_variance[k] = acc_sq[k] / n - am * am;
        gyro_variance[k] = gyro_sq[k] / n - gm * gm;
    }
    acc_bias[2] -= 1.f;
    return true;
}

MCU_STATUS KOVmcu::calibrateIMU(std::vector<float>& values, int samples) {
    const MCU_STATUS ready = checkReader("calibrateIMU");
    if (ready != MCU_STATUS::SUCCESS)
        return ready;
    stopCapture();
    imu_reader->sendStartDataStreamingCommand();
    Eigen::Vector3f acc, gyro;
    if (!calibrateIMUInternal(acc, gyro, samples)) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "MCU_STATUS::DISCONNECTED");
        return MCU_STATUS::DISCONNECTED;
    }
    values = {acc.x(), acc.y(), acc.z(), gyro.x(), gyro.y(), gyro.z()};
    return MCU_STATUS::SUCCESS;
}

MCU_STATUS KOVmcu::calibrateIMU(std::vector<float>& bias, std::vector<float>& variance, int samples) {
    if (!imu_reader) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "MCU_STATUS::FAILURE");
        return MCU_STATUS::FAILURE;
    }
    if (!imu_reader->is_open && imu_reader->open(0, true, false) < 0) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "MCU_STATUS::HID_OPEN_FAILED");
        return MCU_STATUS::HID_OPEN_FAILED;
    }
    stopCapture();
    calib.reset();
    std::memset(&eeprom, 0, sizeof(eeprom));
    imu_reader->updateEepromMemory(false);
    imu_reader->sendStartDataStreamingCommand();

    Eigen::Vector3f gyro_bias, acc_bias, gyro_var, acc_var;
    if (!calibrateIMUInternal(gyro_bias, acc_bias, gyro_var, acc_var, samples)) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "MCU_STATUS::DISCONNECTED");
        return MCU_STATUS::DISCONNECTED;
    }
    if (verbose) {
        std::printf(" ** Creating OFFLINE Calibration (Bias + Variance) ** \n");
        std::printf("x gyro bias = %f\n\r", static_cast<double>(gyro_bias.x()));
        std::printf("y gyro bias = %f\n\r", static_cast<double>(gyro_bias.y()));
        std::printf("z gyro bias = %f\n\r", static_cast<double>(gyro_bias.z()));
        std::printf("x accel bias = %f\n\r", static_cast<double>(acc_bias.x()));
        std::printf("y accel bias = %f\n\r", static_cast<double>(acc_bias.y()));
        std::printf("z accel bias = %f\n\r", static_cast<double>(acc_bias.z()));
        std::printf("x gyro standard deviation = %f(deg/s)\n\r",
                    std::sqrt(static_cast<double>(gyro_var.x())));
        std::printf("y gyro standard deviation = %f(deg/s)\n\r",
                    std::sqrt(static_cast<double>(gyro_var.y())));
        std::printf("z gyro standard deviation = %f(deg/s)\n\r",
                    std::sqrt(static_cast<double>(gyro_var.z())));
        std::printf("x acc standard deviation = %f(g)\n\r", std::sqrt(static_cast<double>(acc_var.x())));
        std::printf("y acc standard deviation = %f(g)\n\r", std::sqrt(static_cast<double>(acc_var.y())));
        std::printf("z acc standard deviation = %f(g)\n\r", std::sqrt(static_cast<double>(acc_var.z())));
        std::fflush(stdout);
    }
    bias = {gyro_bias.x(), gyro_bias.y(), gyro_bias.z(), acc_bias.x(), acc_bias.y(), acc_bias.z()};
    variance = {gyro_var.x(), gyro_var.y(), gyro_var.z(), acc_var.x(), acc_var.y(), acc_var.z()};
    return MCU_STATUS::SUCCESS;
}

MCU_STATUS KOVmcu::calibrateIMU(calibrationIMUParams& params) {
    if (!imu_reader) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "MCU_STATUS::FAILURE");
        params.status = static_cast<int32_t>(MCU_STATUS::FAILURE);
        return MCU_STATUS::FAILURE;
    }
    if (params.samples < 1) {
        params.samples = 5000;
    }
    std::vector<float> bias;
    std::vector<float> variance;
    const MCU_STATUS status = calibrateIMU(bias, variance, params.samples);
    for (size_t i = 0; i < bias.size() && i < 6; ++i) {
        float& target = i < 3 ? params.gyro_bias[i] : params.acc_bias[i - 3];
        target = bias.at(i);
    }
    for (size_t i = 0; i < variance.size() && i < 6; ++i) {
        float& target = i < 3 ? params.gyro_variance[i] : params.acc_variance[i - 3];
        target = variance.at(i);
    }
    params.firmware_version = imu_reader->firmware_version;
    params.serial_number = static_cast<int32_t>(imu_reader->serial_number);
    params.status = static_cast<int32_t>(status);
    return status;
}

int KOVmcu::doImuRetrimming() {
    if (!imu_reader) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "IMU re-trimming: no sensors MCU");
        return BMI270_CRT_ERROR;
    }
    if (!imu_reader->is_open && imu_reader->open(0, true, false) < 0) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "IMU re-trimming: sensors MCU can not be opened");
        return BMI270_CRT_ERROR;
    }
    verbose = 1;
    stopCapture();
    std::printf(" ** Starting IMU re-trimming (CRT) **\n");
    std::fflush(stdout);
    if (!imu_reader->startImuRetrimming()) {
        std::printf(" ERROR starting IMU re-trimming (CRT)\n");
        std::fflush(stdout);
        return 0;
    }
    int status = -1;
    for (int i = 0; i < 500; ++i) {
        platform::clock().sleepFor(std::chrono::milliseconds(10));
        status = imu_reader->getImuRetrimmingStatus();
        if (status == IMU_RETRIM_DONE || status == IMU_RETRIM_ABORTED_MOVED || status == BMI270_CRT_ERROR) {
            break;
        }
        status = -1;
    }
    if (status < 0) {
        std::printf(" ERROR IMU retrimming timeout\n");
        std::fflush(stdout);
        return BMI270_CRT_ERROR;
    }
    if (status == IMU_RETRIM_DONE) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, info, " ** IMU re-trimming completed successfully");
    } else if (status == IMU_RETRIM_ABORTED_MOVED) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, info,
             " ** IMU re-trimming aborted. Camera moved while calibrating?");
    } else {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, info, " ** IMU re-trimming aborted. Not handled error: {}", status);
    }
    return status;
}

}  // namespace bh
