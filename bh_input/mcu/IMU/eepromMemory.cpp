#include "bh_input/mcu/IMU/eepromMemory.h"

#include "bh_input/mcu/IMU/VirtualIMUReader.h"

bool eepromRecordOf(uint8_t id, size_t& offset, size_t& length) {
    switch (id) {
        case mcu_id::SERIAL:
            offset = offsetof(eepromMemoryStrc, serial);
            length = sizeof(_serial_data);
            return true;
        case mcu_id::BIAS:
            offset = offsetof(eepromMemoryStrc, bias);
            length = sizeof(_bias_data);
            return true;
        case mcu_id::VARIANCE:
            offset = offsetof(eepromMemoryStrc, variance);
            length = sizeof(variance_data);
            return true;
        case mcu_id::CAM_IMU:
            offset = offsetof(eepromMemoryStrc, cam_imu);
            length = sizeof(_cam_imu_data);
            return true;
        case mcu_id::STEREO:
            offset = offsetof(eepromMemoryStrc, calib_stereo);
            length = sizeof(_calib_stereo_data);
            return true;
        case mcu_id::BAROM:
            offset = offsetof(eepromMemoryStrc, barom_calib);
            length = sizeof(_barom_calib_data);
            return true;
        case mcu_id::EXT_GYRO:
            offset = offsetof(eepromMemoryStrc, ext_gyro_calib);
            length = sizeof(_extended_gyro_calib_data);
            return true;
        case mcu_id::EXT_ACC:
            offset = offsetof(eepromMemoryStrc, ext_acc_calib);
            length = sizeof(_extended_acc_calib_data);
            return true;
        case mcu_id::MAG:
            offset = offsetof(eepromMemoryStrc, mag_calib);
            length = sizeof(_mag_calib_data);
            return true;
        case mcu_id::ODR:
            offset = offsetof(eepromMemoryStrc, imu_odr);
            length = sizeof(_imu_odr_data);
            return true;
        case mcu_id::DATE:
            offset = offsetof(eepromMemoryStrc, date_time);
            length = sizeof(_date_time_data);
            return true;
        default:
            break;
    }
    if (id >= mcu_id::MONO_FIRST && id < mcu_id::MONO_FIRST + 8) {
        offset = offsetof(eepromMemoryStrc, calib_mono) + (id - mcu_id::MONO_FIRST) * sizeof(calib_mono_data);
        length = sizeof(calib_mono_data);
        return true;
    }
    return false;
}

const char* mcuStatusText(int status) {
    switch (status) {
        case 0:
            return "OK";
        case 2:
            return "Error : Cannot open sensors MCU device";
        case 3:
            return "Error : Cannot open sensors MCU communication (HID)";
        case 4:
            return "Error : Cannot access internal sensors MCU memory (eeprom)";
        case 6:
            return "Error : Sensors MCU failure";
        case 7:
            return "Error : Sensors MCU invalid serial number";
        case 8:
            return "Error : Sensors MCU not running";
        default:
            return "Unknown";
    }
}
