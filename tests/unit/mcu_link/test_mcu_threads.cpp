// The fusion thread reads samples while another thread sends commands and takes
// copies: the locks of the reader keep them apart (run under TSan too).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "McuTestSupport.h"

using namespace mcutest;

TEST(McuThreads, CommandsAndCopiesWhileStreaming) {
    SimMachine sim;
    sim.add(config(12345678, 0x305, 3));
    sim.install();
    IMUHidReader r(false, VENDOR, PICO, true, "");
    ASSERT_GT(r.open(0, true, false), 0);
    ASSERT_TRUE(r.sendStartDataStreamingCommand());

    std::atomic<bool> done{false};
    std::atomic<bool> started{false};
    std::atomic<int> delivered{0};
    std::thread fusion([&] {
        // Simulated time makes the 3000 reads quick: wait until the other side
        // is at work, so the two really overlap.
        while (!started)
            std::this_thread::yield();
        for (int i = 0; i < 3000; ++i)
            if (r.updateIMUData(true))
                delivered++;
        done = true;
    });
    int copies = 0, pings = 0;
    uint64_t lastTs = 0;
    do {
        McuSensorReport rep = r.getSensorData();
        if (rep.report_id == 1) {
            EXPECT_GE(val(rep.timestamp), lastTs);
            lastTs = rep.timestamp;
        }
        ++copies;
        if (r.sendPing())
            ++pings;
        r.setOptExtQuaternion(0, 0, 0, 1, 0, 0, 0);
        (void)r.isDataStreamEnabled();
        (void)r.is_lost.load();
        (void)r.has_new_data.load();
        started = true;
    } while (!done);
    fusion.join();
    EXPECT_GT(delivered.load(), 2900);
    EXPECT_GT(copies, 0);
    EXPECT_GT(pings, 0);
    r.close();
}

TEST(McuThreads, CloseFromAnotherThreadEndsTheReadLoop) {
    SimMachine sim;
    sim.add(config());
    sim.install();
    IMUHidReader r(false, VENDOR, PICO);
    ASSERT_GT(r.open(0, true, false), 0);
    ASSERT_TRUE(r.sendStartDataStreamingCommand());
    std::atomic<int> reads{0};
    std::thread fusion([&] {
        while (r.is_running) {
            r.updateIMUData(false);
            reads++;
        }
    });
    while (reads < 100)
        std::this_thread::yield();
    r.close();
    fusion.join();
    EXPECT_EQ(r.is_closed, 1);
    EXPECT_FALSE(r.updateIMUData(false));
}
