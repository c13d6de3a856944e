#pragma once

#include <QString>

#include <string>

// The user settings kept between runs.
struct archConf {
    int height = 0;         // image height
    int fps = 30;           // frames per second
    int quality = 1;        // depth quality
    int depth_max = 20000;  // greatest depth
    int depth_min = 0;      // smallest depth
    int sdk_v = 0;          // version number of the SDK that wrote the file
    bool fw_check = false;  // the firmware check was answered
    std::string save_dir;   // directory to save to
};

// Reads and writes archConf through QSettings, organisation "BrennHaven" and
// the application name given to open (an INI file under the user's
// configuration directory on Linux). Each call uses a QSettings of its own;
// nothing stays open between calls.
class ConfFileManager {
public:
    ConfFileManager();
    ~ConfFileManager();
    ConfFileManager(const ConfFileManager&) = delete;
    ConfFileManager& operator=(const ConfFileManager&) = delete;

    // Remembers the application name and reads every key (defaults for the
    // missing ones).
    void open(std::string appName);
    // Writes "input/height", "fps", "quality", "sdk_v", "depth_max",
    // "depth_min", then "dir/save".
    void saveConf(int height, int fps, int quality, int depthMax, std::string saveDir, int sdkVersion,
                  int depthMin);
    // Writes "input/fw_check".
    void saveConfFw(bool answered);

    // The default of "dir/save": the first documents location, plus "/KOV".
    static std::string defaultSaveDir();

    archConf conf;
    std::string appName;

private:
    struct Keys;
    Keys* keys_;
};
