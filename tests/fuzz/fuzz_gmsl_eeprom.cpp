// The discovery of GMSL cameras against I2C buses and a camera service made of
// fuzz input: the identification block of each camera EEPROM (serial number,
// version, sub-model; short reads, refusals, a chip that stops answering
// half-way) on every bus the sweep visits, and the sensors that Argus lists
// with their property strings (module, model, module id of any length).
//
// Input: flags (which discovery runs), the sensors (count, then per sensor a
// busy flag and its three strings), then the answers of the buses as they
// are asked.
#include <fcntl.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "FuzzSupport.h"
#include "bh_input/grabber/gmsl/ArgusCamera.h"
#include "bh_input/grabber/gmsl/ArgusProvider.h"
#include "platform/Platform.h"
#include "sim/Machine.h"
#include "sim/argus/SimArgus.h"

namespace {

// I2C bus nodes whose every answer is the next one of the input: open, the
// address ioctls and writes take one byte (0 succeeds), reads one answer.
class FuzzI2cSys final : public platform::Sys {
public:
    explicit FuzzI2cSys(fuzz::Input& in) : in_(in) {}

    int open(const char*, int, mode_t) override { return in_.byte() == 0 ? fail(ENOENT) : nextFd_++; }
    int close(int) override { return 0; }
    ssize_t read(int, void* buf, size_t count) override {
        const int n = in_.answer(buf, count);
        return n < 0 ? fail(EREMOTEIO) : n;
    }
    ssize_t write(int, const void*, size_t count) override {
        return in_.byte() == 0 ? static_cast<ssize_t>(count) : fail(EREMOTEIO);
    }
    int ioctl(int, unsigned long, void*) override { return in_.byte() == 0 ? 0 : fail(EBUSY); }
    void* mmap(void*, size_t, int, int, int, off_t) override {
        errno = ENODEV;
        return reinterpret_cast<void*>(-1);
    }
    int munmap(void*, size_t) override { return 0; }
    int poll(struct pollfd*, nfds_t, int) override { return 0; }
    int select(int, fd_set*, fd_set*, fd_set*, struct timeval*) override { return 0; }
    int stat(const char*, struct stat*) override { return fail(ENOENT); }

private:
    static int fail(int err) {
        errno = err;
        return -1;
    }
    fuzz::Input& in_;
    int nextFd_ = 3;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::scratch();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const uint8_t flags = in.byte();

    auto machine = std::make_shared<sim::Machine>("fuzz");
    std::shared_ptr<sim::SimArgus> argus = sim::SimArgus::of(*machine);
    argus->setProviderUnavailable((flags & 8) != 0);
    const int sensors = in.byte() % 5;
    for (int i = 0; i < sensors; ++i) {
        sim::ArgusSensorConfig sensor;
        sensor.inUse = in.flag();
        sensor.moduleString = in.text();
        sensor.modelName = in.text();
        sensor.moduleId = in.text();
        argus->addSensor(sensor);
    }

    auto sys = std::make_shared<FuzzI2cSys>(in);
    platform::ScopedBackend scope(
        platform::Backend{sys, nullptr, nullptr, argus, std::make_shared<fuzz::InstantClock>()});
    ArgusProvider::DeleteInstance();
    switch (flags & 3) {
        case 0:
            ArgusCamera::getGMSLDevicesExt(false);
            break;
        case 1:
            ArgusCamera::getGMSLDevices(false, (flags & 4) != 0);
            break;
        default: {
            std::vector<int> buses;
            std::vector<platform::argus_types::CameraDevice*> listed;
            argus->createProvider();
            argus->getCameraDevices(listed);
            auto all = std::make_shared<std::vector<platform::argus_types::CameraDevice*>>(listed);
            if ((flags & 1) != 0)
                bh::filterGMSLDeviceWithKOVQS(all, buses);
            else
                bh::filterGMSLDeviceWithKOV(all, buses);
            argus->destroyProvider();
            break;
        }
    }
    ArgusProvider::DeleteInstance();
    return 0;
}
