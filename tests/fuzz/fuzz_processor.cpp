// The processor check's readers of system files: the L4T release file
// (through getL4TVersion, from KOV_SYSROOT) and its first line condensed to a
// version, the "model name" lines of /proc/cpuinfo, and the distribution text
// of /etc/issue. The input is the file, used for each of them.
#include <QJsonObject>

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "FuzzSupport.h"
#include "diagnostic/ProcessorNode.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::scratch();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    fuzz::writeFile(fuzz::sysroot("/etc/nv_tegra_release"), text);
    QJsonObject result;
    const std::string version = getL4TVersion(result);
    if (!result.contains("L4T version") || version.size() > text.size())
        __builtin_trap();  // always reported; the first line only loses characters
    (void)condenseL4TRelease(text);

    // As getCPU walks /proc/cpuinfo: the first line naming the model.
    std::istringstream cpuinfo(text);
    std::string line;
    while (std::getline(cpuinfo, line)) {
        if (line.find("model name") != std::string::npos) {
            const std::string model = cpuModelFromLine(line);
            if (model.size() >= line.size())
                __builtin_trap();  // the key and its colon are always dropped
            break;
        }
    }
    (void)cpuModelFromLine(text);
    (void)osNameFromIssue(text);
    return 0;
}
