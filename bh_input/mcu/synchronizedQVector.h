#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <stdexcept>

// A bounded, thread-safe queue of values that carry a running index.
//
// The sensor engine keeps its fused packets in three of these. `push` appends
// while the queue holds fewer than `limit` entries; `pushPop` appends and drops
// the oldest, so that the queue stays at the limit. Readers take entries by
// position from either end.

template <typename T>
struct augmentedType {
    T value{};
    uint64_t index = 0;
};

template <typename T>
class synchronizedQVector {
public:
    static constexpr size_t kDefaultLimit = 1000;

    explicit synchronizedQVector(size_t limit = kDefaultLimit) : limit_(limit == 0 ? 1 : limit) {}

    synchronizedQVector(const synchronizedQVector&) = delete;
    synchronizedQVector& operator=(const synchronizedQVector&) = delete;

    size_t limit() const { return limit_; }

    // Appends `value`. Refuses (false) when the queue is full: use pushPop.
    bool push(const T& value) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (queue_.size() >= limit_) {
                return false;
            }
            queue_.push_back(augmentedType<T>{value, next_index_++});
        }
        cond_.notify_one();
        return true;
    }

    // Appends `value` and drops the oldest entries beyond the limit.
    void pushPop(const T& value) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            queue_.push_back(augmentedType<T>{value, next_index_++});
            while (queue_.size() > limit_) {
                queue_.pop_front();
            }
        }
        cond_.notify_one();
    }

    // push below the limit, pushPop at it, under one lock: the bounded append
    // of the engine's fusion thread.
    void pushBounded(const T& value) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            queue_.push_back(augmentedType<T>{value, next_index_++});
            if (queue_.size() > limit_) {
                queue_.pop_front();
            }
        }
        cond_.notify_one();
    }

    // The i-th entry from the newest (0 is the newest). Throws out_of_range.
    T atEnd(size_t i) const {
        std::lock_guard<std::mutex> lock(mutex_);
        if (i >= queue_.size()) {
            throw std::out_of_range("synchronizedQVector::atEnd");
        }
        return queue_[queue_.size() - 1 - i].value;
    }

    // The i-th entry from the oldest (0 is the oldest). Throws out_of_range.
    T atBegin(size_t i) const {
        std::lock_guard<std::mutex> lock(mutex_);
        if (i >= queue_.size()) {
            throw std::out_of_range("synchronizedQVector::atBegin");
        }
        return queue_[i].value;
    }

    // Running index of the i-th entry from the newest.
    uint64_t indexAtEnd(size_t i) const {
        std::lock_guard<std::mutex> lock(mutex_);
        if (i >= queue_.size()) {
            throw std::out_of_range("synchronizedQVector::indexAtEnd");
        }
        return queue_[queue_.size() - 1 - i].index;
    }

    size_t size() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return queue_.size();
    }

    bool empty() const { return size() == 0; }

    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        queue_.clear();
    }

    // Waits until the queue holds at least `count` entries or `timeout` passed.
    template <typename Duration>
    bool waitForSize(size_t count, Duration timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, timeout, [&] { return queue_.size() >= count; });
    }

private:
    const size_t limit_;
    mutable std::mutex mutex_;
    std::condition_variable cond_;
    std::deque<augmentedType<T>> queue_;
    uint64_t next_index_ = 0;
};
