// The discovery of GMSL cameras on simulated Jetsons: the constants and
// tables, the sweeps of getGMSLDevices and getGMSLDevicesExt, the claim of
// the sensors through Argus, the FROZEN message when the camera service has
// no provider, and EEPROMs that answer garbage.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "DiscoveryTestSupport.h"
#include "bh_input/grabber/gmsl/ArgusCamera.h"

using testsupport::DiscoveryTest;
using testsupport::Installed;
using testsupport::machineFrom;

namespace {

using Pairs = std::vector<std::pair<bh::BH_DEVICE, std::string>>;

std::string camera(int bus, uint32_t serial, int subModel, const std::string& more = "") {
    return "{\"type\": \"gmsl_camera\", \"bus\": " + std::to_string(bus) +
           ", \"serial\": " + std::to_string(serial) + ", \"sub_model\": " + std::to_string(subModel) + more +
           "}";
}

std::string phantomEeprom(int bus, uint32_t serial, int subModel) {
    return "{\"type\": \"i2c_bus\", \"bus\": " + std::to_string(bus) +
           ", \"chips\": [{\"type\": \"camera_eeprom\", \"address\": \"0x55\", \"serial\": " +
           std::to_string(serial) + ", \"sub_model\": " + std::to_string(subModel) + "}]}";
}

// An EEPROM whose identification registers (4 and up) cannot be read: the
// serial number comes, then the chip stops answering.
class FailingMidRead : public sim::RegisterChip {
public:
    explicit FailingMidRead(uint32_t serial) : sim::RegisterChip(256, 1, 8) {
        setContents(0, {static_cast<uint8_t>(serial), static_cast<uint8_t>(serial >> 8),
                        static_cast<uint8_t>(serial >> 16), static_cast<uint8_t>(serial >> 24), 0x11, 4, 1});
    }
    bool write(const uint8_t* data, size_t length) override {
        if (length > 0)
            pointer_ = data[0];
        return sim::RegisterChip::write(data, length);
    }
    bool read(uint8_t* data, size_t length) override {
        if (pointer_ >= 4)
            return false;
        return sim::RegisterChip::read(data, length);
    }

private:
    size_t pointer_ = 0;
};

}  // namespace

// ---------------------------------------------------------------------------
// Constants and tables

TEST(GmslTables, BusOrderAndEepromAddresses) {
    EXPECT_EQ(bh::gmsl_i2c_bus_index,
              (std::vector<int>{30, 31, 32, 33, 34, 35, 36, 37, 9, 10, 0, 1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(bh::eeprom_adress_list, (std::vector<int>{0x55, 0x57}));
}

TEST(GmslTables, SerialNumbersFromOneTo999999999AreValid) {
    EXPECT_FALSE(bh::isValidGMSLSerial(0));
    EXPECT_TRUE(bh::isValidGMSLSerial(1));
    EXPECT_TRUE(bh::isValidGMSLSerial(999999999));
    EXPECT_FALSE(bh::isValidGMSLSerial(1000000000));
    EXPECT_FALSE(bh::isValidGMSLSerial(0xFFFFFFFF));
}

TEST(GmslTables, IdentificationNeedsVersion0x11AndAKnownSubModel) {
    for (int subModel : {1, 2, 3, 4, 30, 31})
        EXPECT_TRUE(bh::isGMSLCameraIdentification(0x11, static_cast<uint8_t>(subModel))) << subModel;
    for (int subModel : {0, 5, 29, 32, 255})
        EXPECT_FALSE(bh::isGMSLCameraIdentification(0x11, static_cast<uint8_t>(subModel))) << subModel;
    EXPECT_FALSE(bh::isGMSLCameraIdentification(0x10, 4));
    EXPECT_FALSE(bh::isGMSLCameraIdentification(0x12, 30));
}

TEST(GmslTables, SubModelTablesDifferOnlyFor31) {
    EXPECT_EQ(bh::gmslModelOfSubModel(1), 4);
    EXPECT_EQ(bh::gmslModelOfSubModel(2), 4);
    EXPECT_EQ(bh::gmslModelOfSubModel(3), 4);
    EXPECT_EQ(bh::gmslModelOfSubModel(4), 5);
    EXPECT_EQ(bh::gmslModelOfSubModel(30), 30);
    EXPECT_EQ(bh::gmslModelOfSubModel(31), 31);
    EXPECT_EQ(bh::gmslModelOfSubModel(5), 32);

    const int ext[][2] = {{1, 6}, {2, 7}, {3, 8}, {4, 9}, {30, 10}, {31, 11}, {0, 17}, {5, 17}, {32, 17}};
    for (const auto& row : ext)
        EXPECT_EQ(bh::gmslDeviceOfSubModelExt(row[0]), row[1]) << row[0];
    const int session[][2] = {{1, 6},  {2, 7},  {3, 8},   {4, 9},   {30, 10}, {31, 10},
                              {0, 17}, {5, 17}, {29, 17}, {32, 17}, {-1, 17}, {1000, 17}};
    for (const auto& row : session)
        EXPECT_EQ(ArgusCamera::getCameraSubModelDevice(row[0]), row[1]) << row[0];
}

// ---------------------------------------------------------------------------
// getGMSLDevices and getGMSLDevicesExt

TEST_F(DiscoveryTest, NoCameraOnAnyBusGivesAnEmptyListWithoutTouchingArgus) {
    Installed m(machineFrom(
        "{\"type\": \"i2c_bus\", \"bus\": 30}, {\"type\": \"i2c_bus\", \"bus\": 31}, {\"type\": \"argus\"}"));
    EXPECT_TRUE(ArgusCamera::getGMSLDevices(false).empty());
    EXPECT_TRUE(ArgusCamera::getGMSLDevicesExt(false).empty());
    EXPECT_EQ(m.argus().createProviderCalls(), 0);
    // Every bus was looked at, the low ones too, since no high one had a camera.
    EXPECT_EQ(m.sys().opens("/dev/i2c-30"), 2);
    EXPECT_GE(m.sys().opens("/dev/i2c-0"), 1);
}

TEST_F(DiscoveryTest, StereoCameraIsClaimedAndListedAvailable) {
    Installed m("gmsl_kov_qg_pico_bus30");
    const std::vector<DeviceProperties> list = ArgusCamera::getGMSLDevices(false);
    ASSERT_EQ(list.size(), 1u);
    testsupport::expectRecord(list[0], bh::DEVICE_AVAILABLE, 0, "/dev/i2c-30", bh::KOV_QP, 42000123u,
                              bh::GMSL_INPUT);
    // Both sensors were claimed by a trial session, destroyed at once.
    EXPECT_EQ(m.argus().createProviderCalls(), 1);
    EXPECT_EQ(m.argus().sessionsCreated(), 2);
    EXPECT_EQ(m.argus().liveSessions(), 0);
    EXPECT_EQ(ArgusCamera::getGMSLDevicesExt(false), (Pairs{{bh::BH_DEVICE_KOV_QG_PICO, "/dev/i2c-30"}}));
}

TEST_F(DiscoveryTest, EepromAt0x57IsFoundByTheFullListAndTheFiltersButNotByTheFastList) {
    Installed m(machineFrom(camera(30, 41000555, 2, ", \"address\": \"0x57\"")));
    const auto list = ArgusCamera::getGMSLDevices(false);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_STREQ(list[0].path.c_str(), "/dev/i2c-30");
    EXPECT_EQ(list[0].camera_model, bh::KOV_Q);
    EXPECT_EQ(list[0].camera_state, bh::DEVICE_AVAILABLE);
    EXPECT_EQ(list[0].serial_number, 41000555u);

    EXPECT_TRUE(ArgusCamera::getGMSLDevicesExt(false).empty());

    ASSERT_TRUE(m.argus().createProvider());
    std::vector<platform::argus_types::CameraDevice*> all;
    ASSERT_EQ(m.argus().getCameraDevices(all), platform::argus_types::STATUS_OK);
    auto devices = std::make_shared<std::vector<platform::argus_types::CameraDevice*>>(all);
    std::vector<int> buses{99};
    EXPECT_EQ(bh::filterGMSLDeviceWithKOV(devices, buses)->size(), 2u);
    EXPECT_EQ(buses, std::vector<int>{30});
    buses = {99};
    bh::filterGMSLDeviceWithKOVQS(devices, buses);
    EXPECT_EQ(buses, std::vector<int>{30});
}

TEST_F(DiscoveryTest, CameraOnBus30KeepsThePhantomEepromOnBus5Unread) {
    Installed m(machineFrom(camera(30, 42000123, 4) + "," + phantomEeprom(5, 42000999, 4)));
    const auto list = ArgusCamera::getGMSLDevices(false);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_STREQ(list[0].path.c_str(), "/dev/i2c-30");
    EXPECT_EQ(ArgusCamera::getGMSLDevicesExt(false), (Pairs{{bh::BH_DEVICE_KOV_QG_PICO, "/dev/i2c-30"}}));
    ASSERT_TRUE(m.argus().providerCreated());
    std::vector<platform::argus_types::CameraDevice*> all;
    m.argus().getCameraDevices(all);
    std::vector<int> buses;
    bh::filterGMSLDeviceWithKOV(std::make_shared<std::vector<platform::argus_types::CameraDevice*>>(all),
                                buses);
    EXPECT_EQ(buses, std::vector<int>{30});
    bh::filterGMSLDeviceWithKOVQS(std::make_shared<std::vector<platform::argus_types::CameraDevice*>>(all),
                                  buses);
    EXPECT_EQ(buses, std::vector<int>{30});

    EXPECT_EQ(m.sys().opens("/dev/i2c-5"), 0);
    EXPECT_EQ(m.sys().opens("/dev/i2c-0"), 0);
    EXPECT_GT(m.sys().opens("/dev/i2c-30"), 0);
    EXPECT_GT(m.sys().opens("/dev/i2c-10"), 0);  // the high numbers are all tried
}

TEST_F(DiscoveryTest, CameraOnBus5AloneIsFound) {
    Installed m(machineFrom(camera(5, 42000124, 4)));
    const auto list = ArgusCamera::getGMSLDevices(false);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_STREQ(list[0].path.c_str(), "/dev/i2c-5");
    EXPECT_EQ(list[0].camera_state, bh::DEVICE_AVAILABLE);
    EXPECT_EQ(list[0].serial_number, 42000124u);
    EXPECT_EQ(ArgusCamera::getGMSLDevicesExt(false), (Pairs{{bh::BH_DEVICE_KOV_QG_PICO, "/dev/i2c-5"}}));
}

TEST_F(DiscoveryTest, StereoCameraInUseElsewhereIsListedNotAvailableWithItsSerial) {
    Installed m(machineFrom(camera(30, 42000125, 4, ", \"in_use\": true")));
    const auto list = ArgusCamera::getGMSLDevices(false);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].camera_state, bh::DEVICE_NOT_AVAILABLE);
    EXPECT_EQ(list[0].id, 0);
    EXPECT_EQ(list[0].serial_number, 42000125u);
    EXPECT_EQ(list[0].camera_model, bh::KOV_QP);
    EXPECT_EQ(m.argus().sessionsCreated(), 0);
}

TEST_F(DiscoveryTest, StereoCameraWithOneSensorHeldIsNotAvailable) {
    Installed m(machineFrom(camera(30, 42000126, 3, ", \"sensors\": [{}, {\"in_use\": true}]")));
    const auto list = ArgusCamera::getGMSLDevices(false);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].camera_state, bh::DEVICE_NOT_AVAILABLE);
    EXPECT_EQ(list[0].camera_model, bh::KOV_Q);
    EXPECT_EQ(m.argus().liveSessions(), 0);
}

TEST_F(DiscoveryTest, IdentifiedCameraWithoutSensorsLeftIsLeftOut) {
    // Bus 31's camera has no sensor in Argus: the cursor is past the list.
    Installed m(machineFrom(camera(30, 42000127, 4) + "," + camera(31, 42000128, 4, ", \"sensors\": []")));
    const auto list = ArgusCamera::getGMSLDevices(false);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_STREQ(list[0].path.c_str(), "/dev/i2c-30");
    EXPECT_EQ(ArgusCamera::getGMSLDevicesExt(false), (Pairs{{bh::BH_DEVICE_KOV_QG_PICO, "/dev/i2c-30"},
                                                            {bh::BH_DEVICE_KOV_QG_PICO, "/dev/i2c-31"}}));
}

TEST_F(DiscoveryTest, TwoCamerasGetConsecutiveIdsAndTheirOwnSensors) {
    Installed m(machineFrom(camera(30, 42000130, 4) + "," + camera(32, 41000131, 2, ", \"in_use\": true")));
    const auto list = ArgusCamera::getGMSLDevices(false);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].id, 0);
    EXPECT_EQ(list[0].camera_state, bh::DEVICE_AVAILABLE);
    EXPECT_EQ(list[1].id, 1);
    EXPECT_STREQ(list[1].path.c_str(), "/dev/i2c-32");
    EXPECT_EQ(list[1].camera_state, bh::DEVICE_NOT_AVAILABLE);
    EXPECT_EQ(list[1].serial_number, 41000131u);
}

TEST_F(DiscoveryTest, SerialNumbers0And1000000000AreNotListedAnd999999999Is) {
    {
        Installed m(machineFrom(camera(30, 0, 4)));
        EXPECT_TRUE(ArgusCamera::getGMSLDevices(false).empty());
        EXPECT_TRUE(ArgusCamera::getGMSLDevicesExt(false).empty());
        EXPECT_EQ(m.argus().createProviderCalls(), 0);  // the cheap sweep needs a non-zero serial
    }
    ArgusProvider::DeleteInstance();
    {
        Installed m(machineFrom(camera(30, 1000000000, 4)));
        testing::internal::CaptureStdout();
        EXPECT_TRUE(ArgusCamera::getGMSLDevices(true).empty());
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find("[KOV-Argus][getGMSLDevices] Invalid Device  SN : 1000000000 for i2C-30\n"),
                  std::string::npos)
            << out;
        EXPECT_TRUE(ArgusCamera::getGMSLDevicesExt(false).empty());
    }
    ArgusProvider::DeleteInstance();
    {
        Installed m(machineFrom(camera(30, 999999999, 4)));
        const auto list = ArgusCamera::getGMSLDevices(false);
        ASSERT_EQ(list.size(), 1u);
        EXPECT_EQ(list[0].serial_number, 999999999u);
        EXPECT_EQ(ArgusCamera::getGMSLDevicesExt(false), (Pairs{{bh::BH_DEVICE_KOV_QG_PICO, "/dev/i2c-30"}}));
    }
}

TEST_F(DiscoveryTest, SubModel31Gives11FromTheFastListAnd10FromTheSessionTable) {
    Installed m(machineFrom(camera(30, 43000031, 31)));
    EXPECT_EQ(ArgusCamera::getGMSLDevicesExt(false), (Pairs{{bh::BH_DEVICE_KOV_QS_B, "/dev/i2c-30"}}));
    EXPECT_EQ(bh::gmslDeviceOfSubModelExt(31), 11);
    EXPECT_EQ(ArgusCamera::getCameraSubModelDevice(31), 10);
}

TEST_F(DiscoveryTest, VerboseLinesOfBothLists) {
    Installed m("gmsl_kov_qg_pico_bus30");
    testing::internal::CaptureStdout();
    ArgusCamera::getGMSLDevices(true);
    ArgusCamera::getGMSLDevicesExt(true);
    const std::string out = testing::internal::GetCapturedStdout();
    for (const char* line : {"] BEGIN 'ArgusCamera::getGMSLDevices'\n",
                             "[KOV-Argus][getGMSLDevices] Found New KOV-GMSL SN42000123 for i2C-30\n",
                             "] ArgusCamera::getGMSLDevices' COMPLETED -> 1 GMSL cameras found\n",
                             "] BEGIN 'ArgusCamera::getGMSLDevicesExt'\n",
                             "] ArgusCamera::getGMSLDevicesExt' COMPLETED -> 1 GMSL cameras found\n"})
        EXPECT_NE(out.find(line), std::string::npos) << line << "\nin:\n" << out;
    EXPECT_EQ(out.rfind("[Thread ", 0), 0u) << out;
}

// ---------------------------------------------------------------------------
// The camera service without provider

TEST_F(DiscoveryTest, ProviderUnavailableWithACameraSendsFrozenAndListsNothing) {
    zmq::context_t context;
    zmq::socket_t pull(context, zmq::socket_type::pull);
    pull.set(zmq::sockopt::linger, 0);
    pull.set(zmq::sockopt::rcvtimeo, 5000);
    pull.bind("tcp://127.0.0.1:*");
    const std::string endpoint = pull.get(zmq::sockopt::last_endpoint);
    const int port = std::stoi(endpoint.substr(endpoint.rfind(':') + 1));
    testsupport::writeServiceFile(port);

    Installed m(machineFrom(camera(30, 42000140, 4) +
                            ", {\"type\": \"argus\", \"faults\": [\"provider_unavailable\"]}"));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(ArgusCamera::getGMSLDevices(false).empty());
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(1000));  // the 1 s wait after the message

    zmq::message_t message;
    ASSERT_TRUE(pull.recv(message, zmq::recv_flags::none).has_value());
    EXPECT_EQ(message.to_string(), "KOVQ#0#0#FROZEN");
    EXPECT_EQ(m.argus().createProviderCalls(), 1);
    EXPECT_FALSE(m.argus().providerCreated());
    // The holder was dropped: the next discovery asks the service again.
    m.argus().setProviderUnavailable(false);
    EXPECT_EQ(ArgusCamera::getGMSLDevices(false).size(), 1u);
    EXPECT_EQ(m.argus().createProviderCalls(), 2);
}

TEST_F(DiscoveryTest, ProviderUnavailableWithoutCameraSendsNothing) {
    zmq::context_t context;
    zmq::socket_t pull(context, zmq::socket_type::pull);
    pull.set(zmq::sockopt::linger, 0);
    pull.set(zmq::sockopt::rcvtimeo, 300);
    pull.bind("tcp://127.0.0.1:*");
    const std::string endpoint = pull.get(zmq::sockopt::last_endpoint);
    testsupport::writeServiceFile(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));

    Installed m(machineFrom("{\"type\": \"argus\", \"faults\": [\"provider_unavailable\"]}"));
    EXPECT_TRUE(ArgusCamera::getGMSLDevices(false).empty());
    zmq::message_t message;
    EXPECT_FALSE(pull.recv(message, zmq::recv_flags::none).has_value());
    EXPECT_EQ(m.argus().createProviderCalls(), 0);
}

// ---------------------------------------------------------------------------
// EEPROMs that answer garbage

TEST_F(DiscoveryTest, GarbageEepromAloneIsNotListed) {
    auto machine = machineFrom(
        "{\"type\": \"i2c_bus\", \"bus\": 30, \"chips\": [{\"type\": \"eeprom\", "
        "\"address\": \"0x55\", \"contents\": \"de ad be ef 99 77 12\"}]}");
    Installed m(machine);
    EXPECT_TRUE(ArgusCamera::getGMSLDevices(false).empty());
    EXPECT_TRUE(ArgusCamera::getGMSLDevicesExt(false).empty());
    EXPECT_EQ(m.argus().createProviderCalls(), 0);
}

TEST_F(DiscoveryTest, GarbageEepromBesideACameraIsSkippedForItsSerial) {
    Installed m(machineFrom(camera(30, 42000150, 4) +
                            ", {\"type\": \"i2c_bus\", \"bus\": 31, \"chips\": [{\"type\": \"eeprom\", "
                            "\"address\": \"0x55\", \"contents\": \"de ad be ef 11 04 12\"}]}"));
    testing::internal::CaptureStdout();
    const auto list = ArgusCamera::getGMSLDevices(true);
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_STREQ(list[0].path.c_str(), "/dev/i2c-30");
    EXPECT_NE(out.find("Invalid Device  SN : 4022250974 for i2C-31"), std::string::npos) << out;
}

TEST_F(DiscoveryTest, EepromFailingMidReadAloneIsNotListed) {
    auto machine = machineFrom("{\"type\": \"i2c_bus\", \"bus\": 30}");
    machine->i2cBus(30)->attach(0x55, std::make_shared<FailingMidRead>(42000160));
    Installed m(machine);
    EXPECT_TRUE(ArgusCamera::getGMSLDevices(false).empty());
    EXPECT_TRUE(ArgusCamera::getGMSLDevicesExt(false).empty());
    EXPECT_EQ(m.argus().createProviderCalls(), 0);
}

TEST_F(DiscoveryTest, EepromFailingMidReadBesideACameraIsAnUnknownUnavailableRecord) {
    auto machine = machineFrom(camera(30, 42000170, 4));
    machine->i2cBus(31)->attach(0x55, std::make_shared<FailingMidRead>(42000171));
    Installed m(machine);
    const auto list = ArgusCamera::getGMSLDevices(false);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].camera_state, bh::DEVICE_AVAILABLE);
    EXPECT_EQ(list[1].id, 1);
    EXPECT_STREQ(list[1].path.c_str(), "/dev/i2c-31");
    EXPECT_EQ(list[1].camera_state, bh::DEVICE_NOT_AVAILABLE);
    EXPECT_EQ(list[1].camera_model, bh::KOV_MODEL_UNKNOWN);
    EXPECT_EQ(list[1].serial_number, 42000171u);
    EXPECT_EQ(list[1].input_type, bh::GMSL_INPUT);
    EXPECT_EQ(ArgusCamera::getGMSLDevicesExt(false), (Pairs{{bh::BH_DEVICE_KOV_QG_PICO, "/dev/i2c-30"}}));
}
