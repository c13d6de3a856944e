#include "bh_input/mcu/IMU/SIDRecording.h"

#include <cerrno>
#include <cstring>

bool readSIDFile(const std::string& path, sidFileHeader& header, std::vector<sidRecord>& records,
                 std::string& error) {
    records.clear();
    error.clear();
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        error = "cannot open recording '" + path + "': " + std::strerror(errno);
        return false;
    }
    std::memset(&header, 0, sizeof(header));
    if (std::fread(&header, 1, sizeof(header), f) != sizeof(header)) {
        std::fclose(f);
        error = "recording '" + path + "' is shorter than its 712-byte header";
        return false;
    }
    if (header.version != SID_VERSION) {
        std::fclose(f);
        error = "recording '" + path + "' has version " + std::to_string(header.version) + ", expected 1";
        return false;
    }
    sidRecord rec;
    size_t got = 0;
    while ((got = std::fread(&rec, 1, sizeof(rec), f)) == sizeof(rec)) {
        records.push_back(rec);
    }
    if (got != 0) {
        error = "recording '" + path + "' ends with a partial record of " + std::to_string(got) + " bytes";
    }
    std::fclose(f);
    return true;
}
