// In-place repair of implausible EEPROM records, applied when the image is read.
#pragma once

#include "bh_input/mcu/IMU/eepromMemory.h"

void checkBiasData(_bias_data& data);
void checkVarianceData(variance_data& data);
void checkCamIMUData(_cam_imu_data& data);
void checkExtendedGyroCalibData(_extended_gyro_calib_data& data);
void checkExtendedAccCalibData(_extended_acc_calib_data& data);
