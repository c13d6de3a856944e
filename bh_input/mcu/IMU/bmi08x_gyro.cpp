// The gyroscope half of the inertial chip (I2C address 0x68 on the cameras):
// identity, reset, power, measurement and interrupt settings, and the FIFO
// with the external frame-sync mark.
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

uint16_t littleEndianWord(const uint8_t* b) {
    return static_cast<uint16_t>(b[0] | (b[1] << 8));
}

// The INT3_INT4_IO_MAP bit of an interrupt on a pin.
uint8_t mapBit(bmi08x_int_channel channel, bmi08x_int_kind kind) {
    if (channel == BMI08X_INT_CHANNEL_3)
        return kind == BMI08X_INT_DATA_READY ? 0x01 : 0x04;
    return kind == BMI08X_INT_DATA_READY ? 0x80 : 0x20;
}

}  // namespace

int8_t bmi08g_init(bmi08x_dev* dev) {
    if (dev == nullptr)
        return BMI08X_ERR_NULL;
    uint8_t id = 0;
    const int8_t rslt = bmi08x_get_regs(dev, BMI08G_REG_CHIP_ID, &id, 1);
    if (rslt != BMI08X_OK)
        return rslt;
    dev->chip_id = id;
    return id == BMI08G_CHIP_ID ? BMI08X_OK : BMI08X_ERR_CHIP_ID;
}

int8_t bmi08g_soft_reset(bmi08x_dev* dev) {
    if (dev == nullptr)
        return BMI08X_ERR_NULL;
    const int8_t rslt = setReg(dev, BMI08G_REG_SOFTRESET, BMI08X_SOFT_RESET_CMD);
    if (rslt == BMI08X_OK)
        waitUs(dev, BMI08G_SOFT_RESET_WAIT_US);
    return rslt;
}

int8_t bmi08g_set_power_mode(bmi08x_dev* dev) {
    if (dev == nullptr)
        return BMI08X_ERR_NULL;
    const uint8_t mode = dev->gyro_cfg.power;
    if (mode != BMI08G_PM_NORMAL && mode != BMI08G_PM_SUSPEND && mode != BMI08G_PM_DEEP_SUSPEND)
        return BMI08X_ERR_RANGE;
    const int8_t rslt = setReg(dev, BMI08G_REG_LPM1, mode);
    if (rslt == BMI08X_OK)
        waitUs(dev, BMI08G_POWER_WAIT_US);  // the wake-up to normal mode
    return rslt;
}

int8_t bmi08g_set_meas_conf(bmi08x_dev* dev) {
    if (dev == nullptr)
        return BMI08X_ERR_NULL;
    const bmi08x_cfg& cfg = dev->gyro_cfg;
    if (cfg.range > BMI08G_RANGE_125_DPS || cfg.odr > BMI08G_ODR_100_BW_32)
        return BMI08X_ERR_RANGE;
    const int8_t rslt = setReg(dev, BMI08G_REG_RANGE, cfg.range);
    if (rslt != BMI08X_OK)
        return rslt;
    return setReg(dev, BMI08G_REG_BANDWIDTH, cfg.odr);
}

int8_t bmi08g_set_int_config(bmi08x_dev* dev, const bmi08x_int_cfg* cfg) {
    if (dev == nullptr || cfg == nullptr)
        return BMI08X_ERR_NULL;
    if (cfg->channel != BMI08X_INT_CHANNEL_3 && cfg->channel != BMI08X_INT_CHANNEL_4)
        return BMI08X_ERR_INPUT;
    if (cfg->kind != BMI08X_INT_DATA_READY && cfg->kind != BMI08X_INT_FIFO)
        return BMI08X_ERR_INPUT;
    const bool third = cfg->channel == BMI08X_INT_CHANNEL_3;

    // Pin behaviour: two bits a pin, the other pin's bits kept.
    uint8_t conf = 0;
    int8_t rslt = bmi08x_get_regs(dev, BMI08G_REG_INT3_INT4_IO_CONF, &conf, 1);
    if (rslt != BMI08X_OK)
        return rslt;
    const int shift = third ? 0 : 2;
    conf = static_cast<uint8_t>(conf & ~(0x03 << shift));
    conf = static_cast<uint8_t>(conf | ((cfg->pin.active_high ? 0x01 : 0) << shift) |
                                ((cfg->pin.open_drain ? 0x02 : 0) << shift));
    if ((rslt = setReg(dev, BMI08G_REG_INT3_INT4_IO_CONF, conf)) != BMI08X_OK)
        return rslt;

    uint8_t map = 0;
    if ((rslt = bmi08x_get_regs(dev, BMI08G_REG_INT3_INT4_IO_MAP, &map, 1)) != BMI08X_OK)
        return rslt;
    const uint8_t bit = mapBit(cfg->channel, cfg->kind);
    map = static_cast<uint8_t>(cfg->enable ? (map | bit) : (map & ~bit));
    if ((rslt = setReg(dev, BMI08G_REG_INT3_INT4_IO_MAP, map)) != BMI08X_OK)
        return rslt;

    uint8_t source = BMI08G_INT_CTRL_OFF;
    if (cfg->enable)
        source = cfg->kind == BMI08X_INT_DATA_READY ? BMI08G_INT_CTRL_DRDY : BMI08G_INT_CTRL_FIFO;
    return setReg(dev, BMI08G_REG_INT_CTRL, source);
}

int8_t bmi08g_enable_watermark(bmi08x_dev* dev, uint8_t enable) {
    if (dev == nullptr)
        return BMI08X_ERR_NULL;
    return setReg(dev, BMI08G_REG_FIFO_WM_ENABLE, enable ? BMI08G_FIFO_WM_ON : BMI08G_FIFO_WM_OFF);
}

int8_t bmi08g_set_fifo_config(bmi08x_dev* dev, const bmi08g_fifo_config* cfg) {
    if (dev == nullptr || cfg == nullptr)
        return BMI08X_ERR_NULL;
    if ((cfg->mode != BMI08G_FIFO_MODE_FIFO && cfg->mode != BMI08G_FIFO_MODE_STREAM) ||
        cfg->data_select > 0x03 || cfg->watermark > BMI08G_FIFO_CAPACITY_FRAMES) {
        return BMI08X_ERR_RANGE;
    }
    const uint8_t sync = static_cast<uint8_t>((cfg->ext_sync ? BMI08G_FIFO_EXT_SYNC_ON : 0) |
                                              (cfg->ext_sync_input ? BMI08G_FIFO_EXT_SYNC_INT4 : 0));
    int8_t rslt = setReg(dev, BMI08G_REG_FIFO_EXT_INT_S, sync);
    if (rslt != BMI08X_OK)
        return rslt;
    if ((rslt = setReg(dev, BMI08G_REG_FIFO_CONFIG_0, cfg->watermark)) != BMI08X_OK)
        return rslt;
    return setReg(dev, BMI08G_REG_FIFO_CONFIG_1, static_cast<uint8_t>(cfg->mode | cfg->data_select));
}

int8_t bmi08g_get_data_int_status(bmi08x_dev* dev, uint8_t* status) {
    if (status == nullptr)
        return BMI08X_ERR_NULL;
    return bmi08x_get_regs(dev, BMI08G_REG_INT_STAT_1, status, 1);
}

int8_t bmi08g_read_fifo_data(bmi08x_dev* dev, bmi08g_fifo_buffer* fifo) {
    if (dev == nullptr || fifo == nullptr || fifo->data == nullptr)
        return BMI08X_ERR_NULL;
    fifo->length = 0;
    if (fifo->capacity < BMI08G_FIFO_FRAME_BYTES)
        return BMI08X_ERR_INPUT;
    uint8_t status = 0;
    int8_t rslt = bmi08x_get_regs(dev, BMI08G_REG_FIFO_STATUS, &status, 1);
    if (rslt != BMI08X_OK)
        return rslt;
    fifo->frames_available = static_cast<uint8_t>(status & 0x7F);
    fifo->overrun = static_cast<uint8_t>(status >> 7);
    const uint32_t frames =
        std::min<uint32_t>(fifo->frames_available, fifo->capacity / BMI08G_FIFO_FRAME_BYTES);
    if (frames == 0)
        return BMI08X_OK;
    const uint32_t bytes = frames * BMI08G_FIFO_FRAME_BYTES;
    if ((rslt = bmi08x_get_regs(dev, BMI08G_REG_FIFO_DATA, fifo->data, bytes)) != BMI08X_OK)
        return rslt;
    fifo->length = static_cast<uint16_t>(bytes);
    return BMI08X_OK;
}

int8_t bmi08g_extract_gyro(bmi08x_sensor_data* out, uint8_t* count, const bmi08g_fifo_buffer* fifo) {
    if (out == nullptr || count == nullptr || fifo == nullptr)
        return BMI08X_ERR_NULL;
    const uint32_t room = *count;
    *count = 0;
    if (fifo->data == nullptr)
        return fifo->length == 0 ? BMI08X_OK : BMI08X_ERR_NULL;
    const uint32_t frames = std::min<uint32_t>(fifo->length, fifo->capacity) / BMI08G_FIFO_FRAME_BYTES;
    uint32_t n = 0;
    for (uint32_t f = 0; f < frames && n < room; ++f) {
        const uint8_t* frame = fifo->data + f * BMI08G_FIFO_FRAME_BYTES;
        const uint16_t x = littleEndianWord(frame);
        const uint16_t y = littleEndianWord(frame + 2);
        const uint16_t z = littleEndianWord(frame + 4);
        if (x == BMI08G_FIFO_EMPTY_WORD && y == BMI08G_FIFO_EMPTY_WORD && z == BMI08G_FIFO_EMPTY_WORD)
            break;
        bmi08x_sensor_data& s = out[n++];
        s.x = static_cast<int16_t>(x);
        s.y = static_cast<int16_t>(y);
        s.z = static_cast<int16_t>(z);
        s.timestamp = 0;
        s.sync = static_cast<uint8_t>(z & 0x01);
    }
    *count = static_cast<uint8_t>(n);
    return BMI08X_OK;
}
