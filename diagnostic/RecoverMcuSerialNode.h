#pragma once

#include <QJsonObject>

#include <chrono>

#include "bh_input/grabber/defines.h"
#include "diagnostic/DiagnosticNode.h"

namespace bh {
class USBWrapperGrabber;
}

// "Recover MCU Serial Number": a repair, not a test. When the sensors MCU of a
// USB camera has lost its serial number, the true number is read from the
// camera's flash and written back into the MCU's EEPROM. Runs alone, on the
// command line ("-r"). Failures are error messages; success adds none.
class RecoverMcuSerialNode : public DiagnosticNode {
public:
    RecoverMcuSerialNode();

    void runDiagnostic(QJsonObject& result) override;

    // Opens the MCU of a camera of `model` (1, 2 or 3) and, unless it already
    // holds `serial`, writes the serial number (and zero biases) into its
    // EEPROM. True when a write was attempted and the MCU now holds `serial`,
    // or when the serial write itself failed; false otherwise.
    bool recoverMCU(QJsonObject& result, bh::MODEL model, unsigned int serial);

    // Pause after each progress step, so that the polling watchers show it.
    std::chrono::milliseconds stepPause{200};
    // Extra wait after each open attempt of the MCU, behind stepPause.
    std::chrono::milliseconds retryPause{300};

private:
    // Opens the camera and reads its model and serial number, with the
    // progress steps between; the text of the first failure, or null.
    const char* checkCamera(bh::USBWrapperGrabber& camera, bh::MODEL& model, unsigned int& serial);
    void pause(std::chrono::milliseconds length);
    void step(float percent);
};
