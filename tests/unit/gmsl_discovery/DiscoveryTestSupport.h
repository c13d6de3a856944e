#pragma once

// Shared pieces of the GMSL discovery tests: a scenario installed with a Sys
// that counts opens per path, a KOV_SYSROOT tree for the lock file and the
// daemon's unit file, and in-test EEPROM chips.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "bh_input/grabber/gmsl/ArgusProvider.h"
#include "platform/Platform.h"
#include "platform/Sys.h"
#include "sim/Builtins.h"
#include "sim/Simulator.h"
#include "sim/argus/SimArgus.h"
#include "tests/unit/common/DeviceRecordExpect.h"
#include "tests/unit/common/ForwardingSys.h"
#include "tests/unit/grabber/SimScenario.h"

namespace testsupport {

// A Sys that forwards to another and counts the opens of each path.
class RecordingSys : public ForwardingSys {
public:
    using ForwardingSys::ForwardingSys;
    int opens(const std::string& path) const {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = opens_.find(path);
        return it == opens_.end() ? 0 : it->second;
    }
    int open(const char* path, int flags, mode_t mode) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ++opens_[path];
        }
        return ForwardingSys::open(path, flags, mode);
    }

private:
    mutable std::mutex mutex_;
    std::map<std::string, int> opens_;
};

inline std::shared_ptr<sim::Machine> machineFrom(const std::string& devices) {
    return sim::parseScenario("{\"devices\": [" + devices + "]}", "gmsl-discovery-test.json");
}

// A machine installed for one test, its Sys recording the opens.
class Installed {
public:
    explicit Installed(std::shared_ptr<sim::Machine> machine) : machine_(std::move(machine)) {
        platform::Backend backend = sim::makeBackend(machine_);
        sys_ = std::make_shared<RecordingSys>(backend.sys);
        backend.sys = sys_;
        scoped_.emplace(backend);
    }
    explicit Installed(const std::string& shippedName)
        : Installed(sim::loadScenario(scenarioPath(shippedName))) {}
    sim::Machine& machine() { return *machine_; }
    RecordingSys& sys() { return *sys_; }
    // The machine's simulated camera service (made when the scenario has none).
    sim::SimArgus& argus() { return *sim::SimArgus::of(*machine_); }

private:
    std::shared_ptr<sim::Machine> machine_;
    std::shared_ptr<RecordingSys> sys_;
    std::optional<platform::ScopedBackend> scoped_;
};

// The KOV_SYSROOT of this test process: a temporary tree holding
// /usr/local/kov (the discovery's lock file) and /etc/systemd/system. A child
// process started by a test keeps its parent's tree, so both share the lock.
inline const std::string& sysroot() {
    static const std::string root = [] {
        const char* inherited = std::getenv("KOV_SYSROOT");
        if (std::getenv("KOV_GMSL_DISCOVERY_CHILD") != nullptr && inherited != nullptr && *inherited != '\0')
            return std::string(inherited);
        char pattern[] = "/tmp/kov_gmsl_discovery_XXXXXX";
        const char* made = mkdtemp(pattern);
        EXPECT_NE(made, nullptr);
        const std::string dir = made != nullptr ? made : "/tmp";
        std::filesystem::create_directories(dir + "/usr/local/kov");
        std::filesystem::create_directories(dir + "/etc/systemd/system");
        setenv("KOV_SYSROOT", dir.c_str(), 1);
        struct Remover {
            std::string dir;
            ~Remover() {
                std::error_code ignored;
                std::filesystem::remove_all(dir, ignored);
            }
        };
        static Remover remover{dir};
        return dir;
    }();
    return root;
}

inline void writeServiceFile(int port) {
    std::ofstream out(sysroot() + "/etc/systemd/system/kov_q_daemon.service");
    out << "[Unit]\nDescription=GMSL daemon\n\n[Service]\nPort=" << port << "\nPortSub=" << port + 1 << "\n";
}

// Each test starts and ends without a provider of an earlier machine.
class DiscoveryTest : public ::testing::Test {
protected:
    void SetUp() override {
        sysroot();
        ArgusProvider::DeleteInstance();
    }
    void TearDown() override { ArgusProvider::DeleteInstance(); }
};

}  // namespace testsupport
