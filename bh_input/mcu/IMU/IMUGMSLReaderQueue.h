#pragma once

// A queue of samples between the threads of the GMSL inertial reader: shared
// pointers under a mutex, with a condition variable that a consumer waits on
// while the queue is short. Bounded: at the limit a push drops the oldest
// entry, so a queue that nobody drains (a stalled merge, a reader whose
// samples are not taken) cannot grow without end.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>

template <typename T>
class IMUGMSLSampleQueue {
public:
    using Entry = std::shared_ptr<T>;

    explicit IMUGMSLSampleQueue(size_t limit) : limit_(limit > 0 ? limit : 1) {}
    IMUGMSLSampleQueue(const IMUGMSLSampleQueue&) = delete;
    IMUGMSLSampleQueue& operator=(const IMUGMSLSampleQueue&) = delete;

    void push(Entry entry) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (queue_.size() >= limit_)
                queue_.pop_front();
            queue_.push_back(std::move(entry));
        }
        ready_.notify_all();
    }

    // The oldest entry, or null.
    Entry front() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return queue_.empty() ? nullptr : queue_.front();
    }

    // The two oldest entries; false when there are fewer.
    bool frontTwo(Entry& first, Entry& second) const {
        std::lock_guard<std::mutex> lock(mutex_);
        if (queue_.size() < 2)
            return false;
        first = queue_[0];
        second = queue_[1];
        return true;
    }

    // Takes the oldest entry out; null when empty.
    Entry pop() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (queue_.empty())
            return nullptr;
        Entry entry = std::move(queue_.front());
        queue_.pop_front();
        return entry;
    }

    // Takes the oldest entry out if it is still `expected` (a push at the
    // limit may have dropped it meanwhile).
    bool popIf(const Entry& expected) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (queue_.empty() || queue_.front() != expected)
            return false;
        queue_.pop_front();
        return true;
    }

    size_t size() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return queue_.size();
    }

    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        queue_.clear();
    }

    // Waits until the queue holds at least `count` entries, or `keepWaiting()`
    // turns false, or `timeout` passes; true when the entries are there. The
    // timeout is only a safety net: producers and stop() wake the waiter.
    template <typename KeepWaiting>
    bool waitFor(size_t count, std::chrono::microseconds timeout, KeepWaiting keepWaiting) {
        std::unique_lock<std::mutex> lock(mutex_);
        ready_.wait_for(lock, timeout, [&] { return queue_.size() >= count || !keepWaiting(); });
        return queue_.size() >= count;
    }

    // Wakes every waiter so that it looks at its stop condition again. The
    // mutex is taken first so that a waiter between its test and its wait
    // cannot miss the call.
    void wakeAll() {
        { std::lock_guard<std::mutex> lock(mutex_); }
        ready_.notify_all();
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<Entry> queue_;
    size_t limit_;
};
