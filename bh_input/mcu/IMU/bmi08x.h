#pragma once

// Register-level driver of the BMI08x inertial chip of the GMSL cameras: an
// accelerometer and a gyroscope in one package, two register chips on the
// camera's I2C bus. Written from the chip's public register map; only the
// registers and settings the GMSL reader needs are covered.
//
// Every function returns BMI08X_OK (0) on success and a negative code
// otherwise (BMI08X_ERR_*); nothing is raised and nothing is printed, except
// by bmi08x_error_codes_print_result and the SPI refusal of
// bmi08x_interface_init. Waits go through platform::clock().

#include <cstdint>

// ---------------------------------------------------------------- results

constexpr int8_t BMI08X_OK = 0;
constexpr int8_t BMI08X_ERR_NULL = -1;       // a null record, buffer or function
constexpr int8_t BMI08X_ERR_BUS = -2;        // an I2C transfer failed
constexpr int8_t BMI08X_ERR_CHIP_ID = -3;    // the chip answered with another identity
constexpr int8_t BMI08X_ERR_RANGE = -4;      // a setting outside the chip's values
constexpr int8_t BMI08X_ERR_INPUT = -5;      // a request the function cannot serve
constexpr int8_t BMI08X_ERR_INTERFACE = -6;  // an interface that is not built (SPI)
constexpr int8_t BMI08X_ERR_BLOB = -7;       // a feature-engine blob of bad size

// ---------------------------------------------------------------- accelerometer registers

constexpr uint8_t BMI08A_REG_CHIP_ID = 0x00;
constexpr uint8_t BMI08A_REG_ERR = 0x02;
constexpr uint8_t BMI08A_REG_STATUS = 0x03;
constexpr uint8_t BMI08A_REG_DATA = 0x12;  // X LSB, X MSB, Y LSB, Y MSB, Z LSB, Z MSB
constexpr uint8_t BMI08A_REG_SENSORTIME_0 = 0x18;
constexpr uint8_t BMI08A_REG_INT_STAT_1 = 0x1D;  // cleared when read
constexpr uint8_t BMI08A_REG_TEMP_MSB = 0x22;
constexpr uint8_t BMI08A_REG_TEMP_LSB = 0x23;
constexpr uint8_t BMI08A_REG_CONF = 0x40;
constexpr uint8_t BMI08A_REG_RANGE = 0x41;
constexpr uint8_t BMI08A_REG_INT1_IO_CTRL = 0x53;
constexpr uint8_t BMI08A_REG_INT2_IO_CTRL = 0x54;
constexpr uint8_t BMI08A_REG_INT_MAP_DATA = 0x58;
constexpr uint8_t BMI08A_REG_INIT_CTRL = 0x59;
constexpr uint8_t BMI08A_REG_FEATURE_POS = 0x5B;  // and 0x5C, one burst
constexpr uint8_t BMI08A_REG_FEATURE_CFG = 0x5E;
constexpr uint8_t BMI08A_REG_PWR_CONF = 0x7C;
constexpr uint8_t BMI08A_REG_PWR_CTRL = 0x7D;
constexpr uint8_t BMI08A_REG_SOFTRESET = 0x7E;

constexpr uint8_t BMI08A_CHIP_ID_BMI088 = 0x1E;
constexpr uint8_t BMI08A_CHIP_ID_BMI085 = 0x1F;

// ACC_PWR_CONF values (the record's power field) and ACC_PWR_CTRL values.
constexpr uint8_t BMI08A_PM_ACTIVE = 0x00;
constexpr uint8_t BMI08A_PM_SUSPEND = 0x03;
constexpr uint8_t BMI08A_POWER_ON = 0x04;
constexpr uint8_t BMI08A_POWER_OFF = 0x00;

// ACC_CONF bits 7:4 (bandwidth) and 3:0 (output data rate).
constexpr uint8_t BMI08A_BW_OSR4 = 0x08;
constexpr uint8_t BMI08A_BW_OSR2 = 0x09;
constexpr uint8_t BMI08A_BW_NORMAL = 0x0A;
constexpr uint8_t BMI08A_ODR_12_5_HZ = 0x05;
constexpr uint8_t BMI08A_ODR_25_HZ = 0x06;
constexpr uint8_t BMI08A_ODR_50_HZ = 0x07;
constexpr uint8_t BMI08A_ODR_100_HZ = 0x08;
constexpr uint8_t BMI08A_ODR_200_HZ = 0x09;
constexpr uint8_t BMI08A_ODR_400_HZ = 0x0A;
constexpr uint8_t BMI08A_ODR_800_HZ = 0x0B;
constexpr uint8_t BMI08A_ODR_1600_HZ = 0x0C;

// ACC_RANGE: +-3, 6, 12, 24 g on the BMI088.
constexpr uint8_t BMI08A_RANGE_3G = 0x00;
constexpr uint8_t BMI08A_RANGE_6G = 0x01;
constexpr uint8_t BMI08A_RANGE_12G = 0x02;
constexpr uint8_t BMI08A_RANGE_24G = 0x03;

constexpr uint8_t BMI08A_INT_STAT_DRDY = 0x80;  // ACC_INT_STAT_1 bit 7
constexpr uint8_t BMI08A_INIT_CTRL_LOAD = 0x00;
constexpr uint8_t BMI08A_INIT_CTRL_START = 0x01;

// ---------------------------------------------------------------- gyroscope registers

constexpr uint8_t BMI08G_REG_CHIP_ID = 0x00;
constexpr uint8_t BMI08G_REG_DATA = 0x02;  // RATE_X_LSB .. RATE_Z_MSB
constexpr uint8_t BMI08G_REG_INT_STAT_1 = 0x0A;
constexpr uint8_t BMI08G_REG_FIFO_STATUS = 0x0E;
constexpr uint8_t BMI08G_REG_RANGE = 0x0F;
constexpr uint8_t BMI08G_REG_BANDWIDTH = 0x10;
constexpr uint8_t BMI08G_REG_LPM1 = 0x11;
constexpr uint8_t BMI08G_REG_SOFTRESET = 0x14;
constexpr uint8_t BMI08G_REG_INT_CTRL = 0x15;
constexpr uint8_t BMI08G_REG_INT3_INT4_IO_CONF = 0x16;
constexpr uint8_t BMI08G_REG_INT3_INT4_IO_MAP = 0x18;
constexpr uint8_t BMI08G_REG_FIFO_WM_ENABLE = 0x1E;
constexpr uint8_t BMI08G_REG_FIFO_EXT_INT_S = 0x34;
constexpr uint8_t BMI08G_REG_FIFO_CONFIG_0 = 0x3D;
constexpr uint8_t BMI08G_REG_FIFO_CONFIG_1 = 0x3E;
constexpr uint8_t BMI08G_REG_FIFO_DATA = 0x3F;

constexpr uint8_t BMI08G_CHIP_ID = 0x0F;

// GYRO_LPM1 values (the record's power field).
constexpr uint8_t BMI08G_PM_NORMAL = 0x00;
constexpr uint8_t BMI08G_PM_SUSPEND = 0x80;
constexpr uint8_t BMI08G_PM_DEEP_SUSPEND = 0x20;

// GYRO_RANGE: +-2000, 1000, 500, 250, 125 deg/s.
constexpr uint8_t BMI08G_RANGE_2000_DPS = 0x00;
constexpr uint8_t BMI08G_RANGE_1000_DPS = 0x01;
constexpr uint8_t BMI08G_RANGE_500_DPS = 0x02;
constexpr uint8_t BMI08G_RANGE_250_DPS = 0x03;
constexpr uint8_t BMI08G_RANGE_125_DPS = 0x04;

// GYRO_BANDWIDTH: output data rate and filter in one value.
constexpr uint8_t BMI08G_ODR_2000_BW_532 = 0x00;
constexpr uint8_t BMI08G_ODR_2000_BW_230 = 0x01;
constexpr uint8_t BMI08G_ODR_1000_BW_116 = 0x02;
constexpr uint8_t BMI08G_ODR_400_BW_47 = 0x03;
constexpr uint8_t BMI08G_ODR_200_BW_23 = 0x04;
constexpr uint8_t BMI08G_ODR_100_BW_12 = 0x05;
constexpr uint8_t BMI08G_ODR_200_BW_64 = 0x06;
constexpr uint8_t BMI08G_ODR_100_BW_32 = 0x07;

constexpr uint8_t BMI08G_INT_STAT_FIFO = 0x10;  // GYRO_INT_STAT_1 bit 4
constexpr uint8_t BMI08G_INT_STAT_DRDY = 0x80;  // GYRO_INT_STAT_1 bit 7
constexpr uint8_t BMI08G_INT_CTRL_DRDY = 0x80;
constexpr uint8_t BMI08G_INT_CTRL_FIFO = 0x40;
constexpr uint8_t BMI08G_INT_CTRL_OFF = 0x00;
constexpr uint8_t BMI08G_FIFO_WM_ON = 0x88;
constexpr uint8_t BMI08G_FIFO_WM_OFF = 0x08;
constexpr uint8_t BMI08G_FIFO_MODE_FIFO = 0x40;    // stops when full
constexpr uint8_t BMI08G_FIFO_MODE_STREAM = 0x80;  // the oldest frame goes
constexpr uint8_t BMI08G_FIFO_DATA_XYZ = 0x00;
constexpr uint8_t BMI08G_FIFO_EXT_SYNC_ON = 0x20;    // FIFO_EXT_INT_S bit 5
constexpr uint8_t BMI08G_FIFO_EXT_SYNC_INT4 = 0x10;  // bit 4: input INT4 (0: INT3)
constexpr uint8_t BMI08G_FIFO_FRAME_BYTES = 6;
constexpr uint8_t BMI08G_FIFO_CAPACITY_FRAMES = 100;
constexpr uint16_t BMI08G_FIFO_EMPTY_WORD = 0x8000;  // what an empty FIFO reads for each axis

constexpr uint8_t BMI08X_SOFT_RESET_CMD = 0xB6;

// Waits of the chip, in microseconds.
constexpr uint32_t BMI08A_SOFT_RESET_WAIT_US = 1000;
constexpr uint32_t BMI08G_SOFT_RESET_WAIT_US = 30000;
constexpr uint32_t BMI08A_POWER_WAIT_US = 5000;
constexpr uint32_t BMI08G_POWER_WAIT_US = 30000;
constexpr uint32_t BMI08A_CONFIG_PREPARE_WAIT_US = 450;
constexpr uint32_t BMI08A_CONFIG_START_WAIT_US = 150000;

// ---------------------------------------------------------------- records

enum bmi08x_intf : uint8_t { BMI08X_INTF_I2C = 0, BMI08X_INTF_SPI = 1 };
// The accelerometer of the BMI085 answers 0x1F and measures +-2..16 g; the
// BMI088's answers 0x1E and measures +-3..24 g. The gyroscopes are the same.
enum bmi08x_variant : uint8_t { BMI08X_VARIANT_BMI085 = 0, BMI08X_VARIANT_BMI088 = 1 };

struct bmi08x_dev;
// Bus access of one part: register number, then the bytes from it on.
using bmi08x_read_fn = int8_t (*)(bmi08x_dev* dev, uint8_t reg, uint8_t* data, uint32_t len);
using bmi08x_write_fn = int8_t (*)(bmi08x_dev* dev, uint8_t reg, const uint8_t* data, uint32_t len);
using bmi08x_delay_fn = void (*)(uint32_t period_us);

// Measurement settings of one part. Accelerometer: power is an ACC_PWR_CONF
// value, bw and odr the two halves of ACC_CONF, range an ACC_RANGE value.
// Gyroscope: power is a GYRO_LPM1 value, odr the GYRO_BANDWIDTH value (which
// also fixes the filter: bw is informative), range a GYRO_RANGE value.
struct bmi08x_cfg {
    uint8_t power = 0;
    uint8_t range = 0;
    uint8_t bw = 0;
    uint8_t odr = 0;
};

// One part of the chip on the bus. The GMSL reader keeps two, one for the
// accelerometer and one for the gyroscope, each on its own descriptor.
struct bmi08x_dev {
    uint8_t chip_id = 0;  // as read by bmi08a_init / bmi08g_init
    int fd = -1;          // descriptor of /dev/i2c-N
    uint8_t i2c_address = 0;
    bmi08x_intf intf = BMI08X_INTF_I2C;
    bmi08x_variant variant = BMI08X_VARIANT_BMI088;
    uint16_t read_write_len = 16;  // chunk of the feature-engine blob
    bmi08x_read_fn read = nullptr;
    bmi08x_write_fn write = nullptr;
    bmi08x_delay_fn delay_us = nullptr;
    bmi08x_cfg accel_cfg;
    bmi08x_cfg gyro_cfg;
};

// One reading: raw counts, the host time of the sample in microseconds of the
// monotonic clock (set by the caller), and 1 when the sample carries the
// camera's frame-start mark.
struct bmi08x_sensor_data {
    int16_t x = 0;
    int16_t y = 0;
    int16_t z = 0;
    uint64_t timestamp = 0;
    uint8_t sync = 0;
};

// Interrupt pins: INT1/INT2 belong to the accelerometer, INT3/INT4 to the
// gyroscope.
enum bmi08x_int_channel : uint8_t {
    BMI08X_INT_CHANNEL_1 = 0,
    BMI08X_INT_CHANNEL_2 = 1,
    BMI08X_INT_CHANNEL_3 = 2,
    BMI08X_INT_CHANNEL_4 = 3,
};
enum bmi08x_int_kind : uint8_t { BMI08X_INT_DATA_READY = 0, BMI08X_INT_FIFO = 1 };

struct bmi08x_int_pin_cfg {
    uint8_t output_enable = 1;  // accelerometer pins only
    uint8_t open_drain = 0;
    uint8_t active_high = 1;
};

struct bmi08x_int_cfg {
    bmi08x_int_channel channel = BMI08X_INT_CHANNEL_1;
    bmi08x_int_kind kind = BMI08X_INT_DATA_READY;
    uint8_t enable = 1;
    bmi08x_int_pin_cfg pin;
};

// Gyroscope FIFO: mode (BMI08G_FIFO_MODE_*), data select (0 = x, y, z),
// watermark in frames, and the external sync: with ext_sync set, the least
// significant bit of each z value in the FIFO carries the sync input
// (ext_sync_input 0: INT3, 1: INT4).
struct bmi08g_fifo_config {
    uint8_t mode = BMI08G_FIFO_MODE_STREAM;
    uint8_t data_select = BMI08G_FIFO_DATA_XYZ;
    uint8_t watermark = 0;
    uint8_t ext_sync = 0;
    uint8_t ext_sync_input = 0;
};

// A caller's buffer for FIFO reads: `capacity` bytes at `data`. A read fills
// `length` bytes (whole frames), and reports what FIFO_STATUS said.
struct bmi08g_fifo_buffer {
    uint8_t* data = nullptr;
    uint16_t capacity = 0;
    uint16_t length = 0;
    uint8_t frames_available = 0;
    uint8_t overrun = 0;
};

// ---------------------------------------------------------------- bus and common

// Sets the bus functions and read_write_len 16 for a part at `i2c_address` on
// the descriptor `fd`. Only I2C is built: SPI prints "NIMPL : SPI Interface "
// and fails with BMI08X_ERR_INTERFACE.
int8_t bmi08x_interface_init(bmi08x_dev* dev, bmi08x_intf intf, int fd, uint8_t i2c_address,
                             bmi08x_variant variant);
int8_t bmi08x_i2c_read(bmi08x_dev* dev, uint8_t reg, uint8_t* data, uint32_t len);
int8_t bmi08x_i2c_write(bmi08x_dev* dev, uint8_t reg, const uint8_t* data, uint32_t len);
void bmi08x_delay_us(uint32_t period_us);

// Register access through the record's functions, checked for null.
int8_t bmi08x_get_regs(bmi08x_dev* dev, uint8_t reg, uint8_t* data, uint32_t len);
int8_t bmi08x_set_regs(bmi08x_dev* dev, uint8_t reg, const uint8_t* data, uint32_t len);

// Prints a failed result (anything but BMI08X_OK) with the name of the call on
// the error stream, and returns the result.
int8_t bmi08x_error_codes_print_result(const char* api_name, int8_t rslt);
// The text of a result code.
const char* bmi08x_error_text(int8_t rslt);

// ---------------------------------------------------------------- accelerometer

// Reads the chip id: 0x1E on the BMI088, 0x1F on the BMI085.
int8_t bmi08a_init(bmi08x_dev* dev);
int8_t bmi08a_soft_reset(bmi08x_dev* dev);
// Writes the feature-engine blob (`size` bytes, even) in chunks of
// read_write_len bytes: each chunk's position (in words) to 0x5B/0x5C, then
// its bytes to 0x5E, between ACC_INIT_CTRL 0 and 1. The blob is the caller's.
int8_t bmi08a_load_config_file(bmi08x_dev* dev, const uint8_t* blob, uint32_t size);
// accel_cfg.power: BMI08A_PM_ACTIVE (also switches the sensor on) or
// BMI08A_PM_SUSPEND (also switches it off).
int8_t bmi08a_set_power_mode(bmi08x_dev* dev);
// ACC_CONF from accel_cfg.bw and odr, then ACC_RANGE from accel_cfg.range.
int8_t bmi08a_set_meas_conf(bmi08x_dev* dev);
// INT1 or INT2: pin behaviour and the data-ready mapping.
int8_t bmi08a_set_int_config(bmi08x_dev* dev, const bmi08x_int_cfg* cfg);
// ACC_INT_STAT_1 (reading it clears it).
int8_t bmi08a_get_reg_int_status(bmi08x_dev* dev, uint8_t* status);
// x, y, z of the data registers; timestamp and sync are left as they were.
int8_t bmi08a_get_data(bmi08x_dev* dev, bmi08x_sensor_data* accel);
// Temperature in thousandths of a degree Celsius.
int8_t bmi08a_get_sensor_temperature(bmi08x_dev* dev, int32_t* milli_celsius);
// The datasheet's conversion of TEMP_MSB / TEMP_LSB, in thousandths of a degree.
int32_t bmi08a_temperature_from_registers(uint8_t msb, uint8_t lsb);

// ---------------------------------------------------------------- gyroscope

// Reads the chip id, 0x0F.
int8_t bmi08g_init(bmi08x_dev* dev);
int8_t bmi08g_soft_reset(bmi08x_dev* dev);
// gyro_cfg.power: BMI08G_PM_NORMAL, BMI08G_PM_SUSPEND or BMI08G_PM_DEEP_SUSPEND.
int8_t bmi08g_set_power_mode(bmi08x_dev* dev);
// GYRO_RANGE from gyro_cfg.range, GYRO_BANDWIDTH from gyro_cfg.odr.
int8_t bmi08g_set_meas_conf(bmi08x_dev* dev);
// INT3 or INT4: pin behaviour, the mapping of data-ready or FIFO, and the
// interrupt source (GYRO_INT_CTRL).
int8_t bmi08g_set_int_config(bmi08x_dev* dev, const bmi08x_int_cfg* cfg);
// FIFO_WM_ENABLE: the watermark interrupt on (non-zero) or off.
int8_t bmi08g_enable_watermark(bmi08x_dev* dev, uint8_t enable);
// FIFO_EXT_INT_S (external sync), FIFO_CONFIG_0 (watermark), FIFO_CONFIG_1
// (mode and data select).
int8_t bmi08g_set_fifo_config(bmi08x_dev* dev, const bmi08g_fifo_config* cfg);
// GYRO_INT_STAT_1.
int8_t bmi08g_get_data_int_status(bmi08x_dev* dev, uint8_t* status);
// FIFO_STATUS, then as many whole frames as are there and fit the buffer.
int8_t bmi08g_read_fifo_data(bmi08x_dev* dev, bmi08g_fifo_buffer* fifo);
// Splits a FIFO read into samples. `count` gives the room of `out` and
// returns the number of samples; a frame that reads 0x8000 on every axis (an
// empty FIFO) ends the data. Each sample's sync byte is the least significant
// bit of its z value, and z is kept as read.
int8_t bmi08g_extract_gyro(bmi08x_sensor_data* out, uint8_t* count, const bmi08g_fifo_buffer* fifo);
