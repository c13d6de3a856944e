#include "bh_input/grabber/gmsl/I2CHandler.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Platform.h"

namespace {
// Waits of the bus go through the platform's clock, so tests can step them.
void sleepMicroseconds(long us) {
    platform::clock().sleepFor(std::chrono::microseconds(us));
}
}  // namespace

I2CHandler::~I2CHandler() {
    closeI2C();
}

int I2CHandler::openI2C(unsigned int bus, int v) {
    verbose = v;
    if (bus >= 256) {
        if (verbose)
            std::printf("Error: I2C bus out of range (0-255)!\n");
        return -1;
    }
    closeI2C();
    std::string path = "/dev/i2c-" + std::to_string(bus);
    fd = platform::sys().open(path.c_str(), O_RDWR);
    if (fd < 0 && verbose)
        std::printf("Error: cannot open %s: %s\n", path.c_str(), std::strerror(errno));
    return fd;
}

void I2CHandler::closeI2C() {
    if (fd > 0)
        platform::sys().close(fd);
    fd = -1;
}

void I2CHandler::i2c_iaddr_convert(unsigned int reg, int regLen, unsigned char* out) {
    for (int i = 0; i < regLen; ++i)
        out[i] = static_cast<unsigned char>(reg >> (8 * (regLen - 1 - i)));
}

int I2CHandler::i2c_select() {
    platform::Sys& sys = platform::sys();
    if (sys.ioctlValue(fd, I2C_TENBIT, static_cast<unsigned long>(ten_bit)) < 0) {
        if (verbose)
            std::perror("Set I2C_TENBIT failed");
        return -1;
    }
    // The forced request: on a Jetson the camera driver holds the sensor,
    // serializer and EEPROM addresses, and the plain I2C_SLAVE fails there
    // with EBUSY.
    if (sys.ioctlValue(fd, I2C_SLAVE_FORCE, static_cast<unsigned long>(address)) < 0) {
        if (verbose)
            std::perror("Set i2c device address failed");
        return -1;
    }
    return 0;
}

int I2CHandler::i2c_read(unsigned int reg, unsigned char* buffer, int length, int writeAddress) {
    if (i2c_select() < 0)
        return -1;
    platform::Sys& sys = platform::sys();
    unsigned char addr[4];
    i2c_iaddr_convert(reg, iaddr_bytes, addr);
    if (writeAddress == 1) {
        if (sys.write(fd, addr, static_cast<size_t>(iaddr_bytes)) != iaddr_bytes) {
            if (verbose)
                std::perror("Write i2c register address error");
            return -1;
        }
        sleepMicroseconds(10);
    }
    ssize_t n = sys.read(fd, buffer, static_cast<size_t>(length));
    if (n < 0) {
        if (verbose)
            std::perror("Read i2c data error");
        return -1;
    }
    return static_cast<int>(n);
}

int I2CHandler::i2c_write(unsigned int reg, const unsigned char* data, int length) {
    if (i2c_select() < 0) {
        if (verbose)
            std::printf("Failed to i2Cselect\n");
        return -3;
    }
    platform::Sys& sys = platform::sys();
    std::vector<unsigned char> out;
    int done = 0;
    unsigned int at = reg;
    while (done < length) {
        // Pieces end at page boundaries: the first may be shorter so that the
        // next begins at a page start.
        int room = page_size - static_cast<int>(at % static_cast<unsigned>(page_size));
        int piece = std::min(room, length - done);
        out.assign(static_cast<size_t>(iaddr_bytes), 0);
        i2c_iaddr_convert(at, iaddr_bytes, out.data());
        out.insert(out.end(), data + done, data + done + piece);
        ssize_t n = sys.write(fd, out.data(), out.size());
        if (n != static_cast<ssize_t>(out.size())) {
            if (verbose)
                std::perror("Write i2c data error");
            return -4;
        }
        done += piece;
        at += static_cast<unsigned>(piece);
        sleepMicroseconds(10000);  // the chip's write cycle
    }
    return length;
}

// Checks a block access and points the handler at the chip: 1 when ready,
// -1 closed, -2 bad chip address, 0 for an empty or malformed request.
int I2CHandler::selectChip(unsigned int chip, int regLen, const unsigned char* data, int length) {
    if (fd < 0)
        return -1;
    if (chip > 255) {
        if (verbose)
            std::printf("Error: Chip address invalid!\n");
        return -2;
    }
    if (data == nullptr || length <= 0 || regLen < 1 || regLen > 4)
        return 0;
    address = static_cast<int32_t>(chip);
    iaddr_bytes = regLen;
    return 1;
}

int I2CHandler::readBlockRegister(unsigned int chip, unsigned int reg, int regLen, unsigned char* buffer,
                                  int length, int writeAddress) {
    const int ready = selectChip(chip, regLen, buffer, length);
    if (ready != 1)
        return ready;
    int n = i2c_read(reg, buffer, length, writeAddress);
    if (n != length) {
        if (verbose)
            std::printf("Mismatch data size %d %d\n", n, length);
        return 0;
    }
    return length;
}

int I2CHandler::readRegister(unsigned int chip, unsigned int reg, int regLen, unsigned char& value,
                             int writeAddress) {
    // -1 closed, -2 bad chip address, 0 for any other failure.
    const int n = readBlockRegister(chip, reg, regLen, &value, 1, writeAddress);
    return n < 0 ? n : (n == 1 ? 1 : 0);
}

int I2CHandler::writeBlockRegister(unsigned int chip, unsigned int reg, int regLen, unsigned char* data,
                                   int length) {
    const int ready = selectChip(chip, regLen, data, length);
    if (ready != 1)
        return ready;
    return i2c_write(reg, data, length);
}

int I2CHandler::writeRegister(unsigned int chip, unsigned int reg, int regLen, unsigned char value) {
    return writeBlockRegister(chip, reg, regLen, &value, 1);
}

// ---------------------------------------------------------------------------

int i2c_open(unsigned int bus) {
    if (bus >= 256)
        return -1;
    std::string path = "/dev/i2c-" + std::to_string(bus);
    return platform::sys().open(path.c_str(), O_RDWR);
}

void i2c_close(int fd) {
    if (fd >= 0)
        platform::sys().close(fd);
}

int i2c_read(int fd, uint8_t devAddr, uint8_t reg, uint8_t* data, uint32_t length) {
    platform::Sys& sys = platform::sys();
    if (fd < 0 || data == nullptr)
        return -1;
    if (sys.ioctlValue(fd, I2C_SLAVE_FORCE, devAddr) < 0)
        return -1;
    if (sys.write(fd, &reg, 1) != 1)
        return -1;
    sleepMicroseconds(static_cast<long>(length) * 5);
    return sys.read(fd, data, length) == static_cast<ssize_t>(length) ? 0 : -1;
}

int i2c_write(int fd, uint8_t devAddr, uint8_t reg, const uint8_t* data, uint32_t length) {
    platform::Sys& sys = platform::sys();
    if (fd < 0 || (data == nullptr && length > 0))
        return -1;
    if (sys.ioctlValue(fd, I2C_SLAVE_FORCE, devAddr) < 0)
        return -1;
    std::vector<uint8_t> out(1 + length);
    out[0] = reg;
    if (length)
        std::memcpy(out.data() + 1, data, length);
    return sys.write(fd, out.data(), out.size()) == static_cast<ssize_t>(out.size()) ? 0 : -1;
}

int i2c_ioctl_read(int fd, uint8_t devAddr, uint8_t reg, uint8_t* data, uint32_t length) {
    if (fd < 0 || data == nullptr || length > 0xFFFF)
        return -1;
    i2c_msg msgs[2] = {{devAddr, 0, 1, &reg}, {devAddr, I2C_M_RD, static_cast<__u16>(length), data}};
    i2c_rdwr_ioctl_data rdwr{msgs, 2};
    return platform::sys().ioctl(fd, I2C_RDWR, &rdwr) < 0 ? -1 : 0;
}

int i2c_ioctl_write(int fd, uint8_t devAddr, uint8_t reg, const uint8_t* data, uint32_t length) {
    if (fd < 0 || (data == nullptr && length > 0) || length > 0xFFFE)
        return -1;
    std::vector<uint8_t> out(1 + length);
    out[0] = reg;
    if (length)
        std::memcpy(out.data() + 1, data, length);
    i2c_msg msg = {devAddr, 0, static_cast<__u16>(out.size()), out.data()};
    i2c_rdwr_ioctl_data rdwr{&msg, 1};
    return platform::sys().ioctl(fd, I2C_RDWR, &rdwr) < 0 ? -1 : 0;
}
