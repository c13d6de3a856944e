#pragma once

// The camera's vendor control channels as UVCIOC_CTRL_QUERY reaches them:
// extension unit 3 (old firmware, 64-byte control) or unit 4 (CBS firmware,
// 384-byte control), selector 2, over one CameraFirmware state. A unit the
// firmware generation does not have answers ENOENT, as the driver does for an
// unknown unit.
//
// Both channels are request/reply: SET_CUR hands the firmware a request
// packet, which it carries out at once; GET_CUR reads the reply to the last
// request (value at byte 0 on the old channel, from byte 17 on CBS).

#include <memory>
#include <mutex>

#include "sim/Models.h"
#include "sim/uvc/CameraFirmware.h"

namespace sim {

class ExtensionUnits : public ExtensionUnitModel {
public:
    static constexpr uint8_t kOldUnit = 3;
    static constexpr uint8_t kCbsUnit = 4;
    static constexpr uint8_t kSelector = 2;
    static constexpr uint16_t kOldLength = 64;
    static constexpr uint16_t kCbsLength = 384;

    explicit ExtensionUnits(std::shared_ptr<CameraFirmware> firmware) : fw_(std::move(firmware)) {}
    int query(uint8_t unit, uint8_t selector, uint8_t query, uint8_t* data, uint16_t size) override;

    const std::shared_ptr<CameraFirmware>& firmware() const { return fw_; }

private:
    void oldRequest(const uint8_t* req);  // mutex held
    void cbsRequest(const uint8_t* req);  // mutex held

    std::shared_ptr<CameraFirmware> fw_;
    std::mutex mutex_;
    uint8_t reply_[kCbsLength] = {};
    // The old channel's 0x07 0x22 packet sets the auto exposure state, unless
    // its reply is read: then it was the query, and the state before it stands.
    bool aecQueryOpen_ = false;
    bool aecBefore_[2] = {true, true};
    uint32_t flashAddress_ = 0;  // old channel: where the next program goes
};

}  // namespace sim
