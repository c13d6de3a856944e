// The HID reader of the sensors MCU against a device made of fuzz input: the
// enumeration (path, serial string, release number and so the protocol
// generation), the USB recovery it runs on the path, then a script of reader
// operations whose every device answer comes from the input: sample reports
// off the interrupt stream, feature reports, legacy replies, EEPROM reads and
// the results of writes.
//
// Input: identity (see McuIdentity::read), open flags, [serial asked for],
// then operations, each one byte followed by what it reads.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "FuzzHid.h"
#include "FuzzSupport.h"
#include "bh_input/mcu/IMU/IMUHidReader.h"
#include "platform/Platform.h"

namespace {

void readGetters(IMUHidReader& r) {
    volatile float sink = 0.f;
    sink = r.getMappedMagnetoX() + r.getMappedMagnetoY() + r.getMappedMagnetoZ();
    sink = r.getEnvTemperature() + r.getEnvHumidity() + r.getEnvPressure();
    sink = r.getOnBoardLeftTemperature() + r.getOnBoardRightTemperature();
    sink = r.getCurrentIMUTemperatureInCelsius(true) + r.getCurrentIMUTemperatureInCelsius(false);
    (void)sink;
    volatile uint64_t t = r.getDeltaTime_us() + r.getCurrentMCUTimeStamp() + r.getCurrentMCUEnvTimeStamp() +
                          r.getCurrentMCUMagTimeStamp() + r.getCurrentBHIMUTimestamp() +
                          r.getCurrentBHEnvTimestamp() + r.getCurrentBHMagTimestamp();
    (void)t;
    const McuSensorReport report = r.getSensorData();
    (void)report;
    const eepromMemoryStrc image = r.getEepromMemory(false);
    (void)image;
    int prefix = 0;
    int body = 0;
    r.readEepromSerialNumber(prefix, body);
}

template <typename T>
T recordFrom(fuzz::Input& in) {
    T record{};
    in.take(&record, sizeof record);
    return record;
}

// A long stream of sample reports from one template: the clock pairing over
// 100 frame triggers, the ping every 400 reads, the median of the pressure.
void runBurst(IMUHidReader& r, fuzz::Input& in, fuzz::FuzzHid& hid) {
    const int asked = 4 * in.byte() + 1;
    const uint32_t tickStep = in.u16();
    const int syncEvery = in.byte() % 16;
    const uint32_t hostStepUs = in.u16();
    const int count = hid.startBurst(in.bytes(62), asked, tickStep, syncEvery, hostStepUs);
    for (int i = 0; i < count; ++i)
        r.updateIMUData(false);
}

void runOperation(IMUHidReader& r, fuzz::Input& in, unsigned int wanted, fuzz::FuzzHid& hid) {
    switch (in.byte() % 29) {
        case 0:
        case 1:
        case 2:
            r.updateIMUData(in.flag());
            break;
        case 3:
            r.updateEepromMemory(in.flag());
            break;
        case 4:
            r.sendReadSNCommand();
            break;
        case 5:
            r.sendReadBiasCommand();
            break;
        case 6:
            r.sendReadVarianceCommand();
            break;
        case 7:
            r.sendReadBaromCalibCommand();
            break;
        case 8:
            r.sendReadKlibCommand();
            break;
        case 9: {
            const int resolution = static_cast<int8_t>(in.byte());
            const int side = static_cast<int8_t>(in.byte());
            r.sendReadCalibMonoCommand(resolution, side);
            break;
        }
        case 10:
            r.sendReadCalibStereoCommand();
            break;
        case 11:
            r.sendReadImuFreq();
            break;
        case 12: {
            std::string text;
            r.getDataSavingTime(text);
            break;
        }
        case 13:
            r.getImuRetrimmingStatus();
            break;
        case 14:
            r.startImuRetrimming();
            break;
        case 15:
            r.isDataStreamEnabled();
            break;
        case 16:
            r.sendStartDataStreamingCommand();
            break;
        case 17:
            r.sendStopDataStreamingCommand();
            break;
        case 18: {
            const int prefix = in.i32();
            r.sendWriteSNCommand(prefix, in.i32());
            break;
        }
        case 19: {
            float v[6];
            for (float& f : v)
                f = in.f32();
            if (in.flag())
                r.sendWriteBiasCommand(v[0], v[1], v[2], v[3], v[4], v[5]);
            else
                r.sendWriteVarianceCommand(v[0], v[1], v[2], v[3], v[4], v[5]);
            break;
        }
        case 20: {
            auto gyro = recordFrom<_extended_gyro_calib_data>(in);
            r.sendWriteExtGyroCalibCommand(gyro);
            auto acc = recordFrom<_extended_acc_calib_data>(in);
            r.sendWriteExtAccCalibCommand(acc);
            break;
        }
        case 21: {
            const int resolution = static_cast<int8_t>(in.byte());
            const int side = static_cast<int8_t>(in.byte());
            auto mono = recordFrom<calib_mono_data>(in);
            r.sendWriteCalibMonoCommand(resolution, side, mono);
            break;
        }
        case 22: {
            auto stereo = recordFrom<_calib_stereo_data>(in);
            r.sendWriteCalibStereoCommand(stereo.params[0], stereo.params[1], stereo.params[2], stereo.block1,
                                          stereo.block2, stereo.block3);
            break;
        }
        case 23: {
            auto mag = recordFrom<_mag_calib_data>(in);
            r.sendWriteMagCalibCommand(mag);
            const float scale = in.f32();
            r.sendWriteBaromCalibCommand(scale, in.f32());
            const float x = in.f32();
            const float y = in.f32();
            r.sendWriteKlibCommand(x, y, in.f32());
            break;
        }
        case 24:
            r.sendWriteImuFreq(static_cast<_imu_odr>(in.byte() & 3));
            break;
        case 25:
            switch (in.byte() % 4) {
                case 0:
                    r.sendDFUEnterCommand();
                    break;
                case 1:
                    r.sendMcuResetCommand();
                    break;
                case 2:
                    r.sendOV580ResetCommand();
                    break;
                default: {
                    const int prefix = in.i32();
                    r.sendEraseCommandwithSN(prefix, in.i32());
                    break;
                }
            }
            break;
        case 26:
            r.setTSOffset(static_cast<long>(in.u64()));
            readGetters(r);
            break;
        case 27:
            runBurst(r, in, hid);
            break;
        default:
            // The engine closes and opens the reader again after a loss.
            r.close();
            r.open(wanted, in.flag(), in.flag());
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
    fuzz::McuIdentity id;
    id.read(in);
    const uint8_t openFlags = in.byte();
    const unsigned int wanted = (openFlags & 8) != 0 ? in.u32() : 0;

    auto clock = std::make_shared<fuzz::InstantClock>();
    auto hid = std::make_shared<fuzz::FuzzHid>(in, id, clock);
    auto usb = std::make_shared<fuzz::FuzzUsb>(in);
    platform::ScopedBackend scope(platform::Backend{nullptr, usb, hid, nullptr, clock});
    {
        IMUHidReader reader(false, 0x2B03, (openFlags & 4) != 0 ? 0 : 0xF681);
        reader.open(wanted, (openFlags & 1) != 0, (openFlags & 2) != 0);
        for (int op = 0; op < 64 && !in.empty(); ++op)
            runOperation(reader, in, wanted, *hid);
        readGetters(reader);
        reader.close();
    }
    return 0;
}
