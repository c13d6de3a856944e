// "Recover MCU Serial Number" on simulated cameras: what each machine gets as
// messages, and what ends up in the simulated MCU's EEPROM.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "diagnostic/RecoverMcuSerialNode.h"
#include "platform/Platform.h"
#include "sim/Machine.h"
#include "sim/Simulator.h"
#include "sim/mcu/VirtualMcu.h"
#include "sim/uvc/CameraFirmware.h"
#include "sim/uvc/UvcCamera.h"
#include "support/SiteConfig.h"

namespace {

const std::string kMail = site::SUPPORT_MAIL;

// A copy of a field of the packed EEPROM image (the test macros take their
// arguments by reference, which a packed field cannot give).
template <class T>
T val(T value) {
    return value;
}

std::string scenarioPath(const std::string& name) {
    const std::string here = std::string(KOV_SOURCE_DIR) + "/tests/unit/camera_checks/scenarios/";
    const std::string shipped = std::string(KOV_SOURCE_DIR) + "/sim/scenarios/";
    return (name.rfind("shipped:", 0) == 0 ? shipped + name.substr(8) : here + name) + ".json";
}

// One simulated machine for one test, and a node with short pauses.
class RecoverFixture : public testing::Test {
protected:
    void install(const std::string& scenario) {
        machine = sim::loadScenario(scenarioPath(scenario));
        backend = std::make_unique<platform::ScopedBackend>(sim::makeBackend(machine));
        node.stepPause = std::chrono::milliseconds(1);
        node.retryPause = std::chrono::milliseconds(1);
    }
    std::shared_ptr<sim::VirtualMcu> mcu() {
        for (const auto& device : machine->hidDevices())
            if (auto m = std::dynamic_pointer_cast<sim::VirtualMcu>(device))
                return m;
        return nullptr;
    }
    std::shared_ptr<sim::UvcCamera> camera() {
        return std::dynamic_pointer_cast<sim::UvcCamera>(machine->videoNode(0));
    }
    void run() { node.runDiagnostic(result); }
    // Runs the node while a watcher notes each new progress value.
    std::vector<float> runWatched() {
        std::atomic<bool> done{false};
        std::vector<float> seen;
        std::thread watcher([&] {
            while (!done.load()) {
                const float p = node.getPercent();
                if (seen.empty() || seen.back() != p)
                    seen.push_back(p);
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        run();
        done = true;
        watcher.join();
        if (seen.empty() || seen.back() != node.getPercent())
            seen.push_back(node.getPercent());
        return seen;
    }
    // Every value seen is one of `expected`, in its order (a busy machine may
    // hide a value, never reorder them).
    static void expectInOrder(const std::vector<float>& seen, const std::vector<float>& expected) {
        size_t at = 0;
        for (float p : seen) {
            while (at < expected.size() && expected[at] != p)
                ++at;
            ASSERT_LT(at, expected.size()) << "unexpected or out-of-order progress " << p;
        }
    }
    QStringList texts(const char* key) const {
        QStringList out;
        for (const QJsonValue& v : result.value(key).toArray())
            out << v.toString();
        return out;
    }
    // The camera is closed and its LED off, whatever the outcome.
    void expectCameraClosed() {
        auto cam = camera();
        ASSERT_NE(cam, nullptr);
        EXPECT_FALSE(cam->streaming());
        if (cam->firmware()) {
            EXPECT_EQ(cam->firmware()->gpioValue(sim::CameraFirmware::kLedGpio), 0);
        }
    }

    std::shared_ptr<sim::Machine> machine;
    std::unique_ptr<platform::ScopedBackend> backend;
    RecoverMcuSerialNode node;
    QJsonObject result;
};

}  // namespace

TEST_F(RecoverFixture, NameIsTheReportKey) {
    EXPECT_EQ(node.name, "Recover MCU Serial Number");
    EXPECT_EQ(node.getPercent(), 0.f);
}

TEST_F(RecoverFixture, NoCameraIsCameraNotFound) {
    install("shipped:no_camera");
    run();
    EXPECT_EQ(texts("error"),
              QStringList{"<b>Camera not found.</b><br/> Please connect the camera to be recovered."});
    EXPECT_EQ(node.messages.size(), 1u);
    EXPECT_EQ(node.getPercent(), 100.f);
}

TEST_F(RecoverFixture, KovWithoutMcuIsMcuNotFoundAndNoMcuIsTouched) {
    install("kov_with_stray_mcu");
    auto stray = mcu();
    ASSERT_NE(stray, nullptr);
    const eepromMemoryStrc before = stray->eeprom();
    run();
    EXPECT_EQ(
        texts("error"),
        QStringList{"<b>MCU not found.</b><br/> You connected a KOV camera which is not provided with MCU "
                    "and inertial sensors."});
    EXPECT_EQ(node.messages.size(), 1u);
    EXPECT_EQ(node.getPercent(), 100.f);
    const sim::VirtualMcu::Counters c = stray->counters();
    EXPECT_EQ(c.opens, 0);
    EXPECT_EQ(c.usbClaims, 0);
    EXPECT_EQ(c.usbResets, 0);
    EXPECT_EQ(c.featureWrites, 0);
    EXPECT_EQ(c.featureReads, 0);
    EXPECT_EQ(val(stray->eeprom().serial.serial_prefix), val(before.serial.serial_prefix));
    EXPECT_EQ(val(stray->eeprom().serial.serial_body), val(before.serial.serial_body));
    expectCameraClosed();
}

TEST_F(RecoverFixture, ErasedFlashSerialIsCameraFirmwareNotValid) {
    install("kov_pico_flash_erased");
    run();
    EXPECT_EQ(texts("error"),
              QStringList{QString::fromStdString(
                  "<b>Camera FW not valid.</b><br/> Please contact Brennhaven support writing an "
                  "email to " +
                  kMail + "  to get assistance.")});
    EXPECT_EQ(mcu()->counters().opens, 0);
    EXPECT_EQ(node.getPercent(), 100.f);
    expectCameraClosed();
}

TEST_F(RecoverFixture, McuHoldingTheRightSerialGetsTheInfoLineAndIsNotWritten) {
    install("shipped:kov_pico_usb3");  // flash and MCU both hold 23456789
    auto m = mcu();
    ASSERT_NE(m, nullptr);
    const eepromMemoryStrc before = m->eeprom();
    run();
    EXPECT_EQ(texts("info"),
              QStringList{"<b>MCU FW recovery not required.</b><br/> The connected camera correctly "
                          "replyed to check up tests."});
    EXPECT_EQ(node.messages.size(), 1u);
    EXPECT_FALSE(result.contains("error"));
    const eepromMemoryStrc after = m->eeprom();
    EXPECT_EQ(val(after.serial.serial_prefix), 2);
    EXPECT_EQ(val(after.serial.serial_body), 3456789);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(val(after.bias.gyro_bias[i]), val(before.bias.gyro_bias[i]));
        EXPECT_EQ(val(after.bias.acc_bias[i]), val(before.bias.acc_bias[i]));
    }
    EXPECT_EQ(node.getPercent(), 100.f);
    expectCameraClosed();
}

TEST_F(RecoverFixture, LostSerialIsRepairedOnTheFirstOpenWithModelDigitRemoved) {
    // Camera serial 21234567 on a KOV Tera (model 2): the EEPROM gets prefix 2
    // and body 1234567; firmware 0x0305 also gets zero biases.
    install("kov_tera_mcu_lost_serial");
    auto m = mcu();
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(val(m->eeprom().serial.serial_prefix), 99);
    ASSERT_NE(val(m->eeprom().bias.gyro_bias[0]), 0.f);
    node.stepPause = std::chrono::milliseconds(10);
    const std::vector<float> seen = runWatched();
    expectInOrder(seen, {0, 15, 30, 50, 60, 61, 70, 75, 80, 90, 100});
    EXPECT_TRUE(node.messages.empty()) << node.messages.front().text;
    EXPECT_TRUE(result.isEmpty());
    const eepromMemoryStrc after = m->eeprom();
    EXPECT_EQ(val(after.serial.serial_prefix), 2);
    EXPECT_EQ(val(after.serial.serial_body), 1234567);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(val(after.bias.gyro_bias[i]), 0.f);
        EXPECT_EQ(val(after.bias.acc_bias[i]), 0.f);
    }
    // One open of the MCU: the forced open accepts the lost serial at once.
    EXPECT_EQ(m->counters().opens, 1);
    EXPECT_EQ(node.getPercent(), 100.f);
    expectCameraClosed();
}

TEST_F(RecoverFixture, Firmware515KeepsItsBiasRecord) {
    install("kov_tera_mcu_lost_serial_fw515");
    auto m = mcu();
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(m->config().firmware, 515);
    const eepromMemoryStrc before = m->eeprom();
    ASSERT_NE(val(before.bias.gyro_bias[0]), 0.f);
    run();
    EXPECT_TRUE(node.messages.empty()) << node.messages.front().text;
    const eepromMemoryStrc after = m->eeprom();
    EXPECT_EQ(val(after.serial.serial_prefix), 2);
    EXPECT_EQ(val(after.serial.serial_body), 1234567);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(val(after.bias.gyro_bias[i]), val(before.bias.gyro_bias[i]));
        EXPECT_EQ(val(after.bias.acc_bias[i]), val(before.bias.acc_bias[i]));
    }
    expectCameraClosed();
}

TEST_F(RecoverFixture, AnMcuThatNeverOpensIsTriedTenTimesAndReportsItsCode) {
    install("kov_pico_without_mcu");
    node.stepPause = std::chrono::milliseconds(2);
    node.retryPause = std::chrono::milliseconds(40);
    const auto start = std::chrono::steady_clock::now();
    const std::vector<float> seen = runWatched();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    // Tries 1 to 10 show 61 to 70; none goes past the tenth, and the steps
    // after a successful open never come.
    expectInOrder(seen, {0, 15, 30, 50, 60, 61, 62, 63, 64, 65, 66, 67, 68, 69, 70, 100});
    EXPECT_NE(std::find(seen.begin(), seen.end(), 70.f), seen.end());
    // HID_OPEN_FAILED is 3.
    EXPECT_EQ(
        texts("error"),
        QStringList{QString::fromStdString("<b>MCU not opened.</b><br/> Please contact Brennhaven support "
                                           "writing an email to " +
                                           kMail + "  to get assistance. <br/>Error code: 3")});
    // Ten tries, each followed by both pauses: at least 10 x 42 ms.
    EXPECT_GE(elapsed, std::chrono::milliseconds(420));
    EXPECT_EQ(node.getPercent(), 100.f);
    expectCameraClosed();
}

TEST_F(RecoverFixture, RecoverMcuRefusesModelsWithoutAnMcu) {
    install("shipped:kov_pico_usb3");
    auto m = mcu();
    for (bh::MODEL model : {bh::KOV, bh::KOV_Q, bh::KOV_QS_A, bh::KOV_MODEL_UNKNOWN}) {
        result = QJsonObject();
        EXPECT_FALSE(node.recoverMCU(result, model, 23456789u)) << model;
        EXPECT_EQ(texts("error"),
                  QStringList{QString::fromStdString(
                      "<b>MCU FW not valid.</b><br/> Please contact Brennhaven support writing an "
                      "email to " +
                      kMail + "  to get assistance.")});
    }
    EXPECT_EQ(m->counters().opens, 0);
}

TEST_F(RecoverFixture, RecoverMcuAnswersFalseWhenNothingWasWritten) {
    install("shipped:kov_pico_usb3");
    EXPECT_FALSE(node.recoverMCU(result, bh::KOV_P, 23456789u));
    EXPECT_EQ(texts("info").size(), 1);
}

TEST_F(RecoverFixture, RecoverMcuAnswersTrueAfterARepair) {
    install("kov_tera_mcu_lost_serial");
    EXPECT_TRUE(node.recoverMCU(result, bh::KOVT, 21234567u));
    EXPECT_TRUE(result.isEmpty());
    EXPECT_EQ(val(mcu()->eeprom().serial.serial_body), 1234567);
    // A second pass finds the number in place.
    result = QJsonObject();
    EXPECT_FALSE(node.recoverMCU(result, bh::KOVT, 21234567u));
    EXPECT_EQ(texts("info").size(), 1);
    EXPECT_EQ(val(mcu()->eeprom().serial.serial_body), 1234567);
}
