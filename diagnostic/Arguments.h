#pragma once

#include <string>
#include <vector>

#include "diagnostic/AIParameters.h"

// What the command line asks for. Every entry of argv, argv[0] included, is
// searched for each option as a case-sensitive substring, so one entry may set
// several options and unknown entries are ignored.
struct LaunchOptions {
    AIParameters ai;
    bool autoStart = false;         // "-d": start the diagnosis at once in the window
    bool forceCommandLine = false;  // an option that only the command-line mode serves
    bool skipJson = false;          // no report file and no banner
    bool help = false;              // "-h"
    bool arCheck = false;           // "-ar"
    bool recoverMcu = false;        // "-r"
    bool kernelLog = false;         // "-dmesg"
    // Lines to log once the logger is up ("nrlo", "nrlo_plus").
    std::vector<std::string> logLines;
    // Set when the line cannot be carried out ("-ais" with nothing after it).
    std::string error;
};

LaunchOptions parseArguments(int argc, char** argv);

// The lines printed by "-h", without their line ends.
const std::vector<std::string>& usageLines();
