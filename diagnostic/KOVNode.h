#pragma once

#include <QJsonObject>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "bh_input/grabber/GrabberWrapper.h"
#include "bh_input/grabber/defines.h"
#include "diagnostic/DiagnosticNode.h"

// "Camera Test": decides whether a camera can be tested at all, opens it once
// to read its identity, opens its sensors MCU, then opens the camera at each
// mode it should support and measures the link at one of them (the grabbing
// test, GrabbingTest.cpp). Verdicts for the "Devices" node go through the
// camera_test_* values of DiagnosticRunner.h.
class KOVNode : public DiagnosticNode {
public:
    KOVNode();

    void runDiagnostic(QJsonObject& root) override;

    // ---- identification (KOVNode.cpp)
    // Reads the device and camera lists: "InternalDevicesCount", "KOVCount",
    // and the flags that stop the test (no camera, no video node, several
    // cameras, a camera held by another program).
    void checkUSB_ID(QJsonObject& root);
    // Opens the camera once: the "camera" object. Its messages are filed in
    // that object.
    QJsonObject findKOVDevice();
    // Opens the first sensors MCU on the bus: the "sensors" object (empty
    // without an MCU).
    QJsonObject findMCUDevice();

    // ---- grabbing test (GrabbingTest.cpp)
    // Runs every mode of the camera's list and stores "resolutions" in root;
    // the progress climbs from `start` to `end`.
    void CheckGrabbingStatus(QJsonObject& root, float start, float end);
    // Opens the camera at one mode and, when it is the bandwidth mode,
    // measures frames and tearing; returns the mode's object.
    QJsonObject CheckSingleResolution(bh::RESOLUTION resolution, int fps);

    int32_t serial = -1;
    int32_t firmware = 0;
    std::string model_name;
    bool tearing_seen = false;
    bool no_video_node = false;
    bool camera_busy = false;
    bool sdk_issue = false;
    bool multiple_cameras = false;
    // From the camera list; a fresh node assumes a USB camera.
    bh::INPUT_TYPE input_type = bh::USB_INPUT;
    // The camera open for a mode, while that mode is tested.
    std::unique_ptr<bh::LiveCameraGrabber> grabber;

    // Pauses, members so that unit tests can shorten them; the program keeps
    // these values. All of them are slept on platform::clock().
    // After each progress step, so that the polling watchers show it.
    std::chrono::milliseconds stepPause{200};
    // Between two reads of the list while a camera may still be closing.
    std::chrono::milliseconds closingCameraPause{10};
    // After every setUp try of a mode.
    std::chrono::milliseconds setUpPause{200};
    // Length of the bandwidth run in seconds. The expected frame count
    // follows it. Only unit tests about the logic shorten it.
    double bandwidthRunSeconds = 8.34;

private:
    void pause(std::chrono::milliseconds duration);
    void setProgress(float value, bool thenPause = true);
    // Re-reads the list while its first camera is still held (it may be
    // closing after the enumeration). True when it became free.
    bool waitForClosingCamera();
    void setCameraModelName(bh::MODEL model);
    void reportFirmware(QJsonObject& camera);
};
