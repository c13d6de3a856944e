#pragma once

// The records behind the handles of the simulated camera service (internal to
// sim/argus/). Devices and sensor modes are the records' own addresses: they
// live as long as the service. Every other handle is a number, never an
// address: it is looked up in its table on each call, is never reused, and a
// thread that waits on one sees its destruction at its next look-up without
// touching freed memory.

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "platform/Argus.h"
#include "sim/argus/SimArgusTypes.h"

namespace sim {
namespace argus_records {

namespace at = platform::argus_types;

using Key = uintptr_t;

static_assert(sizeof(Key) == 8, "handles carry 56 bits");

// The objects one kind of handle stands for. A handle is
// (instance << 44) | (kind << 40) | (serial << 4): serials count up from 1
// and are never reused, and the instance number of the service keeps the
// handles of two services apart.
template <typename T>
class HandleTable {
public:
    HandleTable(uintptr_t instance, uintptr_t kind) : tag_(((instance & 0xFFF) << 4) | (kind & 0xF)) {}

    Key add(std::unique_ptr<T> item) {
        const Key key = (tag_ << 40) | (nextSerial_++ << 4);
        items_[key] = std::move(item);
        return key;
    }
    T* find(Key key) const {
        auto it = items_.find(key);
        return it == items_.end() ? nullptr : it->second.get();
    }
    template <typename H>
    T* find(H* handle) const {
        return find(keyOf(handle));
    }
    // Whether the key was handed out by this table (it may be gone since).
    bool issued(Key key) const {
        const Key serial = (key >> 4) & ((Key(1) << 36) - 1);
        return (key >> 40) == tag_ && (key & 0xF) == 0 && serial >= 1 && serial < nextSerial_;
    }
    void erase(Key key) { items_.erase(key); }
    void clear() { items_.clear(); }
    std::map<Key, std::unique_ptr<T>>& items() { return items_; }
    const std::map<Key, std::unique_ptr<T>>& items() const { return items_; }

    template <typename H>
    static Key keyOf(H* handle) {
        return reinterpret_cast<Key>(handle);
    }
    template <typename H>
    static H* handleOf(Key key) {
        return reinterpret_cast<H*>(key);
    }

private:
    uintptr_t tag_;
    Key nextSerial_ = 1;
    std::map<Key, std::unique_ptr<T>> items_;
};

struct Mode {
    ArgusSensorModeConfig config;
};

// A sensor streaming with one request: frames at phaseNs + k * periodNs for
// k > lastIndex up to the stop, into the streams listed.
struct Run {
    bool active = false;
    Key session = 0;
    int64_t periodNs = 0;
    int64_t phaseNs = 0;
    int64_t startNs = 0;
    int64_t lastIndex = 0;  // grid index of the newest frame delivered
    std::vector<Key> streams;
    ArgusRequestSettings settings;
    ArgusSensorModeConfig mode;
};

struct Sensor {
    ArgusSensorConfig config;
    std::vector<std::unique_ptr<Mode>> modes;
    int sessions = 0;   // live sessions of this process on it
    size_t camera = 0;  // index in SimArgus::cameras_
    int position = 0;   // 0 the first sensor of its camera, 1 the second
    Run run;
    uint64_t delivered = 0;
    uint64_t acquired = 0;
    int repeats = 0;
    bool hasApplied = false;
};

struct Camera {
    ArgusCameraConfig config;
    std::vector<Sensor*> sensors;
    // Under the current provider.
    bool started = false;  // a sensor has repeated
    int64_t freezeAtNs = INT64_MAX;
    bool frozen = false;
    int64_t frozenAtNs = INT64_MAX;  // frames after it are never delivered
    int freezesLeft = 0;
    int64_t errorAtNs = INT64_MAX;
    bool errored = false;
    int errorsLeft = 0;
    // What the frame-start line was last told.
    bool lineOn = false;
    int64_t linePeriodNs = 0;
    int64_t linePhaseNs = 0;
};

struct Session {
    std::vector<Sensor*> sensors;
    Key repeating = 0;  // the request being repeated, 0 when none
};

struct StreamSettings {
    Key session = 0;
    Sensor* device = nullptr;
    at::Size2D size;
    bool metadata = false;
};

// What a frame carries: its metadata and what its image is made of.
struct FrameInfo {
    uint64_t sequence = 0;  // the sensor's frame count when it was delivered
    int64_t timestampNs = 0;
    int64_t gridNs = 0;  // its place on the camera's grid (without a timestamp offset)
    int64_t periodNs = 0;
    uint64_t exposureNs = 0;
    float analogGain = 1.0f;
    float digitalGain = 1.0f;
    int view = 0;  // 0 first sensor's view, 1 second
    bool metadata = false;
};

struct Stream {
    Key session = 0;
    Sensor* sensor = nullptr;
    at::Size2D size;
    bool metadata = false;
    bool disconnected = false;
    int consumers = 0;
    bool hasFrame = false;  // the mailbox holds `newest`
    FrameInfo newest;
};

struct Request {
    Key session = 0;
    ArgusRequestSettings settings;
    std::vector<Key> streams;  // enabled, in order
    std::map<Key, at::Rectangle> clips;
};

struct Consumer {
    Key stream = 0;
    uint64_t lastSequence = 0;  // the newest frame handed out (or present at creation)
    int held = 0;               // frames acquired and not released
};

struct Frame {
    Key consumer = 0;
    Sensor* sensor = nullptr;
    FrameInfo info;
};

struct NvBuffer {
    at::Size2D size;
    uint64_t sceneIndex = 0;
    int view = 0;
};

// The frame durations of a mode: 1e9 / fastest and 1e9 / slowest rate.
inline bool frameDurationsOf(const ArgusSensorModeConfig& mode, at::Range<uint64_t>& range) {
    if (mode.fps.empty())
        return false;
    const auto [slowest, fastest] = std::minmax_element(mode.fps.begin(), mode.fps.end());
    range.min = static_cast<uint64_t>(1e9 / *fastest);
    range.max = static_cast<uint64_t>(1e9 / *slowest);
    return true;
}

// The exposure time range of a mode (a maximum of 0: its longest frame duration).
inline at::Range<uint64_t> exposureRangeOf(const ArgusSensorModeConfig& mode) {
    at::Range<uint64_t> range{mode.exposureMinNs, mode.exposureMaxNs};
    at::Range<uint64_t> durations;
    if (range.max == 0)
        range.max = frameDurationsOf(mode, durations) ? durations.max : range.min;
    range.max = std::max(range.max, range.min);
    return range;
}

// floor(a / b) for b > 0.
inline int64_t floorDiv(int64_t a, int64_t b) {
    int64_t q = a / b;
    if ((a % b != 0) && (a < 0))
        --q;
    return q;
}

// now + duration, INT64_MAX when that does not fit (a time-out of -1 is "never").
inline int64_t saturatingAdd(int64_t now, uint64_t duration) {
    int64_t out = 0;
    if (duration > static_cast<uint64_t>(INT64_MAX) ||
        __builtin_add_overflow(now, static_cast<int64_t>(duration), &out))
        return INT64_MAX;
    return out;
}

}  // namespace argus_records
}  // namespace sim
