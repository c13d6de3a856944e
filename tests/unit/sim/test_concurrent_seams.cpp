// The simulated seams are used from several threads at once (a reader thread
// on the HID device while the main thread enumerates and a model re-addresses
// a device). Run under the thread sanitizer through the "threads" label.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "bh_input/grabber/DeviceList.h"
#include "platform/Platform.h"
#include "sim/SimBackend.h"
#include "sim/Simulator.h"

TEST(ConcurrentSeams, EnumerateOpenAndReaddressFromSeveralThreads) {
    auto m = sim::loadScenario(std::string(KOV_SOURCE_DIR) + "/sim/scenarios/two_cameras_one_port.json");
    platform::ScopedBackend b(sim::makeBackend(m));
    std::atomic<bool> stop{false};
    std::atomic<int> lists{0}, opens{0}, toggles{0};

    std::thread enumerator([&] {
        while (!stop) {
            auto list = bh::getUSBDevice();
            EXPECT_LE(list.size(), 4u);
            ++lists;
        }
    });
    std::thread nodes([&] {
        while (!stop) {
            int n = -1;
            bh::findDevicePath_linux(n, 1);
            hid_device_info* info = platform::hid().enumerate(0x2B03, 0);
            for (hid_device_info* p = info; p; p = p->next) {
                if (hid_device* d = platform::hid().open_path(p->path, 0)) {
                    platform::hid().close(d);
                    ++opens;
                }
            }
            platform::hid().free_enumeration(info);
        }
    });
    auto devices = m->usb().devices();
    // Keep changing the bus until both threads have done real work against it
    // (bounded, so a stuck thread fails the test instead of hanging it).
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (int i = 0; i < 300 || lists < 20 || opens < 20; ++i) {
        if (std::chrono::steady_clock::now() > deadline)
            break;
        auto& d = devices[static_cast<size_t>(i) % devices.size()];
        m->usb().setAttached(d, false);
        m->usb().setAddress(d, m->usb().nextAddress(d->bus));
        m->usb().setAttached(d, true);
        m->videoNode(2)->setBusy(i % 2 == 0);
        ++toggles;
        std::this_thread::yield();
    }
    stop = true;
    enumerator.join();
    nodes.join();
    EXPECT_GE(lists.load(), 20);
    EXPECT_GE(opens.load(), 20);
    EXPECT_GE(toggles.load(), 300);
    // Everything is back: five devices on the bus.
    EXPECT_EQ(m->usb().devices().size(), 5u);
}
