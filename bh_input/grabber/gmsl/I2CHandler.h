#pragma once

// Register access to chips on a Linux I2C bus (/dev/i2c-N), through the Sys
// seam: the camera EEPROM and, by the plain i2c_ functions, the inertial chip.

#include <cstdint>

class I2CHandler {
public:
    I2CHandler() = default;
    ~I2CHandler();
    I2CHandler(const I2CHandler&) = delete;
    I2CHandler& operator=(const I2CHandler&) = delete;

    // Opens /dev/i2c-<bus> read-write; the descriptor, or -1.
    int openI2C(unsigned int bus, int verbose);
    void closeI2C();

    // 1 for success; -1 without descriptor (value untouched); -2 for a chip
    // address above 255; 0 for a failed read.
    int readRegister(unsigned int chip, unsigned int reg, int regLen, unsigned char& value,
                     int writeAddress = 1);
    // The length read; -1 without descriptor; -2 for a chip address above 255;
    // 0 for a short or failed read.
    int readBlockRegister(unsigned int chip, unsigned int reg, int regLen, unsigned char* buffer, int length,
                          int writeAddress = 1);
    // The length written; -1 without descriptor; -2 for a chip address above
    // 255; -3 when the chip cannot be selected; -4 for a short write.
    int writeRegister(unsigned int chip, unsigned int reg, int regLen, unsigned char value);
    int writeBlockRegister(unsigned int chip, unsigned int reg, int regLen, unsigned char* data, int length);

    int getFd() const { return fd; }
    void setPageSize(int size) { page_size = size > 0 ? size : 8; }
    void setTenBitAddress(int on) { ten_bit = on; }

private:
    int selectChip(unsigned int chip, int regLen, const unsigned char* data, int length);
    int i2c_select();
    int i2c_read(unsigned int reg, unsigned char* buffer, int length, int writeAddress);
    int i2c_write(unsigned int reg, const unsigned char* data, int length);
    // reg as regLen bytes, most significant first.
    static void i2c_iaddr_convert(unsigned int reg, int regLen, unsigned char* out);

    int32_t verbose = 0;
    int32_t fd = -1;
    int32_t address = 0;
    int32_t page_size = 8;
    int32_t iaddr_bytes = 1;
    int32_t ten_bit = 0;
};

// Plain functions on a descriptor, for the inertial chip driver. Results are
// 0 for success and -1 for failure, except i2c_open (descriptor or -1).
// Addresses are selected with the forced request (I2C_SLAVE_FORCE), as in
// I2CHandler.
int i2c_open(unsigned int bus);
void i2c_close(int fd);
// Writes the one-byte register, waits length x 5 us, reads length bytes.
int i2c_read(int fd, uint8_t devAddr, uint8_t reg, uint8_t* data, uint32_t length);
// One write of the register and the data.
int i2c_write(int fd, uint8_t devAddr, uint8_t reg, const uint8_t* data, uint32_t length);
// The same as one combined transfer (I2C_RDWR): write register, read data.
int i2c_ioctl_read(int fd, uint8_t devAddr, uint8_t reg, uint8_t* data, uint32_t length);
int i2c_ioctl_write(int fd, uint8_t devAddr, uint8_t reg, const uint8_t* data, uint32_t length);
