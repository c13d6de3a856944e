// The accelerometer half of the inertial chip (I2C address 0x18 on the
// cameras): identity, reset, power, measurement and interrupt settings, data,
// temperature and the feature-engine blob.
#include <algorithm>

#include "bh_input/mcu/IMU/bmi08x.h"

namespace {

void waitUs(bmi08x_dev* dev, uint32_t us) {
    if (dev->delay_us != nullptr)
        dev->delay_us(us);
    else
        bmi08x_delay_us(us);
}

int8_t setReg(bmi08x_dev* dev, uint8_t reg, uint8_t value) {
    return bmi08x_set_regs(dev, reg, &value, 1);
}

int16_t littleEndian16(const uint8_t* b) {
    return static_cast<int16_t>(static_cast<uint16_t>(b[0] | (b[1] << 8)));
}

uint8_t expectedChipId(bmi08x_variant variant) {
    return variant == BMI08X_VARIANT_BMI085 ? BMI08A_CHIP_ID_BMI085 : BMI08A_CHIP_ID_BMI088;
}

// The largest blob whose last position (in words) still fits the two
// position registers (4 + 8 bits).
constexpr uint32_t kMaxBlobBytes = 2u * 4096u;

}  // namespace

int8_t bmi08a_init(bmi08x_dev* dev) {
    if (dev == nullptr)
        return BMI08X_ERR_NULL;
    uint8_t id = 0;
    const int8_t rslt = bmi08x_get_regs(dev, BMI08A_REG_CHIP_ID, &id, 1);
    if (rslt != BMI08X_OK)
        return rslt;
    dev->chip_id = id;
    return id == expectedChipId(dev->variant) ? BMI08X_OK : BMI08X_ERR_CHIP_ID;
}

int8_t bmi08a_soft_reset(bmi08x_dev* dev) {
    if (dev == nullptr)
        return BMI08X_ERR_NULL;
    const int8_t rslt = setReg(dev, BMI08A_REG_SOFTRESET, BMI08X_SOFT_RESET_CMD);
    if (rslt == BMI08X_OK)
        waitUs(dev, BMI08A_SOFT_RESET_WAIT_US);
    return rslt;
}

int8_t bmi08a_load_config_file(bmi08x_dev* dev, const uint8_t* blob, uint32_t size) {
    if (dev == nullptr || blob == nullptr)
        return BMI08X_ERR_NULL;
    if (size == 0 || size % 2 != 0 || size > kMaxBlobBytes)
        return BMI08X_ERR_BLOB;
    if (dev->read_write_len == 0 || dev->read_write_len % 2 != 0)
        return BMI08X_ERR_INPUT;

    // The feature engine takes its blob only with the advanced power save off.
    int8_t rslt = setReg(dev, BMI08A_REG_PWR_CONF, BMI08A_PM_ACTIVE);
    if (rslt != BMI08X_OK)
        return rslt;
    waitUs(dev, BMI08A_CONFIG_PREPARE_WAIT_US);
    if ((rslt = setReg(dev, BMI08A_REG_INIT_CTRL, BMI08A_INIT_CTRL_LOAD)) != BMI08X_OK)
        return rslt;

    for (uint32_t at = 0; at < size; at += dev->read_write_len) {
        const uint32_t chunk = std::min<uint32_t>(dev->read_write_len, size - at);
        const uint32_t words = at / 2;
        const uint8_t position[2] = {static_cast<uint8_t>(words & 0x0F), static_cast<uint8_t>(words >> 4)};
        if ((rslt = bmi08x_set_regs(dev, BMI08A_REG_FEATURE_POS, position, 2)) != BMI08X_OK)
            return rslt;
        if ((rslt = bmi08x_set_regs(dev, BMI08A_REG_FEATURE_CFG, blob + at, chunk)) != BMI08X_OK)
            return rslt;
    }

    if ((rslt = setReg(dev, BMI08A_REG_INIT_CTRL, BMI08A_INIT_CTRL_START)) != BMI08X_OK)
        return rslt;
    waitUs(dev, BMI08A_CONFIG_START_WAIT_US);
    return BMI08X_OK;
}

int8_t bmi08a_set_power_mode(bmi08x_dev* dev) {
    if (dev == nullptr)
        return BMI08X_ERR_NULL;
    uint8_t power_ctrl;
    switch (dev->accel_cfg.power) {
        case BMI08A_PM_ACTIVE:
            power_ctrl = BMI08A_POWER_ON;
            break;
        case BMI08A_PM_SUSPEND:
            power_ctrl = BMI08A_POWER_OFF;
            break;
        default:
            return BMI08X_ERR_RANGE;
    }
    int8_t rslt = setReg(dev, BMI08A_REG_PWR_CONF, dev->accel_cfg.power);
    if (rslt != BMI08X_OK)
        return rslt;
    waitUs(dev, BMI08A_POWER_WAIT_US);
    if ((rslt = setReg(dev, BMI08A_REG_PWR_CTRL, power_ctrl)) != BMI08X_OK)
        return rslt;
    waitUs(dev, BMI08A_POWER_WAIT_US);
    return BMI08X_OK;
}

int8_t bmi08a_set_meas_conf(bmi08x_dev* dev) {
    if (dev == nullptr)
        return BMI08X_ERR_NULL;
    const bmi08x_cfg& cfg = dev->accel_cfg;
    if (cfg.bw < BMI08A_BW_OSR4 || cfg.bw > BMI08A_BW_NORMAL || cfg.odr < BMI08A_ODR_12_5_HZ ||
        cfg.odr > BMI08A_ODR_1600_HZ || cfg.range > BMI08A_RANGE_24G) {
        return BMI08X_ERR_RANGE;
    }
    const int8_t rslt = setReg(dev, BMI08A_REG_CONF, static_cast<uint8_t>((cfg.bw << 4) | cfg.odr));
    if (rslt != BMI08X_OK)
        return rslt;
    return setReg(dev, BMI08A_REG_RANGE, cfg.range);
}

int8_t bmi08a_set_int_config(bmi08x_dev* dev, const bmi08x_int_cfg* cfg) {
    if (dev == nullptr || cfg == nullptr)
        return BMI08X_ERR_NULL;
    if (cfg->channel != BMI08X_INT_CHANNEL_1 && cfg->channel != BMI08X_INT_CHANNEL_2)
        return BMI08X_ERR_INPUT;
    if (cfg->kind != BMI08X_INT_DATA_READY)
        return BMI08X_ERR_INPUT;
    const bool first = cfg->channel == BMI08X_INT_CHANNEL_1;
    int8_t rslt = BMI08X_OK;
    if (cfg->enable) {
        const uint8_t io =
            static_cast<uint8_t>((cfg->pin.output_enable ? 0x08 : 0) | (cfg->pin.open_drain ? 0x04 : 0) |
                                 (cfg->pin.active_high ? 0x02 : 0));
        rslt = setReg(dev, first ? BMI08A_REG_INT1_IO_CTRL : BMI08A_REG_INT2_IO_CTRL, io);
        if (rslt != BMI08X_OK)
            return rslt;
    }
    // The other pin's mapping stays as it is.
    uint8_t map = 0;
    if ((rslt = bmi08x_get_regs(dev, BMI08A_REG_INT_MAP_DATA, &map, 1)) != BMI08X_OK)
        return rslt;
    const uint8_t bit = first ? 0x04 : 0x40;
    map = static_cast<uint8_t>(cfg->enable ? (map | bit) : (map & ~bit));
    return setReg(dev, BMI08A_REG_INT_MAP_DATA, map);
}

int8_t bmi08a_get_reg_int_status(bmi08x_dev* dev, uint8_t* status) {
    if (status == nullptr)
        return BMI08X_ERR_NULL;
    return bmi08x_get_regs(dev, BMI08A_REG_INT_STAT_1, status, 1);
}

int8_t bmi08a_get_data(bmi08x_dev* dev, bmi08x_sensor_data* accel) {
    if (accel == nullptr)
        return BMI08X_ERR_NULL;
    uint8_t raw[6] = {};
    const int8_t rslt = bmi08x_get_regs(dev, BMI08A_REG_DATA, raw, sizeof(raw));
    if (rslt != BMI08X_OK)
        return rslt;
    accel->x = littleEndian16(raw);
    accel->y = littleEndian16(raw + 2);
    accel->z = littleEndian16(raw + 4);
    return BMI08X_OK;
}

int32_t bmi08a_temperature_from_registers(uint8_t msb, uint8_t lsb) {
    // 11-bit two's complement, 0.125 degC a count, 23 degC at 0.
    int32_t t11 = static_cast<int32_t>(msb) * 8 + (lsb >> 5);
    if (t11 > 1023)
        t11 -= 2048;
    return t11 * 125 + 23000;
}

int8_t bmi08a_get_sensor_temperature(bmi08x_dev* dev, int32_t* milli_celsius) {
    if (milli_celsius == nullptr)
        return BMI08X_ERR_NULL;
    uint8_t raw[2] = {};
    const int8_t rslt = bmi08x_get_regs(dev, BMI08A_REG_TEMP_MSB, raw, sizeof(raw));
    if (rslt != BMI08X_OK)
        return rslt;
    *milli_celsius = bmi08a_temperature_from_registers(raw[0], raw[1]);
    return BMI08X_OK;
}
