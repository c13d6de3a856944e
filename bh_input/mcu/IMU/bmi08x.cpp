// Bus access and result texts shared by both parts of the inertial chip.
#include "bh_input/mcu/IMU/bmi08x.h"

#include <chrono>
#include <cstdio>

#include "bh_input/grabber/gmsl/I2CHandler.h"
#include "platform/Clock.h"

int8_t bmi08x_interface_init(bmi08x_dev* dev, bmi08x_intf intf, int fd, uint8_t i2c_address,
                             bmi08x_variant variant) {
    if (dev == nullptr)
        return BMI08X_ERR_NULL;
    if (intf != BMI08X_INTF_I2C) {
        // The cameras wire the chip to I2C only.
        std::printf("NIMPL : SPI Interface \n");
        return BMI08X_ERR_INTERFACE;
    }
    if (variant != BMI08X_VARIANT_BMI085 && variant != BMI08X_VARIANT_BMI088)
        return BMI08X_ERR_RANGE;
    dev->intf = intf;
    dev->variant = variant;
    dev->fd = fd;
    dev->i2c_address = i2c_address;
    dev->read = bmi08x_i2c_read;
    dev->write = bmi08x_i2c_write;
    dev->delay_us = bmi08x_delay_us;
    dev->read_write_len = 16;
    dev->chip_id = 0;
    return BMI08X_OK;
}

int8_t bmi08x_i2c_read(bmi08x_dev* dev, uint8_t reg, uint8_t* data, uint32_t len) {
    if (dev == nullptr || data == nullptr)
        return BMI08X_ERR_NULL;
    return i2c_read(dev->fd, dev->i2c_address, reg, data, len) == 0 ? BMI08X_OK : BMI08X_ERR_BUS;
}

int8_t bmi08x_i2c_write(bmi08x_dev* dev, uint8_t reg, const uint8_t* data, uint32_t len) {
    if (dev == nullptr || data == nullptr)
        return BMI08X_ERR_NULL;
    return i2c_write(dev->fd, dev->i2c_address, reg, data, len) == 0 ? BMI08X_OK : BMI08X_ERR_BUS;
}

void bmi08x_delay_us(uint32_t period_us) {
    platform::clock().sleepFor(std::chrono::microseconds(period_us));
}

int8_t bmi08x_get_regs(bmi08x_dev* dev, uint8_t reg, uint8_t* data, uint32_t len) {
    if (dev == nullptr || dev->read == nullptr || data == nullptr)
        return BMI08X_ERR_NULL;
    if (len == 0)
        return BMI08X_ERR_INPUT;
    return dev->read(dev, reg, data, len) == BMI08X_OK ? BMI08X_OK : BMI08X_ERR_BUS;
}

int8_t bmi08x_set_regs(bmi08x_dev* dev, uint8_t reg, const uint8_t* data, uint32_t len) {
    if (dev == nullptr || dev->write == nullptr || data == nullptr)
        return BMI08X_ERR_NULL;
    if (len == 0)
        return BMI08X_ERR_INPUT;
    return dev->write(dev, reg, data, len) == BMI08X_OK ? BMI08X_OK : BMI08X_ERR_BUS;
}

const char* bmi08x_error_text(int8_t rslt) {
    switch (rslt) {
        case BMI08X_OK:
            return "success";
        case BMI08X_ERR_NULL:
            return "null pointer";
        case BMI08X_ERR_BUS:
            return "communication failure";
        case BMI08X_ERR_CHIP_ID:
            return "device not found (chip id)";
        case BMI08X_ERR_RANGE:
            return "setting out of range";
        case BMI08X_ERR_INPUT:
            return "invalid input";
        case BMI08X_ERR_INTERFACE:
            return "interface not supported";
        case BMI08X_ERR_BLOB:
            return "bad configuration blob";
        default:
            return "unknown error";
    }
}

int8_t bmi08x_error_codes_print_result(const char* api_name, int8_t rslt) {
    if (rslt != BMI08X_OK) {
        std::fprintf(stderr, "[bmi08x] %s: %s (%d)\n", api_name ? api_name : "?", bmi08x_error_text(rslt),
                     static_cast<int>(rslt));
    }
    return rslt;
}
