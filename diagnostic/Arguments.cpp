#include "diagnostic/Arguments.h"

#include <cstdlib>
#include <cstring>

namespace {

bool has(const char* entry, const char* option) {
    return std::strstr(entry, option) != nullptr;
}

bool allDigits(const char* text) {
    if (*text == '\0')
        return false;
    for (const char* c = text; *c != '\0'; ++c)
        if (*c < '0' || *c > '9')
            return false;
    return true;
}

// "-v N": 5 to 8 map to 671 to 674, any other number to 671.
int32_t verbosityFor(const char* digits) {
    if (std::strlen(digits) > 6)
        return 671;
    const long n = std::strtol(digits, nullptr, 10);
    return (n >= 5 && n <= 8) ? static_cast<int32_t>(n + 666) : 671;
}

}  // namespace

LaunchOptions parseArguments(int argc, char** argv) {
    LaunchOptions o;
    for (int i = 0; i < argc; ++i) {
        const char* a = argv[i];
        if (a == nullptr)
            continue;
        if (has(a, "-d"))
            o.autoStart = true;
        if (has(a, "-aid")) {
            o.ai.download = true;
            o.forceCommandLine = o.skipJson = true;
        }
        if (has(a, "-aio")) {
            o.ai.optimize = true;
            o.forceCommandLine = o.skipJson = true;
        }
        if (has(a, "-aic")) {
            o.ai.clear = true;
            o.forceCommandLine = o.skipJson = true;
        }
        if (has(a, "-ais")) {
            o.ai.specific = true;
            o.forceCommandLine = o.skipJson = true;
            if (i + 1 < argc && argv[i + 1] != nullptr)
                o.ai.model = static_cast<int32_t>(std::strtol(argv[i + 1], nullptr, 10));
            else if (o.error.empty())
                o.error = "the option -ais needs a model number after it (-ais X)";
        }
        if (has(a, "nrlo") && !has(a, "nrlo_plus")) {
            o.logLines.push_back("[KOV_Diagnostic] Optimizing NEURAL depth mode for target device");
            o.ai.specific = true;
            o.ai.optimize = false;
            o.ai.model = 12;
            o.forceCommandLine = o.skipJson = true;
        }
        if (has(a, "nrlo_plus")) {
            o.logLines.push_back("[KOV_Diagnostic] Optimizing NEURAL PLUS depth mode for target device");
            o.ai.specific = true;
            o.ai.optimize = false;
            o.ai.model = 13;
            o.forceCommandLine = o.skipJson = true;
        }
        if (has(a, "-c"))
            o.forceCommandLine = true;
        if (has(a, "-s"))
            o.skipJson = true;
        if (has(a, "-h"))
            o.help = true;
        if (has(a, "-ar"))
            o.arCheck = true;
        if (has(a, "-r")) {
            o.recoverMcu = true;
            o.forceCommandLine = o.skipJson = true;
        }
        if (has(a, "-dmesg")) {
            o.kernelLog = true;
            o.forceCommandLine = o.skipJson = true;
        }
        if (has(a, "-v")) {
            o.ai.verbosity = 671;
            if (i + 1 < argc && argv[i + 1] != nullptr && allDigits(argv[i + 1]))
                o.ai.verbosity = verbosityFor(argv[i + 1]);
        }
    }
    return o;
}

const std::vector<std::string>& usageLines() {
    static const std::vector<std::string> lines = {
        "Usage:",
        "    -d | Auto start the diagnostic (only for GUI mode)",
        "    -c | Start the application in command line (Useful when no GUI is available)",
        "    -aid | Download all models for the object detection module",
        "    -aio | Optimize (and download if needed) all models for the object detection module",
        "    -aic | Clear all models for the object detection module",
        "    -ais X | Download and Optimize the associated bh::DETECTION_MODEL (int)",
        "    -nrlo | Download and Optimize the NEURAL depth mode",
        "    -nrlo_plus | Download and Optimize the NEURAL PLUS depth mode",
        "    -r | Recover an MCU module with not valid serial number",
        "    -dmesg | Logs kernel/driver dmesg",
        "    -h | Display this help",
    };
    return lines;
}
