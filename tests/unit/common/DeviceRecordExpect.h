#pragma once

// Checks every field of one camera record of the device lists.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "bh_input/grabber/defines.h"

namespace testsupport {

inline void expectRecord(const DeviceProperties& record, bh::DEVICE_STATE state, int32_t id,
                         const std::string& path, bh::MODEL model, uint32_t serial, bh::INPUT_TYPE input) {
    EXPECT_EQ(record.camera_state, state);
    EXPECT_EQ(record.id, id);
    if (path.empty())
        EXPECT_TRUE(record.path.empty());
    else
        EXPECT_STREQ(record.path.c_str(), path.c_str());
    EXPECT_EQ(record.camera_model, model);
    EXPECT_EQ(record.serial_number, serial);
    EXPECT_EQ(record.input_type, input);
}

}  // namespace testsupport
