// The vendor control channel of a USB camera against a device made of fuzz
// input: the control length the CBS firmware reports (GET_LEN), the replies
// of both generations (GET_CUR), refusals with any errno, on a script of the
// channel's operations: register reads and writes, GPIO and LED, exposure and
// gain, the auto exposure bit, SPI flash reads, writes and erases.
//
// Input: flags (generation), then operations, each one byte followed by its
// arguments; the device answers are read from the input as they are asked.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "FuzzSupport.h"
#include "FuzzVideoSys.h"
#include "bh_input/grabber/linux/linuxStereoGrabber.h"
#include "platform/Platform.h"
#include "tests/unit/grabber/GrabberTestAccess.h"

namespace {

// A heap buffer of exactly the size the caller hands over, so that a write
// past it is caught.
std::unique_ptr<unsigned char[]> buffer(int size) {
    return std::make_unique<unsigned char[]>(size > 0 ? static_cast<size_t>(size) : 1);
}

void runOperation(bh::LinuxStereoGrabber& g, fuzz::Input& in) {
    auto one = buffer(1);
    unsigned char* out = one.get();
    switch (in.byte() % 24) {
        case 0:
            g.linux_SystemRead(static_cast<int>(in.u32()), out);
            break;
        case 1:
            g.linux_SystemWrite(static_cast<int>(in.u32()), in.byte());
            break;
        case 2: {
            const int chip = in.byte();
            const int reg = in.u16();
            g.linux_SensorRead(chip, reg, out, in.byte(), in.byte());
            break;
        }
        case 3: {
            const int chip = in.byte();
            const int reg = in.u16();
            const unsigned char value = in.byte();
            g.linux_SensorWrite(chip, reg, value, in.byte(), in.byte());
            break;
        }
        case 4:
            g.ISPAECAGCEnable(in.flag());
            break;
        case 5:
            g.getISPAECAGC();
            break;
        case 6: {
            const unsigned char a = in.byte();
            const unsigned char b = in.byte();
            const unsigned char c = in.byte();
            if (in.flag())
                g.linux_ISPManualExposure(a, b, c, in.byte());
            else
                g.linux_ISPManualGain(a, b, c, in.byte());
            break;
        }
        case 7:
            if (in.flag()) {
                auto three = buffer(3);
                g.linux_ISPExposureGet(three.get(), in.byte());
            } else {
                auto two = buffer(2);
                g.linux_ISPGainGet(two.get(), in.byte());
            }
            break;
        case 8: {
            const int kind = in.byte();
            g.linux_SPI_FlashErase(kind, static_cast<int>(in.u32()));
            break;
        }
        case 9:
            g.linux_SPI_FlashSetAdr(static_cast<int>(in.u32()));
            break;
        case 10: {
            const int size = static_cast<int8_t>(in.byte());
            auto bytes = buffer(size);
            in.take(bytes.get(), size > 0 ? static_cast<size_t>(size) : 0);
            g.linux_SPI_FlashProgramStart(bytes.get(), size);
            break;
        }
        case 11: {
            const int address = static_cast<int>(in.u32());
            const int size = static_cast<int16_t>(in.u16());
            auto read = buffer(size);
            g.linux_SPI_FlashProgramRead(read.get(), address, size);
            break;
        }
        case 12:
            g.linux_cbs_read_system_register(in.u32(), out);
            break;
        case 13: {
            const uint32_t address = in.u32();
            g.linux_cbs_write_system_register(address, in.byte());
            break;
        }
        case 14: {
            const int sensor = static_cast<int8_t>(in.byte());
            const int width = in.byte();
            g.linux_cbs_read_sensor_register(sensor, width, in.u32(), out);
            break;
        }
        case 15: {
            const int sensor = static_cast<int8_t>(in.byte());
            const int width = in.byte();
            const uint32_t address = in.u32();
            g.linux_cbs_write_sensor_register(sensor, width, address, in.byte());
            break;
        }
        case 16: {
            const int gpio = in.byte();
            switch (in.byte() % 4) {
                case 0:
                    g.linux_cbs_set_gpio_direction(gpio, in.byte());
                    break;
                case 1: {
                    const int enable = in.byte();
                    g.linux_cbs_set_gpio_interrupt(gpio, enable, in.byte());
                    break;
                }
                case 2:
                    g.linux_cbs_set_gpio_value(gpio, in.byte());
                    break;
                default:
                    g.linux_cbs_get_gpio_value(gpio, out);
                    break;
            }
            break;
        }
        case 17: {
            const int kind = static_cast<int8_t>(in.byte());
            g.linux_cbs_SPI_FlashErase(kind, in.u32());
            break;
        }
        case 18: {
            const uint32_t address = in.u32();
            const int size = static_cast<int16_t>(in.u16());
            auto bytes = buffer(size);
            in.take(bytes.get(), size > 0 ? static_cast<size_t>(size) : 0);
            g.linux_cbs_SPI_FlashProgramStart(bytes.get(), address, size);
            break;
        }
        case 19: {
            const uint32_t address = in.u32();
            const int size = static_cast<int16_t>(in.u16());
            auto read = buffer(size);
            g.linux_cbs_SPI_FlashProgramRead(read.get(), address, size);
            break;
        }
        case 20:
            g.linux_cbs_is_aecagc(static_cast<int8_t>(in.byte()));
            break;
        case 21:
            if (in.flag())
                g.setLEDValue(in.flag());
            else
                g.getLEDValue(out);
            break;
        case 22: {
            const int size = static_cast<int16_t>(in.u16());
            auto read = buffer(size);
            g.InitializeSPIQuery(read.get(), size);
            break;
        }
        default:
            g.setDisconnected(in.flag());
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::scratch();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const bool cbs = in.flag();
    auto sys = std::make_shared<fuzz::FuzzVideoSys>(in);
    platform::ScopedBackend scope(
        platform::Backend{sys, nullptr, nullptr, nullptr, std::make_shared<fuzz::InstantClock>()});
    {
        bh::LinuxStereoGrabber grabber(cbs);
        bh::LinuxStereoGrabberTestAccess::setFd(grabber, 7);
        for (int op = 0; op < 64 && !in.empty(); ++op)
            runOperation(grabber, in);
        bh::LinuxStereoGrabberTestAccess::setFd(grabber, -1);
    }
    return 0;
}
