// The filters of Argus devices: the substring tests on module id, module
// string and model name, in their order, the legacy warning, and the buses
// they list.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DiscoveryTestSupport.h"
#include "bh_input/grabber/gmsl/ArgusCamera.h"

using platform::argus_types::CameraDevice;
using testsupport::DiscoveryTest;
using testsupport::Installed;
using testsupport::machineFrom;

namespace {

const char* const kLegacyWarning =
    " [WARNING] This is a legacy driver that should not be used in production\n";

struct Strings {
    const char* moduleId;
    const char* module;
    const char* model;
};

// One machine with a camera EEPROM on bus 31 and one Argus sensor per entry.
class FilterTest : public DiscoveryTest {
protected:
    void install(const std::vector<Strings>& sensors) {
        std::string list;
        for (const Strings& s : sensors)
            list += std::string(list.empty() ? "" : ", ") + "{\"module_id\": \"" + s.moduleId +
                    "\", \"module_string\": \"" + s.module + "\", \"model_name\": \"" + s.model + "\"}";
        installed_.emplace(
            machineFrom("{\"type\": \"gmsl_camera\", \"bus\": 31, \"serial\": 42000200, "
                        "\"sub_model\": 4, \"sensors\": [" +
                        list + "]}"));
        ASSERT_TRUE(installed_->argus().createProvider());
        std::vector<CameraDevice*> all;
        ASSERT_EQ(installed_->argus().getCameraDevices(all), platform::argus_types::STATUS_OK);
        all_ = std::make_shared<std::vector<CameraDevice*>>(all);
    }
    // The indexes of the sensors a filter keeps.
    template <typename Filter>
    std::vector<int> kept(Filter filter, std::vector<int>& buses) {
        std::vector<int> out;
        const std::shared_ptr<std::vector<CameraDevice*>> result = filter(all_, buses);
        for (CameraDevice* d : *result)
            out.push_back(installed_->argus().indexOf(d));
        return out;
    }
    void TearDown() override {
        installed_.reset();
        DiscoveryTest::TearDown();
    }

    std::optional<Installed> installed_;
    std::shared_ptr<std::vector<CameraDevice*>> all_;
};

}  // namespace

TEST_F(FilterTest, StereoFilterNeedsAllThreeSubstrings) {
    install({
        {"KOVQ_CAM_0", "kovq_ar0234", "kovq_ar0234"},    // 0 kept
        {"KOV_CAM_1", "x_kovq_ar0234_y", "old_kovq"},    // 1 kept: legacy id
        {"KOVQS_CAM_0", "kovq_ar0234", "kovqs_ar0234"},  // 2 single-sensor id: dropped
        {"KOVQ_CAM_0", "kovq_imx678", "kovq_ar0234"},    // 3 other sensor: dropped
        {"KOVQ_CAM_0", "kovq_ar0234", "KOVQ_AR0234"},    // 4 case matters: dropped
        {"", "kovq_ar0234", "kovq_ar0234"},              // 5 no module id: dropped
        {"kovq_cam_0", "kovq_ar0234", "kovq_ar0234"},    // 6 lower-case id: dropped
    });
    std::vector<int> buses{7};
    testing::internal::CaptureStdout();
    EXPECT_EQ(kept(bh::filterGMSLDeviceWithKOV, buses), (std::vector<int>{0, 1}));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");  // no legacy warning from this filter
    EXPECT_EQ(buses, std::vector<int>{31});
}

TEST_F(FilterTest, SingleSensorFilterKeepsItsThreeCasesAndWarnsForTheLegacyOne) {
    install({
        {"KOVQS_CAM_0", "kovq_ar0234", "kovqs_ar0234"},  // 0 case 1
        {"KOV_CAM_0", "kovq_ar0234", "kovq_ar0234"},     // 1 case 2: legacy, warned
        {"KOVQS_CAM_0", "kovq_imx678", "kovqs_imx678"},  // 2 case 3
        {"KOVQ_CAM_0", "kovq_ar0234", "kovq_ar0234"},    // 3 stereo id: dropped
        {"KOVQS_CAM_0", "kovq_imx678", "kovq_imx678"},   // 4 model without "kovqs": dropped
        {"KOVQS_CAM_0", "kovq_ov9281", "kovqs_ov9281"},  // 5 other module: dropped
    });
    std::vector<int> buses;
    testing::internal::CaptureStdout();
    EXPECT_EQ(kept(bh::filterGMSLDeviceWithKOVQS, buses), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), kLegacyWarning);
    EXPECT_EQ(buses, std::vector<int>{31});
}

TEST_F(FilterTest, FirstMatchingCaseWinsSoNoWarningWhenCase1Holds) {
    // Matches case 1 and case 2: case 1 is tested first, no warning.
    install({{"KOVQS_CAM_KOV_CAM", "kovq_ar0234", "kovqs_ar0234"}});
    std::vector<int> buses;
    testing::internal::CaptureStdout();
    EXPECT_EQ(kept(bh::filterGMSLDeviceWithKOVQS, buses), (std::vector<int>{0}));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(FilterTest, LegacyBoardOfTheShippedScenarioWarnsInTheSingleSensorFilter) {
    Installed m("gmsl_legacy_bus30");
    ASSERT_TRUE(m.argus().createProvider());
    std::vector<CameraDevice*> all;
    m.argus().getCameraDevices(all);
    ASSERT_EQ(all.size(), 2u);
    auto devices = std::make_shared<std::vector<CameraDevice*>>(all);
    std::vector<int> buses;
    EXPECT_EQ(bh::filterGMSLDeviceWithKOV(devices, buses)->size(), 2u);
    EXPECT_EQ(buses, std::vector<int>{30});
    testing::internal::CaptureStdout();
    EXPECT_EQ(bh::filterGMSLDeviceWithKOVQS(devices, buses)->size(), 2u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(kLegacyWarning) + kLegacyWarning);
}

TEST_F(DiscoveryTest, FiltersSkipDevicesWithoutPropertiesAndAcceptANullList) {
    Installed m("gmsl_kov_qg_pico_bus30");
    // No provider: the device handles answer no properties.
    std::vector<CameraDevice*> all;
    ASSERT_TRUE(m.argus().createProvider());
    m.argus().getCameraDevices(all);
    m.argus().destroyProvider();
    std::vector<int> buses;
    EXPECT_TRUE(
        bh::filterGMSLDeviceWithKOV(std::make_shared<std::vector<CameraDevice*>>(all), buses)->empty());
    EXPECT_EQ(buses, std::vector<int>{30});
    EXPECT_TRUE(bh::filterGMSLDeviceWithKOVQS(nullptr, buses)->empty());
    EXPECT_EQ(buses, std::vector<int>{30});
}
