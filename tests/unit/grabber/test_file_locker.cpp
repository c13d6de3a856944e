#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "bh_input/grabber/FileLocker.h"

namespace {
std::string lockPath(const char* name) {
    return std::string(KOV_BINARY_DIR) + "/" + name + "_" + std::to_string(getpid());
}
}  // namespace

TEST(FileLocker, LockUnlockAndRelock) {
    std::string path = lockPath("lock_basic");
    bh::FileLocker l(path);
    EXPECT_TRUE(l.lock());
    EXPECT_TRUE(l.isLocked());
    EXPECT_FALSE(l.lock());  // already locked
    l.unlock();
    EXPECT_FALSE(l.isLocked());
    l.unlock();  // already unlocked: nothing happens
    EXPECT_TRUE(l.lock());
    std::remove(path.c_str());
}

TEST(FileLocker, UnopenableFileFailsWithoutWaiting) {
    bh::FileLocker l("/nonexistent-dir-for-kov/lock");
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(l.lock());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST(FileLocker, SecondProcessTimesOutAfterAboutThreeSeconds) {
    std::string path = lockPath("lock_contended");
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The holder: lock, tell the parent, keep the lock for 8 s.
        bh::FileLocker holder(path);
        char ok = holder.lock() ? '1' : '0';
        if (write(ready[1], &ok, 1) != 1)
            _exit(2);
        std::this_thread::sleep_for(std::chrono::seconds(8));
        _exit(0);
    }
    char ok = 0;
    ASSERT_EQ(read(ready[0], &ok, 1), 1);
    ASSERT_EQ(ok, '1');

    testing::internal::CaptureStderr();
    bh::FileLocker loser(path);
    auto start = std::chrono::steady_clock::now();
    bool got = loser.lock();
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::string err = testing::internal::GetCapturedStderr();

    EXPECT_FALSE(got);
    EXPECT_FALSE(loser.isLocked());
    EXPECT_GE(seconds, 3.0);
    EXPECT_LE(seconds, 8.0);
    EXPECT_NE(err.find(" - #32 File lock timeout. Is the process that keeps the file frozen?"),
              std::string::npos)
        << err;

    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    // The holder is gone: the lock is free again.
    EXPECT_TRUE(loser.lock());
    loser.unlock();
    close(ready[0]);
    close(ready[1]);
    std::remove(path.c_str());
}
